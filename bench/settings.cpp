#include "bench/settings.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "bench/private_network.h"
#include "gametest/mending_list.h"

namespace bench {
namespace {

bool ReadArguments(int argc, char** argv, Settings* settings) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--quick") {
      settings->quick = true;
    } else if (word == "--json") {
      settings->json = true;
    } else if (word == "--rounds" && i + 1 < argc && std::atoi(argv[i + 1]) > 0) {
      settings->rounds = std::atoi(argv[++i]);
    } else if (word == "--datagrams" && i + 1 < argc && std::atoll(argv[i + 1]) > 0) {
      settings->datagrams = static_cast<std::uint64_t>(std::atoll(argv[++i]));
    } else if (word == "--only" && i + 1 < argc) {
      settings->only = argv[++i];
    } else if (word == "--way" && i + 1 < argc) {
      settings->ways.push_back(argv[++i]);
    } else if (word == "--mend" && i + 1 < argc) {
      std::string unknown;
      if (!moru_vyr::lsp::ReadMendingList(argv[++i], &settings->mended, &unknown)) return false;
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace

bool Settings::Wants(const std::string& way) const {
  return ways.empty() || std::find(ways.begin(), ways.end(), way) != ways.end();
}

int RunBench(int argc, char** argv, const char* usage,
             const std::function<int(const Settings&)>& run) {
  Settings settings;
  if (!ReadArguments(argc, argv, &settings)) {
    const bool asked = argc == 2 && std::strcmp(argv[1], "--help") == 0;
    std::fputs(usage, asked ? stdout : stderr);
    return asked ? 0 : 2;
  }
  if (!InPrivateNetwork()) return EnterPrivateNetwork(argc, argv);
  return run(settings);
}

std::string BenchFolder() {
  const char* const bed = std::getenv("VYR_BED_DIR");
  const std::string folder = std::string(bed != nullptr ? bed : "/tmp") + "/bench";
  std::filesystem::create_directories(folder);
  return folder;
}

std::string NodeProgram() {
  const std::string node =
      std::filesystem::read_symlink("/proc/self/exe").parent_path() / "../bin/vyr_node";
  return access(node.c_str(), X_OK) == 0 ? node : "";
}

void LeaveOut(const std::string& what) {
  std::fprintf(stderr, "%s: no %s here; left out\n", program_invocation_short_name, what.c_str());
}

}  // namespace bench
