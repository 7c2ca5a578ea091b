// How many datagrams to read when a socket is readable.
//
// Reading until there is none costs one call more for each pass than there are datagrams. If
// mended, a socket that has had a single datagram in each of its last passes is read once, and only
// now and then to its end, to see whether that still holds. What is left there makes the socket
// readable again at once, so a wrong guess costs one pass.
#pragma once
#include "common/types.h"
#include "route/mending.h"

namespace moru_vyr::lsp {

class ReadPace {
 public:
  // After the pass's first `count` datagrams: whether to leave it at them.
  bool IsEnough(u32 count) noexcept {
    if (count != 1 || singles_ < kSure || skipped_ == kMostSkipped) return false;
    ++skipped_;
    return true;
  }
  // After a pass that has read to the end, and found so many.
  void Note(u32 count) noexcept {
    if (!adapts_) return;
    skipped_ = 0;
    if (count != 0) singles_ = count == 1 ? singles_ + 1 : 0;
  }
  // Whether a pass since the last that read to the end may have left datagrams.
  bool MayHaveLeft() const noexcept { return skipped_ != 0; }

 private:
  static constexpr u32 kSure = 4;
  static constexpr u32 kMostSkipped = 15;

  bool adapts_ = GetMending().ReadsAsManyAsExpected();
  u32 singles_ = 0;
  u32 skipped_ = 0;  // ends of reading since the last one
};

}  // namespace moru_vyr::lsp
