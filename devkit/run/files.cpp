#include "files.h"

#include <windows.h>

#include <vector>

namespace vyr_run {
namespace {

bool ReadAt(HANDLE file, DWORD offset, void* to, DWORD size) {
  DWORD got = 0;
  return SetFilePointer(file, static_cast<LONG>(offset), nullptr, FILE_BEGIN) !=
             INVALID_SET_FILE_POINTER &&
         ReadFile(file, to, size, &got, nullptr) && got == size;
}

ModuleKind KindOfOpened(HANDLE file) {
  IMAGE_DOS_HEADER dos = {};
  if (!ReadAt(file, 0, &dos, sizeof(dos)) || dos.e_magic != IMAGE_DOS_SIGNATURE) {
    return ModuleKind::kNotExecutable;
  }
  struct {
    DWORD signature;
    IMAGE_FILE_HEADER header;
  } nt = {};
  if (!ReadAt(file, static_cast<DWORD>(dos.e_lfanew), &nt, sizeof(nt)) ||
      nt.signature != IMAGE_NT_SIGNATURE) {
    return ModuleKind::kNotExecutable;
  }
  if (nt.header.Machine != IMAGE_FILE_MACHINE_I386) return ModuleKind::kOtherBitness;
  const bool is_library = (nt.header.Characteristics & IMAGE_FILE_DLL) != 0;
  return is_library ? ModuleKind::kLibrary32 : ModuleKind::kProgram32;
}

}  // namespace

ModuleKind KindOf(const std::wstring& path) {
  const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return ModuleKind::kMissing;
  const ModuleKind kind = KindOfOpened(file);
  CloseHandle(file);
  return kind;
}

std::wstring FindProgram(const std::wstring& name) {
  std::vector<wchar_t> path(32768);
  const DWORD size = static_cast<DWORD>(path.size());
  const DWORD length = SearchPathW(nullptr, name.c_str(), L".exe", size, path.data(), nullptr);
  if (length == 0 || length >= size) return {};
  const DWORD attributes = GetFileAttributesW(path.data());
  const bool is_file =
      attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
  return is_file ? std::wstring(path.data()) : std::wstring();
}

std::wstring FullPath(const std::wstring& path) {
  std::vector<wchar_t> full(32768);
  const DWORD size = static_cast<DWORD>(full.size());
  const DWORD length = GetFullPathNameW(path.c_str(), size, full.data(), nullptr);
  return length == 0 || length >= size ? path : std::wstring(full.data());
}

std::wstring BesideExecutable(const wchar_t* name) {
  std::vector<wchar_t> path(32768);
  GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
  const std::wstring self(path.data());
  return self.substr(0, self.find_last_of(L"\\/") + 1) + name;
}

}  // namespace vyr_run
