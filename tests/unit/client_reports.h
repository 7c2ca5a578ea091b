// Reports for tests in the form in which the channels have them, and regions for them.
#pragma once
#include <cstring>
#include <string>
#include <vector>

#include "abi/report_records.h"
#include "client/watch/report.h"
#include "client/watch/report_fields.h"
#include "common/shared_mem_obj.h"
#include "common/text.h"

namespace test {

template <typename Record>
client::Report ReportOf(client::ReportKind kind, Record record, uint64_t time_ms = 0) {
  record.used = 1;
  client::Report report = {.kind = kind, .time_ms = time_ms, .bytes = {}};
  report.bytes.resize(sizeof record);
  std::memcpy(report.bytes.data(), &record, sizeof record);
  return report;
}

inline moru_vyr::lsp::CommInfoRecord Traffic(const char* guid, uint32_t life) {
  moru_vyr::lsp::CommInfoRecord record;
  common::SetFieldText(record.guid_str, guid);
  common::SetFieldText(record.game_ip, "198.51.100.10");
  common::SetFieldText(record.proxy_ip, "198.51.100.20");
  record.game_port = 7000;
  record.proxy_port = 9000;
  record.proxy_idc = 1;
  record.socket_type = 2;
  record.life = life;
  return record;
}

inline moru_vyr::lsp::AccDecisionInfo Decision(const char* guid, int32_t acc_reason) {
  moru_vyr::lsp::AccDecisionInfo info;
  common::SetFieldText(info.guid, guid);
  info.acc_reason = acc_reason;
  info.socket_type = 1;
  info.game_ip = 0xc633640a;  // 198.51.100.10
  info.game_port = 7000;
  info.game_idc = 1001;
  common::SetFieldText(info.selected_proxy.proxy_addr, "198.51.100.20");
  common::SetFieldText(info.selected_proxy.proxy_name, "north");
  info.selected_proxy.proxy_port = 9000;
  info.selected_proxy.proxy_idc = 1;
  return info;
}

// A channel's region as the library sees it.
class Channel {
 public:
  explicit Channel(client::ReportKind kind)
      : channel_(*client::ChannelOf(kind).channel),
        owner_(channel_.mapping_name, channel_.region_size, channel_.mutex_name, false) {}

  void PutBytes(uint32_t slot, const void* record) {
    std::memcpy(Open() + Offset(slot), record, channel_.slot_size);
    owner_.Close();
  }
  template <typename Record>
  void Put(uint32_t slot, Record record) {
    record.used = 1;
    PutBytes(slot, &record);
  }
  bool IsFree(uint32_t slot) {
    const bool free = Open()[Offset(slot)] == std::byte{0};
    owner_.Close();
    return free;
  }
  void SetMinorVersion(uint32_t version) {
    std::memcpy(Open() + 8, &version, sizeof version);
    owner_.Close();
  }

 private:
  std::byte* Open() { return static_cast<std::byte*>(owner_.Open(common::kOpenForWriting, false)); }
  size_t Offset(uint32_t slot) const { return 16 + size_t{slot} * channel_.slot_size; }

  const moru_vyr::lsp::ReportChannel& channel_;
  common::Shared_mem_obj owner_;
};

}  // namespace test
