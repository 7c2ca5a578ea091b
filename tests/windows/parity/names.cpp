// The names of both ends.
#include "parity.h"

namespace parity {
namespace {

std::string Own(SOCKET s) {
  sockaddr_in address = {};
  int size = sizeof address;
  const int result = getsockname(s, Of(address), &size);
  return result == 0 ? Text(address) : Said(result);
}

int OwnPort(SOCKET s) {
  sockaddr_in address = {};
  int size = sizeof address;
  getsockname(s, Of(address), &size);
  return ntohs(address.sin_port);
}

std::string Peers(SOCKET s) {
  sockaddr_in address = {};
  int size = sizeof address;
  const int result = getpeername(s, Of(address), &size);
  return result == 0 ? Text(address) : Said(result);
}

void OfStreams() {
  const sockaddr_in server = Address(kServerIp, kPort);
  const Peer peer = Ask("echo");
  Note("getsockname of a stream", Own(peer.s));
  Note("getpeername of a stream", Peers(peer.s));
  sockaddr_storage room;
  int size = sizeof room;
  getpeername(peer.s, reinterpret_cast<sockaddr*>(&room), &size);
  Note("the size of the peer's name", Number(static_cast<unsigned>(size)));
  const Socket bound = NewStream();
  bind(bound, Of(Address("0.0.0.0", 0)), sizeof server);
  Note("getsockname of a bound stream", Own(bound));
  const int port = OwnPort(bound);
  Note("its connect", Said(connect(bound, Of(server), sizeof server)));
  Note("getsockname behind it", Own(bound));
  Note("the port stays", YesNo(port == OwnPort(bound)));
  const Socket mine = NewStream();
  bind(mine, Of(Address("198.51.100.1", 0)), sizeof server);
  connect(mine, Of(server), sizeof server);
  Note("getsockname of a stream bound to the machine's address", Own(mine));
  const Socket direct = NewStream();
  connect(direct, Of(Address(kDirectIp, kPort)), sizeof server);
  Note("getsockname of a stream of no table", Own(direct));
  Note("getpeername of a stream of no table", Peers(direct));
  const Peer ended = Ask("bye");
  Receive(ended.s);
  Note("getpeername behind the end", Peers(ended.s));
  Note("getsockname behind the end", Own(ended.s));
}

void WhileConnecting() {
  const sockaddr_in server = Address(kServerIp, kPort);
  const Socket s = NewStream();
  SetBlocking(s, false);
  connect(s, Of(server), sizeof server);
  Writable(s);
  Note("getpeername after a non-blocking connect", Peers(s));
  Note("getsockname after a non-blocking connect", Own(s));
  const Pair pair = LoopbackPair();
  Note("getsockname over the loopback", Own(pair.near_end));
  Note("getpeername of the accepted", Peers(pair.far_end));
  Note("both sides have the same names",
       YesNo(OwnPort(pair.near_end) != 0 && Own(pair.near_end) == Peers(pair.far_end)));
}

void OfDatagramSockets() {
  const sockaddr_in server = Address(kServerIp, kPort);
  const Socket s = NewDatagram();
  Note("getsockname of a new datagram socket", Own(s));
  sendto(s, "echo word", 9, 0, Of(server), sizeof server);
  Note("getsockname after sendto", Own(s));
  Note("getpeername after sendto", Peers(s));
  const int port = OwnPort(s);
  Receive(s);
  sendto(s, "echo word", 9, 0, Of(Address(kSecondIp, kPort)), sizeof server);
  Receive(s);
  Note("the port stays over datagrams", YesNo(port != 0 && port == OwnPort(s)));
  const Socket bound = NewDatagram();
  bind(bound, Of(Address("198.51.100.1", 0)), sizeof server);
  const int own = OwnPort(bound);
  sendto(bound, "echo word", 9, 0, Of(server), sizeof server);
  Note("an answer to a bound datagram socket", Receive(bound));
  Note("getsockname of it", Own(bound));
  Note("its port stays", YesNo(own != 0 && own == OwnPort(bound)));
  const Socket connected = NewDatagram();
  Note("connect of a datagram socket", Said(connect(connected, Of(server), sizeof server)));
  Note("getsockname of a connected datagram socket", Own(connected));
  Note("getpeername of a connected datagram socket", Peers(connected));
}

}  // namespace

void Names() {
  OfStreams();
  WhileConnecting();
  OfDatagramSockets();
}

}  // namespace parity
