// Where this process's configuration comes from. The build chooses one of two implementations: the
// product reads what the client program wrote, the developer build reads a file.
#pragma once

namespace moru_vyr::lsp {

// True if the process is to be accelerated. Under the start-up lock.
bool ObtainAccConfig() noexcept;

}  // namespace moru_vyr::lsp
