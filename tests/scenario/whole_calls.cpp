#include "tests/scenario/whole_calls.h"

#include <algorithm>
#include <cstring>

#include "tests/scenario/whole_late.h"

namespace whole_test {
namespace {

using namespace sim_test;  // NOLINT: the verbs of these tests

constexpr size_t kLargest = 65536;
DWORD look_again_ms = 500;  // an event may have been lost
DWORD look_rest_ms = 0;
constexpr DWORD kPendingMs = 5000;

void Limit(SOCKET s, DWORD ms) {
  for (const int which : {SO_RCVTIMEO, SO_SNDTIMEO})
    setsockopt(s, SOL_SOCKET, which, reinterpret_cast<const char*>(&ms), sizeof ms);
}

// A fault may have kept the event from being made, and without a wait no time would pass.
void AwaitEvent(HANDLE event, DWORD ms) {
  if (WaitForSingleObject(event, ms) == WAIT_FAILED) Sleep(10);
}

// True until that many milliseconds have passed, also over the end of the tick counter.
class Patience {
 public:
  explicit Patience(DWORD ms) : begin_(GetTickCount()), ms_(ms) {}
  bool IsLeft() const { return GetTickCount() - begin_ < ms_; }

 private:
  const DWORD begin_, ms_;
};

}  // namespace

void LookAgainEvery(DWORD ms, DWORD rest_ms) {
  look_again_ms = ms;
  look_rest_ms = rest_ms;
}

struct Caller::Late {
  WSAOVERLAPPED overlapped = {};
  std::array<char, kLargest> bytes = {};
  sockaddr_in from = {};
  int from_size = sizeof from;
  DWORD flags = 0;
  bool pending = false;

  Late() { overlapped.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr); }
  WSABUF Buffer(size_t size) {
    return {static_cast<ULONG>(std::min(size, kLargest)), bytes.data()};
  }
};

Caller::Caller(SOCKET s, Style style) : s_(s), style_(style) {
  switch (style) {
    case Style::kBlocks:
      Limit(s, kPatienceMs);
      break;
    case Style::kSelects: {
      u_long on = 1;
      ioctlsocket(s, static_cast<long>(FIONBIO), &on);
      break;
    }
    case Style::kWaitsForEvents:
      event_ = CreateEventA(nullptr, TRUE, FALSE, nullptr);
      SelectEvents(s, event_, kReadEvent | kWriteEvent | kConnectEvent | kCloseEvent);
      break;
    case Style::kOverlaps:
      receive_ = new Late;
      send_ = new Late;
      break;
  }
}

bool Caller::ReceivesUnseen() const {
  return receive_ != nullptr && receive_->overlapped.hEvent == nullptr;
}

int Caller::Connect(const char* ip, int port) {
  const int error = ConnectTo(s_, ip, port);
  return error == WSAEWOULDBLOCK ? AwaitConnection() : error;
}

int Caller::AwaitConnection() {
  for (const Patience patience(kPatienceMs); patience.IsLeft();) {
    const std::string in = Readiness(s_, static_cast<int>(look_again_ms));
    if (in.find('e') != std::string::npos && in.rfind("error", 0) != 0) return WSAECONNREFUSED;
    if (in.find('w') != std::string::npos) return 0;
    if (in.rfind("error", 0) == 0) Sleep(10);  // a failure that a fault has made
  }
  return WSAETIMEDOUT;
}

void Caller::AwaitChance(bool writes, DWORD ms) const {
  ms = std::min(ms, look_again_ms);
  if (style_ == Style::kWaitsForEvents) {
    AwaitEvent(event_, ms);
    TakeEvents(s_, event_);
    return;
  }
  fd_set set = {};
  FD_SET(s_, &set);
  const struct timeval most = {0, static_cast<int>(ms) * 1000};
  const int ready =
      writes ? select(0, nullptr, &set, nullptr, &most) : select(0, &set, nullptr, nullptr, &most);
  if (ready == SOCKET_ERROR) Sleep(10);
}

int Caller::Send(const char* bytes, int size) {
  for (const Patience patience(kPatienceMs); patience.IsLeft();) {
    const int n = SendOnce(bytes, size);
    if (n != -WSAEWOULDBLOCK || style_ == Style::kBlocks) return n;
    AwaitChance(true, look_again_ms);
  }
  return -WSAETIMEDOUT;
}

int Caller::Receive(char* bytes, int size) {
  for (const Patience patience(kPatienceMs); patience.IsLeft();) {
    const int n = ReceiveOnce(bytes, size);
    if (n != -WSAEWOULDBLOCK || style_ == Style::kBlocks) return n;
    AwaitChance(false, look_again_ms);
  }
  return -WSAETIMEDOUT;
}

int Caller::SendOnce(const char* bytes, int size) {
  if (style_ != Style::kOverlaps) {
    const int n = send(s_, bytes, size, 0);
    return n == SOCKET_ERROR ? -WSAGetLastError() : n;
  }
  WSABUF buffer = send_->Buffer(static_cast<size_t>(size));
  std::memcpy(buffer.buf, bytes, buffer.len);
  DWORD sent = 0;
  INT error = 0;
  WSATHREADID thread = {};
  const int result =
      TableOf(s_).lpWSPSend(s_, &buffer, 1, &sent, 0, &send_->overlapped, nullptr, &thread, &error);
  send_->pending = result != 0 && error == WSA_IO_PENDING;
  if (send_->pending) error = ResultOfLate(send_, kPatienceMs, &sent);
  return error != 0 ? -error : static_cast<int>(sent);
}

int Caller::ReceiveOnce(char* bytes, int size) {
  if (style_ != Style::kOverlaps) {
    const int n = recv(s_, bytes, size, 0);
    return n == SOCKET_ERROR ? -WSAGetLastError() : n;
  }
  WSABUF buffer = receive_->Buffer(static_cast<size_t>(size));
  DWORD received = 0;
  INT error = 0;
  WSATHREADID thread = {};
  receive_->flags = 0;
  const int result = TableOf(s_).lpWSPRecv(s_, &buffer, 1, &received, &receive_->flags,
                                           &receive_->overlapped, nullptr, &thread, &error);
  receive_->pending = result != 0 && error == WSA_IO_PENDING;
  if (receive_->pending) error = ResultOfLate(receive_, kPatienceMs, &received);
  if (error != 0) return -error;
  std::memcpy(bytes, buffer.buf, received);
  return static_cast<int>(received);
}

// WSAETIMEDOUT leaves the call pending.
int Caller::ResultOfLate(Late* late, DWORD ms, DWORD* bytes) const {
  const Patience patience(ms);
  do {
    AwaitEvent(late->overlapped.hEvent, std::min(ms, look_again_ms));
    const int error = ResultOf(s_, &late->overlapped, bytes);
    if (error == kNotYet) {
      if (look_rest_ms > 0) Sleep(look_rest_ms);
      continue;
    }
    late->pending = false;
    return error;
  } while (patience.IsLeft());
  return WSAETIMEDOUT;
}

int Caller::SendTo(const std::string& text, const char* ip, int port) {
  const sockaddr_in to = At(ip, port);
  if (style_ != Style::kOverlaps) {
    return ErrorOf(sendto(s_, text.data(), static_cast<int>(text.size()), 0, Raw(to), sizeof to));
  }
  WSABUF buffer = send_->Buffer(text.size());
  std::memcpy(buffer.buf, text.data(), buffer.len);
  DWORD sent = 0;
  INT error = 0;
  WSATHREADID thread = {};
  const int result = TableOf(s_).lpWSPSendTo(s_, &buffer, 1, &sent, 0, Raw(to), sizeof to,
                                             &send_->overlapped, nullptr, &thread, &error);
  send_->pending = result != 0 && error == WSA_IO_PENDING;
  if (send_->pending) error = ResultOfLate(send_, kPatienceMs, &sent);
  return error;
}

int Caller::ReceiveFrom(std::string* text, sockaddr_in* from, DWORD ms) {
  if (style_ != Style::kOverlaps) {
    AwaitChance(false, ms);
    if (style_ == Style::kBlocks && !ReadableWithin(s_, 0)) return WSAETIMEDOUT;
    std::array<char, kLargest> bytes;
    int size = sizeof *from;
    const int n = recvfrom(s_, bytes.data(), static_cast<int>(bytes.size()), 0, Raw(*from), &size);
    if (n == SOCKET_ERROR) {
      const int error = WSAGetLastError();
      return error == WSAEWOULDBLOCK ? WSAETIMEDOUT : error;
    }
    text->assign(bytes.data(), static_cast<size_t>(n));
    return 0;
  }
  DWORD received = 0;
  INT error = 0;
  if (!receive_->pending) {
    WSABUF buffer = receive_->Buffer(kLargest);
    WSATHREADID thread = {};
    receive_->flags = 0;
    receive_->from_size = sizeof receive_->from;
    const int result = TableOf(s_).lpWSPRecvFrom(s_, &buffer, 1, &received, &receive_->flags,
                                                 Raw(receive_->from), &receive_->from_size,
                                                 &receive_->overlapped, nullptr, &thread, &error);
    receive_->pending = result != 0 && error == WSA_IO_PENDING;
  }
  if (receive_->pending) error = ResultOfLate(receive_, ms, &received);
  if (error != 0) return error;
  text->assign(receive_->bytes.data(), received);
  *from = receive_->from;
  return 0;
}

void Caller::Close() {
  if (s_ == INVALID_SOCKET) return;
  closesocket(s_);
  for (Late* const late : {receive_, send_}) {
    if (late == nullptr) continue;
    DWORD bytes = 0;
    if (late->pending) ResultOfLate(late, kPendingMs, &bytes);
    CloseHandle(late->overlapped.hEvent);
  }
  if (event_ != nullptr) {
    Sleep(500);  // what watches the socket has noticed
    CloseHandle(event_);
  }
  s_ = INVALID_SOCKET;
}

}  // namespace whole_test
