// Text and paths: for any bytes, a conversion gives text that converts back, or refuses. A path
// function never returns text that is not part of its argument.
#include <string>

#include "check.h"
#include "common/paths.h"
#include "common/text.h"

namespace {

using fuzz::Require;

void CheckConversion(const std::string& text) {
  std::wstring wide;
  std::string back;
  if (!common::u8to16(text, &wide)) {
    Require(wide.empty(), "a refusal gives nothing");
    return;
  }
  Require(common::u16to8(wide, &back) && back == text, "it converts back");
}

void CheckWide(const std::string& bytes) {
  // Two bytes for each unit, so that unpaired surrogates occur.
  std::wstring wide;
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
    wide.push_back(static_cast<wchar_t>(static_cast<unsigned char>(bytes[i]) |
                                        static_cast<unsigned char>(bytes[i + 1]) << 8));
  }
  std::string narrow;
  std::wstring back;
  if (common::u16to8(wide, &narrow)) {
    Require(common::u8to16(narrow, &back) && back == wide, "wide text, too");
  }
}

void CheckPaths(const std::string& path) {
  std::string parent;
  std::string name;
  if (common::ParentPath(path, &parent)) {
    Require(!parent.empty() && parent.size() <= path.size(), "a parent is a part of its path");
  }
  if (common::FileName(path, &name)) {
    Require(!name.empty() && path.compare(path.size() - name.size(), name.size(), name) == 0,
            "a name is its end");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  CheckConversion(text);
  CheckWide(text);
  CheckPaths(text);
  return 0;
}
