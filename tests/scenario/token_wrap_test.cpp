// The wrap of the tokens. At stake: a process that opens sockets for years gets there, and no
// socket may lose its relay, or get another's, because of its number.
#include "engine/relay_mgr.h"
#include "sockets/socket_error_filter.h"
#include "tests/scenario/tcp_world.h"
#include "tests/scenario/udp_spied_world.h"
#include "tests/support/log_texts.h"

// Four billion sockets take too long to open: an explicit instantiation may name what is private.
template <auto kMember>
struct LastToken {
  friend void SetLastToken(moru_vyr::lsp::RelayMgr& relay, common::u32 token) {
    relay.*kMember = token;
  }
};
void SetLastToken(moru_vyr::lsp::RelayMgr& relay, common::u32 token);
template struct LastToken<&moru_vyr::lsp::RelayMgr::last_token_>;

namespace {

using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's
using namespace sim_test;       // NOLINT

SCENARIO(TokenWrap, GoesOnAtZero) {
  RelayMgr& relay = GetRelayMgr();
  SetLastToken(relay, 0xFFFFFFFD);
  EXPECT_EQ(relay.NextToken(), 0xFFFFFFFEu);
  EXPECT_EQ(relay.NextToken(), 0xFFFFFFFFu);
  EXPECT_EQ(relay.NextToken(), 0u);
  EXPECT_EQ(relay.NextToken(), 1u);
}

u32 TokenOf(SOCKET s) {
  const SocketRecord record = GetSocketMap().Get(s);
  EXPECT_EQ(record.socket, s);
  return record.token;
}

class StreamsAtTheWrap : public tcp_test::TcpWorld {};

SCENARIO_F(StreamsAtTheWrap, AreRelayedAtEveryTickCount) {
  for (const u32 last : {0xFFFFFFFDu, 0xFFFFFFFEu, 0xFFFFFFFFu, 0u}) {
    SetLastToken(GetRelayMgr(), last);
    const SOCKET s = Joins();
    EXPECT_EQ(TokenOf(s), last + 1);
    EXPECT_EQ(Talks(s, "hello"), "hello") << last;
    EXPECT_EQ(LastCall().from, "A") << last;
    EXPECT_TRUE(Logged(test::kConnectRelayed + "127.0.0.1:")) << last;
    EXPECT_TRUE(Logged("socket=" + std::to_string(s) + ", token=" + std::to_string(last + 1)));
    closesocket(s);
    RunFor(1s);
  }
  EXPECT_TRUE(Logged("token=4294967295\n")) << "the number is never printed as a negative one";
  ExpectServesAgain();
}

class DatagramsAtTheWrap : public udp_test::UdpSpiedWorld {};

SCENARIO_F(DatagramsAtTheWrap, AreRelayedAtEveryTickCount) {
  Starts();
  std::vector<SOCKET> all;
  SetLastToken(GetRelayMgr(), 0xFFFFFFFE);
  for (int i = 0; i < 3; ++i) all.push_back(Udp());
  std::vector<u32> tokens;
  for (const SOCKET s : all) tokens.push_back(TokenOf(s));
  EXPECT_EQ(tokens, (std::vector<u32>{0xFFFFFFFF, 0, 1}));
  for (const SOCKET s : all) {
    const std::string text = "as " + std::to_string(TokenOf(s));
    EXPECT_EQ(Talks(s, text), text + " from 198.51.100.10:27015");
    EXPECT_EQ(RecordOf(s).relay_state, kRelayRunning);
  }
  EXPECT_EQ(Heard("A").size(), 3u) << AllHeard();
  for (const SOCKET s : all) {
    const u32 token = TokenOf(s);
    closesocket(s);
    RunFor(100ms);
    EXPECT_TRUE(Logged(test::kUdpSessionClosed + std::to_string(token) + "\n")) << token;
  }
}

// The failure counts of a socket are removed when it is closed; only a socket that was never closed
// through the library can pass them on to the next one with its number.
SCENARIO_F(StreamsAtTheWrap, CountTheirFailuresAfresh) {
  SetLastToken(GetRelayMgr(), 0xFFFFFFFE);
  const SOCKET s = Tcp();
  const auto fail = [](SOCKET one) {
    for (int i = 0; i < 7; ++i) EXPECT_EQ(ErrorOf(SendText(one, "x")), WSAENOTCONN);
  };
  const auto lines = [this](const std::string& part) {
    const std::string text = log_text();
    int count = 0;
    for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + 1)) ++count;
    return count;
  };
  fail(s);
  EXPECT_EQ(lines("WSPSend: ret=-1, err=10057"), 5);
  closesocket(s);
  SetLastToken(GetRelayMgr(), 0xFFFFFFFE);
  const SOCKET again = Tcp();
  EXPECT_EQ(TokenOf(again), 0xFFFFFFFFu);
  fail(again);
  EXPECT_EQ(lines("WSPSend: ret=-1, err=10057"), 10);
  closesocket(again);
}

}  // namespace
