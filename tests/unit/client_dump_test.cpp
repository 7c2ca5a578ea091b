// The content of the regions, written back as a file: nothing is lost on the way.
#include "client/dump/dump.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

#include "client/check/config_file.h"
#include "client/dump/region_reader.h"
#include "client/fields/fields.h"
#include "client/fields/text_rules.h"
#include "client/fields/toml_text.h"
#include "client/sample/sample.h"
#include "client/serve/region_server.h"

namespace {

using client::ConfigFile;
using client::Field;
using client::Kind;
using client::ParseConfig;
using client::Problem;
using client::RegionRow;
using client::Shape;
using client::Tables;

std::string ErrorsOf(const client::Problems& problems) {
  std::string all;
  for (const Problem& problem : problems) {
    if (problem.severity == Problem::Severity::kError) all += ToText("file", problem) + "\n";
  }
  return all;
}

// Says which region differs first, and where.
void ExpectSame(const Tables& a, const Tables& b, const std::string& dump) {
  for (const RegionRow& row : client::Regions()) {
    const std::byte* const left = RegionOf(a, row);
    const std::byte* const right = RegionOf(b, row);
    if (std::memcmp(left, right, row.size) == 0) continue;
    const auto at = std::mismatch(left, left + row.size, right).first - left;
    FAIL() << row.name << " differs at " << at << "\n" << dump.substr(0, 20000);
  }
}

void ExpectSurvives(const std::string& text) {
  const ConfigFile first = ParseConfig(text);
  ASSERT_EQ(ErrorsOf(first.problems), "") << text.substr(0, 20000);
  const std::string dump = DumpToml(*first.tables);
  const ConfigFile second = ParseConfig(dump);
  ASSERT_EQ(ErrorsOf(second.problems), "") << dump.substr(0, 20000);
  ExpectSame(*first.tables, *second.tables, dump);
  EXPECT_EQ(DumpToml(*second.tables), dump);
}

TEST(ClientDump, TheSampleSurvives) { ExpectSurvives(client::WriteSample({})); }

TEST(ClientDump, EmptyTablesSurvive) { ExpectSurvives("game = []"); }

// Files by seed: every key may be there or not, with a value from all that its field takes.
class RandomFile {
 public:
  explicit RandomFile(unsigned seed) : random_(seed) {}

  std::string Make() {
    nodes_ = Below(8);
    idcs_ = Below(6);
    games_ = Below(4);
    std::string text;
    for (const Field& field : client::FileShape().fields) {
      if (field.shape == nullptr && Chance()) text += Line(field, 0);
    }
    for (unsigned i = 0; i < nodes_; ++i) text += "[[node]]\n" + Record(Find("node"), i);
    for (unsigned i = 0; i < idcs_; ++i) text += Group("idc", 1000 + i, i);
    if (games_ == 0) text = "game = []\n" + text;
    for (unsigned i = 0; i < games_; ++i) text += "[[game]]\n" + Record(Find("game"), i);
    if (nodes_ == 0) return text;
    for (const char* list : {"route", "route_mode2", "launch_test"}) {
      const unsigned count = Below(5);
      for (unsigned i = 0; i < count; ++i) {
        text += "[[" + std::string(list) + "]]\n" + Record(Find(list), i);
      }
    }
    for (unsigned i = Below(5); i > 0; --i)
      text += "[[blacklist]]\n" + Record(Find("blacklist"), i);
    for (unsigned i = Below(3); i > 0; --i) text += Group("spur", 2000 + i, 100 + i);
    return text;
  }

 private:
  static const Field& Find(const char* key) { return *client::FileShape().Find(key); }

  std::string Record(const Field& list, unsigned index) { return Body(*list.shape, index, "\n"); }

  std::string Body(const Shape& shape, unsigned index, const std::string& separator) {
    std::string text;
    for (const Field& field : shape.fields) {
      const bool always = field.required || std::string(field.key) == "ref_both_modes";
      if (field.kind == Kind::kFromNode || (!always && Chance())) continue;
      text += (text.empty() || separator == "\n" ? "" : separator) + Line(field, index);
      if (separator != "\n") text.pop_back();
    }
    return text;
  }

  std::string Line(const Field& field, unsigned index) {
    return std::string(field.key) + " = " + Value(field, index) + "\n";
  }

  std::string Value(const Field& field, unsigned index) {
    if (field.capacity == 0) return Entry(field, index);
    const unsigned count = Below(static_cast<unsigned>(std::min<size_t>(field.capacity, 6)) + 1);
    std::string list;
    for (unsigned i = 0; i < count; ++i) list += Entry(field, i) + ", ";
    return "[" + list + "]";
  }

  std::string Entry(const Field& field, unsigned index) {
    const std::string key = field.key;
    if (key == "proxy_name" && field.required) return Quoted(index);
    if (key == "proxy_idc" && field.min == 1) return std::to_string(index + 1);
    if (key == "game_idc") return std::to_string(index + 1);
    if (key == "last_node" && field.min == 1) return std::to_string(index + 1);
    switch (field.kind) {
      case Kind::kRecord:
        return "{ " + Body(*field.shape, index, ", ") + " }";
      case Kind::kNode:
        return std::to_string(1 + Below(nodes_));
      case Kind::kLastNode:
        return std::to_string(Below(12));
      case Kind::kAddress:
      case Kind::kIp:
        return "'" + client::AddressText(Word()) + "'";
      case Kind::kHex:
        return "'" + client::HexText("\x01\x00\xfe\x7f", 1 + Below(4)) + "'";
      case Kind::kDigits:
        return "'" + std::to_string(Word()) + "'";
      case Kind::kDigitList:
        return "'" + std::to_string(Word()) + "," + std::to_string(Word()) + "'";
      case Kind::kPath:
      case Kind::kDirectory:
        return "'C:\\games\\" + std::to_string(Word()) + "\\'";
      case Kind::kText:
        return field.size == 64 && key == "proxy_name" ? Quoted(index) : Quoted(Below(1000));
      case Kind::kNames:
        if (field.min != 0) return std::to_string(1 + Below(2));
        return Chance() ? std::to_string(Word())
                        : "'" + std::string(field.names[Below(Size(field))].name) + "'";
      case Kind::kNameBits:
        return Chance() ? std::to_string(Word())
                        : "['" + std::string(field.names[Below(Size(field))].name) + "']";
      default:
        return Number(field);
    }
  }

  static unsigned Size(const Field& field) { return static_cast<unsigned>(field.names.size()); }

  std::string Number(const Field& field) {
    const uint64_t most = field.Max();
    uint64_t value = (uint64_t{Word()} << 32 | Word()) & most;
    if (Chance()) value = most;
    if (value < field.min || value > most) value = most;
    const std::string digits = std::to_string(value);
    return value > INT64_MAX ? "'" + digits + "'" : digits;
  }

  // Letters of any kind, quotes, backslashes, control characters; different for each index.
  std::string Quoted(unsigned index) {
    static const char* const kParts[] = {"a", "'", "\"", "\\", "\xC3\xA4", "\n", "\x7f", " ", "#"};
    std::string text = std::to_string(index);
    for (unsigned i = Below(8); i > 0; --i) text += kParts[Below(std::size(kParts))];
    return client::QuoteToml(text);
  }

  std::string Group(const char* list, unsigned idc, unsigned tag) {
    std::string text =
        "[[" + std::string(list) + "]]\ngame_idc = " + std::to_string(idc) + "\naddresses = [";
    for (unsigned i = Below(6); i > 0; --i) {
      text += "'9." + std::to_string(tag) + ".0." + std::to_string(i) + "', ";
    }
    return text + "]\n";
  }

  uint32_t Word() { return static_cast<uint32_t>(random_()); }
  bool Chance() { return Below(2) == 0; }
  unsigned Below(size_t bound) { return bound == 0 ? 0 : Word() % static_cast<unsigned>(bound); }

  std::mt19937 random_;
  unsigned nodes_ = 0;
  unsigned idcs_ = 0;
  unsigned games_ = 0;
};

TEST(ClientDump, RandomTablesSurvive) {
  for (unsigned seed = 1; seed <= 200; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    ExpectSurvives(RandomFile(seed).Make());
    if (HasFailure()) return;
  }
}

TEST(ClientDump, HasANameWhereItIdentifiesOneNode) {
  const std::string node =
      "[[node]]\nproxy_name = 'one'\nproxy_addr = '1.2.3.4'\nproxy_port = 1\nproxy_idc = 5\n";
  const std::string route =
      "[[route]]\ngame_idc = 1\nref_default = { node = 5, decision = 1, last_node = 77 }\n";
  const ConfigFile file = ParseConfig("game = []\n" + node + route);
  EXPECT_NE(DumpToml(*file.tables)
                .find("ref_default = { node = 'one', decision = "
                      "'DECISION_DIRECT', last_node = 77 }"),
            std::string::npos)
      << DumpToml(*file.tables);
  // A second node with the name, which our own files never contain: the number is shown.
  auto& image = file.tables->route.image;
  image.proxies[1] = image.proxies[0];
  image.proxies[1].proxy_idc = 6;
  image.proxy_count = 2;
  EXPECT_NE(DumpToml(*file.tables).find("ref_default = { node = 5,"), std::string::npos);
}

// Another client may have written anything; what is shown stays within the tables.
TEST(ClientDump, WrongCountsAndUnterminatedTextsAreLimited) {
  const auto tables = client::NewTables();
  for (const RegionRow& row : client::Regions()) {
    std::memset(RegionOf(*tables, row), 0xff, row.size);
  }
  const std::string text = DumpToml(*tables);
  EXPECT_NE(text.find("[[blacklist]]"), std::string::npos);
  EXPECT_NE(DumpJson(*tables), "{}\n");
}

TEST(ClientDump, OfTwoRecordsForAnAddressTheLaterIsShown) {
  const auto tables = client::NewTables();
  tables->iptable.ip_count = 3;
  tables->iptable.records[0] = {.game_idc = 1001, .ip = 0x04030201};
  tables->iptable.records[1] = {.game_idc = 1101, .ip = 0x04030201};  // for another level
  tables->iptable.records[2] = {.game_idc = 1002, .ip = 0x04030201};
  const ConfigFile again = ParseConfig(DumpToml(*tables));
  ASSERT_EQ(ErrorsOf(again.problems), "");
  EXPECT_EQ(again.tables->iptable.ip_count, 2u);
  EXPECT_EQ(again.tables->iptable.records[0].game_idc, 1101u);
  EXPECT_EQ(again.tables->iptable.records[1].game_idc, 1002u);
}

TEST(ClientDump, JsonHasTheSameKeys) {
  const ConfigFile file = ParseConfig(client::WriteSample({}));
  const std::string json = DumpJson(*file.tables);
  EXPECT_NE(json.find("\"proxy_name\": \"node one\""), std::string::npos);
  EXPECT_NE(json.find("\"game_idc\": 1001"), std::string::npos);
}

TEST(ClientRegions, AreReadAsTheyWereWritten) {
  const ConfigFile file = ParseConfig(client::WriteSample({}));
  client::RegionServer server;
  ASSERT_EQ(server.Publish(*file.tables, 1000).error, "");
  const client::StandingTables standing = client::ReadRegions(1000);
  EXPECT_EQ(standing.error, "");
  for (const bool present : standing.present) EXPECT_TRUE(present);
  ExpectSame(*file.tables, *standing.tables, "");
}

TEST(ClientRegions, AreNotMadeByReading) {
  const client::StandingTables standing = client::ReadRegions(1000);
  EXPECT_FALSE(standing.AnyPresent());
  EXPECT_EQ(standing.error, "");
  for (const RegionRow& row : client::Regions()) {
    EXPECT_FALSE(common::Shared_mem_obj::Exists(row.name)) << row.name;
  }
}

}  // namespace
