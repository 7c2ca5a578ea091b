#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <string>

#include "files.h"
#include "injector.h"
#include "options.h"
#include "text.h"
#include "trace.h"

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

// What a run needs, as full paths.
struct Files {
  std::wstring program;
  std::wstring host;
  std::wstring base;
  std::wstring library;  // empty: bare
  std::wstring next;
};

bool IsLibrary(const std::wstring& path, const wchar_t* what) {
  const ModuleKind kind = KindOf(path);
  if (kind == ModuleKind::kLibrary32) return true;
  Complain(std::wstring(what) +
           (kind == ModuleKind::kMissing        ? L" is missing: "
            : kind == ModuleKind::kOtherBitness ? L" is not a 32-bit module: "
                                                : L" is not a Windows library: ") +
           path);
  return false;
}

// 0, or the exit code to end with.
int CheckProgram(const std::wstring& name, std::wstring* program) {
  *program = FindProgram(name);
  if (program->empty()) {
    Complain(L"program not found: " + name);
    return kNotFound;
  }
  if (KindOf(*program) == ModuleKind::kProgram32) return 0;
  Complain(L"not a 32-bit Windows program: " + *program);
  return kNotRunnable;
}

int FindFiles(const Options& options, Files* files) {
  if (const int failure = CheckProgram(options.program, &files->program)) return failure;
  files->host = BesideExecutable(L"winsock_host.dll");
  files->base = BesideExecutable(L"winsock_base.dll");
  if (!IsLibrary(files->host, L"the host") || !IsLibrary(files->base, L"the base provider")) {
    return kNoHost;
  }
  files->next = options.next.empty() ? files->base : options.next;
  if (!options.bare) {
    files->library =
        options.library.empty() ? BesideExecutable(L"vyr_lsp.dll") : FullPath(options.library);
    if (!IsLibrary(files->library, L"the library")) return kNoLibrary;
  }
  return 0;
}

bool Copy(const std::wstring& from, wchar_t* to) {
  if (from.size() >= winsock_host::kConfigPathChars) return false;
  std::wcscpy(to, from.c_str());
  return true;
}

bool FillConfig(const Options& options, const Files& files, winsock_host::HostConfig* config) {
  *config = {};
  config->version = winsock_host::kHostVersion;
  config->bare = options.bare ? 1 : 0;
  config->one_guid = options.one_guid ? 1 : 0;
  config->start_each_entry = options.start_each_entry ? 1 : 0;
  config->cleanup_after_end = options.cleanup_after_end ? 1 : 0;
  config->keep_loaded = options.keep_loaded ? 1 : 0;
  return Copy(files.library, config->library) && Copy(files.base, config->base) &&
         Copy(files.next, config->next);
}

int RunProgram(const Options& options, const Files& files) {
  winsock_host::HostConfig config;
  if (!FillConfig(options, files, &config)) {
    Complain(L"a path is too long for the host");
    return kNoHost;
  }
  HostedProgram hosted;
  if (!hosted.Start(files.program, options.command_line)) {
    Complain(hosted.problem());
    return kNotRunnable;
  }
  if (!hosted.PlaceHost(files.host, config)) {
    Complain(hosted.problem());
    return kNotInjected;
  }
  const DWORD exit_code = hosted.RunToEnd();
  if (!options.trace.empty() &&
      !WriteTrace(options.trace, {files.program, files.library, exit_code}, *hosted.report())) {
    Complain(L"cannot write the trace to " + options.trace);
    return kNoTrace;
  }
  return static_cast<int>(exit_code);
}

// Ctrl-C is the program's to answer; we stay to report how it ended.
BOOL WINAPI IgnoreConsoleSignals(DWORD) { return TRUE; }

int Main() {
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
  Files files;
  if (const int failure = FindFiles(options, &files)) return failure;
  SetConsoleCtrlHandler(IgnoreConsoleSignals, TRUE);
  return RunProgram(options, files);
}

}  // namespace
}  // namespace vyr_run

int main() { return vyr_run::Main(); }
