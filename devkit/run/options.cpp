#include "options.h"

namespace vyr_run {

const char kHelp[] =
    "vyr_run [OPTIONS] [--] PROGRAM ARGS...\n"
    "\n"
    "Starts an unmodified Windows program, 32-bit or 64-bit, with the library for its kind under\n"
    "its Winsock calls, and under those of the programs that it starts in turn. Input, output,\n"
    "errors and the exit code are the program's own. The files for the other kind are looked for\n"
    "beside vyr_run, and in the other kind's build beside vyr_run's own.\n"
    "\n"
    "  --library PATH  the library, for programs of PROGRAM's kind (default: vyr_lsp.dll or\n"
    "                  vyr_lsp64.dll)\n"
    "  --bare          no library: the base provider alone, as a control\n"
    "  --next MODULE   what the catalogue names as the next provider under the library\n"
    "                  (default: winsock_base.dll or winsock_base64.dll); not checked\n"
    "  --trace FILE    write what was seen, as JSON lines, when the program has ended:\n"
    "                  catalogue entries started, calls counted, debugger output\n"
    "  --help          this text\n"
    "\n"
    "Exit codes of vyr_run itself:\n"
    "  120  the command line makes no sense\n"
    "  121  what hosts a program of that kind is missing: winsock_host.dll and winsock_base.dll,\n"
    "       or vyr_run64.exe, winsock_host64.dll and winsock_base64.dll\n"
    "  122  the library is missing or not one for programs of that kind\n"
    "  123  the host could not be placed in the program\n"
    "  124  the trace file could not be written\n"
    "  126  PROGRAM is no Windows program for x86 or x64, or cannot be started\n"
    "  127  PROGRAM was not found\n";

namespace {

// Splits as the C runtime does: blanks outside quotes separate, 2n backslashes and a quote are n
// backslashes and a switch of quoting, one more backslash makes the quote a character.
class Splitter {
 public:
  explicit Splitter(const wchar_t* at) : at_(at) {}

  bool AtEnd() {
    while (*at_ == L' ' || *at_ == L'\t') ++at_;
    return *at_ == 0;
  }
  const wchar_t* Rest() const { return at_; }

  std::wstring Next() {
    std::wstring word;
    bool quoted = false;
    while (*at_ != 0 && (quoted || (*at_ != L' ' && *at_ != L'\t'))) {
      size_t backslashes = 0;
      while (*at_ == L'\\') ++backslashes, ++at_;
      if (*at_ == L'"') {
        word.append(backslashes / 2, L'\\');
        if (backslashes % 2 != 0) {
          word += L'"';
        } else {
          quoted = !quoted;
        }
        ++at_;
      } else if (backslashes != 0) {
        word.append(backslashes, L'\\');
      } else {
        word += *at_++;
      }
    }
    return word;
  }

 private:
  const wchar_t* at_;
};

std::wstring* TextOption(const std::wstring& name, Options* options) {
  if (name == L"--library") return &options->library;
  if (name == L"--next") return &options->next;
  if (name == L"--trace") return &options->trace;
  return nullptr;
}

}  // namespace

bool ParseCommandLine(const wchar_t* line, Options* options, std::wstring* problem) {
  Splitter words(line);
  words.Next();  // our own name
  bool options_end = false;
  while (!words.AtEnd()) {
    const wchar_t* start = words.Rest();
    const std::wstring word = words.Next();
    if (options_end || word.empty() || word[0] != L'-') {
      options->program = word;
      options->command_line = start;
      break;
    }
    if (word == L"--") {
      options_end = true;
    } else if (word == L"--help" || word == L"-h") {
      options->help = true;
      return true;
    } else if (word == L"--bare") {
      options->bare = true;
    } else if (std::wstring* text = TextOption(word, options)) {
      if (words.AtEnd()) {
        *problem = word + L" needs a value";
        return false;
      }
      *text = words.Next();
    } else {
      *problem = L"unknown option " + word;
      return false;
    }
  }
  if (options->program.empty()) *problem = L"no program given";
  if (options->bare && !(options->library.empty() && options->next.empty())) {
    *problem = L"--bare goes with neither --library nor --next";
  }
  return problem->empty();
}

}  // namespace vyr_run
