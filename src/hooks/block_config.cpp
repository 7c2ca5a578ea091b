#include "hooks/block_config.h"

#include <winsock2.h>
//
#include <shlwapi.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <string_view>

#include "common/log.h"
#include "common/text.h"
#include "hooks/hook_flags.h"
#include "route/acc_config.h"

namespace moru_vyr::lsp {
namespace {

constexpr std::size_t kPathSize = 260;  // in characters, terminator included

// The file's path. Guard: empty where it would be too long to be one. With no log path that is the
// root of the current drive.
std::wstring IniPath(std::string_view log_path) {
  wchar_t directory[kPathSize] = {};
  if (!log_path.empty()) {
    const std::string path(log_path);
    LSP_LOG(0, "log path=%s", path.c_str());
    std::wstring wide;
    common::u8to16(path, &wide);
    wide.copy(directory, kPathSize - 1);
  }
  PathRemoveFileSpecW(directory);
  std::wstring path = directory;
  path += L"\\vyr_lsp.ini";
  if (path.size() >= kPathSize) path.clear();
  return path;
}

bool SaysFalse(const wchar_t* key, const std::wstring& path) {
  if (path.empty()) return false;
  wchar_t value[10] = {};
  GetPrivateProfileStringW(L"LSP", key, L"", value, 10, path.c_str());
  constexpr wchar_t kFalse[] = L"false";
  return std::equal(std::begin(kFalse), std::end(kFalse), value, [](wchar_t a, wchar_t b) {
    return a == (b >= L'A' && b <= L'Z' ? b + 32 : b);
  });
}

// A key can only raise a switch; nothing lowers it again.
void Raise(std::atomic<bool>& flag, const wchar_t* key, const std::wstring& path) {
  if (SaysFalse(key, path)) flag.store(true, std::memory_order_relaxed);
}

void ReadBlockConfig() {
  HookFlags& flags = GetHookFlags();
  const std::wstring path = IniPath(common::FieldText(GetAccConfig()->log_path));
  Raise(flags.block_udp, L"UDP", path);
  Raise(flags.block_tcp, L"TCP", path);
  LSP_LOG(0, "update block success, tcp=%s, udp=%s",
          flags.block_tcp.load(std::memory_order_relaxed) ? "true" : "false",
          flags.block_udp.load(std::memory_order_relaxed) ? "true" : "false");
}

}  // namespace

void UpdateBlockConfig() noexcept {
  // Kept: at every other level the keys have no effect at all.
  if (GetAccConfig()->log_level != 0) return;
  try {
    ReadBlockConfig();
  } catch (...) {
    // Out of memory: nothing is blocked.
  }
}

}  // namespace moru_vyr::lsp
