#include "files.h"

#include <windows.h>

#include <vector>

namespace vyr_run {
namespace {

using winsock_host::Kind;

bool ReadAt(HANDLE file, DWORD offset, void* to, DWORD size) {
  DWORD got = 0;
  return SetFilePointer(file, static_cast<LONG>(offset), nullptr, FILE_BEGIN) !=
             INVALID_SET_FILE_POINTER &&
         ReadFile(file, to, size, &got, nullptr) && got == size;
}

constexpr Module Neither(ModuleForm form) { return {form, winsock_host::kOwnKind}; }

Module ModuleIn(HANDLE file) {
  IMAGE_DOS_HEADER dos = {};
  if (!ReadAt(file, 0, &dos, sizeof(dos)) || dos.e_magic != IMAGE_DOS_SIGNATURE) {
    return Neither(ModuleForm::kNotExecutable);
  }
  struct {
    DWORD signature;
    IMAGE_FILE_HEADER header;
  } nt = {};
  if (!ReadAt(file, static_cast<DWORD>(dos.e_lfanew), &nt, sizeof(nt)) ||
      nt.signature != IMAGE_NT_SIGNATURE) {
    return Neither(ModuleForm::kNotExecutable);
  }
  const WORD machine = nt.header.Machine;
  if (machine != IMAGE_FILE_MACHINE_I386 && machine != IMAGE_FILE_MACHINE_AMD64) {
    return Neither(ModuleForm::kOtherMachine);
  }
  const bool is_library = (nt.header.Characteristics & IMAGE_FILE_DLL) != 0;
  return {is_library ? ModuleForm::kLibrary : ModuleForm::kProgram,
          machine == IMAGE_FILE_MACHINE_AMD64 ? Kind::k64 : Kind::k32};
}

}  // namespace

Module ModuleAt(const std::wstring& path) {
  const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return Neither(ModuleForm::kMissing);
  const Module module = ModuleIn(file);
  CloseHandle(file);
  return module;
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

std::wstring FileName(const std::wstring& path) {
  return path.substr(path.find_last_of(L"\\/") + 1);
}

}  // namespace vyr_run
