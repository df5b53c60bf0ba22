// A record as it is read: its values are still plain numbers, so that comparing it with the record
// of before, which is what a scan does nearly always, makes no Python objects.
#pragma once

#include <initializer_list>
#include <span>

#include "python/record.h"

namespace kestrix {

class Draft {
 public:
  Draft() = default;
  ~Draft();
  Draft(const Draft &) = delete;
  Draft &operator=(const Draft &) = delete;

  /// Fields, in the order in which the record has them. A key is set once.
  Draft &set(Name key, py::object value);
  Draft &set(Name key, double value);
  Draft &set_flag(Name key, bool value);
  /// A list of numbers.
  Draft &set_numbers(Name key, std::span<const double> values);
  /// What is set up to close() belongs to a record within this one, at `key`.
  void open(Name key);
  void close();

  /// Whether a record holds the same under the same keys in the same order; those of the keys
  /// `optional` that only the record has don't count. NaN is the same as NaN.
  bool same_as(py::handle record, std::initializer_list<Name> optional) const;

  /// The record itself.
  py::dict to_record() const;

 private:
  enum class Kind : unsigned char { OBJECT, NUMBER, TRUTH, NUMBERS, RECORD };
  struct Field {
    PyObject *key;     // an interned name's, borrowed
    PyObject *object;  // owned; of Kind::OBJECT
    Kind kind;
    bool truth;
    size_t first;  // of numbers_
    size_t count;  // of numbers, or of the fields behind this one that belong to it
  };

  Field &add(Name key, Kind kind);
  bool same_value(const Field &field, py::handle value) const;
  bool same_fields(size_t from, size_t to, py::handle record,
                   std::initializer_list<Name> optional) const;
  py::dict record_of(size_t from, size_t to) const;

  // Room for any record that is compared; a larger one raises.
  std::array<Field, 40> fields_;
  std::array<double, 64> numbers_;
  size_t field_count_ = 0;
  size_t number_count_ = 0;
  size_t open_ = 0;  // the field that open() began
};

}  // namespace kestrix
