// Which of our catalogue entries Winsock has started. Any thread.
#pragma once

namespace moru_vyr::lsp {

// Returns whether the protocol was started before, and remembers that it is now, even if this start
// fails afterwards. False for every protocol but kProtocolTcp, kProtocolUdp and kProtocolRawSave.
bool WasStarted(int protocol) noexcept;

// Whether a process that has ended Winsock and starts it again is to be served again.
bool ServesAgain() noexcept;
// The process has ended Winsock and is to be served again.
void ForgetStarts() noexcept;

}  // namespace moru_vyr::lsp
