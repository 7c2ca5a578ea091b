#include "game/server.h"

#include <algorithm>
#include <cstring>

#include "game/beat.h"

namespace game {
namespace {

constexpr size_t kMostPlayers = 10'000;
constexpr size_t kMostDue = 100'000;
constexpr size_t kMostGuests = 60;  // with the two sockets of the server within one wait
constexpr size_t kLongestLine = 256;

bool Bind(const Socket& s, const sockaddr_in& address) {
  return s.is_open() &&
         bind(s.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

std::string Server::Open() {
  datagrams_ = Socket(SOCK_DGRAM, IPPROTO_UDP);
  listener_ = Socket(SOCK_STREAM, IPPROTO_TCP);
  if (!Bind(datagrams_, options_.listen) || !Bind(listener_, options_.listen) ||
      listen(listener_.get(), SOMAXCONN) != 0) {
    return "cannot listen at " + EndpointText(options_.listen) + ": " +
           ErrorText(WSAGetLastError());
  }
  datagrams_.SetNonBlocking();
  listener_.SetNonBlocking();
  return "";
}

void Server::Step(unsigned wait_ms) {
  std::vector<SOCKET> sockets = {datagrams_.get(), listener_.get()};
  for (const Guest& guest : lobby_) sockets.push_back(guest.socket.get());
  int64_t wait_us = int64_t{wait_ms} * 1000;
  if (!due_.empty()) {
    const uint64_t now = NowUs(), next = due_.begin()->first;
    wait_us = next <= now ? 0 : std::min(wait_us, static_cast<int64_t>(next - now));
  }
  WaitReadable(sockets.data(), sockets.size(), wait_us);
  ReceiveBeats();
  Accept();
  for (Guest& guest : lobby_) Serve(&guest);
  std::erase_if(lobby_, [](const Guest& guest) { return guest.left; });
  SendDue();
}

void Server::ReceiveBeats() {
  for (int left = 1000; left > 0; --left) {
    char buffer[kLongestBeat + 1];
    sockaddr_in from = {};
    int from_size = sizeof from;
    const int got = recvfrom(datagrams_.get(), buffer, sizeof buffer, 0,
                             reinterpret_cast<sockaddr*>(&from), &from_size);
    if (got < 0 && WSAGetLastError() == WSAEWOULDBLOCK) return;
    // A client that has gone may leave an error on the socket; it does not concern the others.
    if (got >= 0) TakeBeat(std::string(buffer, static_cast<size_t>(got)), from);
  }
}

void Server::TakeBeat(std::string datagram, const sockaddr_in& from) {
  Beat beat;
  if (datagram.size() >= sizeof beat) std::memcpy(&beat, datagram.data(), sizeof beat);
  if (datagram.size() < sizeof beat || beat.magic != kBeatMagic ||
      beat.kind != static_cast<uint8_t>(BeatKind::kBeat) ||
      (players_.size() >= kMostPlayers && !players_.contains({beat.session, beat.server}))) {
    ++strangers_;
    return;
  }
  PlayerFigures& player = players_[{beat.session, beat.server}];
  player.beats.Add(beat.seq);
  const std::string address = EndpointText(from);
  if (!player.last_address.empty() && player.last_address != address) ++player.address_changes;
  player.last_address = address;
  if (random_() % 100 < options_.loss_percent || due_.size() >= kMostDue) {
    ++player.withheld;
    return;
  }
  ++player.answered;
  beat.kind = static_cast<uint8_t>(BeatKind::kAnswer);
  beat.arrived = player.beats.received();
  std::memcpy(datagram.data(), &beat, sizeof beat);
  const uint32_t jitter =
      options_.jitter_ms == 0 ? 0 : static_cast<uint32_t>(random_() % (options_.jitter_ms + 1));
  const uint64_t due = NowUs() + uint64_t{options_.delay_ms + jitter} * 1000;
  due_.emplace(due, Answer{from, std::move(datagram)});
}

void Server::SendDue() {
  const uint64_t now = NowUs();
  while (!due_.empty() && due_.begin()->first <= now) {
    const Answer& answer = due_.begin()->second;
    sendto(datagrams_.get(), answer.datagram.data(), static_cast<int>(answer.datagram.size()), 0,
           reinterpret_cast<const sockaddr*>(&answer.to), sizeof answer.to);
    due_.erase(due_.begin());
  }
}

void Server::Accept() {
  while (lobby_.size() < kMostGuests) {
    sockaddr_in from = {};
    int from_size = sizeof from;
    Guest guest;
    guest.socket = Socket(accept(listener_.get(), reinterpret_cast<sockaddr*>(&from), &from_size));
    if (!guest.socket.is_open()) return;
    guest.socket.SetNonBlocking();
    guest.name = EndpointText(from);
    ++guests_;
    lobby_.push_back(std::move(guest));
  }
}

void Server::Serve(Guest* guest) {
  char buffer[512];
  const int got = recv(guest->socket.get(), buffer, sizeof buffer, 0);
  if (got <= 0) {
    guest->left = got == 0 || WSAGetLastError() != WSAEWOULDBLOCK;
    return;
  }
  guest->pending.append(buffer, static_cast<size_t>(got));
  for (size_t end = 0; (end = guest->pending.find('\n')) != std::string::npos;) {
    TakeLine(guest, guest->pending.substr(0, end));
    guest->pending.erase(0, end + 1);
  }
  if (guest->pending.size() > kLongestLine) guest->left = true;
}

void Server::TakeLine(Guest* guest, const std::string& line) {
  std::string answer = "WHAT\n";
  if (line.rfind("HELLO ", 0) == 0) {
    answer = "WELCOME " + guest->name + "\n";
  } else if (line.rfind("PING ", 0) == 0) {
    answer = "PONG " + line.substr(5) + "\n";
    ++guest->words;
    ++words_;
  } else if (line == "BYE") {
    answer = "GOODBYE " + std::to_string(guest->words) + "\n";
  }
  const int size = static_cast<int>(answer.size());
  if (send(guest->socket.get(), answer.data(), size, 0) != size) guest->left = true;
}

}  // namespace game
