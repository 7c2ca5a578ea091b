// The command line of a program: what it understands, its help, and what it says about a mistake.
// It stands before CLI11, whose headers take seconds in each file that includes them. For a
// program's main file, and one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace devkit {

// An option, a flag, or a word that has its place instead of a name. A handle: it may be copied,
// and ends with its CommandLine.
class Option {
 public:
  explicit Option(CLI::Option* option) : option_(option) {}

  Option& Required();
  // What the help calls the value, in place of its type and of the checks that follow.
  Option& Called(const std::string& what);
  // The values that are allowed, of the type of the option. T: int, unsigned, double.
  template <class T>
  Option& In(T least, T most);
  Option& OneOf(const std::vector<std::string>& words);  // in capitals, too
  Option& Times(int least, int most);                    // how many values it takes
  Option& ShowDefault();  // in the help: the value that stands there now
  Option& ShowDefault(const std::string& text);
  Option& Group(const std::string& heading);
  Option& Needs(const Option& other);
  Option& Excludes(const Option& other);

 private:
  CLI::Option* option_;
  bool called_ = false;
};

// What may be given: to the program, or behind one of its commands.
class Command {
 public:
  explicit Command(CLI::App* app) : app_(app) {}

  // Names as "-o,--output", or a word without dashes for a place. The value, which outlives the
  // CommandLine, keeps what it has unless one is given. T: bool, which is a flag, int, unsigned,
  // uint16_t, double, std::string, std::optional<unsigned>, std::vector<std::string> or
  // std::vector<unsigned long>.
  template <class T>
  Option Add(const std::string& names, T* value, const std::string& help);
  // The caller understands the value itself: `take` gives an empty text, or what is wrong with it.
  using Take = std::function<std::string(const std::string& text)>;
  Option AddTaken(const std::string& name, const Take& take, const std::string& help);

 protected:
  CLI::App* app_;
};

struct About {
  std::string program = {};  // its name; empty: the help has none
  std::string text;          // what the help begins with
  std::string footer;        // and what it ends with
  std::string version = {};  // --version prints it; empty: no such flag
  // "/home/…" is a path under Wine, never an option; otherwise a Windows program takes /name, too.
  bool slash_begins_path = false;
};

class CommandLine : public Command {
 public:
  explicit CommandLine(const About& about);
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  // From the first on, one of the commands has to be given. `chosen` runs if it is this one and all
  // is well.
  Command AddCommand(const std::string& name, const std::string& help,
                     const std::function<void()>& chosen);
  // Prints what is wrong if a word stands in the place of a command and is none.
  using Explain =
      std::function<void(const std::string& word, const std::vector<std::string_view>& commands)>;
  void IfNoCommand(const Explain& explain) { explain_ = explain; }

  // Understands the words behind the program's name. If the program has nothing left to do, since
  // help or a mistake has been printed, this gives the exit code: 0 after help, above 100 after a
  // mistake.
  std::optional<int> Parse(int argc, char** argv);
  std::optional<int> Parse(const std::vector<std::string>& words);
  // Prints a mistake that only the program can see, as the others are. Gives the exit code.
  int Refuse(const std::string& mistake) const;

 private:
  std::unique_ptr<CLI::App> owned_;
  Explain explain_;
};

}  // namespace devkit
