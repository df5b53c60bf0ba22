#include "mirror/draft.h"

#include <cstring>

#include "link/rounding.h"
#include "python/errors.h"
#include "python/prefetch.h"

namespace kestrix {

namespace {

bool contains(std::span<const Name> names, PyObject *key) {
  return std::any_of(names.begin(), names.end(), [&](const Name name) { return name.ptr == key; });
}

bool same_number(double a, PyObject *b) {
  if (!PyFloat_CheckExact(b)) return false;  // not of our making
  const double other = PyFloat_AS_DOUBLE(b);
  return a == other || (a != a && other != other);
}

std::span<PyObject *const> items_of(py::handle list) {
  return {reinterpret_cast<PyListObject *>(list.ptr())->ob_item,
          static_cast<size_t>(PyList_GET_SIZE(list.ptr()))};
}

}  // namespace

Draft::~Draft() {
  for (size_t i = 0; i < object_count_; ++i) Py_DECREF(objects_[i]);
}

Draft::Field &Draft::add(Name key, Kind kind, size_t first, size_t count) {
  if (field_count_ == fields_.size()) fail("a record has too many fields");
  Field &field = fields_[field_count_++];
  field = {key.ptr, kind, static_cast<std::uint8_t>(first), static_cast<std::uint8_t>(count)};
  return field;
}

Draft &Draft::set(Name key, py::object value) {
  if (object_count_ == objects_.size()) fail("a record has too many objects");
  add(key, Kind::OBJECT, object_count_, 1);
  objects_[object_count_++] = value.release().ptr();
  return *this;
}

Draft &Draft::add_numbers(Name key, Kind kind, std::span<const double> values,
                          std::span<const std::uint8_t> decimals) {
  if (number_count_ + values.size() > numbers_.size()) fail("a record has too many numbers");
  add(key, kind, number_count_, values.size());
  std::copy(values.begin(), values.end(), numbers_.data() + number_count_);
  std::copy(decimals.begin(), decimals.end(), decimals_.data() + number_count_);
  number_count_ += values.size();
  return *this;
}

Draft &Draft::set_flag(Name key, bool value) {
  const double number = value;
  constexpr std::uint8_t decimals = 0;
  return add_numbers(key, Kind::TRUTH, {&number, 1}, {&decimals, 1});
}

Draft &Draft::set(Name key, double value, std::uint8_t decimals) {
  return add_numbers(key, Kind::NUMBER, {&value, 1}, {&decimals, 1});
}

Draft &Draft::set(Name key, std::span<const double> values,
                  std::span<const std::uint8_t> decimals) {
  return add_numbers(key, Kind::NUMBERS, values, decimals);
}

void Draft::open(Name key) {
  open_ = field_count_;
  add(key, Kind::RECORD, 0, 0);
}

void Draft::close() {
  fields_[open_].count = static_cast<std::uint8_t>(field_count_ - open_ - 1);
}

double Draft::rounded(size_t number) const {
  return _r(numbers_[number], decimals_[number]);
}

bool Draft::same_value(const Field &field, py::handle value) const {
  Numbers room;
  switch (field.kind) {
    case Kind::OBJECT:
      return equal(objects_[field.first], value);
    case Kind::TRUTH:
      return value.ptr() == (numbers_[field.first] != 0.0 ? Py_True : Py_False);
    case Kind::NUMBER:
      return same_number(rounded(field.first), value.ptr());
    case Kind::NUMBERS:
      return PyList_CheckExact(value.ptr()) &&
             std::ranges::equal(rounded(field, room), items_of(value), same_number);
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

Draft::Change Draft::change_since(const Reading &before, std::span<const Name> optional,
                                  Name numbers) const {
  if (!before.shape_ || field_count_ > before.shape_->size()) return Change::OTHER;
  const Field *const fields = before.shape_->data();
  if (field_count_ < before.shape_->size() && !contains(optional, fields[field_count_].key)) {
    return Change::OTHER;
  }
  if (!std::equal(fields_.data(), fields_.data() + field_count_, fields)) return Change::OTHER;
  for (size_t i = 0; i < object_count_; ++i) {
    PyObject *const old = before.values_[before.number_count_ + i].object;
    if (objects_[i] != old && !equal(objects_[i], old)) return Change::OTHER;
  }
  const auto same_numbers = [&](size_t first, size_t count) {
    return std::memcmp(numbers_.data() + first, before.values_.get() + first,
                       count * sizeof(double)) == 0;
  };
  if (same_numbers(0, number_count_)) return Change::NONE;
  const bool elsewhere = std::any_of(fields, fields + field_count_, [&](const Field &field) {
    return field.key != numbers.ptr && field.kind != Kind::OBJECT && field.kind != Kind::RECORD &&
           !same_numbers(field.first, field.count);
  });
  return elsewhere ? Change::OTHER : Change::NUMBERS;
}

const Draft::Field &Draft::field_at(Name key) const {
  const Field *const end = fields_.data() + field_count_;
  const Field *const field =
      std::find_if(fields_.data(), end, [&](const Field &f) { return f.key == key.ptr; });
  if (field == end) fail("a record has no such field");
  return *field;
}

std::span<const double> Draft::rounded(const Field &field, Numbers &room) const {
  const std::span<double> numbers(room.data(), field.count);
  std::copy_n(numbers_.data() + field.first, field.count, numbers.data());
  round_all(numbers, {decimals_.data() + field.first, field.count});
  return numbers;
}

std::span<const double> Draft::rounded_at(Name key, Numbers &room) const {
  return rounded(field_at(key), room);
}

void Draft::add_fields(Record &record, size_t from, size_t to) const {
  Numbers room;
  for (size_t i = from; i < to; ++i) {
    const Field &field = fields_[i];
    const Name key{field.key};
    switch (field.kind) {
      case Kind::OBJECT:
        record.set(key, py::handle(objects_[field.first]));
        break;
      case Kind::TRUTH:
        record.set(key, numbers_[field.first] != 0.0);
        break;
      case Kind::NUMBER:
        record.set(key, rounded(field.first));
        break;
      case Kind::NUMBERS:
        record.set(key, list_of_numbers(rounded(field, room)));
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

const Reading::Shape *Reading::shape_of(const Draft &draft) {
  // There are as many as combinations of fields: few.
  static auto *const shapes = new std::vector<std::unique_ptr<const Shape>>;
  const Shape shape(draft.fields_.data(), draft.fields_.data() + draft.field_count_);
  for (const auto &known : *shapes) {
    if (*known == shape) return known.get();
  }
  return shapes->emplace_back(std::make_unique<const Shape>(shape)).get();
}

Reading::Reading(const Draft &draft)
    : shape_(shape_of(draft)),
      values_(new Value[draft.number_count_ + draft.object_count_]),
      number_count_(static_cast<std::uint32_t>(draft.number_count_)),
      object_count_(static_cast<std::uint32_t>(draft.object_count_)) {
  update(draft);
  for (size_t i = 0; i < object_count_; ++i) {
    values_[number_count_ + i].object = Py_NewRef(draft.objects_[i]);
  }
}

Reading::~Reading() {
  for (size_t i = 0; i < object_count_; ++i) Py_DECREF(values_[number_count_ + i].object);
}

Reading::Reading(Reading &&other) noexcept {
  *this = std::move(other);
}

Reading &Reading::operator=(Reading &&other) noexcept {
  std::swap(shape_, other.shape_);
  std::swap(values_, other.values_);
  std::swap(number_count_, other.number_count_);
  std::swap(object_count_, other.object_count_);
  return *this;
}

void Reading::announce() const {
  const auto *const begin = reinterpret_cast<const char *>(values_.get());
  const size_t size = (number_count_ + object_count_) * sizeof(Value);
  for (size_t at = 0; at < size; at += CACHE_LINE) prefetch(begin + at);
}

void Reading::update(const Draft &draft) {
  for (size_t i = 0; i < draft.number_count_; ++i) values_[i].number = draft.numbers_[i];
}

}  // namespace kestrix
