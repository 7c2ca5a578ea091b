// Sending more than there is room for, and what becomes of it.
#include <vector>

#include "parity.h"

namespace parity {
namespace {

constexpr size_t kMuch = 4 << 20;

// Sends without blocking until there is no more room; the bytes that went, and the last error.
size_t Fill(SOCKET s, std::string* end) {
  const std::string piece(64 << 10, 'f');
  size_t sent = 0;
  *end = "no end";
  while (sent < (64u << 20)) {
    const int one = Send(s, piece);
    if (one <= 0) {
      *end = Said(one);
      break;
    }
    sent += static_cast<size_t>(one);
  }
  return sent;
}

void WithoutRoom() {
  const Peer peer = Ask("hold");
  SetBlocking(peer.s, false);
  std::string end;
  size_t sent = Fill(peer.s, &end);
  Note("sending ends with", end);
  Note("something went", YesNo(sent > 0));
  Note("select without room", Ready(peer.s, 0));
  Note("select once there is room", YesNo(Writable(peer.s, 3 * PatienceMs())));
  const int more = Send(peer.s, "more");
  Note("send once there is room", Said(more));
  if (more > 0) sent += static_cast<size_t>(more);
  shutdown(peer.s, SD_SEND);
  const std::string wanted = Number(sent).append(" bytes, end");
  Note("the server got all of it", YesNo(peer.Saw() == wanted));
}

void AllOfIt() {
  const Peer peer = Ask("sink");
  Note("a blocking send of much", Said(Send(peer.s, std::string(kMuch, 'm'))));
  shutdown(peer.s, SD_SEND);
  Note("what the server saw", peer.Saw());
  const Peer held = Ask("hold");
  const DWORD limit = 200;
  setsockopt(held.s, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&limit), sizeof limit);
  const Watch watch;
  const int sent = Send(held.s, std::string(64 << 20, 't'));
  Note("a blocking send with a timeout", sent == (64 << 20) ? "all"
                                         : sent > 0         ? "a part"
                                                            : Said(sent));
  Note("its time", watch.Took(200));
}

void Gathered() {
  const Peer peer = Ask("echo");
  char first[] = "one,";
  char second[] = "two,";
  char third[] = "three";
  WSABUF parts[] = {{4, first}, {4, second}, {0, nullptr}, {5, third}};
  DWORD sent = 0;
  Note("WSASend of parts", Said(WSASend(peer.s, parts, 4, &sent, 0, nullptr, nullptr)));
  Note("its count", Number(sent));
  char begin[6] = {};
  char rest[20] = {};
  WSABUF rooms[] = {{5, begin}, {19, rest}};
  DWORD got = 0;
  DWORD flags = 0;
  Readable(peer.s);
  Note("WSARecv into parts", Said(WSARecv(peer.s, rooms, 2, &got, &flags, nullptr, nullptr)));
  Note("what it got", std::string(begin).append("/").append(rest));
  Note("its flags", Number(flags));
  Note("WSASend of no parts", Said(WSASend(peer.s, parts, 0, &sent, 0, nullptr, nullptr)));
}

void BothWays() {
  const Peer peer = Ask("echo");
  SetBlocking(peer.s, false);
  const std::string much(kMuch, 'e');
  size_t sent = 0;
  size_t received = 0;
  std::vector<char> room(1 << 16);
  const DWORD begin = GetTickCount();
  while (received < kMuch && GetTickCount() - begin < 8000) {
    if (sent < kMuch && Writable(peer.s, 0)) {
      const int one = send(peer.s, much.data() + sent, static_cast<int>(kMuch - sent), 0);
      if (one > 0) sent += static_cast<size_t>(one);
    }
    if (Readable(peer.s, sent < kMuch ? 0 : 100)) {
      const int one = recv(peer.s, room.data(), static_cast<int>(room.size()), 0);
      if (one <= 0) break;
      received += static_cast<size_t>(one);
    }
  }
  Note("sent both ways at once", Number(sent));
  Note("received both ways at once", Number(received));
}

void SmallBuffers() {
  Peer peer = Ask("echo");
  const int size = 4096;
  Note("a small SO_SNDBUF", Said(setsockopt(peer.s, SOL_SOCKET, SO_SNDBUF,
                                            reinterpret_cast<const char*>(&size), sizeof size)));
  Note("a small SO_RCVBUF", Said(setsockopt(peer.s, SOL_SOCKET, SO_RCVBUF,
                                            reinterpret_cast<const char*>(&size), sizeof size)));
  Note("a send larger than the buffer", Said(Send(peer.s, std::string(20'000, 's'))));
  Note("all of its echo", Number(ReceiveAll(peer.s, 20'000).size()));
}

}  // namespace

void PartialSends() {
  WithoutRoom();
  AllOfIt();
  Gathered();
  BothWays();
  SmallBuffers();
}

}  // namespace parity
