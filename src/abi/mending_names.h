// The names of what can be mended, as people write them in files.
#pragma once
#include "abi/mending_formats.h"

namespace moru_vyr::lsp {

struct MendingName {
  const char* name;
  u32 bit;
};

// Besides these, "all" and "none" stand for the whole word.
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
};

}  // namespace moru_vyr::lsp
