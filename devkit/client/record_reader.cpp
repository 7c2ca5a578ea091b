#include "client/record_reader.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>

#include "client/suggest.h"
#include "client/text_rules.h"
#include "common/text.h"

namespace client {
namespace {

unsigned LineOf(const toml::node& node) { return node.source().begin.line; }

const char* TypeName(const toml::node& node) {
  switch (node.type()) {
    case toml::node_type::string:
      return "a text";
    case toml::node_type::integer:
      return "a whole number";
    case toml::node_type::floating_point:
      return "a number with a fraction";
    case toml::node_type::boolean:
      return "true or false";
    case toml::node_type::array:
      return "a list";
    case toml::node_type::table:
      return "a table";
    default:
      return "a date or time";
  }
}

const char* WantedName(const Field& field) {
  switch (field.kind) {
    case Kind::kRecord:
    case Kind::kGroups:
      return "a table";
    case Kind::kNumber:
      return "a whole number";
    case Kind::kFlag:
      return "true, false or a whole number";
    case Kind::kNames:
    case Kind::kNode:
    case Kind::kLastNode:
    case Kind::kIdc:
      return "a name or a whole number";
    case Kind::kNameBits:
      return "a list of names or a whole number";
    default:
      return "a text";
  }
}

std::string JoinNames(std::span<const NamedValue> names) {
  std::string all;
  for (const NamedValue& name : names) all += (all.empty() ? "" : ", ") + std::string(name.name);
  return all;
}

using moru_vyr::lsp::IpRecord;
using moru_vyr::lsp::ProxyRecord;
using moru_vyr::lsp::RouteProxyInfo;

// What a node and a proxy of a decision have in common.
RouteProxyInfo FromNode(const ProxyRecord& node) {
  RouteProxyInfo proxy;
  proxy.type = node.type;
  proxy.flag = node.flag;
  common::SetFieldText(proxy.proxy_addr, common::FieldText(node.proxy_addr));
  proxy.proxy_port = node.proxy_port;
  proxy.proxy_idc = node.proxy_idc;
  proxy.proxy_isp = node.proxy_isp;
  common::SetFieldText(proxy.proxy_name, common::FieldText(node.proxy_name));
  proxy.section1_delay = node.section1_delay;
  proxy.section1_lost = node.section1_lost;
  proxy.to_proxy_speed_isp = node.to_proxy_speed_isp;
  proxy.to_proxy_speed_ip = node.to_proxy_speed_ip;
  proxy.surport_isps = node.surport_isps;
  proxy.version = node.version;
  return proxy;
}

// The records are little-endian, and so is every machine that this is built for.
void Store(std::byte* to, size_t size, uint64_t value) { std::memcpy(to, &value, size); }

class Reader {
 public:
  explicit Reader(Tables* tables) : tables_(tables) {}

  void Table(const toml::table& table, const Shape& shape, std::byte* record,
             const std::string& path) {
    Keys(table, shape, path);
    const bool whole = TakeOverNode(table, shape, record, path);
    for (const Field& field : shape.fields) {
      const std::string key = path + field.key;
      if (field.kind == Kind::kFromNode || field.kind == Kind::kAddresses) continue;
      if (const toml::node* node = table.get(field.key)) {
        Value(*node, field, record, key);
      } else if (field.required && !whole) {
        Error(LineOf(table), key, "is missing");
      } else if (field.fallback != 0) {
        Store(record + field.offset, field.size, field.fallback);
      }
    }
  }

  Problems Take() { return std::move(problems_); }

 private:
  // Every key that is written must be one of the shape's.
  void Keys(const toml::table& table, const Shape& shape, const std::string& path) {
    for (const auto& [key, node] : table) {
      if (shape.Find(key.str()) != nullptr) continue;
      Error(key.source().begin.line, path + std::string(key.str()),
            WhyUnknown(key.str(), shape, path));
    }
  }

  // "proxy_count" of "route.image.proxy_count".
  static std::string_view LastPart(std::string_view place) {
    return place.substr(place.rfind('.') + 1);
  }

  static std::string WhyUnknown(std::string_view key, const Shape& shape, const std::string& path) {
    for (const Field& field : shape.fields) {
      if (field.count_key != nullptr && key == LastPart(field.count_key)) {
        return "is counted from '" + std::string(field.key) + "'; leave it out";
      }
    }
    std::vector<std::string_view> keys;
    for (const Field& field : shape.fields) keys.emplace_back(field.key);
    const std::string meant = Suggest(key, keys);
    if (!meant.empty()) return "is unknown; did you mean '" + meant + "'?";
    if (!path.empty() && FileShape().Find(key) != nullptr) {
      return "is unknown here; it belongs at the top of the file, before the first table";
    }
    return "is unknown here";
  }

  void Value(const toml::node& node, const Field& field, std::byte* record,
             const std::string& key) {
    if (field.kind == Kind::kGroups) {
      Groups(node, field, record, key);
    } else if (field.capacity != 0) {
      List(node, field, record, key);
    } else {
      Entry(node, field, record + field.offset, key);
    }
  }

  void List(const toml::node& node, const Field& field, std::byte* record, const std::string& key) {
    const toml::array* list = node.as_array();
    if (list == nullptr) {
      Error(LineOf(node), key, std::string("wants a list, found ") + TypeName(node));
      return;
    }
    if (list->size() > field.capacity) {
      Error(LineOf(list->at(field.capacity)), key,
            "takes at most " + std::to_string(field.capacity) + " entries, found " +
                std::to_string(list->size()));
    }
    const size_t count = std::min(list->size(), field.capacity);
    if (field.count_size != 0) Store(record + field.count_offset, field.count_size, count);
    for (size_t i = 0; i < list->size(); ++i) {
      // Entries past the end are read into nothing, for the sake of their own mistakes.
      std::vector<std::byte> spare(i < count ? 0 : field.size);
      std::byte* to = i < count ? record + field.offset + i * field.size : spare.data();
      Entry(list->at(i), field, to, key + "[" + std::to_string(i) + "]");
    }
    for (const char* shared : field.unique) {
      Unique(*list, *field.shape->Find(shared), key, [&](size_t i) {
        return i < count ? record + field.offset + i * field.size : nullptr;
      });
    }
  }

  // No two entries may have the same value there. Zero and the empty text are no values.
  template <typename RecordOf>
  void Unique(const toml::array& list, const Field& field, const std::string& key,
              RecordOf record_of) {
    std::map<std::string, size_t> seen;
    for (size_t i = 0; i < list.size(); ++i) {
      const toml::table* table = list.at(i).as_table();
      const std::byte* record = record_of(i);
      if (table == nullptr || record == nullptr || !table->contains(field.key)) continue;
      const std::string value(reinterpret_cast<const char*>(record + field.offset), field.size);
      if (value.find_first_not_of('\0') == std::string::npos) continue;
      const auto [first, is_new] = seen.emplace(value, i);
      if (is_new) continue;
      Error(LineOf(*table->get(field.key)), EntryKey(key, i) + "." + field.key,
            "is that of " + EntryKey(key, first->second) + " too, in line " +
                std::to_string(LineOf(list.at(first->second))));
    }
  }

  static std::string EntryKey(const std::string& key, size_t index) {
    return key + "[" + std::to_string(index) + "]";
  }

  // One value, or one entry of a list, at its place.
  void Entry(const toml::node& node, const Field& field, std::byte* to, const std::string& key) {
    if (field.kind == Kind::kRecord) {
      if (const toml::table* table = node.as_table()) {
        Table(*table, *field.shape, to, key + ".");
        return;
      }
    } else if (field.kind == Kind::kNameBits && node.is_array()) {
      NameBits(*node.as_array(), field, to, key);
      return;
    } else if (field.kind == Kind::kIp || field.kind == Kind::kHex) {
      if (const auto* text = node.as_string()) {
        Bytes(**text, LineOf(node), field, to, key);
        return;
      }
    } else if (field.IsText()) {
      if (const auto* text = node.as_string()) {
        Text(**text, LineOf(node), field, to, key);
        return;
      }
    } else if (const auto* number = node.as_integer()) {
      Number(**number, LineOf(node), field, to, key);
      if (field.kind == Kind::kNode) KnownNode(to, LineOf(node), key);
      return;
    } else if (const auto* reference = node.as_string(); reference && IsReference(field.kind)) {
      if (const auto value = Resolve(**reference, LineOf(node), field, key)) {
        Store(to, field.size, *value);
      }
      return;
    } else if (const auto* flag = node.as_boolean(); flag && field.kind == Kind::kFlag) {
      Store(to, field.size, **flag ? 1 : 0);
      return;
    } else if (const auto* name = node.as_string(); name && field.kind == Kind::kNames) {
      if (const auto value = Name(**name, LineOf(node), field, key)) Store(to, field.size, *value);
      return;
    } else if (name && field.kind == Kind::kNumber && field.size == sizeof(uint64_t)) {
      BigNumber(**name, LineOf(node), field, to, key);
      return;
    }
    Error(LineOf(node), key,
          std::string("wants ") + WantedName(field) + ", found " + TypeName(node));
  }

  void Number(int64_t number, unsigned line, const Field& field, std::byte* to,
              const std::string& key) {
    if (number < 0 || static_cast<uint64_t>(number) < field.min ||
        static_cast<uint64_t>(number) > field.Max()) {
      Error(line, key,
            std::to_string(number) + " is out of range, which is " + std::to_string(field.min) +
                " to " + std::to_string(field.Max()));
      return;
    }
    Store(to, field.size, static_cast<uint64_t>(number));
  }

  void BigNumber(const std::string& digits, unsigned line, const Field& field, std::byte* to,
                 const std::string& key) {
    if (const auto number = ParseNumber(digits)) {
      Store(to, field.size, *number);
    } else {
      Error(line, key,
            "'" + digits + "' is no whole number from 0 to " + std::to_string(field.Max()));
    }
  }

  std::optional<uint64_t> Name(const std::string& written, unsigned line, const Field& field,
                               const std::string& key) {
    std::vector<std::string_view> names;
    for (const NamedValue& name : field.names) {
      if (written == name.name) return name.value;
      names.emplace_back(name.name);
    }
    const std::string meant = Suggest(written, names);
    Error(line, key,
          "'" + written + "' is unknown; " +
              (meant.empty() ? "the names are " + JoinNames(field.names)
                             : "did you mean '" + meant + "'?"));
    return std::nullopt;
  }

  void NameBits(const toml::array& list, const Field& field, std::byte* to,
                const std::string& key) {
    uint64_t bits = 0;
    for (const toml::node& node : list) {
      if (const auto* name = node.as_string()) {
        bits |= Name(**name, LineOf(node), field, key).value_or(0);
      } else {
        Error(LineOf(node), key, std::string("wants a list of names, found ") + TypeName(node));
      }
    }
    Store(to, field.size, bits);
  }

  void Text(const std::string& text, unsigned line, const Field& field, std::byte* to,
            const std::string& key) {
    if (text.size() + 1 > field.size) {
      Error(line, key,
            "takes at most " + std::to_string(field.size) +
                " bytes of UTF-8 with the NUL behind them, found " +
                std::to_string(text.size() + 1));
      return;
    }
    if (const std::string reason = WhyRefused(text, field.kind); !reason.empty()) {
      Error(line, key, reason);
      return;
    }
    if (const std::string doubt = WhyDoubtful(text, field.kind); !doubt.empty()) {
      problems_.push_back({Problem::Severity::kWarning, line, key, doubt});
    }
    std::memcpy(to, text.data(), text.size());
  }

  // --- references ---

  static bool IsReference(Kind kind) {
    return kind == Kind::kNode || kind == Kind::kLastNode || kind == Kind::kIdc;
  }

  std::span<const ProxyRecord> Nodes() const {
    return {tables_->route.image.proxies, tables_->route.image.proxy_count};
  }

  const ProxyRecord* FindNode(const std::string& name) const {
    for (const ProxyRecord& node : Nodes()) {
      if (!name.empty() && common::FieldText(node.proxy_name) == name) return &node;
    }
    return nullptr;
  }

  void KnownNode(const std::byte* number, unsigned line, const std::string& key) {
    uint32_t idc = 0;
    std::memcpy(&idc, number, sizeof idc);
    const auto nodes = Nodes();
    if (idc == 0 || std::any_of(nodes.begin(), nodes.end(),
                                [idc](const ProxyRecord& node) { return node.proxy_idc == idc; })) {
      return;
    }
    Error(line, key, std::to_string(idc) + " is the proxy_idc of no [[node]]");
  }

  std::optional<uint64_t> Resolve(const std::string& name, unsigned line, const Field& field,
                                  const std::string& key) {
    if (field.kind == Kind::kIdc) {
      const auto found = idcs_.find(name);
      if (found != idcs_.end()) return found->second;
      std::vector<std::string_view> names;
      for (const auto& [known, number] : idcs_) names.emplace_back(known);
      Unresolved(name, line, key, "[[idc]]", names);
      return std::nullopt;
    }
    if (const ProxyRecord* const node = FindNode(name)) return node->proxy_idc;
    NoSuchNode(name, line, key);
    return std::nullopt;
  }

  void NoSuchNode(const std::string& name, unsigned line, const std::string& key) {
    std::vector<std::string_view> names;
    for (const ProxyRecord& node : Nodes()) names.push_back(common::FieldText(node.proxy_name));
    Unresolved(name, line, key, "[[node]]", names);
  }

  void Unresolved(const std::string& name, unsigned line, const std::string& key, const char* list,
                  const std::vector<std::string_view>& names) {
    const std::string meant = Suggest(name, names);
    Error(line, key,
          std::string("no ") + list + " has the name '" + name + "'" +
              (meant.empty() ? "" : "; did you mean '" + meant + "'?"));
  }

  // Fills a proxy from the node that its table names. True if the table names one.
  bool TakeOverNode(const toml::table& table, const Shape& shape, std::byte* record,
                    const std::string& path) {
    for (const Field& field : shape.fields) {
      if (field.kind != Kind::kFromNode || !table.contains(field.key)) continue;
      const toml::node& node = *table.get(field.key);
      const auto* const name = node.as_string();
      if (name == nullptr) {
        Error(LineOf(node), path + field.key, std::string("wants a text, found ") + TypeName(node));
      } else if (const ProxyRecord* const found = FindNode(**name)) {
        const RouteProxyInfo proxy = FromNode(*found);
        std::memcpy(record, &proxy, sizeof proxy);
      } else {
        NoSuchNode(**name, LineOf(node), path + field.key);
      }
      return true;
    }
    return false;
  }

  // --- groups of addresses ---

  void Groups(const toml::node& node, const Field& field, std::byte* record,
              const std::string& key) {
    const toml::array* list = node.as_array();
    if (list == nullptr) {
      Error(LineOf(node), key, std::string("wants a list, found ") + TypeName(node));
      return;
    }
    AddressList out = {field, record, {}, 0};
    std::vector<AddressGroup> groups(list->size());
    for (size_t i = 0; i < list->size(); ++i) {
      const std::string entry = EntryKey(key, i);
      if (const toml::table* table = list->at(i).as_table()) {
        Group(*table, &groups[i], entry + ".", &out);
      } else {
        Error(LineOf(list->at(i)), entry,
              std::string("wants a table, found ") + TypeName(list->at(i)));
      }
    }
    Store(record + field.count_offset, field.count_size, std::min(out.count, field.capacity));
    for (const char* shared : field.unique) {
      Unique(*list, *field.shape->Find(shared), key,
             [&](size_t i) { return reinterpret_cast<const std::byte*>(&groups[i]); });
    }
  }

  // Where the records of all groups of a list go.
  struct AddressList {
    const Field& field;
    std::byte* record;
    std::map<std::pair<uint32_t, uint32_t>, unsigned> lines;  // by VIP level and address
    size_t count;
  };

  void Group(const toml::table& table, AddressGroup* group, const std::string& path,
             AddressList* out) {
    Table(table, *out->field.shape, reinterpret_cast<std::byte*>(group), path);
    const bool has_levels = out->field.shape->Find("vip_level") != nullptr;
    const uint32_t level = has_levels ? group->game_idc / 100 % 10 : 0;
    if (table.contains("vip_level") && group->vip_level != level) {
      Error(LineOf(*table.get("vip_level")), path + "vip_level",
            "the hundreds digit of game_idc " + std::to_string(group->game_idc) + " is " +
                std::to_string(level));
    }
    if (has_levels && group->name[0] != '\0') idcs_.emplace(group->name, group->game_idc);
    const toml::node* addresses = table.get("addresses");
    if (addresses == nullptr) {
      Error(LineOf(table), path + "addresses", "is missing");
    } else if (const toml::array* list = addresses->as_array()) {
      for (size_t i = 0; i < list->size(); ++i) {
        Address(list->at(i), *group, level, EntryKey(path + "addresses", i), out);
      }
    } else {
      Error(LineOf(*addresses), path + "addresses",
            std::string("wants a list, found ") + TypeName(*addresses));
    }
  }

  void Address(const toml::node& node, const AddressGroup& group, uint32_t level,
               const std::string& key, AddressList* out) {
    const auto* const text = node.as_string();
    const auto ip = text != nullptr ? ParseAddress(**text) : std::nullopt;
    if (!ip) {
      Error(LineOf(node), key,
            text == nullptr ? std::string("wants a text, found ") + TypeName(node)
                            : "'" + **text + "' is no dotted IPv4 address");
      return;
    }
    const auto [first, is_new] = out->lines.emplace(std::pair(level, *ip), LineOf(node));
    if (!is_new) {
      Error(LineOf(node), key,
            "'" + **text + "' stands in line " + std::to_string(first->second) + " already");
      return;
    }
    if (out->count == out->field.capacity) {
      Error(LineOf(node), key,
            "is one address more than the " + std::to_string(out->field.capacity) +
                " that there is room for");
    }
    if (out->count++ >= out->field.capacity) return;
    const IpRecord record = {.game_idc = group.game_idc, .ip = *ip};
    std::memcpy(out->record + out->field.offset + (out->count - 1) * sizeof record, &record,
                sizeof record);
  }

  // --- bytes that are written as text ---

  void Bytes(const std::string& text, unsigned line, const Field& field, std::byte* to,
             const std::string& key) {
    if (field.kind == Kind::kIp) {
      const auto ip = ParseAddress(text);
      if (ip) {
        Store(to, field.size, *ip);
      } else {
        Error(line, key, "'" + text + "' is no dotted IPv4 address");
      }
      return;
    }
    const auto bytes = ParseHex(text);
    if (!bytes) {
      Error(line, key, "'" + text + "' is no text of hexadecimal digits, two for each byte");
    } else if (bytes->size() > field.size) {
      Error(line, key,
            "takes at most " + std::to_string(field.size) + " bytes, found " +
                std::to_string(bytes->size()));
    } else {
      std::memcpy(to, bytes->data(), bytes->size());
    }
  }

  void Error(unsigned line, const std::string& key, const std::string& reason) {
    problems_.push_back({Problem::Severity::kError, line, key, reason});
  }

  Tables* const tables_;
  std::map<std::string, uint32_t> idcs_;  // data centres by the names that the file gave them
  Problems problems_;
};

}  // namespace

Problems ReadTables(const toml::table& table, Tables* tables) {
  Reader reader(tables);
  reader.Table(table, FileShape(), reinterpret_cast<std::byte*>(tables), "");
  return reader.Take();
}

}  // namespace client
