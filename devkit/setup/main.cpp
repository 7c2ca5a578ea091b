// vyr_setup: puts the library into Winsock's catalogues and takes it out again.
#include <winsock2.h>
//
#include <windows.h>
//
#include <shellapi.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "command_line.h"
#include "program_end.h"
#include "setup/commands.h"
#include "setup/files.h"
#include "setup/image_json.h"
#include "setup/image_machine.h"
#include "setup/platform.h"
#include "setup/report.h"
#include "setup/twin_machine.h"
#include "setup/utf8.h"
#include "setup/winsock_machine.h"

namespace {

using namespace setup;  // the program is that namespace's main file

struct Options {
  std::string command;
  std::string catalogue;
  std::string library32;
  std::string library64;
  std::vector<std::string> exempt;
  bool over_others = false;
  bool dry_run = false;
  bool json = false;
};

// The machine's catalogues or a file's, with the records that belong to them.
struct Site {
  std::unique_ptr<FileStorage> journal_file;
  std::unique_ptr<FileStorage> undo;
  std::unique_ptr<FileStorage> catalogue;
  std::unique_ptr<Machine> twin;
  std::unique_ptr<Machine> machine;
  bool has_both = true;  // all catalogues of this Windows are within reach
};

void Complain(const std::string& text) { std::fprintf(stderr, "vyr_setup: %s\n", text.c_str()); }

bool OpenFile(const Options& options, Site* site) {
  const std::wstring path = FullPath(ToWide(options.catalogue));
  site->journal_file = std::make_unique<FileStorage>(path + L".journal");
  site->undo = std::make_unique<FileStorage>(path + L".undo");
  site->catalogue = std::make_unique<FileStorage>(path);
  bool failed = false;
  const auto text = site->catalogue->Read(&failed);
  if (!text) {
    Complain(options.catalogue + ": cannot be read");
    return false;
  }
  MachineImage image;
  std::string problem;
  if (!ParseImage(*text, &image, &problem)) {
    Complain(options.catalogue + ": " + problem);
    return false;
  }
  site->machine = std::make_unique<FileMachine>(std::move(image), site->catalogue.get());
  return true;
}

void OpenMachine(const Options& options, Site* site) {
  site->journal_file = std::make_unique<FileStorage>(RecordPath(L"vyr_setup.journal"));
  site->undo = std::make_unique<FileStorage>(RecordPath(L"vyr_setup.undo"));
  std::vector<std::wstring> programs = ExemptedPrograms(site->undo.get());
  for (const std::string& program : options.exempt) {
    programs.push_back(FullPath(ToWide(program)));
  }
  if (Is64BitWindows()) {
    const std::wstring twin =
        ProgramOf(winsock_host::kOwnKind == Kind::k64 ? Kind::k32 : Kind::k64);
    site->has_both = FileExistsAt(twin);
    if (site->has_both) site->twin = std::make_unique<TwinMachine>(twin);
  }
  site->machine = std::make_unique<WinsockMachine>(winsock_host::kOwnKind, site->twin.get(),
                                                   std::move(programs));
}

int ShowStatus(const Options& options, Site* site) {
  MachineImage image;
  if (const int error = site->machine->Read(&image)) {
    Complain("the catalogue cannot be read: " + ErrorText(error));
    return kExitFailed;
  }
  Journal journal(site->journal_file.get());
  std::string problem;
  const bool unfinished = journal.Left(&problem).has_value() || !problem.empty();
  return ReportStatus(Inspect(image, FileExistsAt), unfinished, site->has_both, options.json);
}

// Writes the machine's catalogues to the file that --catalogue names.
int CopyMachine(const Options& options) {
  Site site;
  OpenMachine(options, &site);
  MachineImage image;
  if (const int error = site.machine->Read(&image)) {
    Complain("the catalogue cannot be read: " + ErrorText(error));
    return kExitFailed;
  }
  if (FileStorage(FullPath(ToWide(options.catalogue))).Write(ImageText(image))) return kExitDone;
  Complain(options.catalogue + ": cannot be written");
  return kExitBadFile;
}

bool FillRequest(const Options& options, Request* request) {
  request->dry_run = options.dry_run;
  request->install.over_others = options.over_others;
  for (const std::string& program : options.exempt) {
    request->exempt.push_back(FullPath(ToWide(program)));
  }
  std::map<Kind, std::wstring> given;
  if (!options.library32.empty()) given[Kind::k32] = ToWide(options.library32);
  if (!options.library64.empty()) given[Kind::k64] = ToWide(options.library64);
  std::string problem;
  const bool found = FindLibraries(given, &request->install.libraries, &problem);
  // A repair does without: it keeps the file that is installed, or removes what has none.
  if (found || options.command == "uninstall") return true;
  if (options.command == "repair" && given.empty()) return true;
  Complain(problem);
  return false;
}

int ChangeCatalogues(const Options& options, Site* site) {
  Request request;
  if (!FillRequest(options, &request)) return kExitNoLibrary;
  const OnlyOne only_one;
  if (!options.dry_run && !only_one.is_held()) {
    Complain("another vyr_setup is changing the catalogues");
    return kExitBusy;
  }
  Journal journal(site->journal_file.get());
  const Records records = {&journal, site->undo.get()};
  Machine* machine = site->machine.get();
  const Outcome outcome = options.command == "install" ? Install(machine, records, request)
                          : options.command == "uninstall"
                              ? Uninstall(machine, records, request)
                              : Repair(machine, records, request, FileExistsAt);
  return ReportOutcome(outcome, options.dry_run, options.json);
}

int RunCommand(const Options& options) {
  if (options.command == "copy") return CopyMachine(options);
  Site site;
  const bool on_file = !options.catalogue.empty();
  if (on_file && !OpenFile(options, &site)) return kExitBadFile;
  if (!on_file) OpenMachine(options, &site);
  if (options.command == "status") return ShowStatus(options, &site);
  if (!on_file && !options.dry_run && !IsElevated()) {
    Complain(
        "administrator rights are needed: start it from an elevated command prompt "
        "(\"Run as administrator\"); status and --dry-run work without");
    return kExitNoRights;
  }
  if (!site.has_both) {
    Complain("warning: the vyr_setup of the other kind is not beside this one: only the " +
             std::string(KindName(winsock_host::kOwnKind)) + "-bit catalogue is changed");
  }
  return ChangeCatalogues(options, &site);
}

void AddCommand(devkit::CommandLine* line, Options* options, const char* name, const char* help) {
  const std::string word = name;
  devkit::Command command = line->AddCommand(word, help, [=] { options->command = word; });
  devkit::Option file = command.Add("--catalogue", &options->catalogue,
                                    "work on this file in place of the machine's catalogues");
  if (word == "copy") {
    file.Required();
    return;
  }
  command.Add("--json", &options->json, "print one JSON object");
  if (word == "status") return;
  command.Add("--dry-run", &options->dry_run, "say what would be done, and do nothing");
  if (word == "uninstall") return;
  command.Add("--library", &options->library32, "vyr_lsp.dll, for 32-bit programs");
  command.Add("--library64", &options->library64, "vyr_lsp64.dll, for 64-bit programs");
  command.Add("--over-others", &options->over_others,
              "layer over other layered providers that serve sockets today");
  if (word == "repair") return;
  command.Add("--exempt", &options->exempt,
              "a program that is to load no layered provider; may be repeated");
}

// Paths may have any letters.
std::vector<std::string> Arguments() {
  int count = 0;
  LPWSTR* const words = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> arguments;
  for (int i = 1; i < count; ++i) arguments.push_back(ToUtf8(words[i]));
  LocalFree(words);
  return arguments;
}

int Run(int argc, char** argv) {
  if (argc == 2 && std::string(argv[1]) == kTwinOption) return ServeTwinCall();
  Options options;
  devkit::CommandLine line(
      {.text = "Puts the library into Winsock's catalogues and takes it out again.",
       .footer = kExitCodesHelp,
       .version = "vyr_setup " VYR_VERSION});
  AddCommand(&line, &options, "install", "put the library into the catalogues");
  AddCommand(&line, &options, "uninstall", "remove all of it");
  AddCommand(&line, &options, "status",
             "say what is installed, and what other providers there are");
  AddCommand(&line, &options, "repair", "mend what another installer has broken");
  AddCommand(&line, &options, "copy", "write the machine's catalogues to --catalogue FILE");
  if (const auto code = line.Parse(Arguments())) return *code == 0 ? kExitDone : kExitUsage;
  return RunCommand(options);
}

}  // namespace

int main(int argc, char** argv) { devkit::RunToTheEnd("vyr_setup", Run, argc, argv); }
