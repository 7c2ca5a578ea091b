// Which protocols Winsock has started. At stake: the first start of each resolves its chain, and a
// later one must not.
#include <gtest/gtest.h>

#include "hooks/downcall_table.h"
#include "hooks/started_protocols.h"

namespace moru_vyr::lsp {
namespace {

TEST(StartedProtocols, EachOfTheThreeIsRememberedByItself) {
  ForgetStarts();
  for (const int protocol : {kProtocolTcp, kProtocolUdp, kProtocolRawSave}) {
    EXPECT_FALSE(WasStarted(protocol)) << protocol;
    EXPECT_TRUE(WasStarted(protocol)) << protocol;
  }
  ForgetStarts();
  for (const int protocol : {kProtocolTcp, kProtocolUdp, kProtocolRawSave})
    EXPECT_FALSE(WasStarted(protocol)) << protocol;
  ForgetStarts();
}

TEST(StartedProtocols, AnyOtherStartsAnewEachTime) {
  for (const int protocol : {-1, 1, kProtocolTcp + 1, kProtocolUdp - 1, kProtocolUdp + 1, 132}) {
    EXPECT_FALSE(WasStarted(protocol)) << protocol;
    EXPECT_FALSE(WasStarted(protocol)) << protocol;
  }
}

}  // namespace
}  // namespace moru_vyr::lsp
