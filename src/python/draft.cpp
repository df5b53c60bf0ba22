#include "python/draft.h"

#include "python/errors.h"

namespace kestrix {

namespace {

inline bool same_number(double a, double b) {
  return a == b || (a != a && b != b);
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
  field = {key.ptr, nullptr, kind, false, number_count_, 0};
  return field;
}

Draft &Draft::set(Name key, py::object value) {
  Field &field = add(key, Kind::OBJECT);  // may raise, while `value` still owns the object
  field.object = value.release().ptr();
  return *this;
}

Draft &Draft::set(Name key, double value) {
  set_numbers(key, {&value, 1});
  fields_[field_count_ - 1].kind = Kind::NUMBER;
  return *this;
}

Draft &Draft::set_flag(Name key, bool value) {
  add(key, Kind::TRUTH).truth = value;
  return *this;
}

Draft &Draft::set_numbers(Name key, std::span<const double> values) {
  if (number_count_ + values.size() > numbers_.size()) fail("a record has too many numbers");
  add(key, Kind::NUMBERS).count = values.size();
  std::copy(values.begin(), values.end(), numbers_.begin() + static_cast<long>(number_count_));
  number_count_ += values.size();
  return *this;
}

void Draft::open(Name key) {
  open_ = field_count_;
  add(key, Kind::RECORD);
}

void Draft::close() {
  fields_[open_].count = field_count_ - open_ - 1;
}

bool Draft::same_value(const Field &field, py::handle value) const {
  switch (field.kind) {
    case Kind::OBJECT:
      return equal(field.object, value);
    case Kind::NUMBER:
      return same_number(numbers_[field.first], value.ptr());
    case Kind::TRUTH:
      return value.ptr() == (field.truth ? Py_True : Py_False);
    case Kind::NUMBERS:
      if (!PyList_CheckExact(value.ptr()) ||
          static_cast<size_t>(PyList_GET_SIZE(value.ptr())) != field.count) {
        return false;
      }
      return std::equal(numbers_.data() + field.first, numbers_.data() + field.first + field.count,
                        reinterpret_cast<PyListObject *>(value.ptr())->ob_item,
                        [](double a, PyObject *b) { return same_number(a, b); });
    case Kind::RECORD:
      break;
  }
  return false;
}

bool Draft::same_fields(size_t from, size_t to, py::handle record,
                        std::initializer_list<Name> optional) const {
  if (!PyDict_CheckExact(record.ptr())) return false;
  const auto passed_over = [&](PyObject *key) {
    return std::any_of(optional.begin(), optional.end(),
                       [&](const Name name) { return name.ptr == key; });
  };
  PyObject *key = nullptr;
  PyObject *value = nullptr;
  size_t i = from;
  for (Py_ssize_t at = 0; PyDict_Next(record.ptr(), &at, &key, &value);) {
    if (i == to || fields_[i].key != key) {
      if (passed_over(key)) continue;
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

bool Draft::same_as(py::handle record, std::initializer_list<Name> optional) const {
  return same_fields(0, field_count_, record, optional);
}

py::dict Draft::record_of(size_t from, size_t to) const {
  Record record;
  for (size_t i = from; i < to; ++i) {
    const Field &field = fields_[i];
    const Name key{field.key};
    switch (field.kind) {
      case Kind::OBJECT:
        record.set(key, py::handle(field.object));
        break;
      case Kind::NUMBER:
        record.set(key, numbers_[field.first]);
        break;
      case Kind::TRUTH:
        record.set(key, field.truth);
        break;
      case Kind::NUMBERS: {
        py::list numbers(field.count);
        for (size_t n = 0; n < field.count; ++n) {
          PyList_SET_ITEM(numbers.ptr(), static_cast<Py_ssize_t>(n),
                          to_py(numbers_[field.first + n]).release().ptr());
        }
        record.set(key, numbers);
        break;
      }
      case Kind::RECORD:
        record.set(key, record_of(i + 1, i + 1 + field.count));
        i += field.count;
        break;
    }
  }
  return record;
}

py::dict Draft::to_record() const {
  return record_of(0, field_count_);
}

}  // namespace kestrix
