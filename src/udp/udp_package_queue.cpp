#include "udp/udp_package_queue.h"

#include <algorithm>
#include <cstring>

#include "common/log.h"

namespace moru_vyr::lsp {
namespace {

// Adds up the lengths of all buffers. Guard: false where one of them has no memory.
bool TotalLength(const WSABUF* buffers, u32 count, u64* total) noexcept {
  *total = 0;
  for (u32 i = 0; i < count; ++i) {
    if (buffers[i].len != 0 && buffers[i].buf == nullptr) return false;
    *total += buffers[i].len;
  }
  return true;
}

WSABUF OneBuffer(const void* data, u32 len) noexcept {
  WSABUF buffer = {};
  buffer.len = len;
  buffer.buf = static_cast<CHAR*>(const_cast<void*>(data));
  return buffer;
}

}  // namespace

bool UdpPackageQueue::Push(const void* data, u32 len, const sockaddr_in* addr) noexcept {
  if (data == nullptr || addr == nullptr || len == 0) return false;
  const WSABUF buffer = OneBuffer(data, len);
  return Push(&buffer, 1, addr);
}

bool UdpPackageQueue::Push(const WSABUF* buffers, u32 count, const sockaddr_in* addr,
                           u64* number) noexcept {
  if (buffers == nullptr || addr == nullptr || count == 0) return false;
  common::Lock hold(lock_);
  UdpPackage package;
  package.data = static_cast<u8*>(pool_.Get());
  if (package.data == nullptr) {
    LSP_LOG(0, "WARNING: alloc failed");
    return false;
  }
  package.capacity = pool_.block_size();
  package.addr = *addr;
  if (!Clone(buffers, count, &package) || !Append(package)) {
    pool_.Put(package.data);
    return false;
  }
  if (number != nullptr) *number = last_number_;
  return true;
}

bool UdpPackageQueue::Clone(const WSABUF* buffers, u32 count, UdpPackage* package) noexcept {
  u64 total = 0;
  const bool there = TotalLength(buffers, count, &total);
  if (total > package->capacity) {
    LSP_LOG(0, "WARNING: clone not enough room, k=%u, size=%u", static_cast<u32>(total),
            package->capacity);
  }
  if (!there || total > package->capacity) {
    LSP_LOG(0, "WARNING: clone failed");
    return false;
  }
  for (u32 i = 0; i < count; ++i) {
    if (buffers[i].len == 0) continue;
    std::memcpy(package->data + package->valid_len, buffers[i].buf, buffers[i].len);
    package->valid_len += static_cast<u32>(buffers[i].len);
  }
  return true;
}

bool UdpPackageQueue::Append(const UdpPackage& package) noexcept {
  try {
    if (spare_.empty()) spare_.emplace_back();
  } catch (...) {
    LSP_LOG(0, "WARNING: alloc failed");
    return false;
  }
  spare_.front() = {package, ++last_number_};
  Packages& list = ListOf(package.valid_len);
  list.splice(list.end(), spare_, spare_.begin());
  ++size_;
  return true;
}

bool UdpPackageQueue::FindAddrThenRemove(const void* data, u32 len,
                                         sockaddr_in* out_addr) noexcept {
  const WSABUF buffer = OneBuffer(data, len);
  return FindAddrThenRemove(&buffer, 1, len, out_addr);
}

bool UdpPackageQueue::FindAddrThenRemove(const WSABUF* buffers, u32 count, u32 valid_len,
                                         sockaddr_in* out_addr) noexcept {
  if (buffers == nullptr || out_addr == nullptr) return false;
  common::Lock hold(lock_);
  Packages* list = &ListOf(valid_len);
  if (size_ == 1 && list->empty()) list = FirstUsed();
  return TakeOut(list, Match(list, buffers, count, valid_len), out_addr);
}

bool UdpPackageQueue::Remove(u64 number) noexcept {
  common::Lock hold(lock_);
  const auto has_number = [=](const Entry& entry) { return entry.number == number; };
  sockaddr_in addr = {};
  for (Packages& list : lists_) {
    const auto found = std::find_if(list.begin(), list.end(), has_number);
    if (found != list.end()) return TakeOut(&list, found, &addr);
  }
  return TakeOut(&lists_[0], lists_[0].end(), &addr);
}

bool UdpPackageQueue::TakeOut(Packages* list, Packages::iterator found,
                              sockaddr_in* out_addr) noexcept {
  if (size_ == 0) {
    LSP_LOG(5, "[UDP] WARNING: UdpPackageQueue::FindAddrThenRemove queue size=0");
    return false;
  }
  if (found == list->end()) {
    LSP_LOG(5, "[UDP] WARNING: UdpPackageQueue::FindAddrThenRemove Not Found");
    return false;
  }
  *out_addr = found->package.addr;
  pool_.Put(found->package.data);
  spare_.splice(spare_.begin(), *list, found);
  --size_;
  LSP_LOG(0, "[UDP] UdpPackageQueue::FindAddrThenRemove remove queue, current size=%u", size_);
  return true;
}

UdpPackageQueue::Packages* UdpPackageQueue::FirstUsed() noexcept {
  return std::find_if(lists_.begin(), lists_.end() - 1,
                      [](const Packages& list) { return !list.empty(); });
}

// The cheapest check first: usually one datagram is in flight, and nothing has to be compared.
UdpPackageQueue::Packages::iterator UdpPackageQueue::Match(Packages* list, const WSABUF* buffers,
                                                           u32 count, u32 valid_len) noexcept {
  if (size_ <= 1) return list->begin();
  const auto has_length = [=](const Entry& entry) { return entry.package.valid_len == valid_len; };
  const auto first = std::find_if(list->begin(), list->end(), has_length);
  if (first != list->end() &&
      std::find_if(std::next(first), list->end(), has_length) == list->end()) {
    return first;
  }
  LSP_LOG(0, "[UDP] UdpPackageQueue::FindAddrThenRemove, valid_len=%u, queue size=%u", valid_len,
          size_);
  return std::find_if(first, list->end(), [=](const Entry& entry) {
    const UdpPackage& package = entry.package;
    return package.valid_len == valid_len &&
           CompareToWsaBuffers(package.data, package.valid_len, buffers, count, valid_len);
  });
}

bool CompareToWsaBuffers(const void* data, u32 data_len, const WSABUF* buffers, u32 count,
                         u32 valid_len) noexcept {
  if (data_len != valid_len || data == nullptr || buffers == nullptr) return false;
  const u8* const bytes = static_cast<const u8*>(data);
  bool result = true;
  u32 offset = 0;
  for (u32 i = 0; i < count && offset < data_len && result; ++i) {
    const u32 size = std::min(data_len - offset, static_cast<u32>(buffers[i].len));
    if (size == 0) continue;
    result = buffers[i].buf != nullptr && std::memcmp(bytes + offset, buffers[i].buf, size) == 0;
    offset += size;
  }
  LSP_LOG(0, "[UDP] CompareToWsaBuffers Match result=%s, data_len=%u, buffer_valid_len=%u",
          result ? "true" : "false", data_len, valid_len);
  return result;
}

}  // namespace moru_vyr::lsp
