#include "client/check/config_file.h"

#include <algorithm>

#include "client/check/record_reader.h"
#include "client/check/syntax_words.h"
#include "client/check/table_rules.h"
#include "client/check/toml.h"
#include "client/check/toml_node.h"

namespace client {
namespace {

Problem SyntaxProblem(std::string_view text, const toml::parse_error& error) {
  const toml::source_position at = error.source().begin;
  return {.line = at.line, .reason = SyntaxWords(text, at.line, at.column, error.description())};
}

void SortByLine(Problems* problems) {
  std::stable_sort(problems->begin(), problems->end(),
                   [](const Problem& a, const Problem& b) { return a.line < b.line; });
}

bool IsSame(const Problem& a, const Problem& b) { return a.key == b.key && a.reason == b.reason; }

}  // namespace

// A fault of a node concerns every game that uses it, and is reported once.
Problems AllProblems(const ConfigFile& file) {
  Problems all = file.problems;
  for (const SwitchAdvice& advice : file.advice) {
    const bool is_said = std::any_of(
        all.begin(), all.end(), [&](const Problem& said) { return IsSame(said, advice.problem); });
    if (!is_said) all.push_back(advice.problem);
  }
  SortByLine(&all);
  return all;
}

ConfigFile ParseConfig(std::string_view text) {
  ConfigFile file;
  file.tables = NewTables();
  if (std::string reason = WhyWrongEncoding(text); !reason.empty()) {
    file.problems.push_back({.reason = std::move(reason)});
    return file;
  }
  const toml::parse_result parsed = toml::parse(text);
  if (!parsed) {
    file.problems.push_back(SyntaxProblem(text, parsed.error()));
    return file;
  }
  file.problems = ReadTables(parsed.table(), file.tables.get());
  // Rules across tables are checked only if each table is valid by itself.
  if (!HasErrors(file.problems)) CheckTables(parsed.table(), *file.tables, &file.problems);
  if (!HasErrors(file.problems)) file.advice = AdviseOnSwitching(*file.tables);
  for (SwitchAdvice& advice : file.advice) {
    advice.problem.line = LineOfKey(parsed.table(), advice.problem.key);
  }
  SortByLine(&file.problems);
  if (const toml::array* games = parsed.table()["game"].as_array()) {
    file.game_count = static_cast<unsigned>(games->size());
  }
  return file;
}

}  // namespace client
