#include "setup/guid_text.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace setup {
namespace {

constexpr std::string_view kShape = "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}";

bool HasShape(const std::string& text) {
  if (text.size() != kShape.size()) return false;
  for (size_t i = 0; i < kShape.size(); ++i) {
    const bool hex = std::string_view("0123456789abcdefABCDEF").find(text[i]) != kShape.npos;
    if (kShape[i] == 'x' ? !hex : text[i] != kShape[i]) return false;
  }
  return true;
}

uint32_t Hex(const std::string& text, size_t at, size_t digits) {
  return static_cast<uint32_t>(std::strtoul(text.substr(at, digits).c_str(), nullptr, 16));
}

}  // namespace

std::string GuidText(const GUID& guid) {
  char text[40];
  std::snprintf(text, sizeof text, "{%08X-%04X-%04X-%02X%02X-", static_cast<unsigned>(guid.Data1),
                unsigned{guid.Data2}, unsigned{guid.Data3}, unsigned{guid.Data4[0]},
                unsigned{guid.Data4[1]});
  std::string all = text;
  for (size_t i = 2; i < 8; ++i) {
    std::snprintf(text, sizeof text, "%02X", unsigned{guid.Data4[i]});
    all += text;
  }
  return all + "}";
}

std::optional<GUID> ParseGuid(const std::string& text) {
  if (!HasShape(text)) return std::nullopt;
  GUID guid = {};
  guid.Data1 = Hex(text, 1, 8);
  guid.Data2 = static_cast<uint16_t>(Hex(text, 10, 4));
  guid.Data3 = static_cast<uint16_t>(Hex(text, 15, 4));
  for (size_t i = 0; i < 8; ++i) {
    guid.Data4[i] = static_cast<uint8_t>(Hex(text, (i < 2 ? 20 : 21) + 2 * i, 2));
  }
  return guid;
}

}  // namespace setup
