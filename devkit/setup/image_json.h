// The text form of catalogues: what --catalogue reads and writes, what the journal keeps, and what
// the two kinds of vyr_setup tell each other. README.md describes it. Knows nothing of the library,
// so that winsock_host can read it too.
#pragma once
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "setup/image.h"

namespace setup {

using Json = nlohmann::ordered_json;

Json ToJson(const WSAPROTOCOL_INFOW& entry);
Json ToJson(const MachineImage& image);

// These throw nlohmann::json::exception or std::invalid_argument where something is missing or
// has the wrong type.
WSAPROTOCOL_INFOW EntryFromJson(const Json& json);
MachineImage ImageFromJson(const Json& json);

// The whole text. False with a `*problem` that says where and why; nothing is thrown.
bool ParseImage(const std::string& text, MachineImage* image, std::string* problem);
std::string ImageText(const MachineImage& image);

}  // namespace setup
