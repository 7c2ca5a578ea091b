#include "client/record_reader.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <optional>

#include "client/suggest.h"
#include "client/text_rules.h"

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
      return "a table";
    case Kind::kNumber:
      return "a whole number";
    case Kind::kFlag:
      return "true, false or a whole number";
    case Kind::kNames:
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

// The records are little-endian, and so is every machine that this is built for.
void Store(std::byte* to, size_t size, uint64_t value) { std::memcpy(to, &value, size); }

class Reader {
 public:
  void Table(const toml::table& table, const Shape& shape, std::byte* record,
             const std::string& path) {
    Keys(table, shape, path);
    for (const Field& field : shape.fields) {
      const std::string key = path + field.key;
      if (const toml::node* node = table.get(field.key)) {
        Value(*node, field, record, key);
      } else if (field.required) {
        Error(LineOf(table), key, "is missing");
      } else if (field.fallback != 0) {
        Store(record + field.offset, field.size, field.fallback);
      }
    }
  }

  Problems Take() {
    std::stable_sort(problems_.begin(), problems_.end(),
                     [](const Problem& a, const Problem& b) { return a.line < b.line; });
    return std::move(problems_);
  }

 private:
  // Every key that is written must be one of the shape's.
  void Keys(const toml::table& table, const Shape& shape, const std::string& path) {
    for (const auto& [key, node] : table) {
      if (shape.Find(key.str()) != nullptr) continue;
      Error(key.source().begin.line, path + std::string(key.str()),
            WhyUnknown(key.str(), shape, path));
    }
  }

  static std::string WhyUnknown(std::string_view key, const Shape& shape, const std::string& path) {
    for (const Field& field : shape.fields) {
      if (field.count_key != nullptr && key == field.count_key) {
        return "is counted from '" + std::string(field.key) + "'; leave it out";
      }
    }
    std::vector<std::string_view> keys;
    for (const Field& field : shape.fields) keys.emplace_back(field.key);
    const std::string meant = Suggest(key, keys);
    if (!meant.empty()) return "is unknown; did you mean '" + meant + "'?";
    if (!path.empty() && RegionShape().Find(key) != nullptr) {
      return "is unknown here; it belongs at the top of the file, before the first table";
    }
    return "is unknown here";
  }

  void Value(const toml::node& node, const Field& field, std::byte* record,
             const std::string& key) {
    if (field.capacity != 0) {
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
    } else if (field.IsText()) {
      if (const auto* text = node.as_string()) {
        Text(**text, LineOf(node), field, to, key);
        return;
      }
    } else if (const auto* number = node.as_integer()) {
      Number(**number, LineOf(node), field, to, key);
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

  void Error(unsigned line, const std::string& key, const std::string& reason) {
    problems_.push_back({Problem::Severity::kError, line, key, reason});
  }

  Problems problems_;
};

}  // namespace

Problems ReadRecord(const toml::table& table, const Shape& shape, std::byte* record) {
  Reader reader;
  reader.Table(table, shape, record, "");
  return reader.Take();
}

}  // namespace client
