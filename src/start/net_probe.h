// The diagnostic process that is served without a configuration of the client program.
#pragma once

namespace moru_vyr::lsp {

// True for "net_probe.exe" with a command line that ends in "-test", in any letter case; installs
// the configuration that such a process runs with. ProcessInfo must be filled. Start-up only.
bool IsNetProbeTest() noexcept;

}  // namespace moru_vyr::lsp
