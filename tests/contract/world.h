// Helpers of the contract tests: counted checks, loopback sockets, and whether they run under Wine
// instead of Windows.
#pragma once
#include <winsock2.h>
//
#include <windows.h>

#include <functional>
#include <string>
#include <utility>

#include "gtest/gtest.h"

namespace contract {

// Counts one check and returns the value.
void CountCheck();
template <class Value>
decltype(auto) Counted(Value&& value) {
  CountCheck();
  return std::forward<Value>(value);
}

// True under Wine, and logs the known difference. With CONTRACT_LEAVE_NOTHING_OUT in the
// environment it is false, to see whether a newer Wine still differs.
bool WineDiffers(const char* what_was_seen);

// An object name that no other run of these tests uses.
std::string UniqueName(const char* stem);

// A directory for this run's files, made on first use.
std::wstring Directory();

// Writes a whole INI or other file.
void WriteTextFile(const std::wstring& path, const std::string& text);

// Runs the body on a separate thread, which is joined on destruction; the body must end.
class OnThread {
 public:
  explicit OnThread(std::function<void()> body);
  ~OnThread();
  OnThread(const OnThread&) = delete;
  OnThread& operator=(const OnThread&) = delete;
  void Join();
  HANDLE handle() const { return handle_; }

 private:
  std::function<void()> body_;
  HANDLE handle_;
};

// A socket that closes itself.
class Owned {
 public:
  explicit Owned(SOCKET s = INVALID_SOCKET) : s_(s) {}
  ~Owned() { Close(); }
  Owned(Owned&& other) noexcept : s_(std::exchange(other.s_, INVALID_SOCKET)) {}
  Owned& operator=(Owned&& other) noexcept {
    std::swap(s_, other.s_);
    return *this;
  }
  operator SOCKET() const { return s_; }
  void Close() {
    if (s_ != INVALID_SOCKET) closesocket(std::exchange(s_, INVALID_SOCKET));
  }
  SOCKET Release() { return std::exchange(s_, INVALID_SOCKET); }

 private:
  SOCKET s_;
};

sockaddr_in Address(const char* text, unsigned port);
inline sockaddr_in Loopback(unsigned port) { return Address("127.0.0.1", port); }
const sockaddr* Raw(const sockaddr_in& name);
sockaddr* Raw(sockaddr_in& name);

Owned Tcp();
Owned Udp();
unsigned LocalPort(SOCKET s);
Owned BoundUdp();     // on loopback
Owned Listener();     // on loopback
unsigned DeadPort();  // a loopback TCP port without a listener
void SetNonBlocking(SOCKET s, bool on = true);
int Connect(SOCKET s, unsigned port);

struct Pair {
  Owned client, server;
};
Pair ConnectedPair();

int SendText(SOCKET s, const std::string& text);
int SendTextTo(SOCKET s, const std::string& text, unsigned port);
// At most `most` bytes by one recv; "<error N>" if it fails.
std::string RecvText(SOCKET s, int most = 4096, int flags = 0);

// select on one handle, with a time limit. Returns the result of the three sets.
struct Ready {
  int result;
  bool read, write, except;
};
Ready SelectOne(SOCKET s, int ms, bool read = true, bool write = true, bool except = true);
bool WaitReadable(SOCKET s);  // within five seconds

}  // namespace contract

#define CHECK_EQ(a, b) EXPECT_EQ(contract::Counted(a), b)
#define CHECK_NE(a, b) EXPECT_NE(contract::Counted(a), b)
#define CHECK_TRUE(a) EXPECT_TRUE(contract::Counted(a))
#define CHECK_FALSE(a) EXPECT_FALSE(contract::Counted(a))
// A call that must fail with this error.
#define CHECK_FAILS(call, failure, error)                          \
  do {                                                             \
    WSASetLastError(0);                                            \
    EXPECT_EQ(contract::Counted(call), failure);                   \
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(error)) << #call; \
  } while (false)
#define CHECK_SOCKET_ERROR(call, error) CHECK_FAILS(call, SOCKET_ERROR, error)
