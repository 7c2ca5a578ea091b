#include "setup/inspect.h"

#include <algorithm>

#include "setup/change.h"
#include "setup/goal.h"
#include "setup/utf8.h"

namespace setup {
namespace {

// In a chain of ours or of another provider, which may lead to nothing since that was removed.
void FindBrokenChains(const CatalogueImage& image, std::vector<std::string>* problems) {
  for (const WSAPROTOCOL_INFOW& entry : image.entries) {
    for (const DWORD id : ChainOf(entry)) {
      if (!IsOwn(entry.ProviderId) || FindEntry(image, id) != nullptr) continue;
      problems->push_back("'" + ToUtf8(entry.szProtocol) + "' leads to entry " +
                          std::to_string(id) + ", which is gone: its sockets fail");
    }
  }
}

// What a repair would do is what is wrong.
void FindDifferences(Kind kind, const CatalogueImage& image, std::vector<std::string>* problems) {
  MachineImage now;
  now.catalogues[kind] = image;
  InstallOptions options;
  options.libraries[kind] = PathOf(image, OwnProviders(image).front().guid);
  options.over_others = IsOverOthers(image);
  std::string problem;
  const auto goal = InstallGoal(now, options, &problem);
  if (!goal) {
    problems->push_back(problem);
    return;
  }
  const Outcome plan = Plan(now, *goal);
  for (const std::string& step : plan.steps) problems->push_back("to be mended: " + step);
  if (!plan.problem.empty()) problems->push_back(plan.problem);
}

void FindShadows(const CatalogueImage& image, std::vector<std::string>* warnings) {
  for (const Protocol& protocol : kProtocols) {
    const WSAPROTOCOL_INFOW* serving = Serving(image, protocol);
    if (serving == nullptr || IsOwn(serving->ProviderId) || IsBase(*serving)) continue;
    warnings->push_back("'" + ToUtf8(serving->szProtocol) + "' comes first for " + protocol.name +
                        " sockets: the library does not see them (see --over-others)");
  }
}

bool IsOverUs(const CatalogueImage& image, const WSAPROTOCOL_INFOW& entry) {
  return std::ranges::any_of(ChainOf(entry), [&](DWORD id) { return NameOf(image, id).own; });
}

std::vector<OtherProvider> FindOthers(const CatalogueImage& image) {
  std::vector<OtherProvider> others;
  for (const WSAPROTOCOL_INFOW& entry : image.entries) {
    if (IsBase(entry) || IsOwn(entry.ProviderId)) continue;
    OtherProvider other = {.name = ToUtf8(entry.szProtocol),
                           .path = ToUtf8(PathOf(image, entry.ProviderId)),
                           .chain = {},
                           .over_us = IsOverUs(image, entry)};
    for (const DWORD id : ChainOf(entry)) {
      other.chain += (other.chain.empty() ? "" : " ") + std::to_string(id);
    }
    others.push_back(std::move(other));
  }
  return others;
}

CatalogueStatus InspectOne(Kind kind, const CatalogueImage& image, const FileExists& exists) {
  CatalogueStatus status;
  status.kind = kind;
  status.others = FindOthers(image);
  const std::vector<Provider> own = OwnProviders(image);
  if (own.empty()) return status;
  status.library = ToUtf8(own.front().path);
  for (const Provider& provider : own) {
    if (exists(provider.path)) continue;
    status.problems.push_back("its file is missing: " + ToUtf8(provider.path));
    break;
  }
  FindBrokenChains(image, &status.problems);
  FindDifferences(kind, image, &status.problems);
  FindShadows(image, &status.warnings);
  status.state = status.problems.empty() ? State::kComplete : State::kDamaged;
  return status;
}

}  // namespace

std::vector<CatalogueStatus> Inspect(const MachineImage& image, const FileExists& exists) {
  std::vector<CatalogueStatus> all;
  for (const auto& [kind, catalogue] : image.catalogues) {
    all.push_back(InspectOne(kind, catalogue, exists));
  }
  return all;
}

const char* StateName(State state) {
  switch (state) {
    case State::kAbsent:
      return "absent";
    case State::kComplete:
      return "complete";
    case State::kDamaged:
      return "damaged";
  }
  return "";
}

}  // namespace setup
