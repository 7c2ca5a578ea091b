#include "udp/accl_link_info.h"

#include <gtest/gtest.h>

#include <cstring>

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

// Nothing of an earlier one is left in it, nor in the bytes that no field names.
TEST(AcclLinkInfo, TheAddressForDataIsTheAnswers) {
  NegoResponse response;
  response.Init(3);
  response.body.accl_data_ip = 0xC6336414;
  response.body.accl_data_port = 7001;
  AcclLinkInfo link;
  std::memset(&link.data_addr, 0x55, sizeof link.data_addr);
  link.Accept(response);
  sockaddr_in expected = {};
  expected.sin_family = AF_INET;
  expected.sin_addr.s_addr = htonl(0xC6336414);
  expected.sin_port = htons(7001);
  EXPECT_EQ(std::memcmp(&link.data_addr, &expected, sizeof expected), 0);
}

}  // namespace
}  // namespace moru_vyr::lsp
