// The control port, at which a game's sockets ask for relays of datagrams. Any program of the
// machine can send there. Only exact messages of this host do anything, and then exactly what a
// naive list of the open sessions says.
#include <atomic>
#include <set>

#include "hand_script.h"
#include "udp/udp_provider.h"

namespace {

using namespace fuzz;

template <class Message>
std::string BytesOf(const Message& message) {
  return {reinterpret_cast<const char*>(&message), sizeof message};
}

class ControlPort : public HandScript {
 public:
  explicit ControlPort(Input* input)
      : HandScript(input, {.mended = 0, .mode = static_cast<u8>(input->Byte() % 2)},
                   {.steps = 48, .memory = 4 << 20}) {
    game_ = OpenSocket(SOCK_DGRAM, "127.0.0.1", 0);
    elsewhere_ = OpenSocket(SOCK_DGRAM, "127.0.0.2", 0);
    event_ = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    Require(provider_->Init(&relay_.loop, &relay_.route), "the control port");
  }

 private:
  void Step() override {
    switch (in_.Byte() % 5) {
      case 0:
        return Say(game_, Open());
      case 1:
        return Say(game_, BytesOf(ProtoRelayClose::Request(in_.Byte() % 16)));
      case 2:
        return Say(game_,
                   Changed(in_.Byte() % 2 == 0 ? Open() : BytesOf(ProtoRelayClose::Request(1))));
      case 3:
        return Say(in_.Byte() % 2 == 0 ? elsewhere_ : game_, in_.Bytes(in_.Byte()));
      default: {
        const u32 ms = u32{in_.Byte()} * 10;
        Sleep(ms);
        provider_->OnUpdate(ms);
        return;
      }
    }
  }

  void Pump() override {
    Require(relay_.loop.delegates.size() == 1 + open_.size(), "one socket for each session");
  }

  std::string Open() {
    ProtoRelayOpen request;
    request.token = in_.Byte() % 16;
    request.addr = At(kServer, kServerPort);
    const u8 which = in_.Byte() % 4;
    const auto made_up = static_cast<std::uintptr_t>(in_.Long());
    request.event_or_result = which == 0   ? 0
                              : which == 1 ? reinterpret_cast<std::uintptr_t>(INVALID_HANDLE_VALUE)
                              : which == 2 ? made_up
                                           : reinterpret_cast<std::uintptr_t>(event_);
    request.send_size_or_queue = in_.Long();
    request.recv_size_or_queue = in_.Long();
    return BytesOf(request);
  }

  std::string Changed(std::string message) {
    if (in_.Byte() % 2 == 0) {
      message[in_.Byte() % message.size()] = static_cast<char>(in_.Byte());
    } else if (in_.Byte() % 2 == 0) {
      message += in_.Bytes(in_.Byte());
    } else {
      message.resize(in_.Byte() % message.size());
    }
    return message;
  }

  void Say(SOCKET from, const std::string& message) {
    sockaddr_in control;
    provider_->GetLocalAddr(&control);
    sendto(from, message.data(), static_cast<int>(message.size()), 0, Raw(&control),
           sizeof control);
    relay_.loop.Turn();
    if (from == game_) Expect(message);
  }

  // By the bytes alone: magic, kind, token.
  void Expect(const std::string& message) {
    constexpr std::string_view kMagic("\x53\x02\x3F\xC1", 4);
    if (message.size() < 9 || message.substr(0, 4) != kMagic) return;
    u32 token = 0;
    std::memcpy(&token, message.data() + 5, sizeof token);
    if (message[4] == 1 && message.size() == 53) ExpectOpened(message, token);
    if (message[4] == 2 && message.size() == 13) open_.erase(token);
  }

  void ExpectOpened(const std::string& message, u32 token) {
    std::uintptr_t event = 0;
    std::memcpy(&event, message.data() + 29, sizeof event);
    const bool is_new = open_.insert(token).second;
    ProtoRelayOpen answer;
    const bool is_answered = provider_->GetCreateResult(token, &answer);
    Require(is_answered == (event != 0 && event + 1 != 0), "an answer for who waits");
    if (!is_answered) return;
    Require(answer.token == token && answer.opened() == is_new, "a token has one session");
    Require(!provider_->GetCreateResult(token, &answer), "an answer is taken once");
    if (event == reinterpret_cast<std::uintptr_t>(event_)) {
      Require(WaitForSingleObject(event_, 0) == WAIT_OBJECT_0, "who waits is woken");
      ResetEvent(event_);
    }
    if (!is_new) return;
    Require(answer.address().sin_addr.s_addr == htonl(INADDR_LOOPBACK) &&
                answer.address().sin_port != 0,
            "the relay is on this host");
    Require(provider_->UseQueue(answer.send_queue(), token) != nullptr, "its queues live");
    Require(provider_->UseQueue(answer.send_queue(), token + 1) == nullptr, "for this token");
  }

  void End() override {
    for (const u32 token : std::set<u32>(open_)) {
      Say(game_, BytesOf(ProtoRelayClose::Request(token)));
    }
    Require(relay_.loop.delegates.size() == 1, "each session can be closed");
    provider_->Uninit();
    provider_.reset();
    closesocket(game_);
    closesocket(elsewhere_);
    CloseHandle(event_);
  }

  const std::atomic<bool> stopping_{false};
  std::unique_ptr<UdpProvider> provider_ = std::make_unique<UdpProvider>(stopping_);
  SOCKET game_ = INVALID_SOCKET;
  SOCKET elsewhere_ = INVALID_SOCKET;  // a program of this machine that is not at 127.0.0.1
  HANDLE event_ = nullptr;
  std::set<u32> open_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  return RunScript<ControlPort>(data, size);
}
