// Which connects reach the next provider, from the game or the relay, and with which length. At
// stake: the game's connects may go to the relay, the relay's own must go to their address, and a
// provider reads as much of an address as the length says.
#include <mswsock.h>

#include <vector>

#include "common/process_info.h"
#include "engine/relay_mgr.h"
#include "hooks/downcall_table.h"
#include "hooks/hook_entries.h"
#include "sockets/socket_map.h"
#include "tests/scenario/tcp_world.h"
#include "tests/support/log_texts.h"

namespace {

using namespace tcp_test;       // NOLINT: the verbs of these tests
using namespace moru_vyr::lsp;  // NOLINT

struct Connect {
  SOCKET socket;
  bool by_worker;
  std::string to;  // with the port
  int size;
};
std::vector<Connect>* connects = nullptr;
LPWSPCONNECT real_connect = nullptr;
LPWSPIOCTL real_ioctl = nullptr;
LPFN_CONNECTEX real_connect_ex = nullptr;
bool named_its_thread = false;  // the last question for a function

void Note(SOCKET s, const struct sockaddr* name, int size) {
  sockaddr_in address = {};
  std::memcpy(&address, name, sizeof address);
  connects->push_back(
      {s, GetCurrentThreadId() == GetRelayMgr().GetWorkerThreadId(),
       std::string(inet_ntoa(address.sin_addr)) + ":" + std::to_string(ntohs(address.sin_port)),
       size});
}

int WSPAPI SpyConnect(SOCKET s, const struct sockaddr* name, int size, LPWSABUF caller,
                      LPWSABUF callee, LPQOS sqos, LPQOS gqos, LPINT error) {
  Note(s, name, size);
  return real_connect(s, name, size, caller, callee, sqos, gqos, error);
}

BOOL PASCAL SpyConnectEx(SOCKET s, const struct sockaddr* name, int size, PVOID data, DWORD length,
                         LPDWORD sent, LPOVERLAPPED overlapped) {
  Note(s, name, size);
  return real_connect_ex(s, name, size, data, length, sent, overlapped);
}

int WSPAPI SpyIoctl(SOCKET s, DWORD code, LPVOID in, DWORD in_size, LPVOID out, DWORD out_size,
                    LPDWORD returned, LPWSAOVERLAPPED overlapped,
                    LPWSAOVERLAPPED_COMPLETION_ROUTINE completion, LPWSATHREADID thread,
                    LPINT error) {
  const int result = real_ioctl(s, code, in, in_size, out, out_size, returned, overlapped,
                                completion, thread, error);
  if (code == SIO_GET_EXTENSION_FUNCTION_POINTER && result == 0) {
    named_its_thread = thread != nullptr && thread->ThreadHandle == GetCurrentThread();
    std::memcpy(&real_connect_ex, out, sizeof real_connect_ex);
    const LPFN_CONNECTEX spy = SpyConnectEx;
    std::memcpy(out, &spy, sizeof spy);
  }
  return result;
}

class ConnectSpied : public TcpWorld {
 protected:
  ConnectSpied() {
    connects = &seen;
    WSPPROC_TABLE& next = common::GetProcessInfo().tcp_proc_table;
    real_connect = next.lpWSPConnect;
    real_ioctl = next.lpWSPIoctl;
    next.lpWSPConnect = SpyConnect;
    next.lpWSPIoctl = SpyIoctl;
  }
  // Connects as the game; 0 or the error.
  static int ConnectsWith(SOCKET s, const char* server, int size) {
    const sockaddr_in address[8] = {At(server, kPort)};  // a caller may say that it is longer
    return ErrorOf(connect(s, Raw(address[0]), size));
  }
  // The answer of the function that programs get for ConnectEx: true is what the real one's false
  // becomes.
  static BOOL ConnectsExWith(SOCKET s, const char* server, int size) {
    EXPECT_EQ(BindTo(s, "0.0.0.0", 0), 0);
    const sockaddr_in address[8] = {At(server, kPort)};
    OVERLAPPED overlapped{};
    DWORD sent = 0;
    return WSPConnectEx(s, Raw(address[0]), size, nullptr, 0, &sent, &overlapped);
  }
  static SocketRecord RecordOf(SOCKET s) { return GetSocketMap().Get(s); }
  // The function that the game was given, and the next provider's own.
  static std::string PeerOf(SOCKET s) {
    sockaddr_in peer = {};
    int size = sizeof peer;
    return getpeername(s, Raw(peer), &size) == 0 ? inet_ntoa(peer.sin_addr) : "nobody";
  }
  static bool ToRelay(const Connect& one) { return one.to.rfind("127.0.0.1:", 0) == 0; }
  int Lines(const std::string& part) const {
    const std::string text = log_text();
    int lines = 0;
    for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + 1)) ++lines;
    return lines;
  }

  std::vector<Connect> seen;
};

// --- the worker -----------------------------------------------------------------------------

// Its sockets go through the same entries and have records of their own. If they were relayed too,
// the relay would wait for itself.
SCENARIO_F(ConnectSpied, TheWorkersOwnConnectsAreNotRedirected) {
  for (const auto& [server, far] : {std::pair(kDirect, std::string("198.51.100.11:27015")),
                                    std::pair(kServer, std::string("198.51.100.20:7001"))}) {
    seen.clear();
    const SOCKET s = Joins(server);
    EXPECT_EQ(Talks(s, "hello"), "hello");
    ASSERT_EQ(seen.size(), 2u) << server;
    EXPECT_EQ(seen[0].socket, s);
    EXPECT_FALSE(seen[0].by_worker);
    EXPECT_TRUE(ToRelay(seen[0])) << seen[0].to;
    EXPECT_TRUE(seen[1].by_worker);
    EXPECT_EQ(seen[1].to, far);
    EXPECT_EQ(seen[1].size, 16);
    const SocketRecord worker_side = RecordOf(seen[1].socket);
    EXPECT_NE(worker_side.next_proc_table, nullptr) << "it has a record";
    EXPECT_EQ(worker_side.local_port, 0);
    EXPECT_FALSE(worker_side.handled);
    EXPECT_FALSE(worker_side.relay_disabled);
    closesocket(s);
  }
  EXPECT_EQ(Lines(test::kConnectCalled + "6, type=1, socket="), 2) << "the game's two";
  EXPECT_EQ(Lines(test::kConnectRelayed), 2);
  ExpectServesAgain();
}

// --- the length -----------------------------------------------------------------------------

// The relay's address is an IPv4 one, whatever the game has named.
SCENARIO_F(ConnectSpied, ARedirectHasTheLengthOfTheRelaysAddress) {
  for (const int size : {16, 28, 128}) {
    seen.clear();
    const SOCKET s = Tcp();
    EXPECT_EQ(ConnectsWith(s, kServer, size), 0);
    ASSERT_FALSE(seen.empty());
    EXPECT_TRUE(ToRelay(seen[0]));
    EXPECT_EQ(seen[0].size, 16) << size;
    EXPECT_EQ(RecordOf(s).handled_addr_len, 16) << size;
    EXPECT_EQ(PeerOf(s), kServer);
    EXPECT_EQ(Talks(s, "hello"), "hello");
    closesocket(s);
  }
}

SCENARIO_F(ConnectSpied, AConnectThatIsNotRedirectedKeepsTheCallersLength) {
  for (const int size : {16, 28, 128}) {
    seen.clear();
    const SOCKET s = Tcp();
    EXPECT_EQ(ConnectsWith(s, kUnlisted, size), 0);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].to, "198.51.100.13:27015");
    EXPECT_EQ(seen[0].size, size);
    EXPECT_FALSE(RecordOf(s).handled);
    closesocket(s);
  }
}

SCENARIO_F(ConnectSpied, ConnectExPassesTheLengthOfItsAddress) {
  for (const int size : {16, 28, 128}) {
    seen.clear();
    const SOCKET relayed = Tcp();
    EXPECT_EQ(ConnectsExWith(relayed, kServer, size), FALSE);
    EXPECT_TRUE(named_its_thread);
    ASSERT_FALSE(seen.empty());
    EXPECT_TRUE(ToRelay(seen[0]));
    EXPECT_EQ(seen[0].size, 16) << size;
    EXPECT_EQ(RecordOf(relayed).handled_addr_len, 16);
    seen.clear();
    const SOCKET direct = Tcp();
    EXPECT_EQ(ConnectsExWith(direct, kUnlisted, size), FALSE);
    // Meanwhile the worker may still be connecting for the first one.
    const auto own = std::find_if(seen.begin(), seen.end(), [](const auto& call) {
      return call.to == "198.51.100.13:27015";
    });
    ASSERT_NE(own, seen.end());
    EXPECT_EQ(own->size, size);
    closesocket(relayed);
    closesocket(direct);
  }
}

// --- ConnectEx and the other kinds of socket ------------------------------------------------

// It serves streams only. A datagram socket with a stream's relay would be connected to a port that
// receives no datagrams.
SCENARIO_F(ConnectSpied, ConnectExDoesNotAffectDatagrams) {
  const SOCKET s = Udp();
  WSPPROC_TABLE* const next = GetDowncallTable(kProtocolUdp, nullptr);
  real_ioctl = next->lpWSPIoctl;
  next->lpWSPIoctl = SpyIoctl;
  EXPECT_EQ(ConnectsExWith(s, kServer, 16), FALSE);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].to, "198.51.100.10:27015");
  const SocketRecord record = RecordOf(s);
  EXPECT_EQ(record.local_port, 0);
  EXPECT_FALSE(record.handled);
  EXPECT_EQ(record.relay_state, kRelayNotAsked);
  EXPECT_FALSE(record.udp_connect_mode);
  EXPECT_TRUE(Logged("[4][lsp]" + test::kConnectExCalled + "17, type=2, socket=" +
                     std::to_string(s) + ", token=" + std::to_string(record.token) + "\n"))
      << log_text();
  EXPECT_FALSE(Logged(test::kTcpRelaySession));
  EXPECT_TRUE(Logged("dest=198.51.100.10:27015, port=0, socket=" + std::to_string(s)));
}

// Nor does it make a raw socket one whose pings are answered here.
SCENARIO_F(ConnectSpied, ConnectExDoesNotAffectRawSockets) {
  const SOCKET s = Ping();
  EXPECT_EQ(ConnectsExWith(s, kServer, 16), FALSE);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].to, "198.51.100.10:27015");
  EXPECT_FALSE(RecordOf(s).handled);
  EXPECT_TRUE(Logged("[4][lsp]" + test::kConnectExCalled + "1, type=3, socket=")) << log_text();
  EXPECT_FALSE(Logged(test::kTcpRelaySession));
  const test::LogCapture log(0);
  SendText(s, std::string("\x08\0\xf7\xff\0\0\0\0", 8));
  EXPECT_FALSE(log.Contains(test::kPingForRelayed));
}

// --- what is logged -------------------------------------------------------------------------

SCENARIO_F(ConnectSpied, ARelayedConnectIsLoggedAtTheLevelsOfItsEvents) {
  const SOCKET s = Joins();
  const SocketRecord record = RecordOf(s);
  const std::string tail =
      "socket=" + std::to_string(s) + ", token=" + std::to_string(record.token) + "\n";
  const std::string port = std::to_string(ntohs(record.local_port));
  EXPECT_TRUE(Logged("[4][lsp]" + test::kConnectCalled + "6, type=1, " + tail)) << log_text();
  EXPECT_TRUE(Logged("[4][lsp]" + test::kTcpRelayAsked + port + ", " + tail));
  EXPECT_TRUE(Logged("[TCP]RequestTcpRelaySession: CreateNewSession succeed, " + tail));
  EXPECT_TRUE(Logged("[4][lsp]" + test::kConnectRelayed + seen[0].to + ", " + tail)) << log_text();
  EXPECT_TRUE(Logged("[5][lsp]WSPConnect: ret=0, err=0, dest=198.51.100.10:27015, local port=" +
                     port + ", udp_connect_mode=false, " + tail))
      << log_text();
  closesocket(s);
}

SCENARIO_F(ConnectSpied, ARelayedConnectExIsLoggedAtTheLevelsOfItsEvents) {
  const SOCKET s = Tcp();
  EXPECT_EQ(ConnectsExWith(s, kServer, 16), FALSE);
  const SocketRecord record = RecordOf(s);
  const std::string tail =
      "socket=" + std::to_string(s) + ", token=" + std::to_string(record.token) + "\n";
  const std::string port = std::to_string(ntohs(record.local_port));
  EXPECT_NE(port, "0");
  EXPECT_TRUE(Logged("[4][lsp]" + test::kConnectExCalled + "6, type=1, " + tail)) << log_text();
  EXPECT_TRUE(Logged("[4][lsp]" + test::kConnectRelayed + seen[0].to + ", " + tail)) << log_text();
  EXPECT_TRUE(Logged("[5][lsp]WSPConnectEx: ret=1, err=0, dest=198.51.100.10:27015, port=" + port +
                     ", " + tail))
      << log_text();
  closesocket(s);
}

// The policy is asked about the socket by its own kind, value and token.
SCENARIO_F(ConnectSpied, TheLineOfThePolicyNamesTheSocket) {
  for (const auto& [server, answer] : {std::pair(kServer, "true"), std::pair(kUnlisted, "false")}) {
    const SOCKET s = Tcp();
    const test::LogCapture log(0);
    EXPECT_EQ(ConnectsWith(s, server, 16), 0);
    const std::string names =
        "socket=" + std::to_string(s) + ", token=" + std::to_string(RecordOf(s).token) + "\n";
    EXPECT_TRUE(log.Contains(std::string("[0][lsp]IsAllowConnect result=") + answer +
                             ", type=1, port=27015, " + names))
        << log.Text();
    closesocket(s);
  }
}

}  // namespace
