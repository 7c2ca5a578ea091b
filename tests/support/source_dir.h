// Where the sources lie, for tests that compare a document with what a program says. The
// environment variable VYR_SOURCE_DIR names another place: tests may run on another machine than
// the one that has built them.
#pragma once
#include <cstdlib>
#include <string>

namespace test {

inline std::string SourceFile(const char* name) {
  const char* const given = std::getenv("VYR_SOURCE_DIR");
  return std::string(given != nullptr ? given : VYR_SOURCE_DIR) + "/" + name;
}

}  // namespace test
