// What a person may write into a configuration file, as data: one row for each field of each
// record. The rows drive the reader and the sample, so a field that is added here is parsed,
// checked and explained without another line of code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace client {

enum class Kind {
  kNumber,     // a whole number; eight-byte fields also take one as text, past TOML's 63 bits
  kFlag,       // a number of which only "0 or not" matters: also true and false
  kText,       // UTF-8; the field's size counts the closing NUL
  kDigits,     // text of decimal digits, may be empty
  kDigitList,  // text of decimal numbers with commas between, may be empty
  kPath,       // text that must be a full Windows path to be of any use
  kDirectory,  // the same, and it must end in a separator to name a directory
  kAddress,    // dotted IPv4 text
  kNames,      // a number, or one name that stands for it
  kNameBits,   // a number, or a list of names whose bits are joined
  kRecord,     // a table with a shape of its own
};

struct NamedValue {
  const char* name;
  uint64_t value;
};

struct Shape;

struct Field {
  const char* key = nullptr;
  Kind kind = Kind::kNumber;
  size_t offset = 0;  // bytes from the start of its record
  size_t size = 0;    // bytes of the field, or of one entry of a list

  // Lists: `capacity` entries lie one behind the other, and their number goes to a field of
  // its own unless `count_size` is 0.
  size_t capacity = 0;
  const char* count_key = nullptr;
  size_t count_offset = 0;
  size_t count_size = 0;

  const char* heading = nullptr;  // opens a group of fields in the sample
  const char* doc = nullptr;
  const char* sample = nullptr;  // what the sample writes behind "=", null for a record
  bool required = false;
  uint64_t fallback = 0;  // what a number holds when the key is left out
  uint64_t min = 0;
  uint64_t max = 0;  // 0: whatever the field can hold
  std::span<const NamedValue> names = {};
  const Shape* shape = nullptr;

  uint64_t Max() const;
  bool IsText() const;
};

struct Shape {
  const char* name;
  size_t size;
  std::span<const Field> fields;

  const Field* Find(std::string_view key) const;
};

// The whole restriction region, behind which all other shapes hang.
const Shape& RegionShape();

}  // namespace client
