// The lookup from addresses to data centres, against a plain map on the same records.
#include "route/ip_idc_map.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <vector>

namespace {

using common::u32;
using moru_vyr::lsp::IpIdcMap;
using Records = std::vector<IpIdcMap::Record>;

std::map<u32, u32> PlainMap(const Records& records) {
  std::map<u32, u32> map;
  for (const auto& record : records) map[record.ip] = record.idc;
  return map;
}

void ExpectSame(const Records& records) {
  const IpIdcMap built(records);
  const auto plain = PlainMap(records);
  ASSERT_EQ(built.size(), plain.size());
  for (const auto& [ip, idc] : plain) {
    const u32* const found = built.Find(ip);
    ASSERT_NE(found, nullptr) << ip;
    ASSERT_EQ(*found, idc) << ip;
    for (const u32 neighbour : {ip - 1, ip + 1, ip ^ 0x80000000u})
      ASSERT_EQ(built.Find(neighbour) != nullptr, plain.count(neighbour) != 0) << neighbour;
  }
}

TEST(IpIdcMap, EmptyFindsNothing) {
  EXPECT_EQ(IpIdcMap().Find(0), nullptr);
  EXPECT_EQ(IpIdcMap(Records{}).Find(0), nullptr);
  EXPECT_EQ(IpIdcMap(Records{}).Find(0xFFFFFFFF), nullptr);
  EXPECT_TRUE(IpIdcMap(Records{}).empty());
}

TEST(IpIdcMap, OneAndTwoRecordsAreFound) {
  ExpectSame({{0, 7}});
  ExpectSame({{0xFFFFFFFF, 7}});
  ExpectSame({{1, 7}, {2, 8}});
}

TEST(IpIdcMap, LaterRecordWinsAtAnyPosition) {
  ExpectSame({{1, 10}, {1, 11}, {1, 12}});
  ExpectSame({{1, 10}, {2, 20}, {1, 11}, {2, 21}, {3, 30}, {1, 12}});
}

TEST(IpIdcMap, EverySizeAroundAPowerOfTwoIsFound) {
  for (u32 size = 1; size <= 70; ++size) {
    Records records;
    for (u32 i = 0; i < size; ++i) records.push_back({i * 0x01000001u, i});
    ExpectSame(records);
  }
}

TEST(IpIdcMap, AgreesWithAPlainMapOnRandomRecords) {
  for (std::uint32_t seed = 1; seed <= 20; ++seed) {
    std::mt19937 random(seed);
    Records records;
    const u32 range = seed % 2 != 0 ? 5000 : 0xFFFFFFFF;  // with and without many repetitions
    for (int i = 0; i < 4000; ++i)
      records.push_back({static_cast<u32>(random()) % range, static_cast<u32>(random())});
    SCOPED_TRACE(seed);
    ExpectSame(records);
  }
}

TEST(IpIdcMap, WholeSubnetsAreFoundAtFullSize) {
  Records records;
  for (u32 i = 0; i < 81920; ++i) records.push_back({(i << 8) | 0x0A, i});
  ExpectSame(records);
}

// The worst case for the lookup: all records share the top bits of their mixed key. (x ^ x >> 16) *
// 0x9E3779B1 is undone by 0x144CBC89.
TEST(IpIdcMap, RecordsMadeToCollideAreFound) {
  Records records;
  for (u32 i = 0; i < 81920 / 8; ++i) {
    const u32 unmixed = i * 0x144CBC89u;
    records.push_back({unmixed ^ (unmixed >> 16), i});
  }
  ExpectSame(records);
}

TEST(IpIdcMap, SwapExchangesTheContents) {
  IpIdcMap a(Records{{1, 10}});
  IpIdcMap b(Records{{2, 20}, {3, 30}});
  a.swap(b);
  EXPECT_EQ(a.size(), 2u);
  EXPECT_EQ(*a.Find(3), 30u);
  EXPECT_EQ(a.Find(1), nullptr);
  EXPECT_EQ(*b.Find(1), 10u);
  IpIdcMap empty;
  empty.swap(a);
  EXPECT_TRUE(a.empty());
  EXPECT_EQ(a.Find(2), nullptr);
  EXPECT_EQ(*empty.Find(2), 20u);
}

}  // namespace
