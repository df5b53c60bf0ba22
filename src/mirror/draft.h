// A record as it is read: its values are still the editor's plain numbers, so that comparing it
// with what was read before, which is what a scan does nearly always, makes no Python objects.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "link/xf.h"
#include "python/record.h"

namespace kestrix {

class Reading;

class Draft {
 public:
  Draft() = default;
  ~Draft();
  Draft(const Draft &) = delete;
  Draft &operator=(const Draft &) = delete;

  /// Fields, in the order in which the record has them. A key is set once.
  Draft &set(Name key, py::object value);
  Draft &set_flag(Name key, bool value);
  /// A number that the record has rounded to so many decimals.
  Draft &set(Name key, double value, std::uint8_t decimals);
  /// A list of such numbers.
  Draft &set(Name key, std::span<const double> values, std::span<const std::uint8_t> decimals);
  /// A placement, of which the record has the xf. There is one in a draft.
  Draft &set(Name key, Placement place);
  /// What is set up to close() belongs to a record within this one, at `key`.
  void open(Name key);
  void close();

  /// Whether a record holds the same under the same keys in the same order; those of the keys
  /// `optional` that only the record has don't count. NaN is the same as NaN.
  bool same_as(py::handle record, std::span<const Name> optional) const;

  enum class Change { NONE, MOVED, OTHER };
  /// What has changed since that reading: nothing, only where the actor stands, or something else.
  /// The last field of the reading, if it is one of `optional`, may be missing here. Numbers count
  /// as changed even if they are the same once rounded.
  Change change_since(const Reading &before, std::span<const Name> optional) const;

  /// Sets the fields in a record, behind those that it has.
  void add_to(Record &record) const;
  /// They alone are the record.
  py::dict to_record() const;
  /// The xf of the placement, as the record has it.
  const XfNumbers &xf() const;

 private:
  friend class Reading;
  enum class Kind : std::uint8_t { OBJECT, TRUTH, NUMBER, NUMBERS, PLACEMENT, RECORD };
  struct Field {
    PyObject *key;  // an interned name's, borrowed
    Kind kind;
    std::uint8_t first;  // of objects_ or numbers_; a truth is the number 0 or 1
    std::uint8_t count;  // of those, or of the fields behind this one that belong to it
    bool operator==(const Field &) const = default;
  };

  Field &add(Name key, Kind kind, size_t first, size_t count);
  Draft &add_numbers(Name key, Kind kind, std::span<const double> values,
                     std::span<const std::uint8_t> decimals);
  bool same_value(const Field &field, py::handle value) const;
  bool same_fields(size_t from, size_t to, py::handle record, std::span<const Name> optional) const;
  void add_fields(Record &record, size_t from, size_t to) const;
  double rounded(size_t number) const;
  py::object value_of(const Field &field) const;

  // Room for any record that is compared; a larger one raises.
  std::array<Field, 40> fields_;
  std::array<PyObject *, 24> objects_;  // owned
  std::array<double, 64> numbers_;
  std::array<std::uint8_t, 64> decimals_;
  mutable std::optional<XfNumbers> xf_;  // asked for once
  py::object rotation_;                  // of the placement
  size_t placement_ = 0;                 // its first number
  size_t field_count_ = 0;
  size_t object_count_ = 0;
  size_t number_count_ = 0;
  size_t open_ = 0;  // the field that open() began
};

/// What a draft had read, kept until the next one: less than two hundred bytes in one piece, where
/// the record itself is spread over dozens of objects.
class Reading {
 public:
  Reading() = default;
  /// Keeps the record's objects where they are equal, so that a text isn't held twice.
  Reading(const Draft &draft, py::handle record);
  ~Reading();
  Reading(Reading &&other) noexcept;
  Reading &operator=(Reading &&other) noexcept;

 private:
  friend class Draft;
  using Shape = std::vector<Draft::Field>;
  union Value {
    double number;
    PyObject *object;  // owned
  };
  static const Shape *shape_of(const Draft &draft);

  const Shape *shape_ = nullptr;     // lives as long as the process; null: nothing was read
  std::unique_ptr<Value[]> values_;  // the numbers, then the objects
  std::uint32_t number_count_ = 0;
  std::uint32_t object_count_ = 0;
};

}  // namespace kestrix
