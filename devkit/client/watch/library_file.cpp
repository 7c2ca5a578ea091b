#include "client/watch/library_file.h"

#ifdef _WIN32
#include <winsock2.h>
//
#include <windows.h>
#endif

#include "abi/report_records.h"

namespace client {

#ifdef _WIN32
namespace {

std::wstring OwnFolder() {
  std::wstring path(32768, L'\0');
  path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return path.substr(0, path.rfind(L'\\') + 1);
}

}  // namespace

std::string LibraryFileVersion(unsigned bits) {
  const std::wstring file = OwnFolder() + (bits == 64 ? L"vyr_lsp64.dll" : L"vyr_lsp.dll");
  DWORD unused = 0;
  std::vector<char> block(GetFileVersionInfoSizeW(file.c_str(), &unused));
  VS_FIXEDFILEINFO* info = nullptr;
  UINT size = 0;
  const bool is_there =
      !block.empty() &&
      GetFileVersionInfoW(file.c_str(), 0, static_cast<DWORD>(block.size()), block.data()) != 0 &&
      VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&info), &size) != 0 &&
      size >= sizeof *info;
  if (!is_there) return "";
  return std::to_string(HIWORD(info->dwFileVersionMS)) + "." +
         std::to_string(LOWORD(info->dwFileVersionMS)) + "." +
         std::to_string(HIWORD(info->dwFileVersionLS));
}
#else
std::string LibraryFileVersion(unsigned) { return ""; }
#endif

void NoteLibraryFile(std::vector<Report>* reports) {
  for (Report& report : *reports) {
    if (report.kind != kLoadedReport) continue;
    const bool is_x64 = report.As<moru_vyr::lsp::LspLoadedRecord>().is_x64 != 0;
    report.library_file = LibraryFileVersion(is_x64 ? 64 : 32);
  }
}

}  // namespace client
