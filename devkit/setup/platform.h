// What vyr_setup asks of Windows beside the installation calls.
#pragma once
#include <windows.h>

namespace setup {

// Whether this process has the rights of an administrator, not only its user.
bool IsElevated();

// Whether 64-bit programs run here, which have a catalogue of their own.
bool Is64BitWindows();

// Held while a catalogue is changed: one vyr_setup at a time.
class OnlyOne {
 public:
  OnlyOne();
  ~OnlyOne();
  OnlyOne(const OnlyOne&) = delete;
  OnlyOne& operator=(const OnlyOne&) = delete;
  bool is_held() const { return held_; }

 private:
  HANDLE mutex_;
  bool held_;
};

}  // namespace setup
