// Connections that end by a reset, either side's.
#include "parity.h"

namespace parity {
namespace {

void ResetOfTheServer() {
  const Peer peer = Ask("reset words");
  Note("what came before a reset", Receive(peer.s));
  Note("recv of a reset", Receive(peer.s));
  Note("SO_ERROR behind it", Number(static_cast<unsigned>(ErrorOption(peer.s))));
  Note("send behind it", Said(Send(peer.s, "x")));
  Note("recv behind it", Receive(peer.s));
  sockaddr_in address = {};
  int size = sizeof address;
  const int named = getpeername(peer.s, Of(address), &size);
  Note("getpeername behind it", named == 0 ? Text(address) : Said(named));
  Note("shutdown behind it", Said(shutdown(peer.s, SD_SEND)));
}

void Reported() {
  const Peer selected = Ask("reset");
  Note("select of a reset", YesNo(Readable(selected.s)));
  Note("recv behind select", Receive(selected.s));
  const Peer ready = Ask("reset slow");
  Receive(ready.s);
  Sleep(800);
  Note("what select says of a reset", Ready(ready.s, 0));
  const Peer event = Ask("reset words");
  const Event happens;
  WSAEventSelect(event.s, happens, FD_CLOSE);
  WSANETWORKEVENTS events = {};
  happens.Await();
  WSAEnumNetworkEvents(event.s, happens, &events);
  Note("FD_CLOSE of a reset", YesNo((events.lNetworkEvents & FD_CLOSE) != 0));
  Note("its error", ErrorText(events.iErrorCode[FD_CLOSE_BIT]));
  const Peer overlapped = Ask("reset");
  Pending pending;
  char room[8];
  WSABUF buffer = {sizeof room, room};
  const int result =
      WSARecv(overlapped.s, &buffer, 1, nullptr, &pending.flags, &pending.overlapped, nullptr);
  Note("an overlapped receive at a reset", pending.End(overlapped.s, result));
}

void ResetOfTheGame() {
  Peer peer = Ask("sink");
  Send(peer.s, "words");
  Sleep(100);
  const linger none = {1, 0};
  setsockopt(peer.s, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&none), sizeof none);
  Note("closesocket as a reset", Said(peer.s.Close()));
  Note("what the server saw of it", peer.Saw());
  Peer unread = Ask("say unread");
  Readable(unread.s);
  unread.s.Close();
  Note("what the server saw of a close with bytes unread", unread.Saw());
}

}  // namespace

void Resets() {
  ResetOfTheServer();
  Reported();
  ResetOfTheGame();
}

}  // namespace parity
