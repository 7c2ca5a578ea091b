#include "client/check/address_list.h"

#include <cstring>

#include "abi/route_formats.h"
#include "client/check/toml_node.h"
#include "client/fields/text_rules.h"

namespace client {

using moru_vyr::lsp::IpRecord;

bool AddressList::HasLevels(const Field& field) {
  return field.shape->Find("vip_level") != nullptr;
}

void AddressList::Add(const toml::table& table, const AddressGroup& group,
                      const std::string& path) {
  const uint32_t level = LevelOf(table, group, path);
  const toml::node* const addresses = table.get("addresses");
  if (addresses == nullptr) {
    AddError(problems_, LineOf(table), path + "addresses", "is missing");
  } else if (const toml::array* const list = addresses->as_array()) {
    for (size_t i = 0; i < list->size(); ++i) {
      Address(list->at(i), group, level, EntryKey(path + "addresses", i));
    }
  } else {
    AddError(problems_, LineOf(*addresses), path + "addresses",
             std::string("wants a list, found ") + TypeName(*addresses));
  }
}

uint32_t AddressList::LevelOf(const toml::table& table, const AddressGroup& group,
                              const std::string& path) {
  const uint32_t level = HasLevels(field_) ? group.game_idc / 100 % 10 : 0;
  if (table.contains("vip_level") && group.vip_level != level) {
    AddError(problems_, LineOf(*table.get("vip_level")), path + "vip_level",
             "the hundreds digit of game_idc " + std::to_string(group.game_idc) + " is " +
                 std::to_string(level));
  }
  return level;
}

void AddressList::Address(const toml::node& node, const AddressGroup& group, uint32_t level,
                          const std::string& key) {
  const auto* const text = node.as_string();
  const auto ip = text != nullptr ? ParseAddress(**text) : std::nullopt;
  if (!ip) {
    AddError(problems_, LineOf(node), key,
             text == nullptr ? std::string("wants a text, found ") + TypeName(node)
                             : "'" + **text + "' is no dotted IPv4 address");
    return;
  }
  const auto [first, is_new] = lines_.emplace(std::pair(level, *ip), LineOf(node));
  if (!is_new) {
    AddError(problems_, LineOf(node), key,
             "'" + **text + "' stands in line " + std::to_string(first->second) + " already");
    return;
  }
  if (count_ == field_.capacity) {
    AddError(problems_, LineOf(node), key,
             "is one address more than the " + std::to_string(field_.capacity) +
                 " that there is room for");
  }
  if (count_++ >= field_.capacity) return;
  const IpRecord record = {.game_idc = group.game_idc, .ip = *ip};
  std::memcpy(record_ + field_.offset + (count_ - 1) * sizeof record, &record, sizeof record);
}

}  // namespace client
