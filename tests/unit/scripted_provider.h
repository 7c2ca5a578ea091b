// A next provider that does what the test says, and records every call with all its arguments.
//
// One at a time, on one thread. While it exists it occupies the TCP, UDP and raw slots of the
// process, so sockets that are created through the replaced entries reach it.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

namespace test {

using Words = std::vector<std::uintptr_t>;

template <class T>
std::uintptr_t Word(T value) {
  if constexpr (std::is_pointer_v<T>) {
    return reinterpret_cast<std::uintptr_t>(value);
  } else if constexpr (std::is_null_pointer_v<T>) {
    return 0;
  } else {
    return static_cast<std::uintptr_t>(value);
  }
}

template <class... T>
Words WordsOf(T... values) {
  return {Word(values)...};
}

struct Call {
  std::string name;
  Words arguments;  // without the error pointer
};

class ScriptedProvider {
 public:
  ScriptedProvider();
  ~ScriptedProvider();
  ScriptedProvider(const ScriptedProvider&) = delete;
  ScriptedProvider& operator=(const ScriptedProvider&) = delete;

  // The result of every call. A call that fails stores `error`; counts and addresses are stored for
  // any result.
  int result = 0;
  int error = 0;
  SOCKET socket = 0x1234;  // of the next WSPSocket or WSPAccept
  DWORD bytes = 0;
  bool stores_bytes = true;
  sockaddr_in address{};

  // Runs just before a call returns, to simulate events during the call.
  std::function<void()> meanwhile = [] {};

  bool known_at_close = false;  // the last WSPCloseSocket still found a record of its socket

  // What the pointers of the last WSPSendTo referred to.
  struct Sent {
    std::string bytes;
    sockaddr_in to{};
    WSATHREADID thread{};
  };
  Sent sent;

  std::vector<Call> calls;
  const Call& Last() const { return calls.back(); }

  // All thirty entries; those that are never replaced have dummy values that must not be called.
  static WSPPROC_TABLE Table();
};

sockaddr_in Address(const char* ip, unsigned short port);
inline const sockaddr* Generic(const sockaddr_in& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

}  // namespace test
