#include "hooks/hook_common.h"

#include <cstring>

#include "common/net_text.h"

namespace moru_vyr::lsp {

sockaddr_in ReadAddress(const sockaddr* name, int name_size) noexcept {
  sockaddr_in address = {};
  const int readable = std::clamp(name_size, 0, static_cast<int>(sizeof address));
  std::memcpy(&address, name, static_cast<size_t>(readable));
  return address;
}

AddressText DescribeAddress(const sockaddr* name, int name_size) {
  if (name == nullptr) return {"NULL", 0};
  // The family, the port and the address; the padding behind them is not needed.
  constexpr int kReadable = offsetof(sockaddr_in, sin_zero);
  sockaddr_in address{};
  if (name_size >= kReadable) std::memcpy(&address, name, kReadable);
  return {common::IpToString(address.sin_addr.s_addr), ntohs(address.sin_port)};
}

}  // namespace moru_vyr::lsp
