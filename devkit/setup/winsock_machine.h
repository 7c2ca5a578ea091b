// The catalogue of this process's own kind through Windows' documented installation calls, and
// that of the other kind through whatever reaches it (twin_machine.h).
//
// WSCInstallProvider64_32 would write both catalogues from a 64-bit process, but with one path for
// both; the library is a different file for each kind. So each kind of vyr_setup writes its own.
#pragma once
#include <string>
#include <vector>

#include "setup/machine.h"

namespace setup {

class WinsockMachine : public Machine {
 public:
  // `twin` may be null: then only the own catalogue is there. The categories of `programs` are
  // read with the catalogues, because Windows lists no programs.
  WinsockMachine(Kind own, Machine* twin, std::vector<std::wstring> programs)
      : own_(own), twin_(twin), programs_(std::move(programs)) {}

  int Read(MachineImage* image) override;
  int Install(Kind kind, const Provider& provider) override;
  int Deinstall(Kind kind, const GUID& provider) override;
  int WriteOrder(Kind kind, const std::vector<DWORD>& ids) override;
  int PermitCategories(const std::wstring& program, DWORD permitted) override;

 private:
  const Kind own_;
  Machine* const twin_;
  const std::vector<std::wstring> programs_;
};

}  // namespace setup
