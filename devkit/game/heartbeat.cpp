#include "game/heartbeat.h"

#include <algorithm>
#include <cstring>
#include <random>
#include <utility>

namespace game {

Heartbeat::Heartbeat(const std::vector<sockaddr_in>& servers, bool connected, size_t size)
    : servers_(servers.size()),
      connected_(connected),
      size_(std::clamp(size, sizeof(Beat), kLongestBeat)),
      session_(std::random_device()()) {
  for (size_t i = 0; i < servers.size(); ++i) servers_[i].address = servers[i];
}

std::string Heartbeat::Open() {
  const size_t count = connected_ ? servers_.size() : 1;
  for (size_t i = 0; i < count; ++i) {
    Socket s(SOCK_DGRAM, IPPROTO_UDP);
    if (!s.is_open() || !s.SetNonBlocking()) {
      return "no UDP socket: " + ErrorText(WSAGetLastError());
    }
    if (connected_) {
      const sockaddr_in& to = servers_[i].address;
      if (connect(s.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
        return "cannot connect to " + EndpointText(to) + ": " + ErrorText(WSAGetLastError());
      }
    }
    handles_.push_back(s.get());
    owned_.push_back(std::move(s));
  }
  return "";
}

void Heartbeat::SendAll() {
  char datagram[kLongestBeat];
  for (size_t i = 0; i < servers_.size(); ++i) {
    ServerFigures& server = servers_[i];
    Beat beat;
    beat.session = session_;
    beat.seq = server.sent;
    beat.sent_us = NowUs();
    beat.server = static_cast<uint16_t>(i);
    beat.kind = static_cast<uint8_t>(BeatKind::kBeat);
    beat.fill = static_cast<uint8_t>(server.sent * 31 + i);
    std::memcpy(datagram, &beat, sizeof beat);
    std::memset(datagram + sizeof beat, beat.fill, size_ - sizeof beat);
    const int size = static_cast<int>(size_);
    const auto* const to = reinterpret_cast<const sockaddr*>(&server.address);
    const int sent = connected_
                         ? send(SocketFor(i), datagram, size, 0)
                         : sendto(SocketFor(i), datagram, size, 0, to, sizeof server.address);
    if (sent == size) {
      ++server.sent;
      if (server.port_at_begin == 0) server.port_at_begin = OwnPort(SocketFor(i));
    } else {
      last_error_ = WSAGetLastError();
      ++server.send_errors;
    }
  }
}

void Heartbeat::Receive() {
  for (size_t i = 0; i < handles_.size(); ++i) ReceiveOn(i);
}

void Heartbeat::ReceiveOn(size_t index) {
  // A limit for one turn, so that a flood does not keep the game from its beats.
  for (int left = 256; left > 0; --left) {
    char datagram[kLongestBeat + 1];
    sockaddr_in from = {};
    int from_size = sizeof from;
    const int got = connected_ ? recv(handles_[index], datagram, sizeof datagram, 0)
                               : recvfrom(handles_[index], datagram, sizeof datagram, 0,
                                          reinterpret_cast<sockaddr*>(&from), &from_size);
    if (got < 0) {
      const int error = WSAGetLastError();
      if (error == WSAEWOULDBLOCK) return;
      last_error_ = error;
      ++receive_errors_;
      continue;
    }
    Take(datagram, static_cast<size_t>(got), connected_ ? servers_[index].address : from, index);
  }
}

bool Heartbeat::IsWhole(const char* datagram, size_t size, uint8_t fill) const {
  return size == size_ && std::all_of(datagram + sizeof(Beat), datagram + size, [fill](char byte) {
           return static_cast<uint8_t>(byte) == fill;
         });
}

void Heartbeat::Take(const char* datagram, size_t size, const sockaddr_in& from,
                     size_t socket_index) {
  Beat beat;
  if (size >= sizeof beat) std::memcpy(&beat, datagram, sizeof beat);
  if (size < sizeof beat || beat.magic != kBeatMagic || beat.session != session_ ||
      beat.kind != static_cast<uint8_t>(BeatKind::kAnswer) || beat.server >= servers_.size()) {
    ++strangers_;
    return;
  }
  ServerFigures& server = servers_[beat.server];
  if (!IsSame(from, server.address) || (connected_ && socket_index != beat.server)) {
    ++server.source_mismatches;
  }
  if (!IsWhole(datagram, size, beat.fill) || beat.seq >= server.sent) ++server.damaged;
  if (!server.answers.Add(beat.seq)) return;
  server.arrived = std::max(server.arrived, beat.arrived);
  latest_us_ = static_cast<uint32_t>(NowUs() - beat.sent_us);
  server.round_trips_us.push_back(latest_us_);
}

void Heartbeat::NotePorts() {
  for (size_t i = 0; i < servers_.size(); ++i) servers_[i].port_at_end = OwnPort(SocketFor(i));
}

}  // namespace game
