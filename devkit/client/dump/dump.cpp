#include "client/dump/dump.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

#include "client/fields/fields.h"
#include "client/fields/text_rules.h"
#include "client/fields/toml_text.h"
#include "common/text.h"

namespace client {
namespace {

using moru_vyr::lsp::IpRecord;
using moru_vyr::lsp::kMaxProxies;
using moru_vyr::lsp::ProxyRecord;

uint64_t Load(const std::byte* from, size_t size) {
  uint64_t value = 0;
  std::memcpy(&value, from, size);
  return value;
}

bool IsZero(const std::byte* from, size_t size) {
  // Zeros only: the same bytes one place on. In one call, since lists have room for thousands.
  return size == 0 || (from[0] == std::byte{0} && std::memcmp(from, from + 1, size - 1) == 0);
}

// Names of nodes, if the name is unique.
class NodeNames {
 public:
  explicit NodeNames(const Tables& tables) {
    const auto& image = tables.route.image;
    const uint32_t count = std::min<uint32_t>(image.proxy_count, kMaxProxies);
    std::map<std::string, int> uses;
    for (uint32_t i = 0; i < count; ++i) ++uses[NameOf(image.proxies[i])];
    for (uint32_t i = 0; i < count; ++i) {
      const std::string name = NameOf(image.proxies[i]);
      if (!name.empty() && uses[name] == 1) names_.emplace(image.proxies[i].proxy_idc, name);
    }
  }

  // The node's name in quotes, or its number.
  std::string Refer(uint64_t idc) const {
    const auto found = names_.find(idc);
    return found != names_.end() && idc != 0 ? QuoteToml(found->second) : std::to_string(idc);
  }

 private:
  static std::string NameOf(const ProxyRecord& node) {
    return std::string(common::FieldText(node.proxy_name));
  }

  std::map<uint64_t, std::string> names_;
};

class Dumper {
 public:
  explicit Dumper(const Tables& tables)
      : tables_(reinterpret_cast<const std::byte*>(&tables)), names_(tables) {
    Record(FileShape(), tables_, "");
  }

  std::string Take() { return std::move(text_); }

 private:
  // Values first, then tables: TOML allows no other order.
  void Record(const Shape& shape, const std::byte* record, const std::string& path) {
    for (const Field& field : shape.fields) {
      if (!IsTable(field) || IsEmpty(field, record)) Line(field, field.RecordOf(record, tables_));
    }
    for (const Field& field : shape.fields) {
      if (!IsTable(field) || IsEmpty(field, record)) continue;
      const std::string name = path.empty() ? field.key : path + "." + field.key;
      if (field.kind == Kind::kGroups) {
        Groups(field, record, name);
      } else if (field.capacity == 0) {
        text_ += "\n[" + name + "]\n";
        Record(*field.shape, record + field.offset, name);
      } else {
        for (size_t i = 0; i < CountOf(field, record); ++i) {
          text_ += "\n[[" + name + "]]\n";
          Record(*field.shape, record + field.offset + i * field.size, name);
        }
      }
    }
  }

  static bool IsTable(const Field& field) {
    return field.shape != nullptr && !field.shape->is_short;
  }

  static bool IsEmpty(const Field& field, const std::byte* record) {
    return field.capacity != 0 ? CountOf(field, record) == 0
                               : IsZero(record + field.offset, field.size);
  }

  // Entries of a list: as its count says or, where it has none, up to the last that is not zero.
  static size_t CountOf(const Field& field, const std::byte* record) {
    if (field.count_size != 0) {
      const uint64_t written = Load(record + field.count_offset, field.count_size);
      return static_cast<size_t>(std::min<uint64_t>(written, field.capacity));
    }
    size_t count = field.capacity;
    while (count > 0 && IsZero(record + field.offset + (count - 1) * field.size, field.size)) {
      --count;
    }
    return count;
  }

  // An optional key is left out if that gives the same bytes.
  static bool IsImplied(const Field& field, const std::byte* record) {
    if (field.required) return false;
    if (field.capacity != 0 || field.fallback == 0) return IsEmpty(field, record);
    return Load(record + field.offset, field.size) == field.fallback;
  }

  void Line(const Field& field, const std::byte* record) {
    if (field.kind == Kind::kFromNode || IsImplied(field, record)) return;
    text_ += std::string(field.key) + " = " + Value(field, record, "") + "\n";
  }

  std::string Value(const Field& field, const std::byte* record, const std::string& margin) {
    if (field.capacity == 0) return Entry(field, record + field.offset, margin);
    const size_t count = CountOf(field, record);
    const bool one_line = field.shape == nullptr && field.kind != Kind::kPath;
    const std::string before = one_line ? "" : "\n" + margin + "  ";
    std::string list = "[";
    for (size_t i = 0; i < count; ++i) {
      if (one_line && i != 0) list += ", ";
      list += before + Entry(field, record + field.offset + i * field.size, margin + "  ");
      if (!one_line) list += ",";
    }
    return list + (one_line || count == 0 ? "]" : "\n" + margin + "]");
  }

  std::string Entry(const Field& field, const std::byte* at, const std::string& margin) {
    const uint64_t number = field.size <= sizeof(uint64_t) ? Load(at, field.size) : 0;
    switch (field.kind) {
      case Kind::kRecord:
        return Short(*field.shape, at, margin);
      case Kind::kNode:
      case Kind::kLastNode:
        return names_.Refer(number);
      case Kind::kNames:
        return Name(field, number);
      case Kind::kNameBits:
        return NameBits(field, number);
      case Kind::kNameOrBits:
        return NameOrBits(field, number);
      case Kind::kIp:
        return QuoteToml(AddressText(static_cast<uint32_t>(number)));
      case Kind::kHex:
        return QuoteToml(HexText(reinterpret_cast<const char*>(at), field.size));
      default:
        return field.IsText() ? QuoteToml(Text(at, field.size)) : Number(number);
    }
  }

  // A record on one line.
  std::string Short(const Shape& shape, const std::byte* record, const std::string& margin) {
    std::string text;
    for (const Field& field : shape.fields) {
      if (IsImplied(field, record)) continue;
      text += (text.empty() ? " " : ", ") + std::string(field.key) + " = " +
              Value(field, record, margin);
    }
    return "{" + text + " }";
  }

  static std::string Text(const std::byte* at, size_t size) {
    const std::string_view whole(reinterpret_cast<const char*>(at), size);
    return std::string(whole.substr(0, whole.find('\0')));
  }

  // What TOML's numbers cannot hold is written as text.
  static std::string Number(uint64_t number) {
    const std::string digits = std::to_string(number);
    return number > INT64_MAX ? "'" + digits + "'" : digits;
  }

  static std::string Name(const Field& field, uint64_t number) {
    for (const NamedValue& name : field.names) {
      if (name.value == number) return QuoteToml(name.name);
    }
    return Number(number);
  }

  static std::string NameBits(const Field& field, uint64_t number) {
    std::string list;
    uint64_t rest = number;
    for (const NamedValue& name : field.names) {
      // What an earlier name has said already needs no name of its own.
      if ((rest & name.value) == 0 || (number & name.value) != name.value) continue;
      list += (list.empty() ? "" : ", ") + QuoteToml(name.name);
      rest &= ~name.value;
    }
    return rest == 0 ? "[" + list + "]" : Number(number);
  }

  static std::string NameOrBits(const Field& field, uint64_t number) {
    const std::string name = Name(field, number);
    return name == Number(number) ? NameBits(field, number) : name;
  }

  // Of two records with the same address and level only the later counts, so only that is shown.
  // The groups come in the order of their first record.
  void Groups(const Field& field, const std::byte* record, const std::string& name) {
    const bool has_levels = field.shape->Find("vip_level") != nullptr;
    const size_t count = CountOf(field, record);
    std::vector<IpRecord> records(count);
    if (count != 0) std::memcpy(records.data(), record + field.offset, count * sizeof(IpRecord));
    std::map<std::pair<uint32_t, uint32_t>, size_t> last;
    for (size_t i = 0; i < count; ++i) last[Key(records[i], has_levels)] = i;
    std::vector<uint32_t> order;
    std::map<uint32_t, std::vector<uint32_t>> groups;
    for (size_t i = 0; i < count; ++i) {
      if (last[Key(records[i], has_levels)] != i) continue;
      std::vector<uint32_t>& group = groups[records[i].game_idc];
      if (group.empty()) order.push_back(records[i].game_idc);
      group.push_back(records[i].ip);
    }
    for (const uint32_t idc : order) {
      text_ += "\n[[" + name + "]]\ngame_idc = " + std::to_string(idc) + "\naddresses = [";
      for (const uint32_t ip : groups[idc]) text_ += "\n  '" + AddressText(ip) + "',";
      text_ += "\n]\n";
    }
  }

  static std::pair<uint32_t, uint32_t> Key(const IpRecord& record, bool has_levels) {
    return {has_levels ? record.game_idc / 100 % 10 : 0, record.ip};
  }

  const std::byte* const tables_;
  const NodeNames names_;
  std::string text_;
};

}  // namespace

std::string DumpToml(const Tables& tables) { return Dumper(tables).Take(); }

}  // namespace client
