// The two diagnostic keys of vyr_lsp.ini.
#pragma once

namespace moru_vyr::lsp {

// Reads the file beside the log files and sets the block switches of HookFlags that it asks for.
// The file is only read at the most verbose log level. Start-up only, under its lock.
void UpdateBlockConfig() noexcept;

}  // namespace moru_vyr::lsp
