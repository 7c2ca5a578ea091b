// Writes of each test which mutants it reaches and how long it takes: a line in the file that
// VYR_MUTANTS_REACHED names. Linked into the suites of the preset `mutants` only.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mutation/mutant.h"

namespace {

constexpr unsigned kMostMutants = 1 << 20;
constexpr unsigned kAtOnce = sizeof(unsigned long long);

class Reach : public testing::EmptyTestEventListener {
  void OnTestEnd(const testing::TestInfo& test) override {
    if (mutation::reached == nullptr) return;
    FILE* const file = std::fopen(std::getenv("VYR_MUTANTS_REACHED"), "a");
    if (file == nullptr) std::abort();
    std::fprintf(file, "%s.%s\t%d\t%lld\t", test.test_suite_name(), test.name(),
                 test.result()->Failed() ? 1 : 0,
                 static_cast<long long>(test.result()->elapsed_time()));
    for (unsigned first = 0; first < kMostMutants; first += kAtOnce) {
      unsigned long long notes = 0;  // most are empty, and there are a million
      std::memcpy(&notes, static_cast<void*>(&mutation::reached[first]), sizeof notes);
      if (notes == 0) continue;
      for (unsigned number = first; number < first + kAtOnce; ++number) {
        if (mutation::reached[number].exchange(0) != 0) std::fprintf(file, "%u ", number);
      }
    }
    std::fprintf(file, "\n");
    std::fclose(file);
  }
};

const bool appended = [] {
  testing::UnitTest::GetInstance()->listeners().Append(new Reach);
  return true;
}();

}  // namespace
