// The command line of vyr_run.
//
// The program's part is not parsed but passed on exactly as typed, because programs may have their
// own rules for it.
#pragma once

#include <string>

namespace vyr_run {

struct Options {
  bool help = false;
  bool version = false;
  bool bare = false;
  bool one_guid = false;           // --guids one
  bool start_each_entry = false;   // --starts entry
  bool cleanup_after_end = false;  // --cleanup after
  bool keep_loaded = false;
  std::wstring library;       // empty: the one beside vyr_run.exe
  std::wstring next;          // empty: the host's base provider
  std::wstring trace;         // empty: none
  std::wstring catalogue;     // empty: the host's own
  std::wstring program;       // as typed, without quotes
  std::wstring command_line;  // from the program's name to the end, as typed
};

// On false, `*problem` says what is wrong with the line.
bool ParseCommandLine(const wchar_t* line, Options* options, std::wstring* problem);

extern const char kHelp[];

}  // namespace vyr_run
