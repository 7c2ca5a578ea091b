#include "provider/relay_admission.h"

namespace moru_vyr::lsp {

// There is no relay yet, so every socket goes direct, without a word in the log. The real rules
// (the worker's own sockets, a relay that could not start, the block switches, the game's
// net_mode and acc_mode) take this body's place together with the relay; the callers stay.
bool IsAllowedRelay(const SocketRecord&) noexcept { return false; }

}  // namespace moru_vyr::lsp
