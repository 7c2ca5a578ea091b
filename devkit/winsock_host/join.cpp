#include "join.h"

#include <cstdlib>
#include <cstring>
#include <vector>

#include "kinds.h"

namespace winsock_host {
namespace {

constexpr char kJoinOption[] = "--join";
constexpr wchar_t kJoinOptionWide[] = L"--join";
constexpr DWORD kLongestWaitMs = 60'000;

class Handle {
 public:
  explicit Handle(HANDLE value) : value_(value) {}
  ~Handle() {
    if (value_ != nullptr) CloseHandle(value_);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  HANDLE get() const { return value_; }

 private:
  HANDLE value_;
};

// A mapping that a process started from here inherits, with `config` in it. Null when it fails.
HANDLE MakeMapping(const HostConfig& config) {
  SECURITY_ATTRIBUTES inherited = {sizeof(inherited), nullptr, TRUE};
  const HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, &inherited, PAGE_READWRITE, 0,
                                            sizeof(HostConfig), nullptr);
  void* view = mapping == nullptr ? nullptr : MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, 0);
  if (view == nullptr) {
    if (mapping != nullptr) CloseHandle(mapping);
    return nullptr;
  }
  *static_cast<HostConfig*>(view) = config;
  UnmapViewOfFile(view);
  return mapping;
}

DWORD RunToEnd(const std::wstring& launcher, const std::wstring& command_line, DWORD no_launcher) {
  STARTUPINFOW startup = {};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  std::vector<wchar_t> line(command_line.begin(), command_line.end());
  line.push_back(0);  // the platform may write into it
  PROCESS_INFORMATION process = {};
  if (!CreateProcessW(launcher.c_str(), line.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW,
                      nullptr, nullptr, &startup, &process)) {
    return no_launcher;
  }
  const Handle thread(process.hThread);
  const Handle ended(process.hProcess);
  DWORD code = no_launcher;
  if (WaitForSingleObject(ended.get(), kLongestWaitMs) == WAIT_OBJECT_0) {
    GetExitCodeProcess(ended.get(), &code);
  }
  return code;
}

}  // namespace

DWORD JoinProgram(const std::wstring& folder, const PROCESS_INFORMATION& program,
                  const HostConfig& config, DWORD no_launcher) {
  const Kind kind = KindOfProcess(program.hProcess);
  HANDLE report = nullptr;  // the program's
  if (!DuplicateHandle(GetCurrentProcess(), HandleOf(config.report_mapping), program.hProcess,
                       &report, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
    return no_launcher;
  }
  HostConfig passed = config;
  passed.report_mapping = HandleValue(report);
  const Handle mapping(MakeMapping(passed));
  if (mapping.get() == nullptr) return no_launcher;
  const wchar_t* name = FilesOf(kind).launcher;
  const std::wstring line = std::wstring(name) + L" " + kJoinOptionWide + L" " +
                            std::to_wstring(program.dwProcessId) + L" " +
                            std::to_wstring(HandleValue(mapping.get()));
  return RunToEnd(FindKindFile(folder, kind, name), line, no_launcher);
}

bool ParseJoinRequest(int argc, char** argv, JoinRequest* request) {
  if (argc != 4 || std::strcmp(argv[1], kJoinOption) != 0) return false;
  request->process_id = std::strtoul(argv[2], nullptr, 10);
  request->mapping = HandleOf(std::strtoul(argv[3], nullptr, 10));
  return true;
}

bool ReadJoinConfig(HANDLE mapping, HostConfig* config) {
  const void* view = MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, sizeof(HostConfig));
  if (view == nullptr) return false;
  std::memcpy(config, view, sizeof(HostConfig));
  UnmapViewOfFile(view);
  return config->version == kHostVersion;
}

}  // namespace winsock_host
