// The names of a relayed connection's two ends, for a game whose client asks that they are those
// which it would have without us.
#include "abi/mending_formats.h"
#include "hooks/downcall_table.h"
#include "port/shared/faults.h"
#include "tests/scenario/tcp_world.h"

namespace {
using namespace tcp_test;  // NOLINT: the verbs of these tests
using moru_vyr::lsp::GetDowncallTable;
using moru_vyr::lsp::kProtocolUdp;

class MendedNames : public TcpWorld {
 protected:
  explicit MendedNames(moru_vyr::lsp::u32 mended = moru_vyr::lsp::kMendNames)
      : TcpWorld(L"", nullptr, mended) {}

  using Ask = int (*)(SOCKET, struct sockaddr*, int*);
  static int Own(SOCKET s, struct sockaddr* name, int* room) { return getsockname(s, name, room); }
  static int Peer(SOCKET s, struct sockaddr* name, int* room) { return getpeername(s, name, room); }
  // The error, or the address.
  static std::string Name(Ask ask, SOCKET s, u_short* port = nullptr, int room = 16) {
    sockaddr_in name = {};
    if (ask(s, Raw(name), &room) != 0) return std::to_string(WSAGetLastError());
    EXPECT_EQ(room, 16);
    EXPECT_EQ(name.sin_family, AF_INET);
    if (port != nullptr) *port = ntohs(name.sin_port);
    return inet_ntoa(name.sin_addr);
  }
};

class UnmendedNames : public MendedNames {
 protected:
  UnmendedNames() : MendedNames(0) {}
};

SCENARIO_F(MendedNames, TheOwnOneIsThatOfTheInterfaceTowardsTheServer) {
  for (const char* server : {kServer, kDirect, kForced, kUnlisted}) {
    SCOPED_TRACE(server);
    const SOCKET s = Tcp();
    EXPECT_EQ(Name(Own, s), "10022") << "not bound";
    ASSERT_EQ(ConnectTo(s, server, kPort), 0);
    u_short port = 0;
    EXPECT_EQ(Name(Own, s, &port), kGame);
    EXPECT_NE(port, 0);
    EXPECT_EQ(Talks(s, "hello"), "hello");
    u_short later = 0;
    EXPECT_EQ(Name(Own, s, &later), kGame);
    EXPECT_EQ(later, port);
    closesocket(s);
  }
}

// Not every provider below says by which interface an address is reached.
SCENARIO_F(MendedNames, TheOwnOneIsFoundWithoutTheNextProvidersHelp) {
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "hi"), "hi");  // the relay has made its socket, with a call of that name
  port::FailCall("WSPIoctl", 1, WSAEOPNOTSUPP);
  EXPECT_EQ(Name(Own, s), kGame);
  port::ClearFaults();
  EXPECT_EQ(Talks(s, "hello"), "hello");
  closesocket(s);
}

// Nor can every one tell a socket's own address.
SCENARIO_F(MendedNames, AnAddressThatNobodyKnowsIsNotShown) {
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "hi"), "hi");
  port::FailCall("WSPIoctl", 0, WSAEOPNOTSUPP);
  EXPECT_EQ(Name(Own, s), kGame);
  WSPPROC_TABLE& next = *GetDowncallTable(kProtocolUdp, nullptr);
  const auto own_name = next.lpWSPGetSockName;
  next.lpWSPGetSockName = [](SOCKET, struct sockaddr* name, LPINT, LPINT) {
    *reinterpret_cast<sockaddr_in*>(name) = {};
    return 0;
  };
  EXPECT_EQ(Name(Own, s), "127.0.0.1") << "what the next provider says of the socket itself";
  next.lpWSPGetSockName = own_name;
  port::ClearFaults();
  closesocket(s);
}

SCENARIO_F(MendedNames, ThePortIsTheOneThatTheGameHasChosen) {
  const SOCKET s = Tcp();
  ASSERT_EQ(BindTo(s, "0.0.0.0", 5555), 0);
  EXPECT_EQ(Name(Own, s), "0.0.0.0");
  ASSERT_EQ(ConnectTo(s, kServer, kPort), 0);
  u_short port = 0;
  EXPECT_EQ(Name(Own, s, &port), kGame);
  EXPECT_EQ(port, 5555);
  closesocket(s);
}

SCENARIO_F(MendedNames, ThereIsNoPeerBeforeTheConnectionStands) {
  const SOCKET s = Tcp();
  port::FailCall("WSPConnect", 1, WSAENOBUFS);
  EXPECT_EQ(ConnectTo(s, kServer, kPort), WSAENOBUFS);
  port::ClearFaults();
  EXPECT_EQ(Name(Peer, s), "10057");
  ASSERT_EQ(ConnectTo(s, kServer, kPort), 0);
  u_short port = 0;
  EXPECT_EQ(Name(Peer, s, &port), kServer);
  EXPECT_EQ(port, kPort);
  EXPECT_EQ(Name(Peer, s, nullptr, 8), "10014");
  EXPECT_EQ(Name(Own, s, nullptr, 8), "10014");
  closesocket(s);
}

SCENARIO_F(MendedNames, ConnectionsOnTheLoopbackInterfaceKeepTheirNames) {
  const SOCKET listener = ListenAt(4444);
  const SOCKET s = Tcp();
  ASSERT_EQ(ConnectTo(s, "127.0.0.1", 4444), 0);
  EXPECT_EQ(Name(Own, s), "127.0.0.1");
  EXPECT_EQ(Name(Peer, s), "127.0.0.1");
  closesocket(s);
  closesocket(listener);
}

SCENARIO_F(UnmendedNames, TheOwnOneIsThatOfTheLoopbackInterface) {
  const SOCKET s = Joins();
  EXPECT_EQ(Name(Own, s), "127.0.0.1");
  EXPECT_EQ(Name(Peer, s), kServer);
  closesocket(s);
}

}  // namespace
