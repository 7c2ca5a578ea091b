// Data centres found by port, for games whose addresses cannot be listed. Filled while the
// provider starts; only read afterwards, by any thread and without a lock.
#pragma once
#include <map>

#include "common/types.h"

namespace moru_vyr::lsp {

class PortMap {
 public:
  // Takes the records of the process's configuration. A record for port 0 applies to every port: it
  // discards those before it and leaves those after it unread. Kept: nothing takes it back, a later
  // load without such a record leaves all_port_idc as it was. May throw std::bad_alloc.
  void LoadPortIdcTable();

  const u32* Find(u32 port) const noexcept;  // host byte order; null where unknown
  const u32* First() const noexcept;         // that of the lowest port; null where there is none
  u32 all_port_idc() const noexcept { return all_port_idc_; }  // 0 where unset
  std::size_t size() const noexcept { return port_idc_.size(); }

 private:
  std::map<u32, u32> port_idc_;
  u32 all_port_idc_ = 0;
};

}  // namespace moru_vyr::lsp
