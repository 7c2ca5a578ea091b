#include "gametest/mending_list.h"

#include <algorithm>
#include <iterator>

#include "abi/mending_names.h"

namespace moru_vyr::lsp {
namespace {

constexpr char kSpaces[] = " \t";

std::string_view Trimmed(std::string_view text) noexcept {
  const std::size_t begin = text.find_first_not_of(kSpaces);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kSpaces) + 1 - begin);
}

// 0: there is no such name.
u32 BitsOf(std::string_view name) noexcept {
  const auto* const found =
      std::find_if(std::begin(kMendingNames), std::end(kMendingNames),
                   [name](const MendingName& known) { return name == known.name; });
  return found != std::end(kMendingNames) ? found->bit : 0;
}

}  // namespace

bool ReadMendingList(std::string_view text, u32* bits, std::string* unknown) {
  const std::string_view whole = Trimmed(text);
  *bits = 0;
  if (whole.empty() || whole == "none") return true;
  for (std::size_t begin = 0; begin <= whole.size();) {
    const std::size_t comma = std::min(whole.find(',', begin), whole.size());
    const std::string_view name = Trimmed(whole.substr(begin, comma - begin));
    const u32 meant = begin == 0 && name == "all" ? kMendAll : BitsOf(name);
    if (meant == 0) {
      *unknown = name;
      return false;
    }
    *bits |= meant;
    begin = comma + 1;
  }
  return true;
}

}  // namespace moru_vyr::lsp
