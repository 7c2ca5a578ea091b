// What the client program's tables say about a program, in the library's own way of reading them.
#pragma once

#include <cstdint>
#include <string>

namespace vyr_run {

struct Served {
  bool is_listed = false;
  uint32_t log_level = 0;  // of the game, if it is listed
  std::wstring words;      // "served as game 1001 (tables of games.toml)", or why not
};

// `path` is the program's as the platform gives it.
Served AskTables(const std::wstring& path);

}  // namespace vyr_run
