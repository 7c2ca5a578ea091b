// A report on link trouble, spelled out for the log.
#pragma once
#include <cstddef>

namespace moru_vyr::lsp {

struct RecoverySwitchRecord;

// Formats at once and owns its text, so that it can be an argument of a log statement and costs
// nothing at levels that are not written.
class RecoveryRecordText {
 public:
  explicit RecoveryRecordText(const RecoverySwitchRecord& record) noexcept;
  const char* c_str() const noexcept { return text_; }

 private:
  static constexpr std::size_t kSize = 1536;
  char text_[kSize] = {};
};

}  // namespace moru_vyr::lsp
