// What the replaced entries share: errors, address text, and values as log lines print them.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "sockets/socket_map.h"

namespace moru_vyr::lsp {

// The error that a call left in the caller's place for it, 0 where there is none.
inline int ErrorOf(const INT* error) { return error != nullptr ? *error : 0; }

inline void StoreError(LPINT error, int value) {
  if (error != nullptr) *error = value;
}

// Fetches the socket's record and gives the table of its next provider: null where there is none,
// or none with that entry.
template <auto kEntry>
const WSPPROC_TABLE* NextWith(SOCKET s, SocketRecord* record) noexcept {
  GetSocketMap().Get(s, record);
  const WSPPROC_TABLE* const next = record->next_proc_table;
  return next != nullptr && next->*kEntry != nullptr ? next : nullptr;
}

// The answer of a call that finds no next provider: the error in both of its places.
inline int FailWithoutProvider(LPINT error) {
  StoreError(error, WSAENETDOWN);
  WSASetLastError(WSAENETDOWN);
  return SOCKET_ERROR;
}

// Whether the call may still be under way. Then all that it was given belongs to its completion,
// which may have freed it before this thread comes to look: nothing of it may be read any more.
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

// The relay's address in place of the one that an application named. The application's own length
// goes with it, which may be longer than an IPv4 address is.
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

// Reads the address as IPv4. Guard: a name too short to hold one prints as 0.0.0.0:0, whatever it
// says, and a null one as "NULL" and 0.
AddressText DescribeAddress(const sockaddr* name, int name_size);
// The same for a place where a call has put an address and its size.
AddressText DescribeAddress(const sockaddr* name, const INT* name_size);

}  // namespace moru_vyr::lsp
