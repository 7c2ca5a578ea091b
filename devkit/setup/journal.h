// The record that a change keeps until it is complete: the catalogues as they were, then a line
// for each step, on the disk before the step is made. A run that finds one puts the catalogues
// back first.
#pragma once
#include <optional>
#include <string>

#include "setup/image.h"
#include "setup/storage.h"

namespace setup {

class Journal {
 public:
  explicit Journal(Storage* file) : file_(file) {}

  // Each is false if the record did not reach the disk.
  bool Begin(const MachineImage& before);
  bool Note(const std::string& step);
  bool End();

  // What a run that was cut short has left: nothing if there is no journal. With a *problem if
  // there is one that cannot be read.
  std::optional<MachineImage> Left(std::string* problem);

 private:
  Storage* file_;
};

}  // namespace setup
