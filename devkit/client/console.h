// UTF-8 in and out of the program, whatever the platform's code page is.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace client {

// As long as it lives, what the program prints to a console window is shown there as the UTF-8 that
// it is. Files and pipes get the bytes. For the main thread.
class Console {
 public:
  Console();
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

 private:
  struct Window;
  std::unique_ptr<Window> window_;  // null: nothing goes to a console window
};

// The words of the command line behind the program's name, in UTF-8.
std::vector<std::string> Arguments(int argc, char** argv);

}  // namespace client
