// What is known about this process as a whole.
//
// One record, zero at load except for the kind. Written while the provider starts, under the
// start-up lock, and only read afterwards, by any thread and without a lock. Texts are UTF-8 and
// always terminated.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include "common/kind.h"
#include "common/types.h"

namespace common {

inline constexpr std::size_t kPathFieldSize = 260;

struct ProcessInfo {
  u32 lsp_catalog_id = 0;  // this provider's own catalogue entry; 0 until it was found
  HMODULE module_handle = nullptr;
  bool is_x64 = kIsX64;                    // this process is a 64-bit one
  char process_name[kPathFieldSize] = {};  // with extension
  char process_path[kPathFieldSize] = {};
  char log_file_path[kPathFieldSize] = {};
  // What the next provider returned, per kind of socket. A table counts as filled once its
  // lpWSPSocket is set. The upcall tables are stored and never called.
  WSPUPCALLTABLE udp_upcall_table = {};
  WSPPROC_TABLE udp_proc_table = {};
  WSPUPCALLTABLE tcp_upcall_table = {};
  WSPPROC_TABLE tcp_proc_table = {};
  WSPUPCALLTABLE raw_upcall_table = {};
  WSPPROC_TABLE raw_proc_table = {};
};

ProcessInfo& GetProcessInfo() noexcept;

// Whether this is the diagnostic process of that name, which is served without a configuration.
bool IsSpeedTester() noexcept;

}  // namespace common
