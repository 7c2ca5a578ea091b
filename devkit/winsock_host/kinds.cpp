#include "kinds.h"

#include <vector>

namespace winsock_host {
namespace {

constexpr KindFiles kFiles32 = {L"32-bit",           L"vyr_run.exe", L"winsock_host.dll",
                                L"winsock_base.dll", L"vyr_lsp.dll", L"windows-x86"};
constexpr KindFiles kFiles64 = {
    L"64-bit",        L"vyr_run64.exe", L"winsock_host64.dll", L"winsock_base64.dll",
    L"vyr_lsp64.dll", L"windows-x64"};

// Whether a 64-bit platform runs it as a 32-bit process.
bool IsEmulated(HANDLE process) {
  BOOL emulated = FALSE;
  return IsWow64Process(process, &emulated) && emulated;
}

bool Exists(const std::wstring& path) {
  return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

}  // namespace

const KindFiles& FilesOf(Kind kind) { return kind == Kind::k64 ? kFiles64 : kFiles32; }

Kind KindOfProcess(HANDLE process) {
  const bool platform64 = kOwnKind == Kind::k64 || IsEmulated(GetCurrentProcess());
  return platform64 && !IsEmulated(process) ? Kind::k64 : Kind::k32;
}

std::wstring FolderOf(HMODULE module) {
  std::vector<wchar_t> path(32768);
  GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()));
  const std::wstring file(path.data());
  return file.substr(0, file.find_last_of(L"\\/") + 1);
}

std::wstring FindKindFile(const std::wstring& folder, Kind kind, const wchar_t* name) {
  const std::wstring beside = folder + name;
  const std::wstring built = folder + L"..\\..\\" + FilesOf(kind).build + L"\\bin\\" + name;
  return !Exists(beside) && Exists(built) ? built : beside;
}

}  // namespace winsock_host
