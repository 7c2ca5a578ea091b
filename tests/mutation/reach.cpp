// Writes of each test which mutants it reaches and how long it takes: a line in the file that
// VYR_MUTANTS_REACHED names. Linked into the suites of the preset `mutants` only.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "mutation/mutant.h"

namespace {

constexpr unsigned kMostMutants = 1 << 20;

class Reach : public testing::EmptyTestEventListener {
  void OnTestEnd(const testing::TestInfo& test) override {
    if (mutation::reached == nullptr) return;
    FILE* const file = std::fopen(std::getenv("VYR_MUTANTS_REACHED"), "a");
    if (file == nullptr) std::abort();
    std::fprintf(file, "%s.%s\t%d\t%lld\t", test.test_suite_name(), test.name(),
                 test.result()->Failed() ? 1 : 0,
                 static_cast<long long>(test.result()->elapsed_time()));
    for (unsigned number = 1; number < kMostMutants; ++number) {
      if (mutation::reached[number].exchange(0) != 0) std::fprintf(file, "%u ", number);
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
