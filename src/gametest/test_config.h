// The configuration of a process in test mode: what its file says, and built-in values for
// everything else that a client program would have chosen.
#pragma once
#include <string_view>

#include "abi/acc_config_formats.h"
#include "common/types.h"

namespace moru_vyr::lsp {

struct TestSettings {
  std::string_view proxy_ip;
  u16 proxy_port = 0;
  u32 net_mode = 0;
  i32 log_level = 0;
};

// Kept: the record is not marked as valid.
AccConfigRecord MakeTestConfig(const TestSettings& settings) noexcept;

}  // namespace moru_vyr::lsp
