// How long this module stays in its process, and what becomes of a process that ends Winsock and
// starts it again.
//
// Winsock frees a provider's module at the process's last WSACleanup. Threads of ours may still be
// on their way out then, and the host may keep pointers to our functions. So a process that is
// hooked keeps the module for good, from before the first of our threads; nothing of ours ever
// returns into memory that is gone. Every other process is left alone: there the module goes as it
// came, and has cost nothing.
//
// A hooked process that starts Winsock anew therefore meets the same copy of the library, with
// everything as the cleanup left it. Kept: the gate stays taken, a protocol that was started once
// is not started again but gets the base provider's own table, and the one worker is not followed
// by another. So after its first cleanup such a process goes direct, and nothing of ours costs it
// another thread, socket or handle, however often it starts. Torn down completely it would come to
// the same: the gate's mutex belongs to the process, not to the copy.
//
// Should a process be served again one day, WSPCleanup (hook_cleanup.cpp) is the place to ask for
// that, after Stop and where nobody calls: the three started flags of chain.cpp and worker_started_
// of RelayMgr are what stands in the way, the providers' Uninit leaves all but stream sessions as
// at the beginning, and the Tracker starts anew as it is.
#pragma once

namespace moru_vyr::lsp {

// Has the module stay until the process ends. False: it cannot be had, and then the process must
// not be hooked. Start-up only; may be repeated.
bool KeepModule() noexcept;

}  // namespace moru_vyr::lsp
