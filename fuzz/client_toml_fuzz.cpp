// The client program's configuration file: any text is refused with a line of its own that says
// why, or taken; and what was taken survives being written and read again, byte by byte.
#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>

#include "check.h"
#include "client/check/config_file.h"
#include "client/dump/dump.h"
#include "client/explain/explain.h"
#include "client/fields/tables.h"

namespace {

using fuzz::Require;

void CheckProblems(const client::Problems& problems, const std::string& text) {
  const auto lines = std::count(text.begin(), text.end(), '\n') + 1;
  for (const client::Problem& problem : problems) {
    Require(!problem.reason.empty(), "a problem has a reason");
    Require(problem.line <= static_cast<unsigned>(lines) + 1, "and a line of the file");
    Require(!ToText("file", problem).empty());
  }
}

void CheckSurvives(const client::ConfigFile& file) {
  const std::string dump = client::DumpToml(*file.tables);
  const client::ConfigFile again = client::ParseConfig(dump);
  Require(!HasErrors(again.problems), "what was written can be read");
  Require(std::memcmp(file.tables.get(), again.tables.get(), sizeof *file.tables) == 0,
          "and gives the same tables");
  Require(client::DumpToml(*again.tables) == dump, "and the same file");
  Require(nlohmann::json::accept(client::DumpJson(*file.tables)), "the same as JSON");
}

void CheckExplains(const client::ConfigFile& file) {
  for (const char* protocol : {"tcp", "udp"}) {
    const auto question = client::ParseQuestion("198.51.100.10:27015", protocol);
    Require(question.has_value());
    const client::Explanation answer = client::Explain(*file.tables, *question, file.advice);
    Require(nlohmann::json::accept(client::ExplanationJson(answer)), "an answer is JSON");
    Require(!answer.problem.empty() || !answer.conclusion.empty(), "and concludes something");
    client::ExplanationText(answer);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const client::ConfigFile file = client::ParseConfig(text);
  CheckProblems(AllProblems(file), text);
  if (HasErrors(file.problems)) return 0;
  CheckSurvives(file);
  CheckExplains(file);
  return 0;
}
