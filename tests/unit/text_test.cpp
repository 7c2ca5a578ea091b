// Conversions, bounded formatting, and the spellings that log lines and reports use.
#include "common/text.h"

#include <gtest/gtest.h>
#include <winsock2.h>

#include <cstring>
#include <string>

#include "common/loss.h"
#include "common/net_text.h"
#ifndef _WIN32
#include "port/shared/faults.h"
#endif

namespace {

using common::CombineLoss;
using common::EndsWithIgnoreCase;
using common::EqualsIgnoreCase;
using common::FormatBounded;
using common::u16to8;
using common::u8to16;

TEST(U8To16, WellFormedTextSurvivesARoundTrip) {
  const std::string rows[] = {"C:\\games\\a.exe",    "\xC3\xA9",     "\xE6\xB8\xB8\xE6\x88\x8F",
                              "\xF0\x9F\x8E\xAE",    "\xEF\xBF\xBF", "\xF4\x8F\xBF\xBF",
                              std::string("a\0b", 3)};
  for (const std::string& row : rows) {
    std::wstring wide;
    std::string back;
    EXPECT_TRUE(u8to16(row, &wide)) << row;
    EXPECT_TRUE(u16to8(wide, &back)) << row;
    EXPECT_EQ(back, row);
  }
}

TEST(U8To16, DecodesCodePoints) {
  std::wstring wide;
  ASSERT_TRUE(u8to16("A\xC3\xA9\xE6\xB8\xB8", &wide));
  EXPECT_EQ(wide, (std::wstring{L'A', wchar_t(0xE9), wchar_t(0x6E38)}));
  ASSERT_TRUE(u8to16("\xF0\x9F\x8E\xAE", &wide));
  EXPECT_EQ(wide.size(), sizeof(wchar_t) == 2 ? 2u : 1u);
}

TEST(U8To16, EmptyTextGivesEmptyText) {
  std::wstring wide = L"old";
  EXPECT_TRUE(u8to16("", &wide));
  EXPECT_TRUE(wide.empty());
  std::string narrow = "old";
  EXPECT_TRUE(u16to8(L"", &narrow));
  EXPECT_TRUE(narrow.empty());
}

TEST(U8To16, MalformedTextGivesNothing) {
  const std::string rows[] = {
      "\x80",  // a continuation alone
      "a\xBF"
      "b",                 //
      "\xC3",              // cut
      "\xE6\xB8",          //
      "\xF0\x9F\x8E",      //
      "\xC3(",             // no continuation
      "\xC0\x80",          // longer than need be
      "\xE0\x80\x80",      //
      "\xF0\x80\x80\x80",  //
      "\xED\xA0\x80",      // half of a surrogate pair
      "\xF4\x90\x80\x80",  // above the last code point
      "\xFF",
  };
  for (const std::string& row : rows) {
    std::wstring wide = L"old";
    EXPECT_FALSE(u8to16(row, &wide)) << testing::PrintToString(row);
    EXPECT_TRUE(wide.empty());
  }
}

TEST(U16To8, HalfOfASurrogatePairGivesNothing) {
  for (const wchar_t half : {wchar_t(0xD800), wchar_t(0xDC00)}) {
    std::string narrow = "old";
    EXPECT_FALSE(u16to8(std::wstring{L'a', half, L'b'}, &narrow));
    EXPECT_TRUE(narrow.empty());
  }
}

TEST(FormatBounded, ReturnsTheLengthOrRefuses) {
  char buffer[128];
  EXPECT_EQ(FormatBounded(buffer, "%s_%lu", "name", 17ul), 7);
  EXPECT_STREQ(buffer, "name_17");
  EXPECT_EQ(FormatBounded(buffer, "%s", std::string(127, 'a').c_str()), 127);
  EXPECT_EQ(FormatBounded(buffer, "%s", std::string(128, 'a').c_str()), -1);
  EXPECT_EQ(std::string(buffer).size(), 127u);
}

TEST(FormatBounded, TouchesNothingBehindItsBuffer) {
  struct {
    char buffer[128];
    char behind[8];
  } memory;
  std::memset(&memory, 'x', sizeof memory);
  EXPECT_EQ(FormatBounded(memory.buffer, "%s", std::string(200, 'a').c_str()), -1);
  EXPECT_EQ(std::string(memory.behind, sizeof memory.behind), std::string(8, 'x'));
}

#ifndef _WIN32
// The platform may fail once it knows how long the result will be.
TEST(U8To16, AConversionThatFailsHalfwayGivesNothing) {
  port::FailCall("MultiByteToWideChar", 2, ERROR_NOT_ENOUGH_MEMORY);
  std::wstring wide = L"old";
  EXPECT_FALSE(u8to16("text", &wide));
  port::ClearFaults();
  EXPECT_TRUE(wide.empty());
}
#endif

TEST(EqualsIgnoreCase, FoldsAsciiLettersOnly) {
  EXPECT_TRUE(EqualsIgnoreCase("SpeedTester.exe", "SPEEDTESTER.EXE"));
  EXPECT_TRUE(EqualsIgnoreCase("AZ", "az"));  // both ends of the alphabet
  EXPECT_TRUE(EqualsIgnoreCase("", ""));
  EXPECT_FALSE(EqualsIgnoreCase("a", "ab"));
  EXPECT_FALSE(EqualsIgnoreCase("ab", "a"));
  EXPECT_FALSE(EqualsIgnoreCase("[", "{"));                // neighbours of the letters
  EXPECT_FALSE(EqualsIgnoreCase("@", "`"));                //
  EXPECT_FALSE(EqualsIgnoreCase("\xC3\xA9", "\xC3\x89"));  // é and É
}

TEST(EndsWithIgnoreCase, ComparesTheEnd) {
  EXPECT_TRUE(EndsWithIgnoreCase("net_probe.exe -TEST", "-test"));
  EXPECT_TRUE(EndsWithIgnoreCase("-test", "-test"));
  EXPECT_FALSE(EndsWithIgnoreCase("net_probe.exe -test ", "-test"));
  EXPECT_FALSE(EndsWithIgnoreCase("test", "-test"));
}

TEST(FieldText, EndsAtTheFirstZeroOrTheFieldsEnd) {
  const char terminated[4] = {'a', '\0', 'b', '\0'};
  const char full[4] = {'a', 'b', 'c', 'd'};
  EXPECT_EQ(common::FieldText(terminated), "a");
  EXPECT_EQ(common::FieldText(full), "abcd");
  EXPECT_EQ(common::FieldText(""), "");
}

TEST(SetFieldText, CutsTerminatesAndClears) {
  char field[4] = {'x', 'x', 'x', 'x'};
  common::SetFieldText(field, "a");
  EXPECT_EQ(std::string(field, 4), std::string("a\0\0\0", 4));
  common::SetFieldText(field, "abc");
  EXPECT_STREQ(field, "abc");
  common::SetFieldText(field, "abcd");
  EXPECT_STREQ(field, "abc");
}

TEST(IpToString, ReadsNetworkOrder) {
  const unsigned char bytes[4] = {198, 51, 100, 7};
  common::u32 ip = 0;
  std::memcpy(&ip, bytes, sizeof ip);
  EXPECT_EQ(common::IpToString(ip), "198.51.100.7");
  EXPECT_EQ(common::IpToString(0), "0.0.0.0");
  EXPECT_EQ(common::IpToString(0xffffffff), "255.255.255.255");
}

// The buffer of Winsock's inet_ntoa belongs to the game, which may be reading it; and a call may
// wait for the lock under which Winsock ends.
TEST(IpToString, DoesNotChangeWinsocksStaticText) {
  in_addr address = {};
  address.s_addr = htonl(0xc6336407);
  const char* const shown = inet_ntoa(address);
  EXPECT_EQ(common::IpToString(0), "0.0.0.0");
  EXPECT_STREQ(shown, "198.51.100.7");
}

TEST(SocketType, NamesAndCodes) {
  struct {
    int type;
    const char* name;
    int code;
  } const rows[] = {{1, "TCP", 0}, {2, "UDP", 1}, {3, "RAW", -1}, {0, "RAW", -1}, {-1, "RAW", -1}};
  for (const auto& row : rows) {
    EXPECT_EQ(common::SocketTypeName(row.type), row.name) << row.type;
    EXPECT_EQ(common::SocketTypeCode(row.type), row.code) << row.type;
  }
}

TEST(CombineLoss, JoinsIndependentLosses) {
  EXPECT_EQ(CombineLoss(0, 0), 0);
  EXPECT_EQ(CombineLoss(50, 50), 75);
  for (int other = 0; other <= 100; ++other) {
    EXPECT_EQ(CombineLoss(100, static_cast<common::u8>(other)), 100);
    EXPECT_EQ(CombineLoss(static_cast<common::u8>(other), 100), 100);
  }
}

// Nothing is lost to rounding: what comes out whole stays whole.
TEST(CombineLoss, TruncatesTheExactFigure) {
  EXPECT_EQ(CombineLoss(10, 0), 10);
  EXPECT_EQ(CombineLoss(0, 29), 29);
  EXPECT_EQ(CombineLoss(10, 20), 28);
  EXPECT_EQ(CombineLoss(33, 33), 55);  // 55.11
  EXPECT_EQ(CombineLoss(1, 1), 1);     // 1.99
  for (int a = 0; a <= 100; ++a) {
    for (int b = 0; b <= 100; ++b) {
      const int loss = CombineLoss(static_cast<common::u8>(a), static_cast<common::u8>(b));
      const int in_ten_thousand = 100 * a + 100 * b - a * b;
      EXPECT_LE(100 * loss, in_ten_thousand) << a << " and " << b;
      EXPECT_GT(100 * loss + 100, in_ten_thousand) << a << " and " << b;
    }
  }
}

TEST(CombineLoss, TreatsACodeAsAPercentage) {
  EXPECT_EQ(CombineLoss(0, 102), 102);
  EXPECT_EQ(CombineLoss(10, 102), 101);
  EXPECT_EQ(CombineLoss(255, 255), -140);
}

}  // namespace
