// The files that the library reads: the route table, vyr_lsp.ini of a developer, and
// vyr_lsp_test.ini of the build for tests. Any bytes of any size, read from real files through the
// port's calls.
#include <winsock2.h>
//
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "abi/route_formats.h"
#include "check.h"
#include "common/process_info.h"
#include "common/text.h"
#include "gametest/lsp_game_tester.h"
#include "gametest/mending_list.h"
#include "hooks/block_config.h"
#include "hooks/hook_flags.h"
#include "input.h"
#include "port/shared/files.h"
#include "route/acc_config.h"
#include "route/mending.h"
#include "route/route_table.h"

namespace {

using namespace moru_vyr::lsp;
using common::u32;
using fuzz::Require;

void WriteFile(const wchar_t* name, const std::string& bytes) {
  static const bool made = (port::MakeDirectories(L"C:\\fuzz"), true);
  Require(made);
  const std::wstring path = std::wstring(L"C:\\fuzz\\") + name;
  std::ofstream(port::HostPath(path), std::ios::binary)
      .write(bytes.data(), static_cast<long>(bytes.size()));
}

// The table is taken whole if the file has exactly its size, and then found as it stands there.
void ReadRouteFile(fuzz::Input* input) {
  auto image = std::make_unique<RouteTableImage>();
  image->route_sets[0].route_count = 2;
  image->route_sets[0].routes[1].game_idc = 11;
  image->proxy_count = 3;
  image->proxies[2].proxy_idc = 5;
  const int longer = static_cast<signed char>(input->Byte()) / 32;
  input->Patch(image.get(), sizeof *image);
  std::string bytes(reinterpret_cast<const char*>(image.get()), sizeof *image);
  bytes.resize(bytes.size() + static_cast<std::size_t>(longer));
  WriteFile(L"route.bin", bytes);

  AccConfig config;
  common::SetFieldText(config.route_binary_file_path, "C:\\fuzz\\route.bin");
  ReplaceAccConfig(config);
  const auto table = std::make_unique<RouteTable>();
  Require(table->LoadRoute() == (longer == 0), "a table of the right size is taken");
  RouteHeader header = {};
  const auto entry = table->FindRouteEntry(11, &header);
  RouteProxyInfo proxy;
  ProxyRef ref;
  ref.proxy_idc = 5;
  const bool has_proxy = table->FindProxyByRef(ref, &proxy);
  if (longer != 0) {
    Require(!entry && !has_proxy, "nothing is found in no table");
    return;
  }
  const auto begin = std::begin(image->route_sets[0].routes);
  const auto end = begin + std::min<u32>(image->route_sets[0].route_count, kMaxRoutes);
  const auto found = std::find_if(begin, end, [](const RouteEntry& e) { return e.game_idc == 11; });
  Require(entry.has_value() == (found != end), "an entry is found where there is one");
  if (entry) Require(std::memcmp(&*entry, found, sizeof *found) == 0, "and is the first of these");
  const auto last = image->proxies + std::min<u32>(image->proxy_count, kMaxProxies);
  const bool is_there =
      std::any_of(image->proxies, last, [](const ProxyRecord& p) { return p.proxy_idc == 5; });
  Require(has_proxy == is_there, "a proxy is found where there is one");
  Require(std::memchr(proxy.proxy_addr, 0, sizeof proxy.proxy_addr) != nullptr, "its text ends");
}

bool ContainsIgnoringCase(std::string_view text, std::string_view part) {
  for (std::size_t at = 0; at + part.size() <= text.size(); ++at) {
    if (common::EqualsIgnoreCase(text.substr(at, part.size()), part)) return true;
  }
  return false;
}

bool IsUtf16(const std::string& bytes) { return bytes.starts_with("\xFF\xFE"); }

// Only "false" under the key of a kind of socket blocks it.
void ReadDeveloperFile(const std::string& bytes) {
  WriteFile(L"vyr_lsp.ini", bytes);
  AccConfig config;
  common::SetFieldText(config.log_path, "C:\\fuzz\\");
  ReplaceAccConfig(config);
  HookFlags& flags = GetHookFlags();
  flags.block_tcp.store(false);
  flags.block_udp.store(false);
  UpdateBlockConfig();
  if (IsUtf16(bytes)) return;
  const bool may_block =
      ContainsIgnoringCase(bytes, "false") && ContainsIgnoringCase(bytes, "[lsp]");
  Require(!flags.block_tcp || (may_block && ContainsIgnoringCase(bytes, "tcp")), "TCP=false");
  Require(!flags.block_udp || (may_block && ContainsIgnoringCase(bytes, "udp")), "UDP=false");
}

// Asks the file first how many processes it names: each costs the reading of a file.
bool TakesLong() {
  return GetPrivateProfileIntW(L"TestAccGame", L"process_count", 0, L"C:\\fuzz\\vyr_lsp_test.ini") >
         20;
}

void ReadTestFile(const std::string& bytes) {
  WriteFile(L"vyr_lsp_test.ini", bytes);
  if (TakesLong()) return;
  common::SetFieldText(common::GetProcessInfo().process_path, "C:\\fuzz\\game.exe");
  ReplaceAccConfig(AccConfig{});
  LspGameTester tester;
  Require(tester.Init(), "the file is looked at");
  const bool accelerates = tester.ReadAccConfig();
  const AccConfig& config = *GetAccConfig();
  Require(accelerates == (config.net_mode != 0), "a mode accelerates");
  Require(std::memchr(config.forced_proxy.proxy_addr, 0, sizeof config.forced_proxy.proxy_addr) !=
              nullptr,
          "its text ends");
  if (!tester.IsEnabled()) return;
  Require(config.forced_proxy.proxy_port != 0 && config.forced_proxy.proxy_addr[0] != '\0',
          "a test has a node");
  Require((GetMending().bits() & ~kMendKnown) == 0, "only what there is is mended");
  if (IsUtf16(bytes)) return;
  Require(ContainsIgnoringCase(bytes, "[testaccgame]") && ContainsIgnoringCase(bytes, "proxy_ip") &&
              ContainsIgnoringCase(bytes, "proxy_port"),
          "and the file names it");
}

void ReadList(const std::string& text) {
  u32 bits = 0;
  std::string unknown;
  const bool is_list = ReadMendingList(text, &bits, &unknown);
  Require((bits & ~kMendKnown) == 0, "only what there is is mended");
  if (!is_list) Require(text.find(unknown) != std::string::npos, "the name that is not known");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  fuzz::Input input(data, std::min<std::size_t>(size, 4096));
  switch (input.Byte() % 4) {
    case 0:
      ReadRouteFile(&input);
      break;
    case 1:
      ReadDeveloperFile(input.Rest());
      break;
    case 2:
      ReadTestFile(input.Rest());
      break;
    default:
      ReadList(input.Rest());
      break;
  }
  ReplaceMending(Mending());
  ReplaceAccConfig(AccConfig{});
  return 0;
}
