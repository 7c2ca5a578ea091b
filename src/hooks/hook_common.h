// What the replaced entries share: errors, address text, and values as log lines print them.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "sockets/socket_map.h"

namespace moru_vyr::lsp {

// The error that a call stored for its caller, or 0 if there is none.
inline int ErrorOf(const INT* error) { return error != nullptr ? *error : 0; }

inline void StoreError(LPINT error, int value) {
  if (error != nullptr) *error = value;
}

// The table of the socket's next provider: null if it has none, or one without that entry.
template <auto kEntry>
const WSPPROC_TABLE* NextWith(const SocketRecord& record) noexcept {
  const WSPPROC_TABLE* const next = record.next_proc_table;
  return next != nullptr && next->*kEntry != nullptr ? next : nullptr;
}

// The result of a call that finds no next provider: sets the error in both places.
inline int FailWithoutProvider(LPINT error) {
  StoreError(error, WSAENETDOWN);
  WSASetLastError(WSAENETDOWN);
  return SOCKET_ERROR;
}

// Whether the call may still be under way. Then its arguments belong to its completion, which may
// have freed them before this thread looks at them: none of them may be read from here on.
inline bool MayBePending(int result, const INT* error) {
  return result == SOCKET_ERROR && (error == nullptr || *error == WSA_IO_PENDING);
}

inline DWORD CountOf(const DWORD* count) { return count != nullptr ? *count : 0; }

// A pointer as the log's eight hexadecimal digits show it: its low 32 bits.
template <class T>
unsigned PointerBits(T* pointer) {
  return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(pointer));
}

// Guard: as much of an address as the application says there is, the rest zero. Kept: the family is
// not looked at.
sockaddr_in ReadAddress(const sockaddr* name, int name_size) noexcept;

// The relay's address in place of the one that the application named. It is passed on with the
// application's own length, which may be longer than an IPv4 address.
class RelayName {
 public:
  sockaddr_in* address() { return storage_; }
  const sockaddr* name() const { return reinterpret_cast<const sockaddr*>(storage_); }
  // Guard: longer than any address there is, and the next provider would read past the end.
  static int BoundedSize(int size) { return std::min(size, static_cast<int>(sizeof storage_)); }

 private:
  sockaddr_in storage_[sizeof(sockaddr_storage) / sizeof(sockaddr_in)] = {};
  static_assert(sizeof storage_ == sizeof(sockaddr_storage));
};

// An address as a log line prints it.
struct AddressText {
  std::string ip;
  int port;  // host order
};

// Reads the address as IPv4. Guard: a name too short to hold one prints as 0.0.0.0:0, and a null
// one as "NULL" and 0.
AddressText DescribeAddress(const sockaddr* name, int name_size);

// The size of a caller's buffer for an address, which a call replaces by the size of the address.
// Made before the call.
class SizedPlace {
 public:
  explicit SizedPlace(const INT* size) : size_(size), room_(size != nullptr ? *size : 0) {}
  // How much of the buffer can be read now. Guard: never more than the caller has said that there
  // is; a provider may report the size of an address that did not fit.
  int Size() const { return size_ != nullptr ? std::min(room_, int{*size_}) : 0; }

 private:
  const INT* const size_;
  const int room_;
};

}  // namespace moru_vyr::lsp
