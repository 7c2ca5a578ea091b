#include "client/check/value_reader.h"

#include <cstring>
#include <span>
#include <string_view>
#include <vector>

#include "client/check/toml_node.h"
#include "client/fields/text_rules.h"
#include "client/suggest.h"

namespace client {
namespace {

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
    case Kind::kNameOrBits:
      return "a name, a list of names or a whole number";
    default:
      return "a text";
  }
}

std::string JoinNames(std::span<const NamedValue> names) {
  std::string all;
  for (const NamedValue& name : names) all += (all.empty() ? "" : ", ") + std::string(name.name);
  return all;
}

bool IsWritten(const Field& field) {  // as text only
  return field.IsText() || field.kind == Kind::kIp || field.kind == Kind::kHex;
}

bool TakesNames(const Field& field) {  // several of them
  return field.kind == Kind::kNameBits || field.kind == Kind::kNameOrBits;
}

}  // namespace

void Store(std::byte* to, size_t size, uint64_t value) { std::memcpy(to, &value, size); }

bool ValueReader::Read(const toml::node& node, const Field& field, std::byte* to,
                       const std::string& key) {
  if (field.kind == Kind::kRecord) return false;
  if (const auto* const text = node.as_string()) {
    return ReadString(**text, LineOf(node), field, to, key);
  }
  if (IsWritten(field)) return false;
  if (const auto* const number = node.as_integer()) {
    Number(**number, LineOf(node), field, to, key);
    return true;
  }
  if (const auto* const flag = node.as_boolean(); flag && field.kind == Kind::kFlag) {
    Store(to, field.size, **flag ? 1 : 0);
    return true;
  }
  if (const auto* const list = node.as_array(); list && TakesNames(field)) {
    NameBits(*list, field, to, key);
    return true;
  }
  return false;
}

bool ValueReader::ReadString(const std::string& text, unsigned line, const Field& field,
                             std::byte* to, const std::string& key) {
  if (field.IsText()) {
    Text(text, line, field, to, key);
  } else if (field.kind == Kind::kIp) {
    Address(text, line, field, to, key);
  } else if (field.kind == Kind::kHex) {
    Bytes(text, line, field, to, key);
  } else if (field.kind == Kind::kNames || field.kind == Kind::kNameOrBits) {
    if (const auto value = Name(text, line, field, key)) Store(to, field.size, *value);
  } else if (field.kind == Kind::kNumber && field.size == sizeof(uint64_t)) {
    BigNumber(text, line, field, to, key);
  } else {
    return false;
  }
  return true;
}

void ValueReader::WrongType(const toml::node& node, const Field& field, const std::string& key) {
  Error(LineOf(node), key, std::string("wants ") + WantedName(field) + ", found " + TypeName(node));
}

void ValueReader::Number(int64_t number, unsigned line, const Field& field, std::byte* to,
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

void ValueReader::BigNumber(const std::string& digits, unsigned line, const Field& field,
                            std::byte* to, const std::string& key) {
  if (const auto number = ParseNumber(digits)) {
    Store(to, field.size, *number);
  } else {
    Error(line, key,
          "'" + digits + "' is no whole number from 0 to " + std::to_string(field.Max()));
  }
}

std::optional<uint64_t> ValueReader::Name(const std::string& written, unsigned line,
                                          const Field& field, const std::string& key) {
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

void ValueReader::NameBits(const toml::array& list, const Field& field, std::byte* to,
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

void ValueReader::Text(const std::string& text, unsigned line, const Field& field, std::byte* to,
                       const std::string& key) {
  if (text.size() + 1 > field.size) {
    Error(line, key,
          "takes at most " + std::to_string(field.size) +
              " bytes of UTF-8 with the NUL behind them, found " + std::to_string(text.size() + 1));
    return;
  }
  if (const std::string reason = WhyRefused(text, field.kind); !reason.empty()) {
    Error(line, key, reason);
    return;
  }
  if (const std::string doubt = WhyDoubtful(text, field.kind); !doubt.empty()) {
    problems_->push_back({Problem::Severity::kWarning, line, key, doubt});
  }
  std::memcpy(to, text.data(), text.size());
}

void ValueReader::Address(const std::string& text, unsigned line, const Field& field, std::byte* to,
                          const std::string& key) {
  if (const auto ip = ParseAddress(text)) {
    Store(to, field.size, *ip);
  } else {
    Error(line, key, "'" + text + "' is no dotted IPv4 address");
  }
}

void ValueReader::Bytes(const std::string& text, unsigned line, const Field& field, std::byte* to,
                        const std::string& key) {
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

void ValueReader::Error(unsigned line, const std::string& key, const std::string& reason) {
  AddError(problems_, line, key, reason);
}

}  // namespace client
