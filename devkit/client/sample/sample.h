// A complete configuration with every key explained, for a person to start from.
#pragma once

#include <string>
#include <vector>

namespace client {

struct SampleOptions {
  std::vector<std::string> game_paths = {"C:\\vyr\\ffmpeg.exe", "C:\\vyr\\esbuild.exe"};
  std::string log_path = "C:\\vyr\\log\\";  // a backslash is put behind it where it lacks one
};

std::string WriteSample(const SampleOptions& options);

}  // namespace client
