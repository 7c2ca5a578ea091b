// What happens once in a process, before its first chain is resolved.
#pragma once

namespace moru_vyr::lsp {

// True if this process is hooked. The first call decides; later ones repeat the answer. Start-up
// only, under its lock.
bool PrepareProcess() noexcept;

}  // namespace moru_vyr::lsp
