#include "client/config_file.h"

#include <algorithm>

#include "client/record_reader.h"
#include "client/table_rules.h"
#include "client/toml.h"

namespace client {
namespace {

Problem SyntaxProblem(const toml::parse_error& error) {
  return {.severity = Problem::Severity::kError,
          .line = error.source().begin.line,
          .key = "",
          .reason = std::string(error.description())};
}

}  // namespace

ConfigFile ParseConfig(std::string_view text) {
  ConfigFile file;
  file.tables = NewTables();
  const toml::parse_result parsed = toml::parse(text);
  if (!parsed) {
    file.problems.push_back(SyntaxProblem(parsed.error()));
    return file;
  }
  file.problems = ReadTables(parsed.table(), file.tables.get());
  // What the tables say together is worth a look only when each says something by itself.
  if (!HasErrors(file.problems)) CheckTables(parsed.table(), *file.tables, &file.problems);
  std::stable_sort(file.problems.begin(), file.problems.end(),
                   [](const Problem& a, const Problem& b) { return a.line < b.line; });
  if (const toml::array* games = parsed.table()["game"].as_array()) {
    file.game_count = static_cast<unsigned>(games->size());
  }
  return file;
}

}  // namespace client
