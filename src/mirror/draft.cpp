#include "mirror/draft.h"

#include <cstring>

#include "link/rounding.h"
#include "python/errors.h"

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

Draft &Draft::set(Name key, Placement place) {
  placement_ = number_count_;
  rotation_ = std::move(place.rotation);
  return add_numbers(key, Kind::PLACEMENT, place.numbers,
                     std::array<std::uint8_t, PLACEMENT_SIZE>{});
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

const XfNumbers &Draft::xf() const {
  if (!xf_) xf_ = xf_numbers({numbers_.data() + placement_, PLACEMENT_SIZE}, rotation_);
  return *xf_;
}

/// The field as the record has it.
py::object Draft::value_of(const Field &field) const {
  switch (field.kind) {
    case Kind::TRUTH:
      return py::bool_(numbers_[field.first] != 0.0);
    case Kind::NUMBER:
      return to_py(rounded(field.first));
    case Kind::NUMBERS: {
      std::array<double, 64> room;
      const std::span<double> numbers(room.data(), field.count);
      std::copy_n(numbers_.data() + field.first, field.count, numbers.data());
      round_all(numbers, {decimals_.data() + field.first, field.count});
      return list_of_numbers(numbers);
    }
    case Kind::PLACEMENT:
      return list_of_numbers(xf());
    default:
      return py::reinterpret_borrow<py::object>(objects_[field.first]);
  }
}

bool Draft::same_value(const Field &field, py::handle value) const {
  const py::object own_value = value_of(field);
  if (field.kind == Kind::NUMBER) return same_number(real(own_value), value.ptr());
  if (field.kind != Kind::NUMBERS && field.kind != Kind::PLACEMENT) return equal(own_value, value);
  if (!PyList_CheckExact(value.ptr()) || py::len(own_value) != py::len(value)) return false;
  const py::list theirs = as_list(value);
  size_t i = 0;
  for (py::handle number : as_list(own_value)) {
    if (!same_number(real(number), py::object(theirs[i++]).ptr())) return false;
  }
  return true;
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

Draft::Change Draft::change_since(const Reading &before, std::span<const Name> optional) const {
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
  const auto same = [&](size_t from, size_t to) {
    return std::memcmp(numbers_.data() + from, &before.values_[from].number,
                       (to - from) * sizeof(double)) == 0;
  };
  const size_t behind = placement_ + PLACEMENT_SIZE;
  if (!same(0, placement_) || !same(behind, number_count_)) return Change::OTHER;
  return same(placement_, behind) ? Change::NONE : Change::MOVED;
}

void Draft::add_fields(Record &record, size_t from, size_t to) const {
  for (size_t i = from; i < to; ++i) {
    const Field &field = fields_[i];
    const Name key{field.key};
    if (field.kind != Kind::RECORD) {
      record.set(key, value_of(field));
      continue;
    }
    Record inner;
    add_fields(inner, i + 1, i + 1 + field.count);
    record.set(key, inner);
    i += field.count;
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

Reading::Reading(const Draft &draft, py::handle record)
    : shape_(shape_of(draft)),
      values_(new Value[draft.number_count_ + draft.object_count_]),
      number_count_(static_cast<std::uint32_t>(draft.number_count_)),
      object_count_(static_cast<std::uint32_t>(draft.object_count_)) {
  for (size_t i = 0; i < number_count_; ++i) values_[i].number = draft.numbers_[i];
  for (size_t i = 0; i < object_count_; ++i) {
    values_[number_count_ + i].object = Py_NewRef(draft.objects_[i]);
  }
  for (const Draft::Field &field : *shape_) {
    if (field.kind != Draft::Kind::OBJECT) continue;
    PyObject *&object = values_[number_count_ + field.first].object;
    const py::object held = find(record, field.key);
    if (held && PyUnicode_CheckExact(held.ptr()) && PyUnicode_CheckExact(object) &&
        equal(held, object)) {
      Py_SETREF(object, Py_NewRef(held.ptr()));
    }
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

}  // namespace kestrix
