// Urgent data.
#include "parity.h"

namespace parity {
namespace {

bool AtMark(SOCKET s) {
  u_long mark = 7;
  ioctlsocket(s, static_cast<long>(SIOCATMARK), &mark);
  return mark == 1;
}

std::string Excepted(SOCKET s) { return YesNo(Ready(s, 0).find("except") != std::string::npos); }

void Received() {
  const Peer peer = Ask("urgent");
  SetBlocking(peer.s, false);
  Readable(peer.s);
  Sleep(500);
  Note("select of urgent data", Excepted(peer.s));
  Note("recv of urgent data", Receive(peer.s, 1, MSG_OOB));
  Note("select behind it", Excepted(peer.s));
  Note("recv up to the mark", Receive(peer.s));
  Note("SIOCATMARK", YesNo(AtMark(peer.s)));
  Readable(peer.s);
  Note("recv behind the mark", Receive(peer.s));
  Note("urgent data again", Receive(peer.s, 1, MSG_OOB));
}

void InLine() {
  const Peer peer = Ask("urgent");
  const BOOL on = TRUE;
  Note("SO_OOBINLINE", Said(setsockopt(peer.s, SOL_SOCKET, SO_OOBINLINE,
                                       reinterpret_cast<const char*>(&on), sizeof on)));
  Sleep(500);
  std::string all;
  while (Readable(peer.s, kQuietMs)) all.append(Receive(peer.s));
  Note("urgent data in line", all);
}

void Sent() {
  const Peer peer = Ask("urgent-sink");
  Note("send of urgent data", Said(Send(peer.s, "u", MSG_OOB)));
  Sleep(200);
  Note("send behind it", Said(Send(peer.s, "ordinary")));
  shutdown(peer.s, SD_SEND);
  Note("what the server saw", peer.Saw());
}

}  // namespace

void OutOfBand() {
  Received();
  InLine();
  Sent();
}

}  // namespace parity
