#include "route/port_map.h"

#include <algorithm>

#include "common/log.h"
#include "route/acc_config.h"

namespace moru_vyr::lsp {

void PortMap::LoadPortIdcTable() {
  port_idc_.clear();
  const AccConfig& config = *GetAccConfig();
  const u32 count = std::min<u32>(config.port_idc_count, kMaxPortIdcRecords);
  for (u32 i = 0; i < count; ++i) {
    const PortIdcRecord& record = config.port_idc_records[i];
    if (record.idc == 0) {
      LSP_LOG(5, "[Route]LoadPortIdcTable, invalid port idc record, pass");
      continue;
    }
    if (record.port == 0) {
      all_port_idc_ = record.idc;
      port_idc_.clear();
      LSP_LOG(4, "[Route]LoadPortIdcTable, all port go to idc=%lu",
              static_cast<unsigned long>(record.idc));
      return;
    }
    const u32 port = record.port;  // a field of a packed record has no address to give
    port_idc_[port] = record.idc;
    LSP_LOG(4, "[Route]LoadPortIdcTable, port=%lu, idc=%lu", static_cast<unsigned long>(port),
            static_cast<unsigned long>(record.idc));
  }
}

const u32* PortMap::Find(u32 port) const noexcept {
  const auto found = port_idc_.find(port);
  return found != port_idc_.end() ? &found->second : nullptr;
}

const u32* PortMap::First() const noexcept {
  return port_idc_.empty() ? nullptr : &port_idc_.begin()->second;
}

}  // namespace moru_vyr::lsp
