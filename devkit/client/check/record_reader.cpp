#include "client/check/record_reader.h"

#include <algorithm>
#include <functional>
#include <map>
#include <vector>

#include "client/check/address_list.h"
#include "client/check/references.h"
#include "client/check/toml_node.h"
#include "client/check/value_reader.h"
#include "client/suggest.h"

namespace client {
namespace {

// "proxy_count" of "route.image.proxy_count".
std::string_view LastPart(std::string_view place) { return place.substr(place.rfind('.') + 1); }

const Field* CountedInto(std::string_view key, const Shape& shape) {
  const auto found =
      std::find_if(shape.fields.begin(), shape.fields.end(), [key](const Field& field) {
        return field.count_key != nullptr && key == LastPart(field.count_key);
      });
  return found != shape.fields.end() ? &*found : nullptr;
}

// The key of the shape that a mistyped one stands for; empty if there is none.
std::string MeantKey(std::string_view key, const Shape& shape) {
  if (CountedInto(key, shape) != nullptr) return "";
  std::vector<std::string_view> keys;
  for (const Field& field : shape.fields) keys.emplace_back(field.key);
  return Suggest(key, keys);
}

std::string WhyUnknown(std::string_view key, const Shape& shape, const std::string& path) {
  if (const Field* const field = CountedInto(key, shape)) {
    return "is counted from '" + std::string(field->key) + "'; leave it out";
  }
  const std::string meant = MeantKey(key, shape);
  if (!meant.empty()) return "is unknown; did you mean '" + meant + "'?";
  if (!path.empty() && FileShape().Find(key) != nullptr) {
    return "is unknown here; it belongs at the top of the file, before the first table";
  }
  return "is unknown here";
}

// "[[game.manual_routes]]" of "game[0].manual_routes".
std::string ListHeader(const std::string& key) {
  std::string header;
  bool is_index = false;
  for (const char c : key) {
    is_index = (is_index || c == '[') && c != ']';
    if (!is_index && c != ']') header += c;
  }
  return "[[" + header + "]]";
}

std::string WhyNoList(const toml::node& node, const std::string& key) {
  const toml::table* const table = node.as_table();
  if (table == nullptr) return std::string("wants a list, found ") + TypeName(node);
  if (table->is_inline()) return "is a list: put brackets around its tables, [{ ... }]";
  return "is a list: begin each of its entries with " + ListHeader(key) + ", with two brackets";
}

// Walks the tables of the file along the shapes of the records.
class Reader {
 public:
  explicit Reader(Tables* tables)
      : tables_(reinterpret_cast<std::byte*>(tables)),
        references_(*tables, &problems_),
        values_(&problems_) {}

  void Table(const toml::table& table, const Shape& shape, std::byte* record,
             const std::string& path) {
    const MeantNodes meant = Keys(table, shape, path);
    const bool whole =
        references_.TakeOverNode(table, shape, record, path) || MeansANode(meant, shape);
    for (const Field& field : shape.fields) {
      const std::string key = path + field.key;
      if (field.kind == Kind::kFromNode || field.kind == Kind::kAddresses) continue;
      if (const toml::node* node = table.get(field.key)) {
        ReadField(*node, field, record, key);
      } else if (const auto mistyped = meant.find(field.key); mistyped != meant.end()) {
        ReadMistyped(*mistyped->second, field, record, key);
      } else if (field.required && !whole) {
        AddError(&problems_, LineOf(table), key, "is missing");
      } else if (field.fallback != 0) {
        Store(record + field.offset, field.size, field.fallback);
      }
    }
  }

  Problems Take() {
    references_.NameOtherPlaces();
    return std::move(problems_);
  }

 private:
  using MeantNodes = std::map<std::string, const toml::node*, std::less<>>;
  using RecordOf = std::function<const std::byte*(size_t index)>;

  void ReadField(const toml::node& node, const Field& field, std::byte* record,
                 const std::string& key) {
    std::vector<std::byte> spare(field.beside != nullptr ? field.offset + field.size : 0);
    std::byte* const to = field.RecordOf(record, tables_);
    Value(node, field, to != nullptr ? to : spare.data(), key);
  }

  static bool MeansANode(const MeantNodes& meant, const Shape& shape) {
    return std::any_of(shape.fields.begin(), shape.fields.end(), [&](const Field& field) {
      return field.kind == Kind::kFromNode && meant.contains(field.key);
    });
  }

  // The key has been reported. Its value is read all the same: what needs it would otherwise be
  // reported too, as missing or unknown. A guess must not add a problem of its own, but a table
  // may hold more mistakes.
  void ReadMistyped(const toml::node& node, const Field& field, std::byte* record,
                    const std::string& key) {
    const size_t count = problems_.size();
    ReadField(node, field, record, key);
    const bool holds_more = field.shape != nullptr || References::IsReference(field.kind);
    if (!holds_more) problems_.erase(problems_.begin() + static_cast<long>(count), problems_.end());
  }

  // Every key that is written must be one of the shape's. What the others hold, by the keys that
  // they were meant to be.
  MeantNodes Keys(const toml::table& table, const Shape& shape, const std::string& path) {
    MeantNodes meant;
    for (const auto& [key, node] : table) {
      if (shape.Find(key.str()) != nullptr) continue;
      if (std::string one = MeantKey(key.str(), shape); !one.empty()) meant.emplace(one, &node);
      AddError(&problems_, key.source().begin.line, path + std::string(key.str()),
               WhyUnknown(key.str(), shape, path));
    }
    return meant;
  }

  void Value(const toml::node& node, const Field& field, std::byte* record,
             const std::string& key) {
    const bool is_list = field.kind == Kind::kGroups || field.capacity != 0;
    if (!is_list) {
      Entry(node, field, record + field.offset, key);
    } else if (const toml::array* const list = node.as_array()) {
      field.kind == Kind::kGroups ? Groups(*list, field, record, key)
                                  : List(*list, field, record, key);
    } else {
      AddError(&problems_, LineOf(node), key, WhyNoList(node, key));
    }
  }

  void List(const toml::array& list, const Field& field, std::byte* record,
            const std::string& key) {
    if (list.size() > field.capacity) {
      AddError(&problems_, LineOf(list.at(field.capacity)), key,
               "takes at most " + std::to_string(field.capacity) + " entries, found " +
                   std::to_string(list.size()));
    }
    const size_t count = std::min(list.size(), field.capacity);
    if (field.count_size != 0) Store(record + field.count_offset, field.count_size, count);
    for (size_t i = 0; i < list.size(); ++i) {
      // Entries past the end are read into a spare record, to report their own mistakes.
      std::vector<std::byte> spare(i < count ? 0 : field.size);
      std::byte* to = i < count ? record + field.offset + i * field.size : spare.data();
      Entry(list.at(i), field, to, EntryKey(key, i));
    }
    Unique(list, field, key,
           [&](size_t i) { return i < count ? record + field.offset + i * field.size : nullptr; });
  }

  void Groups(const toml::array& list, const Field& field, std::byte* record,
              const std::string& key) {
    AddressList addresses(field, record, &problems_);
    std::vector<AddressGroup> groups(list.size());
    for (size_t i = 0; i < list.size(); ++i) {
      const std::string path = EntryKey(key, i);
      const toml::table* const table = list.at(i).as_table();
      if (table == nullptr) {
        AddError(&problems_, LineOf(list.at(i)), path,
                 std::string("wants a table, found ") + TypeName(list.at(i)));
        continue;
      }
      Table(*table, *field.shape, reinterpret_cast<std::byte*>(&groups[i]), path + ".");
      if (AddressList::HasLevels(field) && groups[i].name[0] != '\0') {
        references_.AddDataCentre(groups[i].name, groups[i].game_idc);
      }
      addresses.Add(*table, groups[i], path + ".");
    }
    Store(record + field.count_offset, field.count_size,
          std::min(addresses.count(), field.capacity));
    Unique(list, field, key,
           [&](size_t i) { return reinterpret_cast<const std::byte*>(&groups[i]); });
  }

  // No two entries may have the same value under the keys that say so. Zero and the empty text
  // are no values.
  void Unique(const toml::array& list, const Field& field, const std::string& key,
              const RecordOf& record_of) {
    for (const char* const shared : field.unique) {
      UniqueKey(list, *field.shape->Find(shared), key, record_of);
    }
  }

  void UniqueKey(const toml::array& list, const Field& field, const std::string& key,
                 const RecordOf& record_of) {
    std::map<std::string, size_t> seen;
    for (size_t i = 0; i < list.size(); ++i) {
      const toml::table* table = list.at(i).as_table();
      const std::byte* record = record_of(i);
      if (table == nullptr || record == nullptr || !table->contains(field.key)) continue;
      const std::string value(reinterpret_cast<const char*>(record + field.offset), field.size);
      if (value.find_first_not_of('\0') == std::string::npos) continue;
      const auto [first, is_new] = seen.emplace(value, i);
      if (is_new) continue;
      AddError(&problems_, LineOf(*table->get(field.key)), EntryKey(key, i) + "." + field.key,
               "is that of " + EntryKey(key, first->second) + " too, in line " +
                   std::to_string(LineOf(list.at(first->second))));
    }
  }

  // One value, or one entry of a list, at its place.
  void Entry(const toml::node& node, const Field& field, std::byte* to, const std::string& key) {
    const toml::table* const table = node.as_table();
    if (table != nullptr && field.kind == Kind::kRecord) {
      return Table(*table, *field.shape, to, key + ".");
    }
    if (const auto* name = node.as_string(); name && References::IsReference(field.kind)) {
      return references_.Resolve(**name, LineOf(node), field, to, key);
    }
    if (!values_.Read(node, field, to, key)) return values_.WrongType(node, field, key);
    if (field.kind == Kind::kNode) references_.CheckNode(to, LineOf(node), key);
  }

  std::byte* const tables_;
  Problems problems_;
  References references_;
  ValueReader values_;
};

}  // namespace

Problems ReadTables(const toml::table& table, Tables* tables) {
  Reader reader(tables);
  reader.Table(table, FileShape(), reinterpret_cast<std::byte*>(tables), "");
  return reader.Take();
}

}  // namespace client
