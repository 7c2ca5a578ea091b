// A relayed stream from its connect to its end, while both nodes, the game server and the game do
// what the input says: any bytes in any pieces, answers that are nearly right, ends and resets at
// any moment. Whatever they do,
// - the game gets what one far side has sent behind its answer, from the beginning and in order,
// - one far side alone gets what the game has sent, from the beginning and in order,
// - where nobody has ended anything, all of that arrives,
// - once all have gone, nothing of the session is left, and meanwhile its memory is bounded.
#include <string_view>
#include <vector>

#include "hand_script.h"
#include "protocol/nego_request.h"
#include "stream/tcp_provider.h"

namespace {

using namespace fuzz;

constexpr u32 kToken = 9;
constexpr std::size_t kMostBytes = 3 << 20;  // of one script: more than a session may hold

// A connection to a node or to the server.
struct Far {
  SOCKET s = INVALID_SOCKET;
  bool is_node = false;
  bool reads = true;
  std::string sent;
  std::string got;

  // Where the bytes for the game begin in `sent`: behind an answer that a node may have been taken
  // for. npos: there is none.
  std::size_t PayloadBegins() const {
    constexpr char kMagic[] = {0x78, static_cast<char>(0xDB), 0x39, 0x64};
    if (!is_node) return 0;
    if (sent.size() < 11 || sent.compare(0, 4, kMagic, 4) != 0 || sent[10] != 0) return sent.npos;
    const std::size_t answer = static_cast<u8>(sent[4]) * 256u + static_cast<u8>(sent[5]);
    return answer <= sizeof(NegoResponse) && answer <= sent.size() ? answer : sent.npos;
  }
  std::string_view Payload() const {
    const std::size_t begin = PayloadBegins();
    return begin == sent.npos ? std::string_view() : std::string_view(sent).substr(begin);
  }
  // What it has got of the game's. A node gets the request first.
  std::string_view FromGame() const {
    const std::size_t request = is_node ? std::min(sizeof(NegoRequest), got.size()) : 0;
    return std::string_view(got).substr(request);
  }
};

bool IsPrefix(std::string_view part, std::string_view whole) {
  return whole.substr(0, part.size()) == part;
}

void ResetOnClose(SOCKET s) {
  const u16 linger_now[2] = {1, 0};
  setsockopt(s, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(linger_now),
             sizeof linger_now);
}

class Session : public HandScript {
 public:
  explicit Session(Input* input)
      : HandScript(input, Setting::From(input), {.steps = 48, .memory = 32 << 20}) {
    for (const u16 port : kNodePorts) listeners_.push_back(Listener("127.0.0.1", port));
    // Where nothing listens, the way is refused.
    if ((mode_ & 4) != 0) Close(&listeners_[0]);
    if ((mode_ & 8) != 0) Close(&listeners_[1]);
    if ((mode_ & 16) == 0) listeners_.push_back(Listener(kServer, kServerPort));
    Require(provider_->Init(&relay_.loop, &relay_.route), "the listener");
    own_ = relay_.loop.delegates.size();
    Connect();
  }

 private:
  static SOCKET Listener(const char* ip, u16 port) {
    const SOCKET s = OpenSocket(SOCK_STREAM, ip, port);
    Require(listen(s, 8) == 0);
    return s;
  }
  static void Close(SOCKET* s) {
    if (*s != INVALID_SOCKET) closesocket(*s);
    *s = INVALID_SOCKET;
  }

  void Connect() {
    game_ = OpenSocket(SOCK_STREAM, "127.0.0.1", 0);
    const sockaddr_in server = At(kServer, kServerPort);
    sockaddr* relay = nullptr;
    int size = 0;
    Require(provider_->RequestTcpRelaySession(game_, NameOf(game_).sin_port, &server, &relay, &size,
                                              kToken));
    connect(game_, relay, size);
    Pump();
  }

  bool MayGoOn() const override {
    std::size_t total = game_sent_.size();
    for (const Far& far : fars_) total += far.sent.size();
    return total < kMostBytes;
  }

  void Step() override {
    switch (in_.Byte() % 13) {
      case 0:
        return Turns(in_.Byte() % 16);
      case 1:
        return provider_->OnUpdate(u32{in_.Byte()} * 25);
      case 2:
        return FarSends(Chosen(), in_.Bytes(in_.Byte()));
      case 3:
        return Answers(Chosen());
      case 4: {
        Far* const far = Chosen();
        return FarSends(far, Pattern(far != nullptr ? far->sent.size() : 0, Amount()));
      }
      case 5:
        return GameSends(Pattern(game_sent_.size(), Amount()));
      case 6:
        return FarEnds(Chosen(), in_.Byte());
      case 7:
        return GameEnds(in_.Byte());
      case 8:
        game_reads_ = !game_reads_;
        return;
      case 9:
        if (Far* const far = Chosen()) far->reads = !far->reads;
        return;
      case 10:
        return Stray(in_.Byte());
      case 11:
        Sleep(u32{in_.Byte()} * 10);
        return;
      default:
        return GameSends(in_.Bytes(in_.Byte()));
    }
  }

  std::size_t Amount() {
    const std::size_t amount = in_.Word();
    return (amount & 1) != 0 ? amount * 8 : amount / 64;
  }

  // 0: the latest.
  Far* Chosen() {
    const std::size_t back = in_.Byte() % 4;
    return back < fars_.size() ? &fars_[fars_.size() - 1 - back] : nullptr;
  }

  void FarSends(Far* far, const std::string& bytes) {
    if (far == nullptr || far->s == INVALID_SOCKET || bytes.empty()) return;
    const int n = send(far->s, bytes.data(), static_cast<int>(bytes.size()), 0);
    if (n > 0) far->sent.append(bytes, 0, static_cast<std::size_t>(n));
  }

  // An answer as nodes make it, but for a few bytes, in two pieces.
  void Answers(Far* far) {
    std::string bytes = Packed(AnyAnswer(77));
    ChangeSome(&bytes);
    const std::size_t cut = in_.Byte() % (bytes.size() + 1);
    FarSends(far, bytes.substr(0, cut));
    if (cut == bytes.size()) return;
    if (cut != 0) Turns(1);
    FarSends(far, bytes.substr(cut));
  }

  void GameSends(const std::string& bytes) {
    if (game_ == INVALID_SOCKET || game_shut_ || bytes.empty()) return;
    const int n = send(game_, bytes.data(), static_cast<int>(bytes.size()), 0);
    if (n > 0) game_sent_.append(bytes, 0, static_cast<std::size_t>(n));
  }

  void FarEnds(Far* far, u8 how) {
    if (far == nullptr || far->s == INVALID_SOCKET) return;
    calm_ = false;
    if (how % 3 == 0) {
      shutdown(far->s, SD_SEND);
      return;
    }
    if (how % 3 == 1) ResetOnClose(far->s);
    Close(&far->s);
  }

  void GameEnds(u8 how) {
    if (game_ == INVALID_SOCKET) return;
    calm_ = false;
    game_shut_ = true;
    if (how % 3 == 0) {
      shutdown(game_, SD_SEND);
      return;
    }
    if (how % 3 == 1) ResetOnClose(game_);
    Close(&game_);
  }

  // An event that the system may raise for no reason.
  void Stray(u8 which) {
    if (relay_.loop.delegates.empty()) return;
    calm_ = false;
    auto chosen = relay_.loop.delegates.begin();
    std::advance(chosen, which / 4 % relay_.loop.delegates.size());
    const auto [s, delegate] = *chosen;
    if (which % 4 == 0) delegate->OnReadable(s);
    if (which % 4 == 1) delegate->OnWritable(s);
    if (which % 4 == 2) delegate->OnException(s);
    if (which % 4 == 3) delegate->OnClose(s);
  }

  void Turns(int count) {
    for (int i = 0; i < count; ++i) relay_.loop.Turn();
  }

  // One pass of the relay, then everybody reads.
  void Pump() override {
    Turns(1);
    for (std::size_t i = 0; i < listeners_.size(); ++i) {
      if (listeners_[i] == INVALID_SOCKET) continue;
      const SOCKET s = accept(listeners_[i], nullptr, nullptr);
      if (s == INVALID_SOCKET) continue;
      u_long on = 1;
      ioctlsocket(s, static_cast<long>(FIONBIO), &on);
      fars_.push_back({.s = s, .is_node = i < 2, .sent = {}, .got = {}});
    }
    for (Far& far : fars_) {
      if (far.reads) Read(far.s, &far.got);
    }
    if (game_reads_) Read(game_, &game_got_);
    Check();
  }

  static void Read(SOCKET s, std::string* got) {
    if (s == INVALID_SOCKET) return;
    char bytes[65536];
    for (int n = 0; (n = recv(s, bytes, sizeof bytes, 0)) > 0;) {
      got->append(bytes, static_cast<std::size_t>(n));
    }
  }

  void Check() {
    std::size_t carriers = 0;
    bool is_explained = game_got_.empty();
    for (const Far& far : fars_) {
      const std::string_view from_game = far.FromGame();
      Require(IsPrefix(from_game, game_sent_), "what a far side got is what the game sent");
      if (far.is_node) CheckRequest(far);
      if (!from_game.empty()) {
        ++carriers;
        Require(far.PayloadBegins() != far.sent.npos, "a node that did not accept gets nothing");
      }
      const bool carries = IsPrefix(game_got_, far.Payload());
      is_explained = is_explained || carries;
      if (!from_game.empty()) Require(carries, "one far side alone carries");
    }
    Require(is_explained, "what the game got is what one far side sent");
    Require(carriers <= 1, "the game's bytes go one way");
  }

  static void CheckRequest(const Far& far) {
    if (far.got.size() < sizeof(NegoRequest)) return;
    NegoRequest request;
    const auto* const bytes = reinterpret_cast<const u8*>(far.got.data());
    Require(request.Unpack({bytes, sizeof request}) == sizeof request, "a request");
    Require(request.body.game_port == kServerPort &&
                request.body.game_ip == ntohl(static_cast<u32>(inet_addr(kServer))),
            "it names the server");
  }

  void PassTime(int turns, u32 ms) {
    for (int i = 0; i < turns; ++i) {
      Sleep(ms);
      provider_->OnUpdate(ms);
      Pump();
    }
  }

  void ExpectAllArrived() {
    game_reads_ = true;
    for (Far& far : fars_) far.reads = true;
    PassTime(12, 20);
    for (const Far& far : fars_) {
      if (far.FromGame().empty()) continue;
      for (std::size_t before = 0; before != far.got.size() + game_got_.size();) {
        before = far.got.size() + game_got_.size();
        PassTime(6, 500);  // a window that was full is asked about now and then
      }
      Require(far.FromGame() == game_sent_, "all of the game's bytes arrive");
      Require(game_got_ == far.Payload(), "all of the far side's bytes arrive");
      return;
    }
  }

  void End() override {
    if (calm_) ExpectAllArrived();
    Close(&game_);
    for (Far& far : fars_) Close(&far.s);
    for (SOCKET& s : listeners_) Close(&s);
    for (int i = 0; i < 120 && relay_.loop.delegates.size() > own_; ++i) PassTime(1, 5000);
    Require(relay_.loop.delegates.size() == own_, "no session stays when all have gone");
    provider_->Uninit();
    Require(relay_.loop.delegates.empty());
    provider_.reset();
  }

  std::size_t own_ = 0;  // sockets of the provider itself
  std::unique_ptr<TcpProvider> provider_ = std::make_unique<TcpProvider>();
  std::vector<SOCKET> listeners_;  // of the nodes, then of the server
  std::vector<Far> fars_;          // in the order in which they were accepted
  SOCKET game_ = INVALID_SOCKET;
  bool game_shut_ = false;
  bool game_reads_ = true;
  bool calm_ = true;  // nobody has ended anything
  std::string game_sent_;
  std::string game_got_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  return RunScript<Session>(data, size);
}
