#include "protocol/session_guid.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "tests/support/wire_bytes.h"

namespace moru_vyr::lsp {
namespace {

using test::ToHex;
using test::Value;

SessionGuid Known() {
  return {0x0A1B2C3D, 0x4E5F, 0x0607, {0x88, 0x09, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}};
}

TEST(SessionGuid, TextIsUpperCaseInGroups) {
  char text[SessionGuid::kTextSize];
  EXPECT_EQ(Known().ToString(text, sizeof text), text);
  EXPECT_STREQ(text, "0A1B2C3D-4E5F-0607-8809-AABBCCDDEEFF");
}

TEST(SessionGuid, TextNeeds37BytesOrNothingIsWritten) {
  char text[37] = "untouched";
  EXPECT_EQ(Known().ToString(text, 36), nullptr);
  EXPECT_EQ(Known().ToString(text, 0), nullptr);
  EXPECT_STREQ(text, "untouched");
  EXPECT_EQ(Known().ToString(nullptr, 100), nullptr);
}

TEST(SessionGuid, TheLastByteOfALongerBufferIsZeroToo) {
  char text[64];
  std::memset(text, 'x', sizeof text);
  EXPECT_EQ(Known().ToString(text, sizeof text), text);
  EXPECT_EQ(std::string(text).size(), 36u);
  EXPECT_EQ(text[63], 0);
}

TEST(SessionGuid, TheWireFormIsBigEndianWithTheLastEightBytesAsTheyAre) {
  const SessionGuid guid = Known();
  u8 bytes[16];
  EXPECT_EQ(guid.Pack(bytes), 16);
  EXPECT_EQ(ToHex(bytes, 16), "0a 1b 2c 3d 4e 5f 06 07 88 09 aa bb cc dd ee ff");
  SessionGuid read;
  EXPECT_EQ(read.Unpack(bytes), 16);
  EXPECT_EQ(std::memcmp(&read, &guid, sizeof guid), 0);
}

TEST(SessionGuid, NoTwoAreTheSame) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    char text[SessionGuid::kTextSize];
    seen.insert(SessionGuid::Make().ToString(text, sizeof text));
  }
  EXPECT_EQ(seen.size(), 1000u);
}

}  // namespace
}  // namespace moru_vyr::lsp
