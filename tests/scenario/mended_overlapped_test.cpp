// Overlapped datagrams of a game whose client asks for mending: a receive that completes later has
// its own source, or its socket is left direct. The simulation has no overlapped calls, so a
// provider between it and the library holds them back until the test completes them.
#include "tests/scenario/udp_spied_world.h"
#include "tests/support/log_texts.h"
//
#include <map>
#include <string>
#include <vector>

#include "engine/relay_mgr.h"
#include "hooks/hook_entries.h"
#include "hooks/overlapped_receive.h"
#include "hooks/pending_receives.h"
#include "port/shared/faults.h"

namespace {

using namespace udp_test;       // NOLINT
using namespace moru_vyr::lsp;  // NOLINT
using Texts = std::vector<std::string>;

constexpr int kNotYet = 996;     // WSA_IO_INCOMPLETE
constexpr int kCancelled = 995;  // WSA_OPERATION_ABORTED

// What a game keeps for one receive.
struct Receive {
  explicit Receive(SOCKET socket) : s(socket) { overlapped.hEvent = this; }

  // "text from 198.51.100.10:27015"
  std::string Got() const { return std::string(bytes) + " from " + Source(); }
  std::string Source() const {
    return std::string(inet_ntoa(from.sin_addr)) + ":" + std::to_string(ntohs(from.sin_port));
  }

  WSAOVERLAPPED overlapped = {};
  const SOCKET s;
  char bytes[64] = {};
  sockaddr_in from = {};
  int from_size = sizeof from;
  DWORD flags = 0;
  // What the routine has seen.
  Texts calls;
};

void CALLBACK OnDone(DWORD error, DWORD bytes, LPWSAOVERLAPPED overlapped, DWORD) {
  auto* const receive = reinterpret_cast<Receive*>(overlapped);
  receive->calls.push_back(error != 0 ? "error " + std::to_string(error)
                                      : receive->Got() + ", " + std::to_string(bytes));
}

void CALLBACK OnOther(DWORD, DWORD, LPWSAOVERLAPPED overlapped, DWORD) {
  reinterpret_cast<Receive*>(overlapped)->calls.push_back("the routine of another receive");
}

class MendedOverlapped : public UdpSpiedWorld {
 protected:
  explicit MendedOverlapped(u32 mended = kMendAll) : UdpSpiedWorld(mended) { current_ = this; }
  ~MendedOverlapped() override {
    if (real_ == nullptr) return;
    NextProvider().lpWSPRecvFrom = real_;
    NextProvider().lpWSPGetOverlappedResult = nullptr;
    EXPECT_TRUE(GetPendingReceives().IsEmpty());
  }

  void Starts(common::u32 log_level = 4) {
    UdpSpiedWorld::Starts(log_level);
    real_ = NextProvider().lpWSPRecvFrom;
    NextProvider().lpWSPRecvFrom = HoldBack;
    NextProvider().lpWSPGetOverlappedResult = ResultOf;
    hooked_ = NextProvider();
    HookOverlappedResult(&hooked_);
  }

  static int Begin(Receive* one, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine = nullptr) {
    WSABUF buffer = {sizeof one->bytes - 1, one->bytes};
    INT error = 0;
    WSATHREADID thread = {};
    const int result = WSPRecvFrom(one->s, &buffer, 1, nullptr, &one->flags, Raw(one->from),
                                   &one->from_size, &one->overlapped, routine, &thread, &error);
    return result == 0 ? 0 : error;
  }
  // The next datagram of its socket completes the receive.
  void Complete(Receive* one) {
    Held& held = held_.at(&one->overlapped);
    EXPECT_TRUE(ReadableWithin(one->s, 1000));
    DWORD bytes = 0;
    held.error = Read(held, &bytes);
    held.pending = false;
    if (held.routine != nullptr)
      held.routine(static_cast<DWORD>(held.error), bytes, &one->overlapped, 0);
  }
  void Cancel(Receive* one) {
    Held& held = held_.at(&one->overlapped);
    held.error = kCancelled;
    held.pending = false;
    if (held.routine != nullptr) held.routine(kCancelled, 0, &one->overlapped, 0);
  }
  // 0 or the error.
  int Result(Receive* one) {
    DWORD bytes = 0;
    INT error = 0;
    DWORD flags = 0;
    const BOOL done =
        hooked_.lpWSPGetOverlappedResult(one->s, &one->overlapped, &bytes, FALSE, &flags, &error);
    return done ? 0 : error;
  }
  std::string Ended(Receive* one) {
    Complete(one);
    const int error = Result(one);
    return error == 0 ? one->Got() : "error " + std::to_string(error);
  }
  static std::string On(const char* ip, int port = kPort) {
    return std::string(ip) + ":" + std::to_string(port);
  }
  static SOCKET Bound() {
    const SOCKET s = Udp();
    EXPECT_EQ(BindTo(s, "0.0.0.0", 0), 0);
    return s;
  }

  int fails_at_once_ = 0;  // an error; or
  bool completes_at_once_ = false;
  WSPPROC_TABLE hooked_ = {};

 private:
  struct Held {
    SOCKET s = INVALID_SOCKET;
    WSABUF buffer = {};
    sockaddr* from = nullptr;
    INT* from_size = nullptr;
    LPWSAOVERLAPPED_COMPLETION_ROUTINE routine = nullptr;
    bool pending = true;
    int error = 0;
  };

  int Read(Held& held, DWORD* bytes) {
    DWORD flags = 0;
    INT error = 0;
    WSATHREADID thread = {};
    const int result = real_(held.s, &held.buffer, 1, bytes, &flags, held.from, held.from_size,
                             nullptr, nullptr, &thread, &error);
    return result == 0 ? 0 : error;
  }

  static int WSPAPI HoldBack(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received,
                             LPDWORD flags, struct sockaddr* from, LPINT from_size,
                             LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                             LPWSATHREADID thread, LPINT error) {
    if (overlapped == nullptr) {
      return current_->real_(s, buffers, count, received, flags, from, from_size, overlapped,
                             routine, thread, error);
    }
    *error = current_->fails_at_once_;
    if (*error != 0) return SOCKET_ERROR;
    Held& held = current_->held_[overlapped] = {s, *buffers, from, from_size, routine};
    *error = WSA_IO_PENDING;
    if (!current_->completes_at_once_) return SOCKET_ERROR;
    DWORD bytes = 0;
    *error = current_->Read(held, &bytes);
    held.pending = false;
    return *error == 0 ? 0 : SOCKET_ERROR;
  }

  static BOOL WSPAPI ResultOf(SOCKET, LPWSAOVERLAPPED overlapped, LPDWORD, BOOL, LPDWORD,
                              LPINT error) {
    const Held& held = current_->held_.at(overlapped);
    *error = held.pending ? kNotYet : held.error;
    return *error == 0 ? TRUE : FALSE;
  }

  static inline MendedOverlapped* current_ = nullptr;
  LPWSPRECVFROM real_ = nullptr;
  std::map<const WSAOVERLAPPED*, Held> held_;
};

// --- what is seen ---

SCENARIO_F(MendedOverlapped, AResultThatIsAskedForHasItsSource) {
  Starts();
  const SOCKET s = Bound();
  Receive one(s);
  Receive two(s);
  EXPECT_EQ(Begin(&one), WSA_IO_PENDING);
  EXPECT_EQ(Begin(&two), WSA_IO_PENDING);
  EXPECT_EQ(Result(&one), kNotYet);
  EXPECT_EQ(Sends(s, "first", kServer), 0);
  EXPECT_EQ(Ended(&one), "first from " + On(kServer));
  EXPECT_EQ(Sends(s, "second", kDirect, kSecondPort), 0);
  EXPECT_EQ(Ended(&two), "second from " + On(kDirect, kSecondPort));
  EXPECT_EQ(Result(&two), 0) << "asked again";
  for (int i = 0; i < 300; ++i) {  // more often than there are places
    ASSERT_EQ(Begin(&one), WSA_IO_PENDING);
    Sends(s, "again", kSecond);
    ASSERT_EQ(Ended(&one), "again from " + On(kSecond));
    one.bytes[0] = 0;
  }
  EXPECT_EQ(Heard("A").size(), 301u) << AllHeard();  // kDirect has no node
  EXPECT_FALSE(Logged("left direct"));
}

SCENARIO_F(MendedOverlapped, ADatagramThatWasCutHasItsSource) {
  Starts();
  const SOCKET s = Bound();
  Receive one(s);
  EXPECT_EQ(Begin(&one), WSA_IO_PENDING);
  EXPECT_EQ(Sends(s, std::string(100, 'x')), 0);
  EXPECT_EQ(Ended(&one), "error 10040");
  EXPECT_EQ(one.Source(), On(kServer));
}

SCENARIO_F(MendedOverlapped, WhatIsThereAtOnceHasItsSource) {
  Starts();
  completes_at_once_ = true;
  const SOCKET s = Bound();
  for (const auto routine : {LPWSAOVERLAPPED_COMPLETION_ROUTINE{nullptr}, &OnDone}) {
    Sends(s, "there", kSecond);
    ASSERT_TRUE(ReadableWithin(s, 1000));
    Receive one(s);
    EXPECT_EQ(Begin(&one, routine), 0);
    EXPECT_EQ(one.Got(), "there from " + On(kSecond));
    if (routine == nullptr) continue;
    Cancel(&one);  // its routine still runs
    EXPECT_EQ(one.calls.size(), 1u);
  }
}

SCENARIO_F(MendedOverlapped, ARoutineIsCalledWithTheSource) {
  Starts();
  const SOCKET s = Bound();
  Receive one(s);
  Receive two(s);
  one.overlapped.hEvent = nullptr;
  EXPECT_EQ(Begin(&one, OnDone), WSA_IO_PENDING);
  EXPECT_EQ(Begin(&two, OnDone), WSA_IO_PENDING);
  Sends(s, "first", kServer);
  Complete(&one);
  Sends(s, "second", kSecond);
  Complete(&two);
  EXPECT_EQ(one.calls, Texts{"first from " + On(kServer) + ", 5"});
  EXPECT_EQ(two.calls, Texts{"second from " + On(kSecond) + ", 6"});
  EXPECT_EQ(Begin(&one, OnDone), WSA_IO_PENDING);
  closesocket(s);
  Cancel(&one);
  EXPECT_EQ(one.calls.back(), "error 995") << "after the socket was closed";
}

SCENARIO_F(MendedOverlapped, WhatIsCancelledOrFailsLeavesNothing) {
  Starts();
  const SOCKET s = Bound();
  Receive one(s);
  EXPECT_EQ(Begin(&one), WSA_IO_PENDING);
  Cancel(&one);
  EXPECT_EQ(Result(&one), kCancelled);
  EXPECT_TRUE(GetPendingReceives().IsEmpty());
  fails_at_once_ = WSAECONNRESET;
  EXPECT_EQ(Begin(&one), WSAECONNRESET);
  EXPECT_EQ(Begin(&one, OnDone), WSAECONNRESET);
  EXPECT_TRUE(GetPendingReceives().IsEmpty());
  fails_at_once_ = 0;
  EXPECT_EQ(Begin(&one), WSA_IO_PENDING);
  Sends(s, "after");
  EXPECT_EQ(Ended(&one), "after from " + On(kServer));
  EXPECT_EQ(Heard("A"), Texts{"after"}) << AllHeard();
}

SCENARIO_F(MendedOverlapped, APendingSendArrivesAtItsServer) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first", kServer), "first from " + On(kServer));
  EXPECT_EQ(Talks(s, "first", kDirect), "first from " + On(kDirect));
  fails = [](const SentDatagram& one) { return one.text == "late" ? WSA_IO_PENDING : 0; };
  EXPECT_EQ(Sends(s, "late", kDirect), WSA_IO_PENDING);
  fails = [](const SentDatagram&) { return 0; };
  EXPECT_EQ(Talks(s, "between", kServer), "between from " + On(kServer));
  const auto late = std::find_if(sent.begin(), sent.end(),
                                 [](const SentDatagram& one) { return one.text == "late"; });
  const std::string port = late->to.substr(late->to.find(':') + 1);
  const sockaddr_in to = At("127.0.0.1", std::atoi(port.c_str()));
  WSABUF buffer = {4, const_cast<char*>("late")};
  DWORD bytes = 0;
  INT error = 0;
  WSATHREADID thread = {};
  NextProvider().lpWSPSendTo(s, &buffer, 1, &bytes, 0, Raw(to), sizeof to, nullptr, nullptr,
                             &thread, &error);
  const Datagram answer = Receives(s);
  EXPECT_EQ(answer.text + " from " + answer.from, "late from " + On(kDirect));
}

// --- what is not seen ---

SCENARIO_F(MendedOverlapped, AReceiveThatNobodySeesLeavesItsSocketDirect) {
  Starts();
  for (const bool odd_event : {false, true}) {
    const SOCKET s = Bound();
    Receive one(s);
    one.overlapped.hEvent = odd_event ? reinterpret_cast<HANDLE>(0x41) : nullptr;
    EXPECT_EQ(Begin(&one), WSA_IO_PENDING);
    Sends(s, "hello", kSecond);
    Complete(&one);
    EXPECT_EQ(one.Got(), "hello from " + On(kSecond));
    EXPECT_TRUE(
        Logged("[UDP] the socket is left direct: a receive with neither a routine nor an "
               "event, relayed=false, socket=" +
               std::to_string(s)))
        << log_text();
  }
  EXPECT_EQ(Heard("game"), (Texts{"hello", "hello"})) << AllHeard();
  EXPECT_EQ(Talks(Udp(), "other"), "other from " + On(kServer));
  EXPECT_EQ(Heard("A"), Texts{"other"}) << "other sockets are not concerned";
}

// It asks for no source, so it gets no wrong one.
SCENARIO_F(MendedOverlapped, AReceiveWithoutAPlaceForTheSourceChangesNothing) {
  Starts();
  const SOCKET s = Bound();
  Receive one(s);
  one.overlapped.hEvent = nullptr;
  WSABUF buffer = {sizeof one.bytes, one.bytes};
  INT error = 0;
  WSATHREADID thread = {};
  WSPRecvFrom(s, &buffer, 1, nullptr, &one.flags, nullptr, nullptr, &one.overlapped, nullptr,
              &thread, &error);
  EXPECT_EQ(error, WSA_IO_PENDING);
  EXPECT_EQ(Talks(s, "hello"), "hello from " + On(kServer));
  EXPECT_EQ(Heard("A"), Texts{"hello"});
}

SCENARIO_F(MendedOverlapped, ASocketThatIsLeftDirectPartsFromItsRelay) {
  Starts();
  const SOCKET s = Bound();
  EXPECT_EQ(Talks(s, "relayed"), "relayed from " + On(kServer));
  Sends(s, "answered late");
  Receive one(s);
  one.overlapped.hEvent = nullptr;
  EXPECT_EQ(Begin(&one), WSA_IO_PENDING);
  EXPECT_EQ(RecordOf(s).relay_state, kRelayRefused);
  RunFor(1s);
  EXPECT_TRUE(NodesAreFree());
  Sends(s, "direct");
  Complete(&one);
  while (one.Source() != On(kServer)) {  // what had come already is not renamed
    ASSERT_EQ(Begin(&one), WSA_IO_PENDING);
    Complete(&one);
  }
  EXPECT_EQ(one.Got().substr(0, 6), "direct");
  EXPECT_EQ(Heard("game"), Texts{"direct"}) << AllHeard();
}

SCENARIO_F(MendedOverlapped, ARelayThatCannotBeToldThatItsSocketIsLeftDirectFindsOut) {
  Starts();
  const SOCKET s = Bound();
  EXPECT_EQ(Talks(s, "relayed"), "relayed from " + On(kServer));
  Receive one(s);
  one.overlapped.hEvent = nullptr;
  port::FailCall("WSPSendTo", 1, WSAENOBUFS);
  EXPECT_EQ(Begin(&one), WSA_IO_PENDING);
  port::ClearFaults();
  EXPECT_TRUE(Logged(test::CloseSendFailed(WSAENOBUFS))) << log_text();
  RunFor(1s);
  EXPECT_TRUE(NodesAreFree());
  Sends(s, "direct");
  Complete(&one);
}

// Its datagram still goes to the server, by a relay that lives on until then.
SCENARIO_F(MendedOverlapped, ASocketThatIsLeftDirectWhileItsNodeIsAskedGetsNothingFromItsRelay) {
  Starts();
  a.AnswersAfter(300);
  const SOCKET s = Bound();
  Sends(s, "owed");
  Receive one(s);
  one.overlapped.hEvent = nullptr;
  EXPECT_EQ(Begin(&one), WSA_IO_PENDING);
  RunFor(1s);
  EXPECT_EQ(Heard("A"), Texts{"owed"}) << AllHeard();
  EXPECT_TRUE(NodesAreFree());
  Sends(s, "direct");
  Complete(&one);
  EXPECT_EQ(one.Got(), "direct from " + On(kServer));
}

SCENARIO_F(MendedOverlapped, AConnectedSocketThatIsLeftDirectIsConnectedToItsPeer) {
  Starts();
  const SOCKET s = Bound();
  EXPECT_EQ(ConnectTo(s, kServer, kPort), 0);
  EXPECT_GT(SendText(s, "relayed"), 0);
  EXPECT_EQ(Received(s), "relayed");
  Receive one(s);
  one.overlapped.hEvent = nullptr;
  EXPECT_EQ(Begin(&one), WSA_IO_PENDING);
  sockaddr_in peer = {};
  int size = sizeof peer;
  EXPECT_EQ(getpeername(s, Raw(peer), &size), 0);
  EXPECT_EQ(peer.sin_addr.s_addr, At(kServer, kPort).sin_addr.s_addr);
  EXPECT_GT(SendText(s, "direct"), 0);
  Complete(&one);
  EXPECT_EQ(one.Got(), "direct from " + On(kServer));
  EXPECT_EQ(Heard("game"), Texts{"direct"}) << AllHeard();
  RunFor(1s);
  EXPECT_TRUE(NodesAreFree());
}

SCENARIO_F(MendedOverlapped, AResultThatIsNotAskedForLeavesTheSocketDirect) {
  Starts();
  for (const bool by_send : {false, true}) {
    const SOCKET s = Bound();
    Receive one(s);
    EXPECT_EQ(Begin(&one), WSA_IO_PENDING);
    Sends(s, "relayed");
    Complete(&one);
    if (by_send) {
      const sockaddr_in to = At(kServer, kPort);
      WSABUF buffer = {4, const_cast<char*>("sent")};
      DWORD bytes = 0;
      INT error = 0;
      WSATHREADID thread = {};
      WSPSendTo(s, &buffer, 1, &bytes, 0, Raw(to), sizeof to, &one.overlapped, nullptr, &thread,
                &error);
    } else {
      EXPECT_EQ(Begin(&one), WSA_IO_PENDING);
    }
    EXPECT_EQ(RecordOf(s).relay_state, kRelayRefused);
    Sends(s, "direct");
    RunFor(500ms);
    closesocket(s);
  }
  EXPECT_TRUE(Logged("left direct: the result of a receive was not asked for, relayed=true"));
  EXPECT_EQ(Heard("A"), (Texts{"relayed", "relayed"})) << AllHeard();
}

SCENARIO_F(MendedOverlapped, MoreReceivesThanPlacesLeaveASocketDirect) {
  Starts();
  const SOCKET s = Bound();
  std::vector<std::unique_ptr<Receive>> all;
  for (u32 i = 0; i < PendingReceives::kPlaces; ++i) {
    all.push_back(std::make_unique<Receive>(s));
    ASSERT_EQ(Begin(all.back().get()), WSA_IO_PENDING);
  }
  const SOCKET other = Bound();
  Receive one(other);
  EXPECT_EQ(Begin(&one, OnDone), WSA_IO_PENDING);
  Sends(other, "direct");
  Complete(&one);
  EXPECT_EQ(one.calls, Texts{"direct from " + On(kServer) + ", 6"});
  EXPECT_TRUE(Logged("left direct: too many receives are pending"));
  Sends(s, "relayed");
  EXPECT_EQ(Ended(all[0].get()), "relayed from " + On(kServer));
  EXPECT_EQ(Heard("A"), Texts{"relayed"}) << AllHeard();
  closesocket(s);
  EXPECT_TRUE(GetPendingReceives().IsEmpty()) << "a closed socket frees its places";
}

// The system forgets the routines of a thread that ends without having waited for them.
SCENARIO_F(MendedOverlapped, ReceivesOfThreadsThatHaveEndedTakeNoPlace) {
  Starts();
  const SOCKET s = Bound();
  std::vector<std::unique_ptr<Receive>> all;
  for (u32 i = 0; i < PendingReceives::kPlaces; ++i) all.push_back(std::make_unique<Receive>(s));
  GameThread([&all] {
    for (const auto& one : all) EXPECT_EQ(Begin(one.get(), OnDone), WSA_IO_PENDING);
  });
  ASSERT_TRUE(RunToTheEnd());
  RunFor(100ms);
  const SOCKET other = Bound();
  Receive one(other);
  EXPECT_EQ(Begin(&one, OnDone), WSA_IO_PENDING);
  Sends(other, "relayed");
  Complete(&one);
  EXPECT_EQ(one.calls, Texts{"relayed from " + On(kServer) + ", 7"});
  EXPECT_EQ(Heard("A"), Texts{"relayed"}) << AllHeard();
  EXPECT_FALSE(Logged("left direct"));
}

// Nor does one get in the way of the next receive with its structure.
SCENARIO_F(MendedOverlapped, AStructureOfAThreadThatHasEndedMayBeUsedAgain) {
  Starts();
  const SOCKET s = Bound();
  Receive one(s);
  GameThread([&one] { EXPECT_EQ(Begin(&one, OnOther), WSA_IO_PENDING); });
  ASSERT_TRUE(RunToTheEnd());
  RunFor(100ms);
  EXPECT_EQ(Begin(&one, OnDone), WSA_IO_PENDING);
  Sends(s, "hello");
  Complete(&one);
  EXPECT_EQ(one.calls, Texts{"hello from " + On(kServer) + ", 5"});
}

// --- not mended ---

struct UnmendedOverlapped : MendedOverlapped {
  UnmendedOverlapped() : MendedOverlapped(kMendAll & ~kMendOverlappedDatagram) {}
};

SCENARIO_F(UnmendedOverlapped, ALateReceiveNamesTheRelay) {
  Starts();
  EXPECT_EQ(hooked_.lpWSPGetOverlappedResult, NextProvider().lpWSPGetOverlappedResult);
  const SOCKET s = Bound();
  Receive one(s);
  one.overlapped.hEvent = nullptr;
  EXPECT_EQ(Begin(&one), WSA_IO_PENDING);
  Sends(s, "hello");
  EXPECT_EQ(Ended(&one).substr(0, 20), "hello from 127.0.0.1");
  EXPECT_EQ(Heard("A"), Texts{"hello"});
}

}  // namespace
