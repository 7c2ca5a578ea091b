// Calls that wait: how long, what ends them, and what is theirs.
#include "parity.h"

namespace parity {
namespace {

void SetTimeout(SOCKET s, int option, DWORD ms) {
  setsockopt(s, SOL_SOCKET, option, reinterpret_cast<const char*>(&ms), sizeof ms);
}

void Timeouts() {
  const Peer peer = Ask("echo");
  SetTimeout(peer.s, SO_RCVTIMEO, 300);
  DWORD ms = 0;
  int size = sizeof ms;
  getsockopt(peer.s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<char*>(&ms), &size);
  Note("SO_RCVTIMEO", Number(ms));
  const Watch watch;
  Note("recv with a timeout", Receive(peer.s));
  Note("its time", watch.Took(300));
  Send(peer.s, "after");
  SetTimeout(peer.s, SO_RCVTIMEO, PatienceMs());
  Note("recv behind a timeout", Receive(peer.s));
  const Peer late = Ask("late word");
  const Watch waiting;
  Note("recv that waits", Receive(late.s));
  Note("the time of the wait", waiting.Took(400));
  const Peer quiet = Ask("echo");
  const Watch idle;
  Note("select that waits", YesNo(Readable(quiet.s, 300)).append(", ").append(idle.Took(300)));
}

void WithoutBlocking() {
  const Peer peer = Ask("late word");
  SetBlocking(peer.s, false);
  const Watch watch;
  Note("non-blocking recv of nothing", Receive(peer.s));
  Note("its time is short", watch.Took(0));
  Readable(peer.s);
  Note("non-blocking recv", Receive(peer.s));
  SetBlocking(peer.s, true);
  Send(peer.s, "again");
  Note("blocking again", Receive(peer.s));
}

void Pieces() {
  const Peer peer = Ask("echo");
  Send(peer.s, "a line of words");
  Note("recv of six bytes", Receive(peer.s, 6));
  u_long left = 0;
  ioctlsocket(peer.s, static_cast<long>(FIONREAD), &left);
  Note("FIONREAD", Number(left));
  Note("a look at them", Receive(peer.s, 64, MSG_PEEK));
  Note("and again", Receive(peer.s, 3, MSG_PEEK));
  Note("recv of the rest", Receive(peer.s));
  ioctlsocket(peer.s, static_cast<long>(FIONREAD), &left);
  Note("FIONREAD behind it", Number(left));
  const Peer ended = Ask("bye four");
  Note("recv that waits for more than comes", Receive(ended.s, 9, MSG_WAITALL));
  const Peer pour = Ask("pour 1000000");
  Note("a million bytes", ReceiveToEnd(pour.s));
}

struct Waiting {
  SOCKET s;
  std::string said;
};

DWORD WINAPI Wait(void* argument) {
  auto* const waiting = static_cast<Waiting*>(argument);
  char byte;
  const int got = recv(waiting->s, &byte, 1, 0);
  waiting->said = Said(got);
  return 0;
}

std::string EndOfWait(Peer* peer, void (*end)(Peer*)) {
  Waiting waiting{peer->s, "nothing"};
  const HANDLE thread = CreateThread(nullptr, 0, Wait, &waiting, 0, nullptr);
  Sleep(100);
  end(peer);
  WaitForSingleObject(thread, 2 * PatienceMs());
  CloseHandle(thread);
  return waiting.said;
}

void EndedByAnotherThread() {
  Peer shut = Ask("echo");
  Note("a waiting recv after shutdown", EndOfWait(&shut, [](Peer* p) { shutdown(p->s, SD_BOTH); }));
  Peer answered = Ask("echo");
  Note("a waiting recv after an answer", EndOfWait(&answered, [](Peer* p) { Send(p->s, "x"); }));
  Peer reset = Ask("reset slow");
  Receive(reset.s);
  Note("a waiting recv after a reset", EndOfWait(&reset, [](Peer*) {}));
  Peer ended = Ask("echo");
  Note("a waiting recv after the end", EndOfWait(&ended, [](Peer* p) { shutdown(p->s, SD_SEND); }));
}

}  // namespace

void Blocking() {
  Timeouts();
  WithoutBlocking();
  Pieces();
  EndedByAnotherThread();
}

}  // namespace parity
