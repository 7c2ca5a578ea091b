// Urgent bytes in a relayed connection. Kept: the relay does not read them. They are lost, and the
// exception that they cause is only logged and lasts as long as the byte does; the stream around
// them is complete.
#include "port/shared/faults.h"
#include "tests/scenario/tcp_world.h"
#include "tests/support/log_texts.h"

namespace {
using namespace tcp_test;  // NOLINT: the verbs of these tests

// While an exception stays, the worker polls without a pause: hence QuickSpin.
class TcpUrgent : public TcpWorld {
 protected:
  static void SendUrgent(SOCKET s) { EXPECT_EQ(send(s, "!", 1, MSG_OOB), 1); }
  void ExpectAQuietWorker() {
    port::CountCalls();
    const unsigned before = port::CallCount("select");
    Sleep(1000);
    EXPECT_LE(port::CallCount("select") - before, kQuietSelects);
    port::ClearFaults();
  }
};

SCENARIO_WITH_(TcpUrgent, AGamesUrgentByteIsLostAndTheStreamIsComplete, TcpUrgent, 1, QuickSpin()) {
  for (const char* server : {kServer, kDirect}) {
    const SOCKET s = Joins(server);
    EXPECT_EQ(Talks(s, "before"), "before");
    SendUrgent(s);
    Sleep(20);
    EXPECT_TRUE(Logged("[TCP]TcpProvider::OnLocalExcpetion. socket="));
    EXPECT_EQ(Talks(s, "after"), "after");
    SendText(s, "ab");
    SendUrgent(s);
    SendText(s, "cd");
    std::string got, end;
    EXPECT_TRUE(Collect(s, 4, &got, &end)) << end;
    EXPECT_EQ(got, "abcd");
    closesocket(s);
    Sleep(1000);
    EXPECT_EQ(LastCall().got, "beforeafterabcd");
    EXPECT_EQ(LastCall().end, "closed");
  }
  ExpectAQuietWorker();
}

SCENARIO_WITH_(TcpUrgent, AServersUrgentByteIsLostAndTheStreamIsComplete, TcpUrgent, 1,
               QuickSpin()) {
  serve = [](SOCKET t, Call* call) {
    SendText(t, "before");
    SendUrgent(t);
    SendText(t, "after");
    call->end = CollectAll(t, &call->got);
  };
  const SOCKET s = Joins(kDirect);
  std::string got, end;
  EXPECT_TRUE(Collect(s, 11, &got, &end)) << end;
  EXPECT_EQ(got, "beforeafter");
  EXPECT_TRUE(Logged(test::kRemoteUrgent));
  EXPECT_TRUE(Logged(test::kConnectFailureLate + "4, token="));
  SendText(s, "and up");
  closesocket(s);
  Sleep(1000);
  EXPECT_EQ(LastCall().got, "and up");
  EXPECT_EQ(LastCall().end, "closed");
  ExpectAQuietWorker();
}

}  // namespace
