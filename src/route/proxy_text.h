// Proxies as the log shows them.
#pragma once
#include "abi/proxy_formats.h"

namespace moru_vyr::lsp {

// All fields but the two that a node's answer fills in. Unterminated texts end with their field.
class ProxyText {
 public:
  explicit ProxyText(const RouteProxyInfo& proxy) noexcept;
  const char* c_str() const noexcept { return text_; }

 private:
  char text_[640];  // the labels, fifteen numbers and two whole fields are shorter than that
};

// Writes the pair at level 0, one line for each proxy that is set.
void LogSwitchProxyInfo(const SwitchProxyInfo& pair) noexcept;

}  // namespace moru_vyr::lsp
