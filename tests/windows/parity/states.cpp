// What calls answer that come at the wrong time.
#include "parity.h"

namespace parity {
namespace {

void NotConnected() {
  const Socket s = NewStream();
  sockaddr_in room = {};
  int size = sizeof room;
  Note("send without a connection", Said(Send(s, "x")));
  Note("recv without a connection", Receive(s));
  Note("getpeername without a connection", Said(getpeername(s, Of(room), &size)));
  Note("getsockname before a bind", Said(getsockname(s, Of(room), &size)));
  Note("shutdown without a connection", Said(shutdown(s, SD_SEND)));
  Note("listen before a bind", Said(listen(s, 1)));
  Note("accept before listen", Said(static_cast<int>(accept(s, nullptr, nullptr))));
  Note("select before a connection", Ready(s, 0));
  Note("SO_ERROR of a new socket", Number(static_cast<unsigned>(ErrorOption(s))));
}

void BoundTwice() {
  const Socket s = NewStream();
  Note("bind", Said(bind(s, Of(Address("0.0.0.0", 0)), sizeof(sockaddr_in))));
  Note("bind again", Said(bind(s, Of(Address("0.0.0.0", 0)), sizeof(sockaddr_in))));
  sockaddr_in address;
  const Socket listener = Listener(&address);
  Note("bind to a port in use", Said(bind(NewStream(), Of(address), sizeof address)));
  Note("connect of a listener",
       Said(connect(listener, Of(Address(kServerIp, kPort)), sizeof address)));
}

void Connected() {
  const Peer peer = Ask("echo");
  const sockaddr_in server = Address(kServerIp, kPort);
  Note("connect again", Said(connect(peer.s, Of(server), sizeof server)));
  Note("bind of a connected socket", Said(bind(peer.s, Of(Address("0.0.0.0", 0)), sizeof server)));
  Note("listen on a connected socket", Said(listen(peer.s, 1)));
  Note("accept on a connected socket", Said(static_cast<int>(accept(peer.s, nullptr, nullptr))));
  Note("SO_ERROR of a connected socket", Number(static_cast<unsigned>(ErrorOption(peer.s))));
  Note("sendto on a connected stream",
       Said(sendto(peer.s, "abc", 3, 0, Of(server), sizeof server)));
  Note("its echo", Receive(peer.s));
  sockaddr_in from = Address("1.2.3.4", 5);
  int size = sizeof from;
  Send(peer.s, "def");
  char buffer[8];
  Note("recvfrom on a connected stream", Said(recvfrom(peer.s, buffer, 8, 0, Of(from), &size)));
  Note("send of nothing", Said(Send(peer.s, "")));
  Note("send with an unknown flag", Said(Send(peer.s, "x", 0x4000)));
}

void Unreachable() {
  Socket s = NewStream();
  const sockaddr_in nobody = Address(kNobodyIp, kPort);
  const Watch watch;
  Note("connect to an unreachable address", Said(connect(s, Of(nobody), sizeof nobody)));
  Note("its time", watch.Took(0));
  Note("connect to the broadcast address",
       Said(connect(NewStream(), Of(Address("255.255.255.255", kPort)), sizeof nobody)));
  Note("connect to 0.0.0.0",
       Said(connect(NewStream(), Of(Address("0.0.0.0", kRefusedPort)), sizeof nobody)));
}

}  // namespace

void States() {
  NotConnected();
  BoundTwice();
  Connected();
  Unreachable();
}

}  // namespace parity
