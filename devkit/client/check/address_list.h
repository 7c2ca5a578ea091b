// The addresses of groups, stored flat: one record for each address.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "client/check/problems.h"
#include "client/check/toml.h"
#include "client/fields/fields.h"

namespace client {

// The records of all groups of a list. Those beyond the room are read all the same, to report their
// own mistakes, and counted.
class AddressList {
 public:
  // `field` is that of the list, `record` the one that the field belongs to.
  AddressList(const Field& field, std::byte* record, Problems* problems)
      : field_(field), record_(record), problems_(problems) {}

  // The addresses of `table`, from which *group was read.
  void Add(const toml::table& table, const AddressGroup& group, const std::string& path);

  size_t count() const { return count_; }

  // Whether the groups of such a list are for users of one VIP level each.
  static bool HasLevels(const Field& field);

 private:
  uint32_t LevelOf(const toml::table& table, const AddressGroup& group, const std::string& path);
  void Address(const toml::node& node, const AddressGroup& group, uint32_t level,
               const std::string& key);

  const Field& field_;
  std::byte* const record_;
  Problems* const problems_;
  std::map<std::pair<uint32_t, uint32_t>, unsigned> lines_;  // by VIP level and address
  size_t count_ = 0;
};

}  // namespace client
