// What is in the catalogues, for `status`: whether the library is installed, what is wrong with
// it, and which other layered providers there are.
#pragma once
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "setup/own.h"

namespace setup {

enum class State { kAbsent, kComplete, kDamaged };

struct OtherProvider {
  std::string name;
  std::string path;
  std::string chain;  // numbers of entries; empty for a hidden entry
  bool over_us = false;
};

struct CatalogueStatus {
  Kind kind = Kind::k32;
  State state = State::kAbsent;
  std::string library;
  std::vector<std::string> problems;  // empty if complete
  std::vector<std::string> warnings;  // what is as it should be, and keeps the library from work
  std::vector<OtherProvider> others;
};

// `exists` says whether the file of a provider is there.
using FileExists = std::function<bool(const std::wstring& path)>;

std::vector<CatalogueStatus> Inspect(const MachineImage& image, const FileExists& exists);

const char* StateName(State state);

}  // namespace setup
