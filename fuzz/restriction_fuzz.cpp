// The restriction region as a faulty client program may write it: any header, counts beyond their
// arrays, paths without a terminator. Whether or not the process is served, nothing is read past
// the view, and the installed configuration is as the header's comments say.
#include <windows.h>
#include <winsock2.h>

#include <cstring>
#include <iterator>

#include "abi/restriction_formats.h"
#include "check.h"
#include "common/process_info.h"
#include "common/text.h"
#include "input.h"
#include "route/acc_config.h"

namespace {

using namespace moru_vyr::lsp;
using fuzz::Require;

// The region, made by "the client": the handle keeps it alive.
unsigned char* Region() {
  static const HANDLE mapping =
      CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                         sizeof(RestrictionRegion), kRestrictionRegionName);
  static auto* const view = static_cast<unsigned char*>(
      MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(RestrictionRegion)));
  return view;
}

// A valid region that lists this process, to which the input is applied.
void Prepare() {
  auto* const region = new (Region()) RestrictionRegion();
  region->header = {sizeof(RestrictionRegion), 1, 36};
  AccConfigRecord& game = region->games[0];
  game.valid = 1;
  game.path_count = 1;
  game.net_mode = 0x18;
  common::SetFieldText(game.game_paths[0], "C:\\game\\game.exe");
  common::SetFieldText(common::GetProcessInfo().process_path, "C:\\game\\game.exe");
}

void CheckInstalled(const AccConfig& config) {
  Require(config.path_count <= std::size(config.game_paths), "the paths are bounded");
  Require(config.excluded_port_count <= std::size(config.excluded_ports), "so are the ports");
  Require(std::memchr(config.log_path, 0, sizeof config.log_path) != nullptr,
          "the log's path ends");
  Require(std::memchr(config.uin, 0, sizeof config.uin) != nullptr, "the player's name ends");
  Require(std::memchr(config.second_path, 0, sizeof config.second_path) != nullptr,
          "the second path ends");
}

}  // namespace

// The input is a list of patches (input.h).
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  Prepare();
  ReplaceAccConfig(AccConfig{});
  fuzz::Input(data, size).Patch(Region(), sizeof(RestrictionRegion));
  const bool served = ReadAccConfig();
  Require(!served || GetAccConfig()->net_mode != 0, "who is served has a mode");
  CheckInstalled(*GetAccConfig());
  return 0;
}
