#include "python/draft.h"

#include <cstring>

#include "python/errors.h"
#include "python/rounding.h"

namespace kestrix {

namespace {

inline bool same_number(double a, double b) {
  return a == b || (a != a && b != b);
}

bool contains(std::span<const Name> names, PyObject *key) {
  return std::any_of(names.begin(), names.end(), [&](const Name name) { return name.ptr == key; });
}

inline bool same_number(double a, PyObject *b) {
  if (PyFloat_CheckExact(b)) return same_number(a, PyFloat_AS_DOUBLE(b));
  return equal(to_py(a), b);
}

}  // namespace

Draft::~Draft() {
  for (size_t i = 0; i < field_count_; ++i) Py_XDECREF(fields_[i].object);
}

Draft::Field &Draft::add(Name key, Kind kind) {
  if (field_count_ == fields_.size()) fail("a record has too many fields");
  Field &field = fields_[field_count_++];
  field = {key.ptr, nullptr, kind, false, static_cast<std::uint8_t>(number_count_), 0};
  return field;
}

Draft &Draft::set(Name key, py::object value) {
  Field &field = add(key, Kind::OBJECT);  // may raise, while `value` still owns the object
  field.object = value.release().ptr();
  return *this;
}

Draft &Draft::set_flag(Name key, bool value) {
  add(key, Kind::TRUTH).truth = value;
  return *this;
}

Draft &Draft::set(Name key, double value, std::uint8_t decimals) {
  add_numbers(key, Kind::NUMBER, {&value, 1}, {&decimals, 1});
  return *this;
}

Draft &Draft::set(Name key, std::span<const double> values,
                  std::span<const std::uint8_t> decimals) {
  add_numbers(key, Kind::NUMBERS, values, decimals);
  return *this;
}

Draft::Field &Draft::add_numbers(Name key, Kind kind, std::span<const double> values,
                                 std::span<const std::uint8_t> decimals) {
  if (number_count_ + values.size() > numbers_.size()) fail("a record has too many numbers");
  Field &field = add(key, kind);
  field.count = static_cast<std::uint8_t>(values.size());
  std::copy(values.begin(), values.end(), numbers_.data() + number_count_);
  std::copy(decimals.begin(), decimals.end(), decimals_.data() + number_count_);
  number_count_ += values.size();
  return field;
}

double Draft::rounded(size_t number) const {
  return _r(numbers_[number], decimals_[number]);
}

void Draft::open(Name key) {
  open_ = field_count_;
  add(key, Kind::RECORD);
}

void Draft::close() {
  fields_[open_].count = static_cast<std::uint8_t>(field_count_ - open_ - 1);
}

bool Draft::same_value(const Field &field, py::handle value) const {
  switch (field.kind) {
    case Kind::OBJECT:
      return equal(field.object, value);
    case Kind::NUMBER:
      return same_number(rounded(field.first), value.ptr());
    case Kind::TRUTH:
      return value.ptr() == (field.truth ? Py_True : Py_False);
    case Kind::NUMBERS:
      if (!PyList_CheckExact(value.ptr()) ||
          static_cast<size_t>(PyList_GET_SIZE(value.ptr())) != field.count) {
        return false;
      }
      for (size_t i = 0; i < field.count; ++i) {
        PyObject *const old = PyList_GET_ITEM(value.ptr(), static_cast<Py_ssize_t>(i));
        if (!same_number(rounded(field.first + i), old)) return false;
      }
      return true;
    case Kind::RECORD:
      break;
  }
  return false;
}

bool Draft::same_fields(size_t from, size_t to, py::handle record,
                        std::span<const Name> optional) const {
  if (!PyDict_CheckExact(record.ptr())) return false;
  PyObject *key = nullptr;
  PyObject *value = nullptr;
  size_t i = from;
  for (Py_ssize_t at = 0; PyDict_Next(record.ptr(), &at, &key, &value);) {
    if (i == to || fields_[i].key != key) {
      if (contains(optional, key)) continue;
      return false;
    }
    const Field &field = fields_[i];
    const size_t inner = field.kind == Kind::RECORD ? field.count : 0;
    const bool same = field.kind == Kind::RECORD ? same_fields(i + 1, i + 1 + inner, value, {})
                                                 : same_value(field, value);
    if (!same) return false;
    i += 1 + inner;
  }
  return i == to;
}

bool Draft::same_as(py::handle record, std::span<const Name> optional) const {
  return same_fields(0, field_count_, record, optional);
}

bool Draft::same_as(const Reading &before, std::span<const Name> optional,
                    py::handle but_for) const {
  if (field_count_ > before.fields_.size() || number_count_ > before.numbers_.size()) return false;
  if (field_count_ < before.fields_.size() &&
      !contains(optional, before.fields_[field_count_].key)) {
    return false;
  }
  const auto same_numbers = [&](size_t first, size_t count) {
    return std::memcmp(numbers_.data() + first, before.numbers_.data() + first,
                       count * sizeof(double)) == 0;
  };
  const bool all_numbers = same_numbers(0, number_count_);
  for (size_t i = 0; i < field_count_; ++i) {
    const Field &now = fields_[i];
    const Field &old = before.fields_[i];
    if (now.key != old.key || now.kind != old.kind || now.truth != old.truth ||
        now.count != old.count) {
      return false;
    }
    if (now.object != old.object && !equal(now.object, old.object)) return false;
    if (!all_numbers && (now.kind == Kind::NUMBER || now.kind == Kind::NUMBERS) &&
        now.key != but_for.ptr() && !same_numbers(now.first, now.count)) {
      return false;
    }
  }
  return true;
}

py::list Draft::list_of_numbers(const Field &field) const {
  py::list numbers(field.count);
  for (size_t i = 0; i < field.count; ++i) {
    PyList_SET_ITEM(numbers.ptr(), static_cast<Py_ssize_t>(i),
                    to_py(rounded(field.first + i)).release().ptr());
  }
  return numbers;
}

py::list Draft::list_at(Name key) const {
  const Field *const end = fields_.data() + field_count_;
  const Field *const field = std::find_if(
      fields_.data(), end, [&](const Field &f) { return f.key == key.ptr; });
  if (field == end || field->kind != Kind::NUMBERS) fail("a record has no such list of numbers");
  return list_of_numbers(*field);
}

void Draft::add_fields(Record &record, size_t from, size_t to) const {
  for (size_t i = from; i < to; ++i) {
    const Field &field = fields_[i];
    const Name key{field.key};
    switch (field.kind) {
      case Kind::OBJECT:
        record.set(key, py::handle(field.object));
        break;
      case Kind::NUMBER:
        record.set(key, rounded(field.first));
        break;
      case Kind::TRUTH:
        record.set(key, field.truth);
        break;
      case Kind::NUMBERS:
        record.set(key, list_of_numbers(field));
        break;
      case Kind::RECORD: {
        Record inner;
        add_fields(inner, i + 1, i + 1 + field.count);
        record.set(key, inner);
        i += field.count;
        break;
      }
    }
  }
}

void Draft::add_to(Record &record) const {
  add_fields(record, 0, field_count_);
}

py::dict Draft::to_record() const {
  Record record;
  add_to(record);
  return record;
}

Reading::Reading(const Draft &draft)
    : fields_(draft.fields_.data(), draft.fields_.data() + draft.field_count_),
      numbers_(draft.numbers_.data(), draft.numbers_.data() + draft.number_count_) {
  for (const Draft::Field &field : fields_) Py_XINCREF(field.object);
}

Reading::~Reading() {
  for (const Draft::Field &field : fields_) Py_XDECREF(field.object);
}

Reading &Reading::operator=(Reading &&other) noexcept {
  std::swap(fields_, other.fields_);
  std::swap(numbers_, other.numbers_);
  return *this;
}

void Reading::update(const Draft &draft) {
  std::copy_n(draft.numbers_.data(), draft.number_count_, numbers_.data());
}

}  // namespace kestrix
