#include <winsock2.h>
//
#include <windows.h>

#ifdef _WIN32
#include <tlhelp32.h>
#endif

#include <algorithm>
#include <string>

#include "abi/acc_config_formats.h"
#include "client/serve/spur_notifier.h"
#include "common/handle.h"
#include "common/text.h"

namespace client {

#ifdef _WIN32
namespace {

using moru_vyr::lsp::AccConfigRecord;
using moru_vyr::lsp::kMaxGamePaths;

std::string PathOf(DWORD pid) {
  const common::UniqueHandle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid));
  if (!process) return "";
  wchar_t path[32768];
  DWORD size = static_cast<DWORD>(std::size(path));
  std::string utf8;
  if (QueryFullProcessImageNameW(process.get(), 0, path, &size) != 0) {
    common::u16to8(std::wstring(path, size), &utf8);
  }
  return utf8;
}

bool IsListed(const Tables& tables, const std::string& path) {
  for (const AccConfigRecord& game : tables.restriction.games) {
    const uint32_t count = std::min(game.path_count, kMaxGamePaths);
    for (uint32_t i = 0; i < count; ++i) {
      const auto listed = common::FieldText(game.game_paths[i]);
      if (!listed.empty() && common::EqualsIgnoreCase(path, listed)) return true;
    }
  }
  return false;
}

}  // namespace

std::set<unsigned long> RunningGames(const Tables& tables) {
  std::set<unsigned long> pids;
  const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (snapshot == INVALID_HANDLE_VALUE) return pids;
  const common::UniqueHandle owner(snapshot);
  PROCESSENTRY32W entry = {};
  entry.dwSize = sizeof entry;
  for (BOOL more = Process32FirstW(snapshot, &entry); more;
       more = Process32NextW(snapshot, &entry)) {
    const std::string path = PathOf(entry.th32ProcessID);
    if (!path.empty() && IsListed(tables, path)) pids.insert(entry.th32ProcessID);
  }
  return pids;
}
#else
std::set<unsigned long> RunningGames(const Tables&) { return {}; }
#endif

}  // namespace client
