// The census: which blocks it counts, as whose, and that it forgets those that are freed. A block
// that it does not see could leak for ever, and one that is not the product's would accuse it.
#include "tests/scenario/census.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace moru_vyr::census_test {

struct Record {
  int number = 0;
};

[[gnu::noinline]] std::unique_ptr<Record> MakeRecord() { return std::make_unique<Record>(); }
[[gnu::noinline]] Record* NewRecord() { return new Record; }

}  // namespace moru_vyr::census_test

namespace {

using moru_vyr::census_test::NewRecord;
using moru_vyr::census_test::Record;

[[gnu::noinline]] int* NewNumberFor(const Record& record) { return new int(record.number); }

// In a process of its own: counting does not end.
void ExpectInAProcess(void (*body)()) {
  EXPECT_EXIT(
      {
        body();
        std::exit(testing::Test::HasFailure());
      },
      testing::ExitedWithCode(0), "");
}

long CountOf(const std::string& part) {
  long count = 0;
  for (const auto& [function, blocks] : test::Census())
    if (function.find(part) != std::string::npos) count += blocks;
  return count;
}

TEST(Census, CountsABlockUntilItIsFreed) {
  ExpectInAProcess([] {
    Record* const before = NewRecord();
    test::StartCensus();
    EXPECT_EQ(CountOf("NewRecord"), 0);
    std::vector<Record*> held;
    for (int i = 0; i < 5; ++i) held.push_back(NewRecord());
    EXPECT_EQ(CountOf("moru_vyr::census_test::NewRecord()"), 5);
    for (Record* one : held) delete one;
    delete before;
    EXPECT_EQ(CountOf("NewRecord"), 0);
  });
}

TEST(Census, CountsTheContainersOfTheProduct) {
  ExpectInAProcess([] {
    test::StartCensus();
    const std::vector<Record> held(3);
    EXPECT_EQ(CountOf("census_test::Record"), 1);
  });
}

TEST(Census, LeavesOutWhatOthersAllocate) {
  ExpectInAProcess([] {
    test::StartCensus();
    const std::unique_ptr<int> number(NewNumberFor({}));
    const std::vector<int> numbers(3);
    EXPECT_EQ(test::Census().size(), 0u);
  });
}

TEST(Census, KnowsTheProductByTheNameAndNotByTheParameters) {
  // moru_vyr::lsp::Route::Load(unsigned int)
  EXPECT_TRUE(test::IsOfProduct("_ZN8moru_vyr3lsp5Route4LoadEj"));
  // moru_vyr::lsp::(anonymous namespace)::Made(unsigned int)
  EXPECT_TRUE(test::IsOfProduct("_ZN8moru_vyr3lsp12_GLOBAL__N_14MadeEj"));
  // std::vector<moru_vyr::lsp::Route>::grow(unsigned int)
  EXPECT_TRUE(test::IsOfProduct("_ZNSt6vectorIN8moru_vyr3lsp5RouteEE4growEj"));
  // node::FlowTable::Open(moru_vyr::lsp::NegoRequestBody const&)
  EXPECT_FALSE(test::IsOfProduct("_ZN4node9FlowTable4OpenERKN8moru_vyr3lsp15NegoRequestBodyE"));
  // (anonymous namespace)::Open(moru_vyr::lsp::Route&)
  EXPECT_FALSE(test::IsOfProduct("_ZN12_GLOBAL__N_14OpenERN8moru_vyr3lsp5RouteE"));
  EXPECT_FALSE(test::IsOfProduct("main"));
  EXPECT_FALSE(test::IsOfProduct(""));
}

}  // namespace
