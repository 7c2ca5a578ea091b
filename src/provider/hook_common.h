// What the replaced entries share: errors, address text, and values as log lines print them.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include <cstdint>
#include <string>

namespace moru_vyr::lsp {

// The error that a call left in the caller's place for it, 0 where there is none.
inline int ErrorOf(const INT* error) { return error != nullptr ? *error : 0; }

inline void StoreError(LPINT error, int value) {
  if (error != nullptr) *error = value;
}

// The answer of a call that finds no next provider: the error in both of its places.
inline void FailWithoutProvider(LPINT error) {
  StoreError(error, WSAENETDOWN);
  WSASetLastError(WSAENETDOWN);
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
