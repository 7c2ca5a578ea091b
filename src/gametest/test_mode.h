// How a build for developers gets its configuration.
#pragma once

namespace moru_vyr::lsp {

// In place of the client's configuration, where a test file lies beside the program: installs the
// configuration that the file asks for, and the tables that a client would have published, by
// which every destination outside the private networks goes through the file's node. The log lies
// beside the program. Without such a file, or with one that says too little, it is the client's
// configuration after all. True if this process is accelerated. Under the start-up lock, before
// the route policy loads its tables.
bool ReadTestConfig() noexcept;

}  // namespace moru_vyr::lsp
