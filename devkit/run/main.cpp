#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <string>

#include "files.h"
#include "hosted_program.h"
#include "injector.h"
#include "options.h"
#include "text.h"
#include "trace.h"
#include "winsock_host/join.h"
#include "winsock_host/kinds.h"

namespace vyr_run {
namespace {

enum ExitCode : int {
  kBadUsage = 120,
  kNoHost = 121,
  kNoLibrary = 122,
  kNotInjected = 123,
  kNoTrace = 124,
  kNotRunnable = 126,
  kNotFound = 127,
};

using winsock_host::FilesOf;
using winsock_host::FolderOf;
using winsock_host::HostConfig;
using winsock_host::Kind;
using winsock_host::kOwnKind;

bool IsLibrary(const std::wstring& path, const wchar_t* what) {
  const Module module = ModuleAt(path);
  if (module.form == ModuleForm::kLibrary && module.kind == kOwnKind) return true;
  const std::wstring wrong_kind =
      std::wstring(L" is not a ") + FilesOf(kOwnKind).bits + L" module: ";
  const bool is_other =
      module.form == ModuleForm::kLibrary || module.form == ModuleForm::kOtherMachine;
  Complain(std::wstring(what) +
           (module.form == ModuleForm::kMissing ? std::wstring(L" is missing: ")
            : is_other                          ? wrong_kind
                                                : std::wstring(L" is not a Windows library: ")) +
           path);
  return false;
}

bool Copy(const std::wstring& from, wchar_t* to) {
  if (from.size() >= winsock_host::kConfigPathChars) return false;
  std::wcscpy(to, from.c_str());
  return true;
}

// Options that were not given are filled in with the files of our own kind beside us; required
// files are checked. 0, or the exit code to end with.
int Complete(HostConfig* config, const std::wstring& host) {
  const std::wstring folder = FolderOf(nullptr);
  if (config->base[0] == 0 && !Copy(folder + FilesOf(kOwnKind).base, config->base)) return kNoHost;
  if (!IsLibrary(host, L"the host") || !IsLibrary(config->base, L"the base provider")) {
    return kNoHost;
  }
  if (config->next[0] == 0) std::wcscpy(config->next, config->base);
  if (config->bare != 0 || config->catalogue[0] != 0) return 0;
  if (config->library[0] == 0 && !Copy(folder + FilesOf(kOwnKind).library, config->library)) {
    return kNoLibrary;
  }
  return IsLibrary(config->library, L"the library") ? 0 : kNoLibrary;
}

int CheckProgram(const std::wstring& name, std::wstring* program) {
  *program = FindProgram(name);
  if (program->empty()) {
    Complain(L"program not found: " + name);
    return kNotFound;
  }
  if (ModuleAt(*program).form == ModuleForm::kProgram) return 0;
  Complain(L"not a Windows program for x86 or x64: " + *program);
  return kNotRunnable;
}

bool FillConfig(const Options& options, HostConfig* config) {
  *config = {};
  config->version = winsock_host::kHostVersion;
  config->bare = options.bare ? 1 : 0;
  config->one_guid = options.one_guid ? 1 : 0;
  config->start_each_entry = options.start_each_entry ? 1 : 0;
  config->cleanup_after_end = options.cleanup_after_end ? 1 : 0;
  config->keep_loaded = options.keep_loaded ? 1 : 0;
  return Copy(options.library.empty() ? L"" : FullPath(options.library), config->library) &&
         Copy(options.next, config->next) &&
         Copy(options.catalogue.empty() ? L"" : FullPath(options.catalogue), config->catalogue);
}

int PlaceHost(HostedProgram* hosted, HostConfig* config) {
  const std::wstring host = FolderOf(nullptr) + FilesOf(kOwnKind).host;
  if (const int failure = Complete(config, host)) return failure;
  if (hosted->PlaceHost(host, *config)) return 0;
  Complain(hosted->problem());
  return kNotInjected;
}

int PlaceHostOfOtherKind(HostedProgram* hosted, const std::wstring& program,
                         const HostConfig& config) {
  constexpr DWORD kNone = ~DWORD{0};
  const DWORD code = hosted->PlaceByLauncher(config, kNone);
  if (code != kNone) return static_cast<int>(code);
  const winsock_host::KindFiles& files = FilesOf(hosted->kind());
  Complain(std::wstring(L"a ") + files.bits + L" program needs " + files.launcher +
           L" beside vyr_run: " + program);
  return kNoHost;
}

// Empty if there is none; the file that names it where the catalogue is a file's.
std::wstring LibraryOf(const HostedProgram& hosted, const HostConfig& config) {
  if (config.bare != 0) return {};
  if (config.catalogue[0] != 0) return config.catalogue;
  if (config.library[0] != 0) return config.library;
  const wchar_t* name = FilesOf(hosted.kind()).library;
  return winsock_host::FindKindFile(FolderOf(nullptr), hosted.kind(), name);
}

int RunProgram(const Options& options, const std::wstring& program) {
  HostConfig config;
  if (!FillConfig(options, &config)) {
    Complain(L"a path is too long for the host");
    return kNoHost;
  }
  HostedProgram hosted;
  if (!hosted.Start(program, options.command_line)) {
    Complain(hosted.problem());
    return kNotRunnable;
  }
  const int failure = hosted.kind() == kOwnKind ? PlaceHost(&hosted, &config)
                                                : PlaceHostOfOtherKind(&hosted, program, config);
  if (failure != 0) return failure;
  const DWORD exit_code = hosted.RunToEnd();
  const RunFacts facts = {program, LibraryOf(hosted, config), hosted.kind() == Kind::k64,
                          exit_code};
  if (!options.trace.empty() && !WriteTrace(options.trace, facts, *hosted.report())) {
    Complain(L"cannot write the trace to " + options.trace);
    return kNoTrace;
  }
  return static_cast<int>(exit_code);
}

// Places the host for another launcher: see join.h.
int Join(const winsock_host::JoinRequest& request) {
  HostConfig config;
  const std::wstring host = FolderOf(nullptr) + FilesOf(kOwnKind).host;
  if (!winsock_host::ReadJoinConfig(request.mapping, &config)) return kBadUsage;
  if (const int failure = Complete(&config, host)) return failure;
  const HANDLE process = OpenProcess(PROCESS_ALL_ACCESS, FALSE, request.process_id);
  if (process == nullptr) {
    Complain(L"cannot open the program: " + ErrorText(GetLastError()));
    return kNotInjected;
  }
  Injector injector(process, request.process_id);
  const bool placed = injector.PlaceHost(host, config);
  CloseHandle(process);
  if (!placed) Complain(injector.problem());
  return placed ? 0 : kNotInjected;
}

// Ctrl-C is for the program to handle; we stay to report how it ended.
BOOL WINAPI IgnoreConsoleSignals(DWORD) { return TRUE; }

int Main(int argc, char** argv) {
  winsock_host::JoinRequest request;
  if (winsock_host::ParseJoinRequest(argc, argv, &request)) return Join(request);
  Options options;
  std::wstring problem;
  if (!ParseCommandLine(GetCommandLineW(), &options, &problem)) {
    Complain(problem + L"; see vyr_run --help");
    return kBadUsage;
  }
  if (options.help) {
    std::fputs(kHelp, stdout);
    return 0;
  }
  if (options.version) {
    std::puts("vyr_run " VYR_VERSION);
    return 0;
  }
  std::wstring program;
  if (const int failure = CheckProgram(options.program, &program)) return failure;
  SetConsoleCtrlHandler(IgnoreConsoleSignals, TRUE);
  return RunProgram(options, program);
}

}  // namespace
}  // namespace vyr_run

int main(int argc, char** argv) { return vyr_run::Main(argc, argv); }
