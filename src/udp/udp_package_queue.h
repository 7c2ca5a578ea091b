// Datagrams in flight over the loopback hop, each a copy with its true address: the receiver of the
// bytes finds the entry by comparing them, and gets the address that the hop has lost.
//
// Any thread; every operation holds the queue's own lock, a leaf, throughout. Nothing throws.
// Buffers come from a game, so nothing is assumed about them except that non-null ones are
// readable. Entries that are not taken stay: there is no age limit and no size limit.
//
// The sender of a datagram can take back exactly its own entry by its number, when the bytes are no
// longer available for a comparison.
#pragma once
#include <winsock2.h>

#include <array>
#include <cstddef>
#include <list>

#include "common/lock.h"
#include "common/types.h"
#include "udp/package_block_pool.h"
#include "udp/udp_package.h"

namespace moru_vyr::lsp {

class UdpPackageQueue {
 public:
  UdpPackageQueue() noexcept : pool_(PackageBlockPool::kDatagramBlockSize) {}

  // Appends a copy of the datagram with its address. False, with nothing changed, for null
  // arguments, for a datagram longer than a block, and without memory; the second form also for an
  // empty datagram. `number`, which may be null, gets the entry's number, which is not 0.
  bool Push(const WSABUF* buffers, u32 count, const sockaddr_in* addr,
            u64* number = nullptr) noexcept;
  bool Push(const void* data, u32 len, const sockaddr_in* addr) noexcept;

  // Takes out the entry of the `valid_len` bytes in `buffers`, and stores its address. Kept: a lone
  // entry matches any datagram, and a lone entry of that length matches any datagram of that
  // length. The bytes decide only between several entries, and the oldest of equal ones is taken.
  bool FindAddrThenRemove(const WSABUF* buffers, u32 count, u32 valid_len,
                          sockaddr_in* out_addr) noexcept;
  bool FindAddrThenRemove(const void* data, u32 len, sockaddr_in* out_addr) noexcept;
  // Takes out the entry of that number and no other; false if it has been taken.
  bool Remove(u64 number) noexcept;

 private:
  struct Entry {
    UdpPackage package;
    u64 number = 0;
  };
  using Packages = std::list<Entry>;  // oldest first
  // Entries that were not taken stay for good, so many may be there. Those of one length are in one
  // of these lists, and the others are not looked at.
  static constexpr std::size_t kLists = 32;

  bool Clone(const WSABUF* buffers, u32 count, UdpPackage* package) noexcept;
  bool Append(const UdpPackage& package) noexcept;
  Packages& ListOf(u32 valid_len) noexcept { return lists_[valid_len % kLists]; }
  Packages* FirstUsed() noexcept;
  Packages::iterator Match(Packages* list, const WSABUF* buffers, u32 count,
                           u32 valid_len) noexcept;
  bool TakeOut(Packages* list, Packages::iterator found, sockaddr_in* out_addr) noexcept;

  common::Mutex lock_;  // guards all below; a leaf
  PackageBlockPool pool_;
  std::array<Packages, kLists> lists_;  // each datagram in a block of the pool
  u32 size_ = 0;                        // of all lists together
  Packages spare_;                      // elements to use again
  u64 last_number_ = 0;
};

// Whether the datagram `data` equals the first `valid_len` bytes of the buffers.
bool CompareToWsaBuffers(const void* data, u32 data_len, const WSABUF* buffers, u32 count,
                         u32 valid_len) noexcept;

}  // namespace moru_vyr::lsp
