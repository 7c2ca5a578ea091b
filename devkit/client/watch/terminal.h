// Standard output as a screen, if it is a terminal.
#pragma once

#include <string>
#include <vector>

#include "client/watch/top_view.h"

namespace client {

// In a terminal each drawing replaces the one before, on a second screen that is left when this
// object ends. Elsewhere the drawings follow each other, without control characters.
class Terminal {
 public:
  Terminal();
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  bool is_screen() const { return is_screen_; }
  ScreenSize Size() const;

  // Lines that fit that size. False once the output is closed.
  bool Draw(const std::vector<std::string>& lines, ScreenSize size);

 private:
  bool is_screen_ = false;
};

}  // namespace client
