#include "setup/image_json.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "setup/guid_text.h"
#include "setup/utf8.h"

namespace setup {
namespace {

constexpr int kVersion = 1;
constexpr const char* kMark = "vyr_catalogue";

struct NumberField {
  const char* key;
  DWORD WSAPROTOCOL_INFOW::*flags;  // one of the two
  int WSAPROTOCOL_INFOW::*number;
};
constexpr NumberField kNumbers[] = {
    {"id", &WSAPROTOCOL_INFOW::dwCatalogEntryId, nullptr},
    {"family", nullptr, &WSAPROTOCOL_INFOW::iAddressFamily},
    {"type", nullptr, &WSAPROTOCOL_INFOW::iSocketType},
    {"protocol", nullptr, &WSAPROTOCOL_INFOW::iProtocol},
    {"protocol_range", nullptr, &WSAPROTOCOL_INFOW::iProtocolMaxOffset},
    {"provider_flags", &WSAPROTOCOL_INFOW::dwProviderFlags, nullptr},
    {"service_flags1", &WSAPROTOCOL_INFOW::dwServiceFlags1, nullptr},
    {"service_flags2", &WSAPROTOCOL_INFOW::dwServiceFlags2, nullptr},
    {"service_flags3", &WSAPROTOCOL_INFOW::dwServiceFlags3, nullptr},
    {"service_flags4", &WSAPROTOCOL_INFOW::dwServiceFlags4, nullptr},
    {"version", nullptr, &WSAPROTOCOL_INFOW::iVersion},
    {"most_address", nullptr, &WSAPROTOCOL_INFOW::iMaxSockAddr},
    {"least_address", nullptr, &WSAPROTOCOL_INFOW::iMinSockAddr},
    {"byte_order", nullptr, &WSAPROTOCOL_INFOW::iNetworkByteOrder},
    {"security", nullptr, &WSAPROTOCOL_INFOW::iSecurityScheme},
    {"message_size", &WSAPROTOCOL_INFOW::dwMessageSize, nullptr},
    {"reserved", &WSAPROTOCOL_INFOW::dwProviderReserved, nullptr},
};

GUID GuidFrom(const std::string& text) {
  const std::optional<GUID> guid = ParseGuid(text);
  if (!guid) throw std::invalid_argument("not a GUID: " + text);
  return *guid;
}

Kind KindFrom(const std::string& name) {
  if (name != "32" && name != "64") throw std::invalid_argument("neither 32 nor 64: " + name);
  return name == "64" ? Kind::k64 : Kind::k32;
}

// All seven ids are kept: those behind the length are Windows' own matter.
void ChainFromJson(const Json& json, WSAPROTOCOLCHAIN* chain) {
  chain->ChainLen = json.at("chain_length").get<int>();
  const auto ids = json.at("chain").get<std::vector<DWORD>>();
  if (ids.size() > MAX_PROTOCOL_CHAIN || chain->ChainLen < 0 ||
      chain->ChainLen > MAX_PROTOCOL_CHAIN) {
    throw std::invalid_argument("a chain of more than seven entries");
  }
  std::copy(ids.begin(), ids.end(), chain->ChainEntries);
}

Json CatalogueJson(const CatalogueImage& image) {
  Json entries = Json::array();
  for (const WSAPROTOCOL_INFOW& entry : image.entries) entries.push_back(setup::ToJson(entry));
  Json paths = Json::object();
  for (const ProviderPath& known : image.paths) {
    paths[GuidText(known.provider)] = ToUtf8(known.path);
  }
  return {{"entries", entries}, {"providers", paths}};
}

CatalogueImage CatalogueFromJson(const Json& json) {
  CatalogueImage image;
  for (const Json& entry : json.at("entries")) image.entries.push_back(EntryFromJson(entry));
  for (const auto& [guid, path] : json.at("providers").items()) {
    image.paths.push_back({GuidFrom(guid), ToWide(path.get<std::string>())});
  }
  return image;
}

}  // namespace

Json ToJson(const WSAPROTOCOL_INFOW& entry) {
  Json json = {{"name", ToUtf8(entry.szProtocol)}, {"provider", GuidText(entry.ProviderId)}};
  const DWORD* ids = entry.ProtocolChain.ChainEntries;
  int used = MAX_PROTOCOL_CHAIN;
  while (used > 0 && ids[used - 1] == 0) --used;
  json["chain_length"] = entry.ProtocolChain.ChainLen;
  json["chain"] = std::vector<DWORD>(ids, ids + used);
  for (const NumberField& field : kNumbers) {
    if (field.flags != nullptr) {
      json[field.key] = entry.*field.flags;
    } else {
      json[field.key] = entry.*field.number;
    }
  }
  return json;
}

WSAPROTOCOL_INFOW EntryFromJson(const Json& json) {
  WSAPROTOCOL_INFOW entry = {};
  entry.ProviderId = GuidFrom(json.at("provider").get<std::string>());
  const std::wstring name = ToWide(json.at("name").get<std::string>());
  name.copy(entry.szProtocol, std::size(entry.szProtocol) - 1);
  ChainFromJson(json, &entry.ProtocolChain);
  for (const NumberField& field : kNumbers) {
    if (field.flags != nullptr) {
      entry.*field.flags = json.value(field.key, DWORD{0});
    } else {
      entry.*field.number = json.value(field.key, 0);
    }
  }
  return entry;
}

Json ToJson(const MachineImage& image) {
  Json catalogues = Json::object();
  for (const auto& [kind, catalogue] : image.catalogues) {
    catalogues[KindName(kind)] = CatalogueJson(catalogue);
  }
  Json applications = Json::object();
  for (const auto& [program, permitted] : image.applications) {
    applications[ToUtf8(program)] = permitted;
  }
  return {{kMark, kVersion}, {"catalogues", catalogues}, {"applications", applications}};
}

MachineImage ImageFromJson(const Json& json) {
  if (json.at(kMark).get<int>() != kVersion) {
    throw std::invalid_argument("a version of the file that this program does not know");
  }
  MachineImage image;
  for (const auto& [kind, catalogue] : json.at("catalogues").items()) {
    image.catalogues[KindFrom(kind)] = CatalogueFromJson(catalogue);
  }
  const Json applications = json.value("applications", Json::object());
  for (const auto& [program, permitted] : applications.items()) {
    image.applications[ToWide(program)] = permitted.get<DWORD>();
  }
  return image;
}

bool ParseImage(const std::string& text, MachineImage* image, std::string* problem) {
  try {
    *image = ImageFromJson(Json::parse(text));
    return true;
  } catch (const std::exception& error) {
    *problem = error.what();
    return false;
  }
}

std::string ImageText(const MachineImage& image) {
  return ToJson(image).dump(1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace setup
