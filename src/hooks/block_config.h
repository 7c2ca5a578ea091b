// The two diagnostic keys of vyr_lsp.ini.
#pragma once

namespace moru_vyr::lsp {

// Reads the file beside the log files and raises the block switches of HookFlags that it asks
// for. Only at the most verbose log level is the file looked at. Start-up only, under its lock.
void UpdateBlockConfig() noexcept;

}  // namespace moru_vyr::lsp
