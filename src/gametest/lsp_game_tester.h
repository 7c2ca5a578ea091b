// A developer's configuration: a file beside the process's program names a node and a mode.
//
// Nothing in the product uses it. Called at start-up, on one thread, once ProcessInfo is filled.
#pragma once
#include <memory>
#include <string>

namespace moru_vyr::lsp {

class LspGameTester {
 public:
  // Without memory for its state every operation returns the empty result.
  LspGameTester() noexcept;
  LspGameTester(const LspGameTester&) = delete;
  LspGameTester& operator=(const LspGameTester&) = delete;

  // Reads the file. True even if there is none or it is incomplete: see IsEnabled.
  bool Init() noexcept;
  bool IsEnabled() const noexcept;
  // The directory of the program, and of the file. May throw std::bad_alloc.
  std::wstring GetProcessDir() const;
  // Installs the configuration that the file asks for, even if IsEnabled is false. False if that
  // configuration accelerates nothing.
  bool ReadAccConfig() noexcept;

 private:
  struct Pimpl;

  void ReadFile();

  std::shared_ptr<Pimpl> pimpl_;
};

// The one for this process, built at first use.
LspGameTester& GetLspGameTester();

}  // namespace moru_vyr::lsp
