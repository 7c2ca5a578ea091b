// Opens this run's log file, beside the files of other runs, and writes its first lines. For
// processes that the library serves: ProcessInfo and AccConfig must be filled. A log file that
// cannot be opened changes nothing for the host; all lines are dropped then.
#pragma once

namespace moru_vyr::lsp {

void InitLog() noexcept;

}  // namespace moru_vyr::lsp
