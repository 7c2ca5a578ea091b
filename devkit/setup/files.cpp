#include "setup/files.h"

#include <vector>

#include "run/files.h"
#include "setup/utf8.h"

namespace setup {
namespace {

using winsock_host::FilesOf;

constexpr size_t kMostProviderPath = 259;  // what the library reads of a provider's path

bool IsLibraryFor(Kind kind, const std::wstring& path) {
  const vyr_run::Module module = vyr_run::ModuleAt(path);
  return module.form == vyr_run::ModuleForm::kLibrary && module.kind == kind;
}

}  // namespace

bool FileExistsAt(const std::wstring& path) {
  std::vector<wchar_t> expanded(32768);
  ExpandEnvironmentStringsW(path.c_str(), expanded.data(), static_cast<DWORD>(expanded.size()));
  const DWORD attributes = GetFileAttributesW(expanded.data());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

std::wstring FullPath(const std::wstring& path) { return vyr_run::FullPath(path); }

bool FindLibraries(const std::map<Kind, std::wstring>& given, std::map<Kind, std::wstring>* found,
                   std::string* problem) {
  for (const Kind kind : {Kind::k32, Kind::k64}) {
    const auto named = given.find(kind);
    const std::wstring path =
        FullPath(named != given.end() ? named->second
                                      : winsock_host::FindKindFile(winsock_host::FolderOf(nullptr),
                                                                   kind, FilesOf(kind).library));
    const bool usable = IsLibraryFor(kind, path) && path.size() <= kMostProviderPath;
    if (usable) (*found)[kind] = path;
    if (usable || named == given.end()) continue;
    *problem = ToUtf8(path) + " is not a " + KindName(kind) +
               "-bit library, or its path has more than 259 characters";
    return false;
  }
  if (found->empty()) *problem = "neither vyr_lsp.dll nor vyr_lsp64.dll is beside vyr_setup";
  return !found->empty();
}

std::wstring ProgramOf(Kind kind) {
  return winsock_host::FindKindFile(winsock_host::FolderOf(nullptr), kind,
                                    kind == Kind::k64 ? L"vyr_setup64.exe" : L"vyr_setup.exe");
}

std::wstring RecordPath(const wchar_t* name) {
  std::wstring chosen;
  for (const Kind kind : {Kind::k32, Kind::k64}) {
    const std::wstring program = ProgramOf(kind);
    if (!FileExistsAt(program)) continue;
    chosen = program.substr(0, program.find_last_of(L'\\') + 1) + name;
    if (FileExistsAt(chosen)) break;
  }
  return chosen.empty() ? winsock_host::FolderOf(nullptr) + name : chosen;
}

}  // namespace setup
