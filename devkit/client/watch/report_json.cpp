#include "client/watch/report_json.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "client/text_rules.h"
#include "client/watch/report_fields.h"

namespace client {
namespace {

using Json = nlohmann::ordered_json;

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
      return std::string(text, std::find(text, text + field.size, '\0'));
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

// --- and back; whatever is not as it was written throws ---

struct Unreadable {
  std::string key;
};

void ReadShape(const Json& object, const ReportShape& shape, std::byte* record);

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
      if (!value.is_number_integer()) throw Unreadable{field.key};
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
      return ReadShape(value, *field.shape, to);
  }
}

void ReadShape(const Json& object, const ReportShape& shape, std::byte* record) {
  for (const ReportField& field : shape.fields) {
    const auto found = object.find(field.key);
    if (found == object.end()) continue;
    if (field.count == 0) {
      ReadValue(*found, field, record + field.offset);
      continue;
    }
    if (!found->is_array() || found->size() > field.count) throw Unreadable{field.key};
    for (size_t i = 0; i < found->size(); ++i) {
      ReadValue(found->at(i), field, record + field.offset + i * field.size);
    }
  }
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
  // Texts come from the game's process and may be no UTF-8.
  return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::optional<Report> ReportFromJson(const std::string& line, std::string* why) {
  const Json object = Json::parse(line, nullptr, false);
  if (!object.is_object()) {
    *why = "is no JSON object";
    return std::nullopt;
  }
  try {
    const std::string name = object.value("event", "");
    const auto kind = KindOf(name);
    if (!kind) {
      *why = name == "failure" ? "" : "has no event that is a report: '" + name + "'";
      return std::nullopt;
    }
    const ReportShape& shape = ChannelOf(*kind).shape;
    Report report = {.kind = *kind,
                     .time_ms = object.value("time", uint64_t{0}),
                     .slot = object.value("slot", uint32_t{0}),
                     .bytes = std::vector<std::byte>(shape.size)};
    ReadShape(object, shape, report.bytes.data());
    return report;
  } catch (const Unreadable& field) {
    *why = "has a value that does not fit under '" + field.key + "'";
  } catch (const Json::exception& error) {
    *why = error.what();
  }
  return std::nullopt;
}

}  // namespace client
