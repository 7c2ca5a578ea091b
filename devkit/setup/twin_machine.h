// The catalogue of the other kind of programs, through the vyr_setup of that kind: it makes one
// call for each request and decides nothing. A request is a line of JSON on its standard input, the
// answer one on its standard output.
#pragma once
#include <string>

#include "setup/machine.h"

namespace setup {

inline constexpr char kTwinOption[] = "--twin-call";

class TwinMachine : public Machine {
 public:
  explicit TwinMachine(std::wstring program) : program_(std::move(program)) {}

  int Read(MachineImage* image) override;
  int Install(Kind kind, const Provider& provider) override;
  int Deinstall(Kind kind, const GUID& provider) override;
  int WriteOrder(Kind kind, const std::vector<DWORD>& ids) override;
  int PermitCategories(const std::wstring& program, DWORD permitted) override;

 private:
  std::wstring program_;
};

// The other side: serves the request on standard input. The exit code of the process.
int ServeTwinCall();

}  // namespace setup
