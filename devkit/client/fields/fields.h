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
  kNumber,      // a whole number; eight-byte fields also take one as text, past TOML's 63 bits
  kFlag,        // a number of which only "0 or not" matters: also true and false
  kText,        // UTF-8; the field's size counts the closing NUL
  kDigits,      // text of decimal digits, may be empty
  kDigitList,   // text of decimal numbers with commas between, may be empty
  kPath,        // text that must be a full Windows path to be of any use
  kDirectory,   // the same, and it must end in a separator to name a directory
  kAddress,     // dotted IPv4 text
  kIp,          // the same, stored as a number in network byte order
  kHex,         // bytes, as text of two hexadecimal digits each; the rest is zero
  kNode,        // a node that must be there, by its name or its proxy_idc; 0: none
  kLastNode,    // the same, but a number may be that of a node that is not in the table
  kIdc,         // a data centre, by the name that an [[idc]] gave it or by number
  kFromNode,    // the name of a node from which the whole record is filled; keys beside it win
  kNames,       // a number, or one name that stands for it
  kNameBits,    // a number, or a list of names whose bits are joined
  kNameOrBits,  // the same, or one name that stands for the whole number
  kRecord,      // a table with a shape of its own
  kAddresses,   // the addresses of a group; only in the shape of a kGroups
  kGroups,      // tables of one data centre and its addresses, stored flat: a record an address
};

struct NamedValue {
  const char* name;
  uint64_t value;
};

struct Shape;

// A list of another region, one entry for each entry of the list that a field's record is in.
// Places are bytes from the start of Tables.
struct Beside {
  size_t records;
  size_t record_size;
  size_t count;
  size_t list;
  size_t entry_size;
};

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

  const Beside* beside = nullptr;  // `offset` counts from the entry there, not from the record

  const char* heading = nullptr;  // opens a group of fields in the sample
  const char* doc = nullptr;
  const char* sample = nullptr;  // what the sample writes behind "=", null for a record
  bool required = false;
  uint64_t fallback = 0;  // what a number holds when the key is left out
  uint64_t min = 0;
  uint64_t max = 0;  // 0: whatever the field can hold
  std::span<const NamedValue> names = {};
  const Shape* shape = nullptr;
  std::span<const char* const> unique = {};  // lists: keys whose values no two entries share
  const char* example = nullptr;  // lists of the whole file: entries for the sample, as TOML

  uint64_t Max() const;
  // What `offset` counts from: the record, or an entry beside it, null for a record that lies
  // outside the tables.
  std::byte* RecordOf(std::byte* record, std::byte* tables) const;
  const std::byte* RecordOf(const std::byte* record, const std::byte* tables) const;
  bool IsText() const;
};

struct Shape {
  const char* name;
  size_t size;
  std::span<const Field> fields;
  bool is_short = false;  // written on one line, { key = value, … }

  const Field* Find(std::string_view key) const;
};

// One entry of a kGroups list, before it becomes records.
struct AddressGroup {
  uint32_t game_idc = 0;
  uint32_t vip_level = 0;
  char name[64] = {};
};

// The shape of the whole file, which leads to all others. Its offsets are those of Tables.
const Shape& FileShape();

}  // namespace client
