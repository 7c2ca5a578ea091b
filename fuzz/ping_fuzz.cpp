// A game's raw pings: any message on any of a few sockets, and buffers of any size for the replies.
// Against a naive list: what is held, when it is due, in which order it is answered, and which
// bytes of the game's buffer may change.
#include <deque>
#include <map>
#include <vector>

#include "hand_relay.h"
#include "icmp/icmp_vm.h"
#include "input.h"

namespace {

using namespace fuzz;

constexpr int kMostSteps = 200;
constexpr u32 kLagMs = 50;  // of an address that is not in the tables, as none is here
constexpr u32 kEarlyMs = 5;
constexpr char kUntouched = '\x5A';

u32 IpOf(SOCKET s) { return 0x0100007F + static_cast<u32>(s); }

u32 Sum(const std::string& message) {
  u32 sum = 0;
  for (std::size_t i = 0; i < message.size(); ++i) {
    if (i == 2 || i == 3) continue;
    sum += u32{static_cast<u8>(message[i])} << (i % 2 * 8);
  }
  while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
  return ~sum & 0xFFFF;
}

bool IsEchoRequest(const std::string& message) {
  if (message.size() < 8 || message.size() > 256 || message[0] != 8) return false;
  const u32 found = static_cast<u8>(message[2]) | u32{static_cast<u8>(message[3])} << 8;
  return found == Sum(message);
}

struct Held {
  std::string message;
  u32 since = 0;
};

class Pings {
 public:
  explicit Pings(Input* input) : in_(*input) {}

  void Run() {
    for (int i = 0; i < kMostSteps && !in_.empty(); ++i) Step();
    // What is still held is taken, since a socket's end does not give it back.
    Sleep(kLagMs);
    for (auto& [s, held] : held_) {
      while (!held.empty()) Read(s, 300);
    }
    vm_.FreePool();
  }

 private:
  void Step() {
    const SOCKET s = in_.Byte() % 4;
    switch (in_.Byte() % 6) {
      case 0:
        vm_.AddRawSocket(s, IpOf(s));
        held_.try_emplace(s);
        return;
      case 1:
        if (held_.contains(s) && held_[s].empty()) {
          vm_.RemoveRawSocket(s);
          held_.erase(s);
        }
        return;
      case 2:
        return Send(s, Signed(in_.Bytes(in_.Word() % 300)));
      case 3:
        return Send(s, in_.Bytes(in_.Word() % 300));
      case 4:
        return Read(s, in_.Word() % 320);
      default:
        Sleep(in_.Byte());
        return;
    }
  }

  static std::string Signed(std::string message) {
    if (message.size() < 4) return message;
    message[0] = 8;
    const u32 sum = Sum(message);
    message[2] = static_cast<char>(sum);
    message[3] = static_cast<char>(sum >> 8);
    return message;
  }

  void Send(SOCKET s, const std::string& message) {
    const std::vector<char> exact(message.begin(), message.end());
    const bool is_held =
        vm_.CheckinConnectionPingRequest(s, exact.data(), static_cast<u32>(exact.size()));
    Require(is_held == (held_.contains(s) && IsEchoRequest(message)), "a ping is held, others not");
    if (is_held) held_[s].push_back({message, static_cast<u32>(GetTickCount())});
  }

  void Read(SOCKET s, u32 room) {
    std::vector<char> buffer(room, kUntouched);
    u32 length = room, from = 0;
    const bool is_there = vm_.CheckoutPingResponse(s, buffer.data(), &length, &from);
    const auto found = held_.find(s);
    const bool is_due = found != held_.end() && !found->second.empty() &&
                        GetTickCount() - found->second.front().since >= kLagMs - kEarlyMs;
    Require(is_there == (is_due && room >= 28), "a reply comes when it is due, and not before");
    if (!is_there) {
      for (const char byte : buffer) Require(byte == kUntouched, "nothing is written");
      return;
    }
    CheckReply(found->second.front().message, buffer, length, from == IpOf(s));
    found->second.pop_front();
  }

  static void CheckReply(const std::string& request, const std::vector<char>& reply, u32 length,
                         bool is_from_target) {
    Require(is_from_target && length == request.size() + 20, "the reply to this request");
    Require(reply[0] == 0x45 && reply[20] == 0 && reply[21] == 0, "an echo reply");
    Require(std::memcmp(reply.data() + 24, request.data() + 4, 4) == 0, "with its numbers");
    for (std::size_t i = length; i < reply.size(); ++i) {
      Require(reply[i] == kUntouched, "nothing is written behind it");
    }
  }

  Input& in_;
  CIcmpVM vm_;
  std::map<SOCKET, std::deque<Held>> held_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  common::SetLogThreshold(size % 2 == 0 ? 0 : 6);
  // Away from where the tick counter wraps, where replies come early or late.
  if (GetTickCount() > 0xF0000000) Sleep(0xFFFFFFFF - GetTickCount() + 1000);
  if (GetTickCount() < 1000) Sleep(1000);
  Input input(data, size);
  Pings(&input).Run();
  return 0;
}
