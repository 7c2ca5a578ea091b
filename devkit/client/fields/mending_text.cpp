#include "client/fields/mending_text.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iterator>

#include "abi/mending_names.h"

namespace client {
namespace {

using moru_vyr::lsp::kMendAll;
using moru_vyr::lsp::kMendingNames;
using moru_vyr::lsp::kMendKnown;
using moru_vyr::lsp::MendingName;

constexpr size_t kPrefix = 2;  // of a number: 0x

std::optional<uint32_t> BitsOf(const std::string& name) {
  const auto* const found =
      std::find_if(std::begin(kMendingNames), std::end(kMendingNames),
                   [&name](const MendingName& known) { return name == known.name; });
  if (found != std::end(kMendingNames)) return found->bit;
  if (name.compare(0, kPrefix, "0x") != 0) return std::nullopt;
  uint32_t bits = 0;
  const char* const end = name.data() + name.size();
  const auto [last, error] = std::from_chars(name.data() + kPrefix, end, bits, 16);
  if (error != std::errc() || last != end) return std::nullopt;
  return bits;
}

}  // namespace

std::vector<std::string> MendingNames(uint32_t bits) {
  std::vector<std::string> names;
  for (const MendingName& known : kMendingNames) {
    if ((bits & known.bit) != 0) names.emplace_back(known.name);
  }
  if (const uint32_t rest = bits & ~kMendKnown; rest != 0) {
    char number[16];
    std::snprintf(number, sizeof number, "0x%x", static_cast<unsigned>(rest));
    names.emplace_back(number);
  }
  return names;
}

std::optional<uint32_t> MendingBits(const std::vector<std::string>& names) {
  uint32_t bits = 0;
  for (const std::string& name : names) {
    const auto more = BitsOf(name);
    if (!more) return std::nullopt;
    bits |= *more;
  }
  return bits;
}

std::string MendingText(uint32_t bits) {
  if (bits == 0) return "nothing";
  const bool has_all = (bits & kMendAll) == kMendAll;
  std::string text = has_all ? "all" : "";
  for (const std::string& name : MendingNames(has_all ? bits & ~kMendAll : bits))
    text += (text.empty() ? "" : ", ") + name;
  return text;
}

}  // namespace client
