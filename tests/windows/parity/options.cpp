// Options of sockets: what they are at first, and that they stay as they were set.
#include "parity.h"

namespace parity {
namespace {

std::string Get(SOCKET s, int level, int option) {
  DWORD value = 0;
  int size = sizeof value;
  const int result = getsockopt(s, level, option, reinterpret_cast<char*>(&value), &size);
  if (result != 0) return Said(result);
  return size == 1 ? Number(value & 0xff) : Number(value);
}

std::string SetAndGet(SOCKET s, int level, int option, DWORD value) {
  const int result =
      setsockopt(s, level, option, reinterpret_cast<const char*>(&value), sizeof value);
  return result == 0 ? Get(s, level, option) : Said(result);
}

void OfAConnection() {
  const Peer peer = Ask("echo");
  Note("SO_TYPE", Get(peer.s, SOL_SOCKET, SO_TYPE));
  Note("SO_ACCEPTCONN", Get(peer.s, SOL_SOCKET, SO_ACCEPTCONN));
  Note("SO_KEEPALIVE", Get(peer.s, SOL_SOCKET, SO_KEEPALIVE));
  Note("SO_REUSEADDR", Get(peer.s, SOL_SOCKET, SO_REUSEADDR));
  Note("SO_DONTLINGER", Get(peer.s, SOL_SOCKET, SO_DONTLINGER));
  Note("TCP_NODELAY", Get(peer.s, IPPROTO_TCP, TCP_NODELAY));
  Note("SO_KEEPALIVE set", SetAndGet(peer.s, SOL_SOCKET, SO_KEEPALIVE, 1));
  Note("TCP_NODELAY set", SetAndGet(peer.s, IPPROTO_TCP, TCP_NODELAY, 1));
  Note("SO_RCVTIMEO set", SetAndGet(peer.s, SOL_SOCKET, SO_RCVTIMEO, 1234));
  Note("SO_SNDTIMEO set", SetAndGet(peer.s, SOL_SOCKET, SO_SNDTIMEO, 2345));
  Note("SO_RCVBUF set", SetAndGet(peer.s, SOL_SOCKET, SO_RCVBUF, 65536));
  Note("SO_SNDBUF set", SetAndGet(peer.s, SOL_SOCKET, SO_SNDBUF, 65536));
  Note("SO_OOBINLINE set", SetAndGet(peer.s, SOL_SOCKET, SO_OOBINLINE, 1));
  Note("IP_TTL set", SetAndGet(peer.s, IPPROTO_IP, IP_TTL, 77));
  Note("an unknown option", Get(peer.s, SOL_SOCKET, 0x7654));
  Note("an unknown level", Get(peer.s, 0x4321, 1));
  const linger wait = {1, 5};
  setsockopt(peer.s, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&wait), sizeof wait);
  linger found = {};
  int size = sizeof found;
  getsockopt(peer.s, SOL_SOCKET, SO_LINGER, reinterpret_cast<char*>(&found), &size);
  Note("SO_LINGER set", Number(found.l_onoff).append(" ").append(Number(found.l_linger)));
}

void SetBeforeAConnection() {
  const Socket s = NewStream();
  SetAndGet(s, SOL_SOCKET, SO_KEEPALIVE, 1);
  SetAndGet(s, IPPROTO_TCP, TCP_NODELAY, 1);
  SetAndGet(s, SOL_SOCKET, SO_RCVBUF, 50'000);
  SetAndGet(s, SOL_SOCKET, SO_SNDBUF, 40'000);
  SetAndGet(s, IPPROTO_IP, IP_TTL, 99);
  const sockaddr_in server = Address(kServerIp, kPort);
  connect(s, Of(server), sizeof server);
  Note("SO_KEEPALIVE over connect", Get(s, SOL_SOCKET, SO_KEEPALIVE));
  Note("TCP_NODELAY over connect", Get(s, IPPROTO_TCP, TCP_NODELAY));
  Note("SO_RCVBUF over connect", Get(s, SOL_SOCKET, SO_RCVBUF));
  Note("SO_SNDBUF over connect", Get(s, SOL_SOCKET, SO_SNDBUF));
  Note("IP_TTL over connect", Get(s, IPPROTO_IP, IP_TTL));
  Note("SO_REUSEADDR over connect", Get(s, SOL_SOCKET, SO_REUSEADDR));
  Note("SO_EXCLUSIVEADDRUSE over connect", Get(s, SOL_SOCKET, SO_EXCLUSIVEADDRUSE));
}

void OptionsOfADatagramSocket() {
  const Socket s = NewDatagram();
  Note("SO_TYPE of a datagram socket", Get(s, SOL_SOCKET, SO_TYPE));
  Note("SO_BROADCAST", Get(s, SOL_SOCKET, SO_BROADCAST));
  Note("SO_BROADCAST set", SetAndGet(s, SOL_SOCKET, SO_BROADCAST, 1));
  Note("SO_MAX_MSG_SIZE", Get(s, SOL_SOCKET, SO_MAX_MSG_SIZE));
  Note("IP_DONTFRAGMENT set", SetAndGet(s, IPPROTO_IP, IP_DONTFRAGMENT, 1));
  SetAndGet(s, SOL_SOCKET, SO_RCVBUF, 70'000);
  const sockaddr_in server = Address(kServerIp, kPort);
  sendto(s, "echo word", 9, 0, Of(server), sizeof server);
  Receive(s);
  Note("SO_RCVBUF over a datagram", Get(s, SOL_SOCKET, SO_RCVBUF));
  Note("SO_BROADCAST over a datagram", Get(s, SOL_SOCKET, SO_BROADCAST));
  Note("SO_REUSEADDR over a datagram", Get(s, SOL_SOCKET, SO_REUSEADDR));
  Note("SO_ERROR over a datagram", Get(s, SOL_SOCKET, SO_ERROR));
}

void Controls() {
  const Peer peer = Ask("echo");
  DWORD keep[3] = {1, 10'000, 1000};
  DWORD got = 0;
  Note("SIO_KEEPALIVE_VALS", Said(WSAIoctl(peer.s, SIO_KEEPALIVE_VALS, keep, sizeof keep, nullptr,
                                           0, &got, nullptr, nullptr)));
  Note("an unknown control code",
       Said(WSAIoctl(peer.s, 0x12345678, nullptr, 0, nullptr, 0, &got, nullptr, nullptr)));
  WSAPROTOCOL_INFOW info = {};
  int size = sizeof info;
  const int result =
      getsockopt(peer.s, SOL_SOCKET, SO_PROTOCOL_INFOW, reinterpret_cast<char*>(&info), &size);
  Note("SO_PROTOCOL_INFO", Said(result));
  Note("its protocol", Number(static_cast<unsigned>(info.iProtocol)));
  Note("its handles are the system's", YesNo((info.dwServiceFlags1 & XP1_IFS_HANDLES) != 0));
  const int room = 2;
  char little[room];
  size = room;
  Note("an option with too little room",
       Said(getsockopt(peer.s, SOL_SOCKET, SO_RCVBUF, little, &size)));
}

}  // namespace

void Options() {
  OfAConnection();
  SetBeforeAConnection();
  OptionsOfADatagramSocket();
  Controls();
}

}  // namespace parity
