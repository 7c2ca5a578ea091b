// The calls that change Winsock's catalogues, one operation for each documented call. One
// implementation makes them (winsock_machine.h), one keeps catalogues in memory or in a file
// (image_machine.h).
#pragma once
#include <vector>

#include "setup/own.h"

namespace setup {

// Used by one thread. Results are 0 or a Winsock error; after an error nothing has changed.
class Machine {
 public:
  virtual ~Machine() = default;

  // All catalogues that can be written from here, as they are now.
  virtual int Read(MachineImage* image) = 0;
  // Entries get new numbers and stand last in the order.
  virtual int Install(Kind kind, const Provider& provider) = 0;
  virtual int Deinstall(Kind kind, const GUID& provider) = 0;
  // All entries, in the order in which Winsock is to look at them.
  virtual int WriteOrder(Kind kind, const std::vector<DWORD>& ids) = 0;
  virtual int PermitCategories(const std::wstring& program, DWORD permitted) = 0;
};

// A one-line reason for an error of these calls.
std::string ErrorText(int error);

}  // namespace setup
