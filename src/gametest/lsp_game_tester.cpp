#include "gametest/lsp_game_tester.h"

#include <winsock2.h>
//
#include <shlwapi.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <exception>
#include <iterator>
#include <new>
#include <set>
#include <string_view>

#include "common/log.h"
#include "common/process_info.h"
#include "common/text.h"
#include "gametest/mending_list.h"
#include "gametest/test_config.h"
#include "route/acc_config.h"
#include "route/mending.h"

namespace moru_vyr::lsp {
namespace {

using common::LspTrace;

constexpr wchar_t kSection[] = L"TestAccGame";
constexpr wchar_t kFileName[] = L"\\vyr_lsp_test.ini";
constexpr DWORD kMaxTextChars = 128;
constexpr DWORD kMaxListChars = 1024;
// Guard: of the proc keys that are looked for. A mistyped count must not hold the start for hours.
constexpr u32 kMaxProcessKeys = 16384;
constexpr u32 kMaxPort = 65535;
constexpr INT kDefaultLogLevel = 4;

template <DWORD kMaxChars = kMaxTextChars>
std::wstring ReadText(const wchar_t* key, const std::wstring& path) {
  wchar_t text[kMaxChars + 1] = {};
  GetPrivateProfileStringW(kSection, key, L"", text, kMaxChars + 1, path.c_str());
  text[kMaxChars] = L'\0';
  return text;
}

u32 ReadNumber(const wchar_t* key, INT fallback, const std::wstring& path) {
  return GetPrivateProfileIntW(kSection, key, fallback, path.c_str());
}

std::string Narrow(const std::wstring& text) {
  std::string narrow;
  common::u16to8(text, &narrow);
  return narrow;
}

bool IsKnownKey(std::string_view key) noexcept {
  constexpr std::string_view kKeys[] = {"process_count", "proxy_ip",  "proxy_port",
                                        "net_mode",      "log_level", "mend"};
  const bool is_plain =
      std::any_of(std::begin(kKeys), std::end(kKeys),
                  [key](std::string_view one) { return common::EqualsIgnoreCase(key, one); });
  constexpr std::string_view kProcess = "proc";  // and a number
  return is_plain || (common::EqualsIgnoreCase(key.substr(0, kProcess.size()), kProcess) &&
                      key.find_first_not_of("0123456789", kProcess.size()) == key.npos);
}

// Guard: a mistyped key would do nothing, without a word.
void TraceUnknownKeys(const std::wstring& path) {
  wchar_t keys[kMaxListChars + 2] = {};  // each ends with a zero, and the last one with two
  GetPrivateProfileStringW(kSection, nullptr, L"", keys, kMaxListChars, path.c_str());
  for (const wchar_t* key = keys; *key != L'\0'; key += std::wcslen(key) + 1) {
    const std::string name = Narrow(key);
    if (!IsKnownKey(name)) LspTrace("Game Test Init, unknown key=%s\n", name.c_str());
  }
}

}  // namespace

struct LspGameTester::Pimpl {
  bool enabled = false;
  std::set<std::wstring> process_names;  // Kept: nothing is compared with them
  u32 net_mode = 0;
  u16 proxy_port = 0;
  std::string proxy_ip;
  i32 log_level = 0;
  u32 mended = 0;

  void ReadProcessNames(u32 count, const std::wstring& path);
  bool ReadProxy(const std::wstring& path);
  bool ReadMended(const std::wstring& path);
};

LspGameTester::LspGameTester() noexcept {
  try {
    pimpl_ = std::make_shared<Pimpl>();
  } catch (const std::bad_alloc&) {
    // The empty answers.
  }
}

bool LspGameTester::Init() noexcept {
  if (pimpl_ == nullptr) return false;
  pimpl_->enabled = false;
  try {
    ReadFile();
  } catch (const std::exception&) {
    pimpl_->enabled = false;  // out of memory
  }
  return true;
}

bool LspGameTester::IsEnabled() const noexcept { return pimpl_ != nullptr && pimpl_->enabled; }

std::wstring LspGameTester::GetProcessDir() const {
  if (pimpl_ == nullptr) return {};
  const std::string path(common::FieldText(common::GetProcessInfo().process_path));
  wchar_t directory[common::kPathFieldSize] = {};
  if (!path.empty()) {
    LSP_LOG(0, "process path=%s", path.c_str());
    std::wstring wide;
    common::u8to16(path, &wide);
    wide.copy(directory, common::kPathFieldSize - 1);
  }
  PathRemoveFileSpecW(directory);
  return directory;
}

void LspGameTester::ReadFile() {
  const std::wstring path = GetProcessDir() + kFileName;
  if (!PathFileExistsW(path.c_str())) {
    LspTrace("Game Test Init, log_path not exist=[%s] \n", Narrow(path).c_str());
    return;
  }
  LspTrace("Game Test Init, log_path =[%s] \n", Narrow(path).c_str());
  TraceUnknownKeys(path);
  const u32 process_count = ReadNumber(L"process_count", 0, path);
  if (process_count == 0) {
    const DWORD error = GetLastError();
    LspTrace("Game Test Init, process count error quit,last_error=%lu\n",
             static_cast<unsigned long>(error));
    return;
  }
  pimpl_->ReadProcessNames(process_count, path);
  if (pimpl_->process_names.empty()) {
    LspTrace("Game Test Init, process read count error quit\n");
    return;
  }
  if (!pimpl_->ReadProxy(path) || !pimpl_->ReadMended(path)) return;
  pimpl_->net_mode = ReadNumber(L"net_mode", 0, path);
  pimpl_->log_level = static_cast<i32>(ReadNumber(L"log_level", kDefaultLogLevel, path));
  pimpl_->enabled = true;
  LspTrace("Game Test Init, ip=%s, port=%lu, net_mode=%lu, log_level=%d\n",
           pimpl_->proxy_ip.c_str(), static_cast<unsigned long>(pimpl_->proxy_port),
           static_cast<unsigned long>(pimpl_->net_mode), pimpl_->log_level);
}

void LspGameTester::Pimpl::ReadProcessNames(u32 count, const std::wstring& path) {
  for (u32 i = 1; i <= std::min(count, kMaxProcessKeys); ++i) {
    char key[common::kBoundedTextSize];
    common::FormatBounded(key, "proc%d", static_cast<int>(i));
    const std::wstring name = ReadText(std::wstring(key, key + std::strlen(key)).c_str(), path);
    if (!name.empty()) process_names.insert(name);
  }
}

bool LspGameTester::Pimpl::ReadProxy(const std::wstring& path) {
  proxy_ip = Narrow(ReadText(L"proxy_ip", path));
  if (proxy_ip.empty()) {
    LspTrace("Game Test Init, process ip empty\n");
    return false;
  }
  proxy_port = static_cast<u16>(std::min(ReadNumber(L"proxy_port", 0, path), kMaxPort));
  if (proxy_port == 0) {
    LspTrace("Game Test Init, process port empty\n");
    return false;
  }
  return true;
}

bool LspGameTester::Pimpl::ReadMended(const std::wstring& path) {
  std::string unknown;
  if (ReadMendingList(Narrow(ReadText<kMaxListChars>(L"mend", path)), &mended, &unknown)) {
    return true;
  }
  LspTrace("Game Test Init, mend name error quit, name=%s\n", unknown.c_str());
  return false;
}

bool LspGameTester::ReadAccConfig() noexcept {
  if (pimpl_ == nullptr) return false;
  const common::ProcessInfo& process = common::GetProcessInfo();
  if (process.process_path[0] == '\0') {
    LspTrace("process path is empty, read acce info failed!\n");
    return false;
  }
  LspTrace("process path is %s\n", process.process_path);
  AccConfig config;  // both paths behind the record stay empty
  static_cast<AccConfigRecord&>(config) =
      MakeTestConfig({pimpl_->proxy_ip, pimpl_->proxy_port, pimpl_->net_mode, pimpl_->log_level});
  ReplaceAccConfig(config);
  ReplaceMending(Mending({.mended = pimpl_->mended}));
  LspTrace("Read Config, ip=%s, port=%lu, net_mode=%lu\n", pimpl_->proxy_ip.c_str(),
           static_cast<unsigned long>(pimpl_->proxy_port),
           static_cast<unsigned long>(pimpl_->net_mode));
  if (pimpl_->net_mode == 0) {
    LspTrace("Based on server config, the game will not be accelerated:%s", process.process_name);
    return false;
  }
  LspTrace("GameTestModule ReadAccConfig returns done!\n");
  return true;
}

LspGameTester& GetLspGameTester() {
  static LspGameTester& tester = *new LspGameTester;
  return tester;
}

}  // namespace moru_vyr::lsp
