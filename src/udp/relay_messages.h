// What a game's socket tells the relay, in datagrams to its control port: that it wants to be
// relayed, and that it is done. The answer to the open request has the same form but does not
// travel: the worker leaves it for the requester to take.
//
// Both stay inside the process, so everything is in host order, and handles and pointers have their
// native size: the open message is 41 bytes in a 32-bit process and 53 in a 64-bit one.
#pragma once
#include <winsock2.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "common/kind.h"
#include "common/types.h"

namespace moru_vyr::lsp {

class UdpPackageQueue;

inline constexpr u32 kProtoRelayMagic = 0xC13F0253;

enum ProtoRelayType : u8 {
  kProtoRelayTypeOpen = 1,
  kProtoRelayTypeClose = 2,
};

enum ProtoRelayResult : std::uintptr_t {
  kProtoRelayOpened = 1,
  kProtoRelayRefused = 2,
};

#pragma pack(push, 1)
struct ProtoRelayOpen {
  u32 magic = kProtoRelayMagic;
  u8 type = kProtoRelayTypeOpen;
  u32 token = 0;
  u32 tick = 0;                           // when it was built; never read
  sockaddr_in addr = {};                  // request: first destination; answer: the relay's address
  std::uintptr_t event_or_result = 0;     // request: the event to signal; answer: ProtoRelayResult
  std::uintptr_t send_size_or_queue = 0;  // request: SO_SNDBUF; answer: UdpPackageQueue*
  std::uintptr_t recv_size_or_queue = 0;  // request: SO_RCVBUF; answer: UdpPackageQueue*

  // Reads the buffer sizes from the game's socket.
  static ProtoRelayOpen Request(u32 token, const sockaddr_in& first_destination, HANDLE event,
                                SOCKET game_socket) noexcept;
  static ProtoRelayOpen Answer(u32 token, bool success, const sockaddr_in& relay,
                               UdpPackageQueue* send_queue, UdpPackageQueue* recv_queue) noexcept;

  sockaddr_in address() const noexcept {
    sockaddr_in copy;  // the field itself is not aligned
    std::memcpy(&copy, reinterpret_cast<const char*>(this) + offsetof(ProtoRelayOpen, addr),
                sizeof copy);
    return copy;
  }
  HANDLE event() const noexcept { return reinterpret_cast<HANDLE>(event_or_result); }
  bool opened() const noexcept { return event_or_result == kProtoRelayOpened; }
  UdpPackageQueue* send_queue() const noexcept {
    return reinterpret_cast<UdpPackageQueue*>(send_size_or_queue);
  }
  UdpPackageQueue* recv_queue() const noexcept {
    return reinterpret_cast<UdpPackageQueue*>(recv_size_or_queue);
  }
};

struct ProtoRelayClose {
  u32 magic = kProtoRelayMagic;
  u8 type = kProtoRelayTypeClose;
  u32 token = 0;
  u32 tick = 0;  // when it was built; never read

  static ProtoRelayClose Request(u32 token) noexcept;
};
#pragma pack(pop)

static_assert(sizeof(ProtoRelayOpen) == common::SizeByKind(41, 53));
static_assert(offsetof(ProtoRelayOpen, magic) == 0);
static_assert(offsetof(ProtoRelayOpen, type) == 4);
static_assert(offsetof(ProtoRelayOpen, token) == 5);
static_assert(offsetof(ProtoRelayOpen, tick) == 9);
static_assert(offsetof(ProtoRelayOpen, addr) == 13);
static_assert(offsetof(ProtoRelayOpen, event_or_result) == 29);
static_assert(offsetof(ProtoRelayOpen, send_size_or_queue) == common::SizeByKind(33, 37));
static_assert(offsetof(ProtoRelayOpen, recv_size_or_queue) == common::SizeByKind(37, 45));

static_assert(sizeof(ProtoRelayClose) == 13);
static_assert(offsetof(ProtoRelayClose, magic) == 0);
static_assert(offsetof(ProtoRelayClose, type) == 4);
static_assert(offsetof(ProtoRelayClose, token) == 5);
static_assert(offsetof(ProtoRelayClose, tick) == 9);

}  // namespace moru_vyr::lsp
