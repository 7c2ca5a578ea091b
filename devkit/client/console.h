// UTF-8 in and out of the program, whatever the platform's code page is.
#pragma once

#include <string>
#include <vector>

namespace client {

// As long as it lives, UTF-8 that goes to a console window is shown as such.
class Console {
 public:
  Console();
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

 private:
  unsigned former_code_page_ = 0;  // 0: left as it is
};

// The words of the command line behind the program's name, in UTF-8, the last one first.
std::vector<std::string> Arguments(int argc, char** argv);

}  // namespace client
