#include "client/watch/report_json.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>

#include "client/fields/mending_text.h"
#include "client/fields/text_rules.h"
#include "client/watch/report_fields.h"

namespace client {
namespace {

using Json = nlohmann::ordered_json;

constexpr char kMendedKey[] = "mended";
constexpr char kLibraryFileKey[] = "library_file";
constexpr char kDirectDelayKey[] = "tables_direct_delay";
constexpr char kDirectLostKey[] = "tables_direct_lost";

// The records are little-endian, and so is every machine that this is built for.
uint64_t Load(const std::byte* from, size_t size) {
  uint64_t value = 0;
  std::memcpy(&value, from, size);
  return value;
}

uint32_t Reversed(uint32_t value) { return __builtin_bswap32(value); }

Json ShapeJson(const std::byte* record, const ReportShape& shape);

Json ValueJson(const std::byte* from, const ReportField& field) {
  const char* const text = reinterpret_cast<const char*>(from);
  switch (field.form) {
    case Form::kUnsigned:
      return Load(from, field.size);
    case Form::kSigned:
      return static_cast<int32_t>(Load(from, sizeof(int32_t)));
    case Form::kFloat: {
      double value = 0;
      std::memcpy(&value, from, sizeof value);
      return value;
    }
    case Form::kText:
      // A text that was cut by its field or written by a game may not be valid UTF-8, and it must
      // fit again.
      return OnlyUtf8(std::string(text, std::find(text, text + field.size, '\0')));
    case Form::kIp:
      return AddressText(static_cast<uint32_t>(Load(from, sizeof(uint32_t))));
    case Form::kIpOfHost:
      return AddressText(Reversed(static_cast<uint32_t>(Load(from, sizeof(uint32_t)))));
    case Form::kHex:
      return HexText(text, field.size);
    default:
      return ShapeJson(from, *field.shape);
  }
}

void AddFields(const std::byte* record, const ReportShape& shape, Json* object) {
  for (const ReportField& field : shape.fields) {
    const std::byte* const from = record + field.offset;
    if (field.count == 0) {
      (*object)[field.key] = ValueJson(from, field);
      continue;
    }
    Json list = Json::array();
    for (size_t i = 0; i < field.count; ++i)
      list.push_back(ValueJson(from + i * field.size, field));
    (*object)[field.key] = std::move(list);
  }
}

Json ShapeJson(const std::byte* record, const ReportShape& shape) {
  Json object = Json::object();
  AddFields(record, shape, &object);
  return object;
}

// --- and back; anything else than what was written throws Unreadable ---

struct Unreadable {
  std::string key;
};

void ReadShape(const Json& object, const ReportShape& shape, std::byte* record);

bool Fits(const Json& value, const ReportField& field) {
  if (!value.is_number_integer()) return false;
  if (!value.is_number_unsigned()) {
    return field.form == Form::kSigned && value.get<int64_t>() >= INT32_MIN;
  }
  const size_t bits = 8 * field.size - (field.form == Form::kSigned ? 1 : 0);
  return bits == 64 || value.get<uint64_t>() >> bits == 0;
}

void ReadText(const std::string& text, const ReportField& field, std::byte* to) {
  if (text.size() > field.size) throw Unreadable{field.key};
  std::memcpy(to, text.data(), text.size());
}

void ReadIp(const std::string& text, const ReportField& field, std::byte* to) {
  const auto ip = ParseAddress(text);
  if (!ip) throw Unreadable{field.key};
  const uint32_t stored = field.form == Form::kIp ? *ip : Reversed(*ip);
  std::memcpy(to, &stored, sizeof stored);
}

void ReadValue(const Json& value, const ReportField& field, std::byte* to) {
  switch (field.form) {
    case Form::kUnsigned:
    case Form::kSigned: {
      if (!Fits(value, field)) throw Unreadable{field.key};
      const uint64_t number = value.get<uint64_t>();
      std::memcpy(to, &number, field.size);
      return;
    }
    case Form::kFloat: {
      const double number = value.get<double>();
      std::memcpy(to, &number, sizeof number);
      return;
    }
    case Form::kText:
      return ReadText(value.get<std::string>(), field, to);
    case Form::kIp:
    case Form::kIpOfHost:
      return ReadIp(value.get<std::string>(), field, to);
    case Form::kHex: {
      const auto bytes = ParseHex(value.get<std::string>());
      if (!bytes) throw Unreadable{field.key};
      return ReadText(*bytes, field, to);
    }
    default:
      if (!value.is_object()) throw Unreadable{field.key};
      return ReadShape(value, *field.shape, to);
  }
}

// A value of the wrong kind is named like any other value that the field cannot hold.
void ReadField(const Json& value, const ReportField& field, std::byte* to) {
  try {
    ReadValue(value, field, to);
  } catch (const Json::exception&) {
    throw Unreadable{field.key};
  }
}

void ReadShape(const Json& object, const ReportShape& shape, std::byte* record) {
  for (const ReportField& field : shape.fields) {
    const auto found = object.find(field.key);
    if (found == object.end()) continue;
    if (field.count == 0) {
      ReadField(*found, field, record + field.offset);
      continue;
    }
    if (!found->is_array() || found->size() > field.count) throw Unreadable{field.key};
    for (size_t i = 0; i < found->size(); ++i) {
      ReadField(found->at(i), field, record + field.offset + i * field.size);
    }
  }
}

// One of the keys before those of the record. 0 where it is left out.
template <typename Number>
Number NumberUnder(const char* key, const Json& object) {
  const auto found = object.find(key);
  if (found == object.end()) return 0;
  const bool fits =
      found->is_number_unsigned() && found->get<uint64_t>() <= std::numeric_limits<Number>::max();
  if (!fits) throw Unreadable{key};
  return found->get<Number>();
}

std::optional<uint32_t> MendedOf(const Json& object) {
  const auto found = object.find(kMendedKey);
  if (found == object.end()) return std::nullopt;
  try {
    if (const auto bits = MendingBits(found->get<std::vector<std::string>>())) return bits;
  } catch (const Json::exception&) {
    // It is no list of texts.
  }
  throw Unreadable{kMendedKey};
}

std::string LibraryFileOf(const Json& object) {
  const auto found = object.find(kLibraryFileKey);
  if (found == object.end()) return "";
  if (!found->is_string()) throw Unreadable{kLibraryFileKey};
  return found->get<std::string>();
}

std::optional<DirectWay> DirectOf(const Json& object) {
  if (!object.contains(kDirectDelayKey)) return std::nullopt;
  return DirectWay{NumberUnder<uint32_t>(kDirectDelayKey, object),
                   NumberUnder<uint32_t>(kDirectLostKey, object)};
}

// What is no part of the record, behind it.
void AddNotes(const Report& report, Json* object) {
  if (report.direct) {
    (*object)[kDirectDelayKey] = report.direct->delay;
    (*object)[kDirectLostKey] = report.direct->lost;
  }
  if (!report.library_file.empty()) (*object)[kLibraryFileKey] = report.library_file;
  if (report.mended) (*object)[kMendedKey] = MendingNames(*report.mended);
}

std::string EventOf(const Json& object) {
  const auto found = object.find("event");
  return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

std::optional<ReportKind> KindOf(const std::string& name) {
  for (int i = 0; i < kReportKindCount; ++i) {
    const ReportKind kind = static_cast<ReportKind>(i);
    if (name == ChannelOf(kind).name) return kind;
  }
  return std::nullopt;
}

}  // namespace

std::string ReportJson(const Report& report) {
  const ChannelRow& row = ChannelOf(report.kind);
  Json object = {{"event", row.name}, {"time", report.time_ms}, {"slot", report.slot}};
  AddFields(report.bytes.data(), row.shape, &object);
  AddNotes(report, &object);
  // Texts come from the game's process and may not be valid UTF-8.
  return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::optional<Report> ReportFromJson(const std::string& line, Problem* problem) {
  *problem = {};
  const Json object = Json::parse(line, nullptr, false);
  if (!object.is_object()) {
    problem->reason = "is no JSON object";
    return std::nullopt;
  }
  const std::string name = EventOf(object);
  const auto kind = KindOf(name);
  if (!kind) {
    const bool is_ours = name == "failure" || name == "serving";
    if (!is_ours) *problem = {.key = "event", .reason = "'" + name + "' is no report"};
    return std::nullopt;
  }
  try {
    const ReportShape& shape = ChannelOf(*kind).shape;
    Report report = {.kind = *kind,
                     .time_ms = NumberUnder<uint64_t>("time", object),
                     .slot = NumberUnder<uint32_t>("slot", object),
                     .bytes = std::vector<std::byte>(shape.size),
                     .mended = MendedOf(object),
                     .library_file = LibraryFileOf(object),
                     .direct = DirectOf(object)};
    ReadShape(object, shape, report.bytes.data());
    return report;
  } catch (const Unreadable& value) {
    *problem = {.key = value.key, .reason = "has a value that does not fit there"};
    return std::nullopt;
  }
}

}  // namespace client
