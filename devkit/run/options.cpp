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
    "  --catalogue FILE  the catalogue that vyr_setup --catalogue FILE has written, in place of "
    "the\n"
    "                  host's own; it names the library\n"
    "  --trace FILE    write what was seen, as JSON lines, when the program has ended:\n"
    "                  catalogue entries started and cleaned up, calls counted, debugger\n"
    "                  output\n"
    "  --version       the version\n"
    "  --help          this text\n"
    "\n"
    "What differs between installations and versions of Winsock; the first word is the default:\n"
    "  --guids each|one     the layered entries have a provider GUID each, or one for all\n"
    "  --starts guid|entry  a provider is started once for each of its GUIDs, or for each\n"
    "                       catalogue entry\n"
    "  --cleanup before|after\n"
    "                       at the program's last WSACleanup the library gets its WSPCleanup\n"
    "                       before Winsock has ended, or after: its own Winsock calls then fail\n"
    "                       with 10093\n"
    "  --keep-loaded        the library stays loaded after that; otherwise it is unloaded, and\n"
    "                       loaded again at the first socket of the next WSAStartup\n"
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

// An option with two words to choose from, of which the first is the default.
struct Choice {
  const wchar_t* name;
  const wchar_t* first;
  const wchar_t* second;
  bool Options::*second_chosen;
};
constexpr Choice kChoices[] = {
    {L"--guids", L"each", L"one", &Options::one_guid},
    {L"--starts", L"guid", L"entry", &Options::start_each_entry},
    {L"--cleanup", L"before", L"after", &Options::cleanup_after_end},
};

const Choice* FindChoice(const std::wstring& name) {
  for (const Choice& choice : kChoices) {
    if (name == choice.name) return &choice;
  }
  return nullptr;
}

void Choose(const Choice& choice, const std::wstring& word, Options* options,
            std::wstring* problem) {
  if (word == choice.first || word == choice.second) {
    options->*choice.second_chosen = word == choice.second;
  } else {
    *problem = std::wstring(choice.name) + L" is " + choice.first + L" or " + choice.second;
  }
}

bool* FlagOption(const std::wstring& name, Options* options) {
  if (name == L"--bare") return &options->bare;
  if (name == L"--keep-loaded") return &options->keep_loaded;
  return nullptr;
}

std::wstring* TextOption(const std::wstring& name, Options* options) {
  if (name == L"--library") return &options->library;
  if (name == L"--next") return &options->next;
  if (name == L"--trace") return &options->trace;
  if (name == L"--catalogue") return &options->catalogue;
  return nullptr;
}

}  // namespace

namespace {

// Takes one option, with its value where it has one.
void TakeOption(const std::wstring& name, Splitter* words, Options* options,
                std::wstring* problem) {
  const Choice* choice = FindChoice(name);
  std::wstring* text = TextOption(name, options);
  if (bool* flag = FlagOption(name, options)) {
    *flag = true;
  } else if (choice == nullptr && text == nullptr) {
    *problem = L"unknown option " + name;
  } else if (words->AtEnd()) {
    *problem = name + L" needs a value";
  } else if (choice != nullptr) {
    Choose(*choice, words->Next(), options, problem);
  } else {
    *text = words->Next();
  }
}

}  // namespace

bool ParseCommandLine(const wchar_t* line, Options* options, std::wstring* problem) {
  Splitter words(line);
  words.Next();  // our own name
  bool options_end = false;
  while (!words.AtEnd() && problem->empty()) {
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
    } else if (word == L"--version") {
      options->version = true;
      return true;
    } else {
      TakeOption(word, &words, options, problem);
    }
  }
  if (problem->empty() && options->program.empty()) *problem = L"no program given";
  if (options->bare && !(options->library.empty() && options->next.empty())) {
    *problem = L"--bare goes with neither --library nor --next";
  }
  const bool own = options->bare || options->one_guid || !options->library.empty();
  if (own && !options->catalogue.empty()) {
    *problem = L"--catalogue goes with neither --bare nor --library nor --guids";
  }
  return problem->empty();
}

}  // namespace vyr_run
