// Standard output as a screen, where it is one.
#pragma once

#include <string>
#include <vector>

#include "client/watch/top_view.h"

namespace client {

// In a terminal each drawing replaces the one before, on a screen of its own that goes with this
// object. Elsewhere the drawings stand one below the other, without a control character.
class Terminal {
 public:
  Terminal();
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  bool is_screen() const { return is_screen_; }
  ScreenSize Size() const;

  // Lines that fit that size. False once nobody takes the output any more.
  bool Draw(const std::vector<std::string>& lines, ScreenSize size);

 private:
  bool is_screen_ = false;
};

}  // namespace client
