// How long this module stays in its process, and what happens in a process that ends Winsock and
// starts it again.
//
// Winsock frees a provider's module at the process's last WSACleanup. The library's threads may
// still be on their way out then, and the host may keep pointers to its functions. So a hooked
// process keeps the module for good, from before the first of the library's threads; no call ever
// returns into unloaded memory. Every other process is left alone: there the module comes and goes
// with Winsock, and costs nothing.
//
// A hooked process that starts Winsock again therefore meets the same copy of the library, with
// everything as the cleanup left it. Kept: the gate stays taken, a protocol that was started once
// is not started again but gets the base provider's own table, and the one worker gets no
// successor. So after its first cleanup such a process goes direct, and the library costs it no
// further thread, socket or handle, however often it starts. A complete teardown would come to the
// same: the gate's mutex belongs to the process, not to the copy.
//
// A game for which the client program asks for it is served again: WSPCleanup then forgets the
// started protocols (started_protocols.h), and RelayMgr starts another worker. The providers'
// Uninit resets everything except stream sessions.
#pragma once

namespace moru_vyr::lsp {

// Pins the module until the process ends. False if that fails; then the process must not be hooked.
// Start-up only; may be repeated.
bool KeepModule() noexcept;

}  // namespace moru_vyr::lsp
