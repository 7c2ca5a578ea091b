// Listening and accepting, which nobody relays; and IPv6, which nobody touches.
#include "parity.h"

namespace parity {
namespace {

int CALLBACK Refuse(LPWSABUF, LPWSABUF, LPQOS, LPQOS, LPWSABUF, LPWSABUF, GROUP*, DWORD_PTR) {
  return CF_REJECT;
}
int CALLBACK Take(LPWSABUF, LPWSABUF, LPQOS, LPQOS, LPWSABUF, LPWSABUF, GROUP*, DWORD_PTR) {
  return CF_ACCEPT;
}

void Accepting() {
  sockaddr_in address;
  const Socket listener = Listener(&address);
  BOOL listening = FALSE;
  int size = sizeof listening;
  getsockopt(listener, SOL_SOCKET, SO_ACCEPTCONN, reinterpret_cast<char*>(&listening), &size);
  Note("SO_ACCEPTCONN", YesNo(listening == TRUE));
  SetBlocking(listener, false);
  Note("accept of nobody", Said(static_cast<int>(accept(listener, nullptr, nullptr))));
  const Socket caller = NewStream();
  Bound(caller);
  Note("connect over the loopback", Said(connect(caller, Of(address), sizeof address)));
  Readable(listener);
  sockaddr_in peer = {};
  size = sizeof peer;
  const Socket accepted(accept(listener, Of(peer), &size));
  Note("accept", YesNo(accepted != INVALID_SOCKET));
  Note("whom it names", Text(peer));
  Note("recv of an accepted socket", Receive(accepted));
  Send(caller, "hello");
  Readable(accepted);
  Note("what it gets", Receive(accepted));
  Note("listen again", Said(listen(listener, 5)));
  const Socket mine = NewStream();
  bind(mine, Of(Address("198.51.100.1", 0)), sizeof address);
  Note("listen on the machine's address", Said(listen(mine, 5)));
  size = sizeof address;
  getsockname(mine, Of(address), &size);
  const Socket visitor = NewStream();
  Note("connect to it", Said(connect(visitor, Of(address), sizeof address)));
  const Socket guest(accept(mine, nullptr, nullptr));
  Send(guest, "welcome");
  Bound(visitor);
  Note("what comes over it", Receive(visitor));
}

void OnCondition() {
  sockaddr_in address;
  const Socket listener = Listener(&address);
  const Socket first = NewStream();
  connect(first, Of(address), sizeof address);
  const Socket taken(WSAAccept(listener, nullptr, nullptr, Take, 0));
  Note("WSAAccept that takes", YesNo(taken != INVALID_SOCKET));
  const Socket second = NewStream();
  Bound(second);
  connect(second, Of(address), sizeof address);
  Note("WSAAccept that refuses",
       Said(static_cast<int>(WSAAccept(listener, nullptr, nullptr, Refuse, 0))));
  const std::string end = Receive(second);
  Note("the refused one hears", end == "end" || end == "error 10054" ? "an end" : end);
}

sockaddr_in6 LocalAddress() {
  sockaddr_in6 address = {};
  address.sin6_family = AF_INET6;
  address.sin6_addr.s6_addr[15] = 1;
  return address;
}

void Streams6() {
  sockaddr_in6 address = LocalAddress();
  auto* const name = reinterpret_cast<sockaddr*>(&address);
  int size = sizeof address;
  const Socket listener(socket(AF_INET6, SOCK_STREAM, IPPROTO_TCP));
  Note("a socket", YesNo(listener != INVALID_SOCKET));
  Note("bind", Said(bind(listener, name, size)));
  Note("listen", Said(listen(listener, 5)));
  getsockname(listener, name, &size);
  const Socket caller(socket(AF_INET6, SOCK_STREAM, IPPROTO_TCP));
  Bound(caller);
  Note("connect", Said(connect(caller, name, size)));
  const Socket accepted(accept(listener, nullptr, nullptr));
  Note("accept", YesNo(accepted != INVALID_SOCKET));
  Send(accepted, "six");
  Note("recv", Receive(caller));
  sockaddr_in6 peer = {};
  size = sizeof peer;
  Note("getpeername", Said(getpeername(caller, reinterpret_cast<sockaddr*>(&peer), &size)));
  Note("its family", Number(peer.sin6_family));
  Note("the same port", YesNo(peer.sin6_port == address.sin6_port));
  shutdown(caller, SD_SEND);
  Note("the end of it", Receive(accepted));
  sockaddr_in6 nobody = LocalAddress();
  nobody.sin6_port = htons(kRefusedPort);
  const Socket refused(socket(AF_INET6, SOCK_STREAM, IPPROTO_TCP));
  Note("a refusal", Said(connect(refused, reinterpret_cast<sockaddr*>(&nobody), sizeof nobody)));
}

void Datagrams6() {
  sockaddr_in6 address = LocalAddress();
  auto* const name = reinterpret_cast<sockaddr*>(&address);
  int size = sizeof address;
  const Socket s(socket(AF_INET6, SOCK_DGRAM, IPPROTO_UDP));
  Bound(s);
  bind(s, name, size);
  getsockname(s, name, &size);
  Note("sendto", Said(sendto(s, "word", 4, 0, name, size)));
  sockaddr_in6 from = {};
  char room[8];
  size = sizeof from;
  Note("recvfrom",
       Said(recvfrom(s, room, sizeof room, 0, reinterpret_cast<sockaddr*>(&from), &size)));
  Note("the source", YesNo(from.sin6_port == address.sin6_port && from.sin6_family == AF_INET6));
  const Socket connected(socket(AF_INET6, SOCK_DGRAM, IPPROTO_UDP));
  Note("connect of a datagram socket", Said(connect(connected, name, sizeof address)));
  Note("send", Said(Send(connected, "connected")));
  Note("recv of it", Receive(s));
  DWORD only = 9;
  size = sizeof only;
  getsockopt(s, IPPROTO_IPV6, IPV6_V6ONLY, reinterpret_cast<char*>(&only), &size);
  Note("IPV6_V6ONLY", Number(only));
}

void Dual() {
  const Socket s(socket(AF_INET6, SOCK_STREAM, IPPROTO_TCP));
  Bound(s);
  DWORD off = 0;
  Note("IPV6_V6ONLY off", Said(setsockopt(s, IPPROTO_IPV6, IPV6_V6ONLY,
                                          reinterpret_cast<const char*>(&off), sizeof off)));
  sockaddr_in6 mapped = {};
  mapped.sin6_family = AF_INET6;
  mapped.sin6_port = htons(kPort);
  mapped.sin6_addr.s6_addr[10] = 0xff;
  mapped.sin6_addr.s6_addr[11] = 0xff;
  const u_long ip = inet_addr(kServerIp);
  for (int i = 0; i < 4; ++i)
    mapped.sin6_addr.s6_addr[12 + i] = reinterpret_cast<const u_char*>(&ip)[i];
  const int result = connect(s, reinterpret_cast<sockaddr*>(&mapped), sizeof mapped);
  Note("connect to a mapped IPv4 address", Said(result));
  Send(s, Request(NewId(), "say mapped"));
  Note("what comes over it", Receive(s));
}

}  // namespace

void Listening() {
  Accepting();
  OnCondition();
}

void Ipv6() {
  Streams6();
  Datagrams6();
  Dual();
}

}  // namespace parity
