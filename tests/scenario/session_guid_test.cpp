// Machines without a network address provide no identifiers. A connection needs one all the same,
// and existing nodes depend on the substitute, including its flaw.
#include "protocol/session_guid.h"

#include <gtest/gtest.h>
#include <rpc.h>

#include <cstring>

#include "port/shared/faults.h"
#include "port/sim/scenario.h"

namespace {

using common::u32;
using common::u8;
using moru_vyr::lsp::SessionGuid;

// What a record holds where a draw of random bits failed, and all others did not.
SessionGuid WithoutAddress(unsigned failing_draw) {
  port::ClearFaults();
  port::CountCalls();
  port::FailCall("UuidCreate", 1, RPC_S_UUID_NO_ADDRESS);
  if (failing_draw != 0) port::FailCall("rand_s", failing_draw, EINVAL);
  return SessionGuid::Make();
}

bool AllZero(const SessionGuid& guid, int from, int to) {
  u8 bytes[sizeof guid];
  std::memcpy(bytes, &guid, sizeof guid);
  for (int i = from; i < to; ++i) {
    if (bytes[i] != 0) return false;
  }
  return true;
}

SCENARIO(SessionGuid, IsTheSystemsIfThereIsOne) {
  port::CountCalls();
  SessionGuid::Make();
  EXPECT_EQ(port::CallCount("UuidCreate"), 1u);
  EXPECT_EQ(port::CallCount("rand_s"), 0u);
}

SCENARIO(SessionGuid, IsTheSystemsEvenIfItIsOnlyLocallyUnique) {
  port::FailCall("UuidCreate", 1, RPC_S_UUID_LOCAL_ONLY);
  SessionGuid::Make();
  EXPECT_EQ(port::CallCount("rand_s"), 0u);
}

SCENARIO_SEEDS(SessionGuid, IsMadeOfFourRandomNumbersWithoutAnAddress, 5) {
  const SessionGuid guid = WithoutAddress(0);
  EXPECT_EQ(port::CallCount("rand_s"), 4u);
  EXPECT_FALSE(AllZero(guid, 0, 4));
  EXPECT_FALSE(AllZero(guid, 4, 6));
  EXPECT_FALSE(AllZero(guid, 6, 8));
  EXPECT_FALSE(AllZero(guid, 8, 10));
  EXPECT_FALSE(AllZero(guid, 10, 14));
  EXPECT_TRUE(AllZero(guid, 14, 16)) << "these the system would have filled";
}

// Each draw leaves its mark in its own bytes, which a failing draw shows as zeros. The last one
// lies over half of the third.
SCENARIO(SessionGuid, EachDrawHasItsPlaceAndTheFourthLiesOverTheThird) {
  EXPECT_TRUE(AllZero(WithoutAddress(1), 0, 4));
  EXPECT_FALSE(AllZero(WithoutAddress(1), 4, 8));
  EXPECT_TRUE(AllZero(WithoutAddress(2), 4, 8));
  const SessionGuid without_third = WithoutAddress(3);
  EXPECT_TRUE(AllZero(without_third, 8, 10));
  EXPECT_FALSE(AllZero(without_third, 10, 12));
  const SessionGuid without_fourth = WithoutAddress(4);
  EXPECT_FALSE(AllZero(without_fourth, 8, 10));
  EXPECT_TRUE(AllZero(without_fourth, 10, 14));
}

}  // namespace
