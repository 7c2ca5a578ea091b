// Connecting: to a server, to a port where nobody listens, to a server that does not answer.
#include "parity.h"

#include <mswsock.h>

namespace parity {
namespace {

const sockaddr_in kServer = Address(kServerIp, kPort);
const sockaddr_in kRefused = Address(kServerIp, kRefusedPort);
const sockaddr_in kFull = Address(kServerIp, kFullPort);

int Begin(SOCKET s, const sockaddr_in& address) {
  SetBlocking(s, false);
  return connect(s, Of(address), sizeof address);
}

void InOneCall() {
  const Watch watch;
  const Peer peer = Ask("echo");
  Note("connect", Said(peer.connected));
  Note("its time", watch.Took(0));
  DWORD seconds = 77;
  int size = sizeof seconds;
  getsockopt(peer.s, SOL_SOCKET, SO_CONNECT_TIME, reinterpret_cast<char*>(&seconds), &size);
  Note("SO_CONNECT_TIME", Number(seconds));
  Send(peer.s, "hello");
  Note("echo", Receive(peer.s));
  const Socket first = NewStream();
  Bound(first);
  Note("connect to a server that speaks first",
       Said(connect(first, Of(Address(kServerIp, kFirstPort)), sizeof kServer)));
  Note("what it says", Receive(first));
  const Socket direct = NewStream();
  Note("connect to a server of no table",
       Said(connect(direct, Of(Address(kDirectIp, kPort)), sizeof kServer)));
  const Socket bound = NewStream();
  bind(bound, Of(Address("0.0.0.0", 0)), sizeof kServer);
  Note("connect of a bound socket", Said(connect(bound, Of(kServer), sizeof kServer)));
  const Socket mine = NewStream();
  bind(mine, Of(Address("198.51.100.1", 0)), sizeof kServer);
  Note("connect of a socket bound to the machine's address",
       Said(connect(mine, Of(kServer), sizeof kServer)));
}

void WithoutWaiting() {
  const Socket s = NewStream();
  Note("non-blocking connect", Said(Begin(s, kServer)));
  Note("what select says of it", Ready(s, PatienceMs()));
  Note("SO_ERROR of it", Number(static_cast<unsigned>(ErrorOption(s))));
  Note("connect again behind it", Said(connect(s, Of(kServer), sizeof kServer)));
  Note("send behind it", Said(Send(s, Request(NewId(), "say hello"))));
  Note("non-blocking recv", Readable(s) ? Receive(s) : "nothing");
  const Socket pending = NewStream();
  Note("non-blocking connect to a server that does not answer", Said(Begin(pending, kFull)));
  Note("select on it", Ready(pending, kQuietMs));
  Note("send on it", Said(Send(pending, "x")));
  Note("recv on it", Receive(pending));
  Note("connect again on it", Said(connect(pending, Of(kFull), sizeof kFull)));
  sockaddr_in room = {};
  int size = sizeof room;
  Note("getpeername on it", Said(getpeername(pending, Of(room), &size)));
  Note("SO_ERROR on it", Number(static_cast<unsigned>(ErrorOption(pending))));
}

void Refused() {
  const Socket s = NewStream();
  const Watch watch;
  Note("connect where nobody listens", Said(connect(s, Of(kRefused), sizeof kRefused)));
  Note("the time of a refusal", watch.Took(0));
  Note("send after a refusal", Said(Send(s, "x")));
  Note("connect after a refusal", Said(connect(s, Of(kServer), sizeof kServer)));
  const Socket later = NewStream();
  Note("non-blocking connect where nobody listens", Said(Begin(later, kRefused)));
  const std::string said = Ready(later, PatienceMs());  // Wine adds "read" now and then
  Note("what select says of a refusal", said.find("except") != std::string::npos ? "except" : said);
  Note("SO_ERROR of a refusal", Number(static_cast<unsigned>(ErrorOption(later))));
  Note("SO_ERROR of a refusal again", Number(static_cast<unsigned>(ErrorOption(later))));
  Note("recv after a refusal", Receive(later));
  const Socket direct = NewStream();
  const sockaddr_in nobody = Address(kDirectIp, kRefusedPort);
  Note("a refusal of no table", Said(connect(direct, Of(nobody), sizeof nobody)));
  const Socket loopback = NewStream();
  const sockaddr_in local = Address("127.0.0.1", kRefusedPort);
  Note("a refusal over the loopback", Said(connect(loopback, Of(local), sizeof local)));
}

void OverTheLoopback() {
  const Pair pair = LoopbackPair();
  Send(pair.near_end, "through the machine");
  Note("a connection over the loopback", Receive(pair.far_end));
  const Socket s = NewStream();
  Note("WSAConnect",
       Said(WSAConnect(s, Of(kServer), sizeof kServer, nullptr, nullptr, nullptr, nullptr)));
  int connected = 0;
  for (int i = 0; i < 20; ++i) {
    const Peer peer = Ask("echo");
    Send(peer.s, "one of many");
    connected += Receive(peer.s) == "one of many" ? 1 : 0;
  }
  Note("twenty connections one after the other", Number(static_cast<unsigned>(connected)));
}

}  // namespace

void Connecting() {
  InOneCall();
  WithoutWaiting();
  Refused();
  OverTheLoopback();
}

}  // namespace parity
