// Where this process's configuration comes from. One of two files has the body, chosen by the
// build: the product reads what the client program says, the build for developers a file.
#pragma once

namespace moru_vyr::lsp {

// True if the process is to be accelerated. Under the start-up lock.
bool ObtainAccConfig() noexcept;

}  // namespace moru_vyr::lsp
