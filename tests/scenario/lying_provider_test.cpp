// A next provider whose answers cannot be true. The relay must neither follow it out of its own
// buffers nor repeat a call forever: the worker serves every other connection of the game.
#include "tests/scenario/tcp_world.h"
//
#include "abi/mending_formats.h"
#include "common/process_info.h"
#include "engine/relay_mgr.h"
#include "port/sim/sockets.h"

namespace {

using namespace tcp_test;       // NOLINT
using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's

class LyingProvider : public TcpWorld {
 protected:
  explicit LyingProvider(u32 mended = 0) : TcpWorld(L"", nullptr, mended) {
    liar_ = this;
    WSPPROC_TABLE& next = common::GetProcessInfo().tcp_proc_table;
    real_send_ = next.lpWSPSend;
    real_recv_ = next.lpWSPRecv;
    next.lpWSPSend = Send;
    next.lpWSPRecv = Recv;
  }

  // What a send of the worker says it took of so many bytes. It sends them all if it is not 0.
  std::function<DWORD(DWORD)> takes = [](DWORD given) { return given; };
  // What a receive of the worker says it got, having got so many bytes into so much room.
  std::function<DWORD(DWORD, DWORD)> gives = [](DWORD got, DWORD) { return got; };

 private:
  static bool ByWorker() { return GetCurrentThreadId() == GetRelayMgr().GetWorkerThreadId(); }

  static int WSPAPI Send(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                         LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE completion,
                         LPWSATHREADID thread, LPINT error) {
    const DWORD said = ByWorker() ? liar_->takes(buffers[0].len) : 1;
    int result = 0;
    if (said != 0)
      result =
          liar_->real_send_(s, buffers, count, sent, flags, overlapped, completion, thread, error);
    if (ByWorker() && result == 0) *sent = said;
    return result;
  }
  static int WSPAPI Recv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD got, LPDWORD flags,
                         LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE completion,
                         LPWSATHREADID thread, LPINT error) {
    const int result =
        liar_->real_recv_(s, buffers, count, got, flags, overlapped, completion, thread, error);
    if (ByWorker() && result == 0) *got = liar_->gives(*got, buffers[0].len);
    return result;
  }

  static LyingProvider* liar_;
  LPWSPSEND real_send_ = nullptr;
  LPWSPRECV real_recv_ = nullptr;
};

LyingProvider* LyingProvider::liar_ = nullptr;

SCENARIO_F(LyingProvider, ASendThatTookMoreThanItWasGivenEndsTheConnection) {
  const SOCKET s = Joins(kDirect);
  EXPECT_EQ(Talks(s, "hello"), "hello");
  takes = [](DWORD given) { return given + 1; };
  EXPECT_EQ(Talks(s, "again"), "");
  EXPECT_TRUE(RunUntil([this] { return LastCall().over(); }, 10s));
  EXPECT_EQ(LastCall().got, "helloagain") << "it was sent once";
  takes = [](DWORD given) { return given; };
  closesocket(s);
  ExpectServesAgain();
}

SCENARIO_F(LyingProvider, ASendThatTookNothingIsRepeatedOnceThereIsRoom) {
  const SOCKET s = Joins(kDirect);
  int sends = 0;
  takes = [&](DWORD given) { return ++sends == 1 ? 0 : given; };
  EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_EQ(sends, 3) << "one that took nothing, its repetition, and the echo";
  closesocket(s);
  ExpectServesAgain();
}

SCENARIO_F(LyingProvider, AnAnswerOfANodeThatIsLongerThanWasAskedForIsRefused) {
  int lies = 0;
  gives = [&](DWORD got, DWORD room) { return got == room && ++lies == 1 ? got + 1 : got; };
  const SOCKET s = Joins(kServer);
  Talks(s, "hello");
  EXPECT_GT(lies, 0);
  EXPECT_TRUE(Logged("Negotiation head reception failed. possibly it is illegal package. socket="));
  EXPECT_TRUE(Logged("[TCP]Failed to received Negotiation header"));
  gives = [](DWORD got, DWORD) { return got; };
  closesocket(s);
  ExpectServesAgain();
}

// Shows an orderly end where it has lost the connection; only the socket's own error tells.
struct LyingAboutALoss : LyingProvider {
  LyingAboutALoss() : LyingProvider(kMendReset) {}
};

SCENARIO_F(LyingAboutALoss, IsSeenThrough) {
  serve = [](SOCKET t, Call* call) {
    Collect(t, 5, &call->got, &call->end);
    Sleep(1000);
    SendText(t, "x");
    Sleep(1000);
  };
  const SOCKET s = Joins(kDirect);
  SendText(s, "hello");
  RunFor(500ms);
  EXPECT_EQ(LastCall().got, "hello");
  const std::string text = log_text(), line = "[TCP]ConnectToRemoteServer remote socket=";
  ASSERT_NE(text.find(line), text.npos) << text;
  const auto remote = static_cast<SOCKET>(std::stoul(text.substr(text.find(line) + line.size())));
  world.sockets().Find(remote, world.home())->pending_error = WSAECONNRESET;
  gives = [](DWORD, DWORD) { return 0; };
  RunFor(1s);
  gives = [](DWORD got, DWORD) { return got; };
  std::string got;
  EXPECT_EQ(CollectAll(s, &got), "error 10054");
  closesocket(s);
}

}  // namespace
