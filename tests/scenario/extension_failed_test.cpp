// ConnectEx that fails at once, and calls for datagrams on a stream. At stake: the next connect
// from the same port gets its own way, and a stream's bytes are handed on as they are.
#include <mswsock.h>

#include "abi/mending_formats.h"
#include "hooks/hook_entries.h"
#include "port/shared/faults.h"
#include "tests/scenario/tcp_world.h"

namespace {
using namespace tcp_test;  // NOLINT: the verbs of these tests

class FailedExtension : public TcpWorld {
 protected:
  FailedExtension()
      : TcpWorld(L"", nullptr, moru_vyr::lsp::kMendConnectEx | moru_vyr::lsp::kMendStart) {}

  BOOL Connects(SOCKET s, const char* server) {
    const sockaddr_in address = At(server, kPort);
    return moru_vyr::lsp::WSPConnectEx(s, Raw(address), sizeof address, nullptr, 0, &sent_,
                                       &overlapped_);
  }

 private:
  DWORD sent_ = 0;
  OVERLAPPED overlapped_{};
};

// The relay was told of the connect, and is told that it will not come.
SCENARIO_F(FailedExtension, AConnectThatFailsAtOnceLeavesItsPortToTheNext) {
  const SOCKET s = Tcp();
  EXPECT_EQ(BindTo(s, "0.0.0.0", 0), 0);
  port::FailCall("ConnectEx", 1, WSAENOBUFS);
  EXPECT_EQ(Connects(s, kUnlisted), FALSE);
  EXPECT_EQ(WSAGetLastError(), WSAENOBUFS);
  port::FailCall("ConnectEx", 1, WSAENOBUFS);
  EXPECT_EQ(Connects(s, kServer), FALSE);
  EXPECT_EQ(WSAGetLastError(), WSAENOBUFS);
  EXPECT_TRUE(Connects(s, kServer) || WSAGetLastError() == ERROR_IO_PENDING);
  RunFor(1s);
  EXPECT_FALSE(Logged("port duplicate")) << log_text();
  EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_EQ(LastCall().from, "A");
}

class StreamCalls : public TcpWorld {};

SCENARIO_F(StreamCalls, AReceiveWithAPlaceForASourceIsAPlainReceive) {
  const SOCKET s = Joins();
  EXPECT_EQ(SendAll(s, "hello"), 5u);
  char bytes[16] = {};
  sockaddr_in from = {};
  from.sin_port = 7;
  int size = sizeof from;
  EXPECT_EQ(recvfrom(s, bytes, sizeof bytes, 0, Raw(from), &size), 5);
  EXPECT_EQ(std::string(bytes, 5), "hello");
  EXPECT_NE(from.sin_addr.s_addr, htonl(INADDR_LOOPBACK)) << "the relay is not shown";
}

}  // namespace
