// The names of what can be mended, as people write them in files.
#pragma once
#include "abi/mending_formats.h"

namespace moru_vyr::lsp {

struct MendingName {
  const char* name;
  u32 bit;
};

// Besides these, "all" stands for kMendAll, and "none" for nothing.
inline constexpr MendingName kMendingNames[] = {
    {"half-close", kMendHalfClose},
    {"failed-node", kMendFailedNode},
    {"reset", kMendReset},
    {"connect-ex", kMendConnectEx},
    {"restart", kMendRestart},
    {"fast-fallback", kMendFallback},
    {"connected-datagram", kMendConnectedDatagram},
    {"overlapped-datagram", kMendOverlappedDatagram},
    {"after-switch", kMendAfterSwitch},
    {"judgement", kMendJudgement},
    {"start", kMendStart},
    {"names", kMendNames},
    {"datagram-match", kMendDatagramMatch},
    {"refusal", kMendRefusal},
    {"throughput", kMendThroughput},
};

// The bits that have a name: what this version can mend.
inline constexpr u32 kMendKnown = [] {
  u32 bits = 0;
  for (const MendingName& name : kMendingNames) bits |= name.bit;
  return bits;
}();

}  // namespace moru_vyr::lsp
