// How a developer build gets its configuration.
#pragma once

namespace moru_vyr::lsp {

// Replaces the client's configuration if a test file lies beside the program: installs the
// configuration that the file asks for, and the tables that a client would have published, which
// send every destination outside the private networks through the file's node. The log is written
// beside the program. Without such a file, or with an incomplete one, the client's configuration is
// used after all. True if this process is accelerated. Under the start-up lock, before the route
// policy loads its tables.
bool ReadTestConfig() noexcept;

}  // namespace moru_vyr::lsp
