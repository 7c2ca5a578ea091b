// Catalogues in memory, which behave as Windows' do: for dry runs, and with a file behind them for
// --catalogue.
#pragma once
#include <optional>
#include <string>

#include "setup/machine.h"
#include "setup/storage.h"

namespace setup {

class ImageMachine : public Machine {
 public:
  explicit ImageMachine(MachineImage image) : image_(std::move(image)) {}

  int Read(MachineImage* image) override;
  int Install(Kind kind, const Provider& provider) override;
  int Deinstall(Kind kind, const GUID& provider) override;
  int WriteOrder(Kind kind, const std::vector<DWORD>& ids) override;
  int PermitCategories(const std::wstring& program, DWORD permitted) override;

 protected:
  // Makes `image` the present one. An error keeps the one before.
  virtual int Keep(MachineImage image);

 private:
  MachineImage image_;
};

// Every change is in the file before the call returns.
class FileMachine : public ImageMachine {
 public:
  // `image` is what the file holds.
  FileMachine(MachineImage image, Storage* file) : ImageMachine(std::move(image)), file_(file) {}

 protected:
  int Keep(MachineImage image) override;

 private:
  Storage* file_;
};

}  // namespace setup
