#include "game/lobby.h"

namespace game {
namespace {

constexpr uint64_t kWelcomeWaitUs = 15'000'000;  // two nodes may have to fail before

}  // namespace

std::string Lobby::Join(const sockaddr_in& server) {
  Socket s(SOCK_STREAM, IPPROTO_TCP);
  if (!s.is_open()) return "no TCP socket: " + ErrorText(WSAGetLastError());
  if (connect(s.get(), reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) {
    return "cannot reach the lobby at " + EndpointText(server) + ": " +
           ErrorText(WSAGetLastError());
  }
  s.SetNonBlocking();
  socket_ = std::move(s);
  Send("HELLO vyr_game\n");
  const uint64_t end = NowUs() + kWelcomeWaitUs;
  while (welcome_.empty() && !is_lost_) {
    const uint64_t now = NowUs();
    if (now >= end) return "the lobby at " + EndpointText(server) + " does not answer";
    const SOCKET handle = socket_.get();
    WaitReadable(&handle, 1, static_cast<int64_t>(end - now));
    Receive();
  }
  return is_lost_ ? "the lobby at " + EndpointText(server) + " hung up" : "";
}

// Lines are short and far between: a full send buffer means that the other side is gone.
void Lobby::Send(const std::string& line) {
  const int size = static_cast<int>(line.size());
  if (send(socket_.get(), line.data(), size, 0) != size) is_lost_ = true;
}

void Lobby::Say() {
  if (is_lost_) return;
  said_us_ = NowUs();
  Send("PING " + std::to_string(++said_) + "\n");
}

void Lobby::Receive() {
  char buffer[512];
  for (int got = 0; (got = recv(socket_.get(), buffer, sizeof buffer, 0)) > 0;) {
    pending_.append(buffer, static_cast<size_t>(got));
    for (size_t end = 0; (end = pending_.find('\n')) != std::string::npos;) {
      TakeLine(pending_.substr(0, end));
      pending_.erase(0, end + 1);
    }
    if (pending_.size() > 1024) is_lost_ = true;
    if (static_cast<size_t>(got) < sizeof buffer) return;
  }
  if (WSAGetLastError() != WSAEWOULDBLOCK) is_lost_ = true;
}

void Lobby::TakeLine(const std::string& line) {
  if (line.rfind("WELCOME ", 0) == 0 && welcome_.empty()) {
    welcome_ = line.substr(8);
  } else if (line == "PONG " + std::to_string(answered_ + 1) && answered_ < said_) {
    ++answered_;
    last_round_trip_us_ = static_cast<uint32_t>(NowUs() - said_us_);
  } else if (line == "GOODBYE " + std::to_string(said_)) {
    goodbye_ = true;
  } else {
    ++wrong_;
  }
}

void Lobby::Leave(unsigned wait_ms) {
  if (!is_joined() || is_lost_) return;
  Send("BYE\n");
  const uint64_t end = NowUs() + uint64_t{wait_ms} * 1000;
  while (!goodbye_ && !is_lost_ && NowUs() < end) {
    const SOCKET handle = socket_.get();
    if (WaitReadable(&handle, 1, 50'000)) Receive();
  }
}

}  // namespace game
