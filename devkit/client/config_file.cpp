#include "client/config_file.h"

#include "client/record_reader.h"
#include "client/toml.h"

namespace client {
namespace {

using moru_vyr::lsp::RestrictionRegion;

Problem SyntaxProblem(const toml::parse_error& error) {
  return {.severity = Problem::Severity::kError,
          .line = error.source().begin.line,
          .key = "",
          .reason = std::string(error.description())};
}

}  // namespace

ConfigFile ParseConfig(std::string_view text) {
  ConfigFile file;
  const toml::parse_result parsed = toml::parse(text);
  if (!parsed) {
    file.problems.push_back(SyntaxProblem(parsed.error()));
    return file;
  }
  file.region.header = {.shared_mem_size = sizeof(RestrictionRegion),
                        .major_ver = common::kSharedMemMajorVersion,
                        .minor_ver = common::kSharedMemMinorVersion};
  file.problems =
      ReadRecord(parsed.table(), RegionShape(), reinterpret_cast<std::byte*>(&file.region));
  if (const toml::array* games = parsed.table()["game"].as_array()) {
    file.game_count = static_cast<unsigned>(games->size());
  }
  return file;
}

}  // namespace client
