// The control port of the datagram relay against everyone who can reach it, and many sockets that
// come and go. At stake: only an exact message has an effect, and nothing is left behind.
//
// VYR_UDP_SOCKETS=10000 opens and closes that many sockets instead of a few hundred.
#include "tests/scenario/udp_spied_world.h"
//
#include <cstdio>
#include <cstdlib>

#include "engine/relay_mgr.h"
#include "port/shared/faults.h"
#include "port/sim/sockets.h"
#include "tests/support/log_texts.h"
#include "udp/relay_messages.h"

extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace {

using namespace udp_test;       // NOLINT
using namespace moru_vyr::lsp;  // NOLINT
using Texts = std::vector<std::string>;

class UdpControlPort : public UdpSpiedWorld {
 protected:
  template <class Message>
  static std::string Bytes(const Message& message) {
    return {reinterpret_cast<const char*>(&message), sizeof message};
  }
  int SendsControl(SOCKET from, const std::string& bytes) {
    sockaddr_in control = {};
    GetRelayMgr().GetUdpLocalAddr(&control);
    const int error = ErrorOf(sendto(from, bytes.data(), static_cast<int>(bytes.size()), 0,
                                     Raw(control), sizeof control));
    RunFor(25ms);
    return error;
  }
  std::string Answer(u32 token) {
    ProtoRelayOpen taken;
    if (!GetRelayMgr().GetCreateResult(token, &taken)) return "none";
    return taken.opened() ? "opened" : "refused";
  }
  // As long as no session has the token, a request for it is accepted.
  bool HasSession(u32 token) {
    SendsControl(asking, Bytes(ProtoRelayOpen::Request(token, At(kServer, kPort), event, asking)));
    if (Answer(token) == "refused") return true;
    SendsControl(asking, Bytes(ProtoRelayClose::Request(token)));
    return false;
  }
  size_t HomeSockets() { return world.sockets().CountOf(world.home()); }
  void Begins(u32 log_level = 4) {
    Starts(log_level);
    ASSERT_TRUE(GetRelayMgr().CheckAndInit(3000));
    asking = Udp();
  }

  static constexpr u32 kToken = 7777;
  SOCKET asking = INVALID_SOCKET;
  HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
};

SCENARIO_F(UdpControlPort, OnlyTheLoopbackAddressIsAccepted) {
  Begins();
  const SOCKET outward = Udp();
  ASSERT_EQ(BindTo(outward, kGame, 5555), 0);
  SendsControl(outward, Bytes(ProtoRelayOpen::Request(kToken, At(kServer, kPort), event, outward)));
  EXPECT_EQ(Answer(kToken), "none");
  SendsControl(asking, Bytes(ProtoRelayOpen::Request(kToken, At(kServer, kPort), event, asking)));
  EXPECT_EQ(Answer(kToken), "opened");
  SendsControl(outward, Bytes(ProtoRelayClose::Request(kToken)));
  EXPECT_TRUE(HasSession(kToken));
}

SCENARIO_F(UdpControlPort, AnAnswerIsTakenOnce) {
  Begins();
  SendsControl(asking, Bytes(ProtoRelayOpen::Request(kToken, At(kServer, kPort), event, asking)));
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
  EXPECT_FALSE(GetRelayMgr().GetCreateResult(kToken, nullptr));
  EXPECT_EQ(Answer(kToken), "opened");
  EXPECT_EQ(Answer(kToken), "none");
}

SCENARIO_F(UdpControlPort, ATokenInUseIsRefusedAndItsSessionContinues) {
  Begins();
  const std::string open =
      Bytes(ProtoRelayOpen::Request(kToken, At(kServer, kPort), event, asking));
  SendsControl(asking, open);
  ProtoRelayOpen first;
  ASSERT_TRUE(GetRelayMgr().GetCreateResult(kToken, &first));
  SendsControl(asking, open);
  EXPECT_EQ(Answer(kToken), "refused");
  EXPECT_NE(GetRelayMgr().UseQueue(first.send_queue(), kToken), nullptr);
  const std::string close = Bytes(ProtoRelayClose::Request(kToken));
  for (const std::string& bytes : {close.substr(0, close.size() - 1), close + "x"}) {
    SendsControl(asking, bytes);
    EXPECT_NE(GetRelayMgr().UseQueue(first.send_queue(), kToken), nullptr) << bytes.size();
  }
  SendsControl(asking, close);
  EXPECT_EQ(GetRelayMgr().UseQueue(first.send_queue(), kToken), nullptr) << "gone with its session";
  SendsControl(asking, open);
  EXPECT_EQ(Answer(kToken), "opened") << "the token is free again";
}

SCENARIO_F(UdpControlPort, EveryLengthAndTypeButTheExactOnesIsDropped) {
  Begins();
  const size_t sockets = HomeSockets();
  const std::string open =
      Bytes(ProtoRelayOpen::Request(kToken, At(kServer, kPort), event, asking));
  for (size_t size = 0; size <= 80; ++size) {
    for (const int type : {0, 1, 2, 3, 255}) {
      std::string bytes = open;
      bytes.resize(size, 'x');
      if (size > 4) bytes[4] = static_cast<char>(type);
      const bool exact = (type == 1 && size == open.size());
      if (exact) continue;
      sockaddr_in control = {};
      GetRelayMgr().GetUdpLocalAddr(&control);
      sendto(asking, bytes.data(), static_cast<int>(size), 0, Raw(control), sizeof control);
    }
    if (size % 16 == 0) RunFor(25ms);
  }
  RunFor(25ms);
  EXPECT_EQ(Answer(kToken), "none");
  EXPECT_EQ(HomeSockets(), sockets);
  for (size_t byte = 0; byte < 4; ++byte) {
    std::string bytes = open;
    bytes[byte] = static_cast<char>(bytes[byte] ^ 0x40);
    SendsControl(asking, bytes);
    EXPECT_EQ(Answer(kToken), "none") << byte;
  }
  SendsControl(asking, open);
  EXPECT_EQ(Answer(kToken), "opened") << "and the exact one is heard after all that";
}

SCENARIO_F_SEEDS(UdpControlPort, NoiseHasNoEffect, 5) {
  Begins();
  const size_t sockets = HomeSockets();
  for (int i = 0; i < 300; ++i) {
    std::string bytes(world.random().Below(60), '\0');
    for (char& byte : bytes) byte = static_cast<char>(world.random().Below(256));
    // Mostly with the right beginning, so that more than the first test sees it.
    const u32 magic = kProtoRelayMagic;
    if (bytes.size() >= 5 && world.random().Below(4) != 0) {
      std::memcpy(bytes.data(), &magic, sizeof magic);
      bytes[4] = static_cast<char>(world.random().Below(4));
      if (bytes[4] == 1 && bytes.size() == sizeof(ProtoRelayOpen)) bytes.pop_back();
    }
    sockaddr_in control = {};
    GetRelayMgr().GetUdpLocalAddr(&control);
    sendto(asking, bytes.data(), static_cast<int>(bytes.size()), 0, Raw(control), sizeof control);
    if (i % 50 == 0) RunFor(25ms);
  }
  RunFor(100ms);
  EXPECT_EQ(HomeSockets(), sockets);
  EXPECT_EQ(Talks(Udp(), "hello"), "hello from 198.51.100.10:27015");
}

// A well-formed message is obeyed whoever sends it; no value in it does harm.
SCENARIO_F(UdpControlPort, OddValuesInARequestAreNothingSpecial) {
  Begins();
  ProtoRelayOpen request = ProtoRelayOpen::Request(0, sockaddr_in{}, event, asking);
  request.send_size_or_queue = 0xFFFFFFFF;
  request.recv_size_or_queue = 0x80000000;
  SendsControl(asking, Bytes(request));
  EXPECT_EQ(Answer(0), "opened");
  SendsControl(asking, Bytes(ProtoRelayClose::Request(0)));
  SendsControl(asking, Bytes(ProtoRelayClose::Request(0)));
  SendsControl(asking, Bytes(ProtoRelayClose::Request(0xFFFFFFFF)));
  EXPECT_FALSE(HasSession(0));
}

SCENARIO_F(UdpControlPort, AnInvalidEventHandleIsNotSet) {
  Begins();
  const HANDLE mutex = CreateMutexA(nullptr, FALSE, nullptr);
  const HANDLE file = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 64,
                                         "somebody_elses_mapping");
  const HANDLE closed = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  CloseHandle(closed);
  u32 token = kToken;
  for (const HANDLE handle : {mutex, file, closed, reinterpret_cast<HANDLE>(0x7FFFFFF0)}) {
    ++token;
    SendsControl(asking, Bytes(ProtoRelayOpen::Request(token, At(kServer, kPort), handle, asking)));
    EXPECT_EQ(Answer(token), "opened") << "the answer is there for whoever asks";
    EXPECT_TRUE(Logged(test::kUdpRelayAnswerInvalid + ", addr=127.0.0.1:"));
    EXPECT_TRUE(Logged("ev_result=0, ev_error=6, socket=")) << log_text();
  }
  for (const HANDLE handle : {HANDLE{nullptr}, INVALID_HANDLE_VALUE}) {
    ++token;
    SendsControl(asking, Bytes(ProtoRelayOpen::Request(token, At(kServer, kPort), handle, asking)));
    EXPECT_EQ(Answer(token), "none");
    EXPECT_TRUE(HasSession(token));
  }
}

SCENARIO_F(UdpControlPort, AFloodOfOversizeDatagramsDoesNotBlockOthers) {
  Begins(0);
  for (int i = 0; i < 20; ++i) {
    sockaddr_in control = {};
    GetRelayMgr().GetUdpLocalAddr(&control);
    const std::string bytes(2049, 'x');
    sendto(asking, bytes.data(), static_cast<int>(bytes.size()), 0, Raw(control), sizeof control);
  }
  EXPECT_EQ(Talks(Udp(), "hello"), "hello from 198.51.100.10:27015");
  EXPECT_TRUE(Logged("[0][lsp]UdpProvider::ReadPackage recvfrom failed, error = 10040\n"));
}

// --- what a refused request leaves ------------------------------------------------------------

SCENARIO_F(UdpControlPort, ARefusedRequestLeaksNoSocket) {
  Begins();
  const std::string open =
      Bytes(ProtoRelayOpen::Request(kToken, At(kServer, kPort), event, asking));
  size_t sockets = HomeSockets();
  port::FailCall("WSPSocket", 1, WSAENOBUFS);
  SendsControl(asking, open);
  EXPECT_EQ(Answer(kToken), "refused");
  port::FailCall("WSPBind", 1, WSAEACCES);
  SendsControl(asking, open);
  port::ClearFaults();
  ProtoRelayOpen refused;
  ASSERT_TRUE(GetRelayMgr().GetCreateResult(kToken, &refused));
  EXPECT_FALSE(refused.opened());
  EXPECT_EQ(u64{refused.event_or_result}, moru_vyr::lsp::kProtoRelayRefused);
  EXPECT_EQ(refused.address().sin_port, 0);
  EXPECT_EQ(refused.address().sin_addr.s_addr, 0u);
  EXPECT_EQ(refused.send_queue(), nullptr);
  EXPECT_EQ(refused.recv_queue(), nullptr);
  EXPECT_EQ(HomeSockets(), sockets);
  SendsControl(asking, open);
  sockets = HomeSockets();
  SendsControl(asking, open);
  EXPECT_EQ(HomeSockets(), sockets) << "that of the second session with its token is gone";
  EXPECT_EQ(Answer(kToken), "refused") << "the answer that nobody took is replaced";
  EXPECT_EQ(Answer(kToken), "none");
}

// Kept: a flow whose socket waits for its datagrams is worse than none, and is used all the same.
SCENARIO_F(UdpControlPort, ASocketThatStaysBlockingIsUsed) {
  Begins();
  port::FailCall("WSPIoctl", 1, WSAENOBUFS);
  SendsControl(asking, Bytes(ProtoRelayOpen::Request(kToken, At(kServer, kPort), event, asking)));
  EXPECT_EQ(Answer(kToken), "opened");
  EXPECT_TRUE(Logged("[UDP] UdpRemoteSession::Init ioctlsocket , error=10055, token=7777\n"));
}

// --- many -------------------------------------------------------------------------------------

int SocketsToOpen() {
  const char* const wanted = std::getenv("VYR_UDP_SOCKETS");
  return wanted != nullptr ? std::atoi(wanted) : 200;
}

size_t AllocatedBytes() {
  return __sanitizer_get_current_allocated_bytes != nullptr
             ? __sanitizer_get_current_allocated_bytes()
             : 0;
}

SCENARIO_F(UdpControlPort, OpeningAndClosingSocketsLeaksNothing) {
  server->answer = [](const std::string&) { return std::string(); };
  world.ReuseSocketHandles(true);
  Starts(9);
  const size_t sockets = HomeSockets();
  const auto open_and_close = [&](int count) {
    for (int i = 0; i < count; ++i) {
      const SOCKET s = Udp();
      ASSERT_EQ(Sends(s, "hello", kDirect), 0);
      ASSERT_EQ(Sends(s, "hello", kDirect, kSecondPort), 0);
      RunFor(1ms);
      ASSERT_EQ(closesocket(s), 0);
      if (i % 50 != count % 50) continue;
      RunFor(40ms);
      EXPECT_EQ(HomeSockets(), sockets) << i;
      heard = {};
      sent = {};
    }
    RunFor(100ms);
    EXPECT_EQ(HomeSockets(), sockets);
    heard = {};
    sent = {};
  };
  const int all = SocketsToOpen();
  open_and_close(100);
  const size_t before = AllocatedBytes();
  open_and_close(all);
  const size_t after = AllocatedBytes();
  EXPECT_LT(after, before + 16'384 + 4 * static_cast<size_t>(all)) << before;
  if (all > 1000) std::printf("%zu bytes before %d sockets, %zu after\n", before, all, after);
  Sends(Udp(), "still there");
  RunFor(1s);
  EXPECT_EQ(Heard("A"), Texts{"still there"});
}

}  // namespace
