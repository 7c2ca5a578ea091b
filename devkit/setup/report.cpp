#include "setup/report.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "setup/image_json.h"

namespace setup {

const char kExitCodesHelp[] =
    "Exit codes:\n"
    "  0   done, or nothing to do; status: complete in every catalogue\n"
    "  1   failed; nothing has changed\n"
    "  2   the command line makes no sense\n"
    "  3   the file of --catalogue cannot be read or written\n"
    "  4   the library is missing, or not one for that kind of programs\n"
    "  5   administrator rights are needed\n"
    "  6   refused: another provider is layered over the library, or there is nothing to layer "
    "over\n"
    "  7   failed, and could not be undone: run it again\n"
    "  8   another vyr_setup is at work\n"
    "  10  status: absent from a catalogue\n"
    "  11  status: damaged, or an earlier run was cut short\n";

namespace {

void Print(const Json& json) {
  std::printf("%s\n", json.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
}

struct ResultWords {
  Result result;
  const char* word;
  const char* text;
  int exit_code;
};
constexpr ResultWords kResults[] = {
    {Result::kNothingToDo, "nothing", "nothing to do", kExitDone},
    {Result::kDone, "done", "done", kExitDone},
    {Result::kRefused, "refused", "refused, nothing has changed", kExitRefused},
    {Result::kFailed, "failed", "failed, and everything is as it was", kExitFailed},
    {Result::kUnfinished, "unfinished",
     "failed, and not everything could be undone: run vyr_setup again", kExitUnfinished},
};

const ResultWords& WordsOf(Result result) {
  return *std::ranges::find_if(kResults, [&](const auto& row) { return row.result == result; });
}

Json ToJson(const CatalogueStatus& status) {
  Json others = Json::array();
  for (const OtherProvider& other : status.others) {
    others.push_back({{"name", other.name},
                      {"path", other.path},
                      {"chain", other.chain},
                      {"over_us", other.over_us}});
  }
  return {{"kind", KindName(status.kind)}, {"state", StateName(status.state)},
          {"library", status.library},     {"problems", status.problems},
          {"warnings", status.warnings},   {"other_providers", others}};
}

void PrintText(const CatalogueStatus& status) {
  std::printf("%s-bit catalogue: %s%s%s\n", KindName(status.kind), StateName(status.state),
              status.library.empty() ? "" : ", ", status.library.c_str());
  for (const std::string& problem : status.problems)
    std::printf("  problem: %s\n", problem.c_str());
  for (const std::string& warning : status.warnings)
    std::printf("  warning: %s\n", warning.c_str());
  for (const OtherProvider& other : status.others) {
    std::printf("  other provider%s: '%s', chain %s, %s\n",
                other.over_us ? " over the library" : "", other.name.c_str(),
                other.chain.empty() ? "none" : other.chain.c_str(), other.path.c_str());
  }
}

}  // namespace

int ReportOutcome(const Outcome& outcome, bool dry_run, bool json) {
  const ResultWords& words = WordsOf(outcome.result);
  if (json) {
    Print({{"result", words.word},
           {"dry_run", dry_run},
           {"problem", outcome.problem},
           {"steps", outcome.steps}});
    return words.exit_code;
  }
  for (const std::string& step : outcome.steps) {
    std::printf("%s%s\n", dry_run ? "would " : "", step.c_str());
  }
  const bool good = words.exit_code == kExitDone;
  if (good) std::printf("%s\n", dry_run ? "nothing was changed" : words.text);
  std::fflush(stdout);
  if (!good) std::fprintf(stderr, "vyr_setup: %s: %s\n", words.text, outcome.problem.c_str());
  return words.exit_code;
}

int ReportStatus(const std::vector<CatalogueStatus>& all, bool unfinished, bool has_both,
                 bool json) {
  Json catalogues = Json::array();
  bool absent = false;
  bool damaged = unfinished;
  for (const CatalogueStatus& status : all) {
    catalogues.push_back(ToJson(status));
    absent = absent || status.state == State::kAbsent;
    damaged = damaged || status.state == State::kDamaged;
    if (!json) PrintText(status);
  }
  if (json) {
    Print({{"unfinished", unfinished}, {"all_in_reach", has_both}, {"catalogues", catalogues}});
  } else {
    if (unfinished) std::printf("an earlier run was cut short: run vyr_setup repair\n");
    if (!has_both) std::printf("the vyr_setup of the other kind is not beside this one\n");
  }
  return damaged ? kExitDamaged : absent ? kExitAbsent : kExitDone;
}

}  // namespace setup
