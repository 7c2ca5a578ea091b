#include "udp/accl_link_info.h"

#include <gtest/gtest.h>

namespace moru_vyr::lsp {
namespace {

// The bytes are those of the longest form, whatever the header says they are.
TEST(AcclLinkInfo, AnAnswerBelowTheSecondVersionHasNoLastNode) {
  for (const u16 version : {u16{1}, u16{2}, u16{3}}) {
    NegoResponse response;
    response.Init(3);
    response.header.version = version;
    response.body.last_node.node_id = 7;
    response.body.last_node.port = 8;
    AcclLinkInfo link;
    link.last_node.node_id = 9;  // of an earlier answer
    link.Accept(response);
    EXPECT_EQ(int{link.last_node.node_id}, version < 2 ? 0 : 7) << version;
    EXPECT_EQ(int{link.last_node.port}, version < 2 ? 0 : 8) << version;
  }
}

}  // namespace
}  // namespace moru_vyr::lsp
