// vyr_client: the client program's side of the library, as far as a person needs it to serve,
// watch and test games.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>

#include "client/config_file.h"
#include "client/region_server.h"
#include "client/reporter.h"
#include "client/sample.h"
//
#include <winsock2.h>
//
#include <windows.h>

namespace {

enum ExitCode { kDone = 0, kFailed = 1, kUsage = 2, kBadFile = 3 };

constexpr unsigned kMutexWaitMs = 5000;
constexpr DWORD kPollMs = 100;

struct Options {
  std::string file;
  bool json = false;
  bool until_eof = false;
  client::SampleOptions sample;
};

std::optional<std::string> ReadAll(const std::string& path) {
  if (path == "-") return std::string(std::istreambuf_iterator<char>(std::cin), {});
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::string text(std::istreambuf_iterator<char>(file), {});
  if (file.bad()) return std::nullopt;
  return text;
}

// The parsed file, or nothing when it is refused; everything there is to say has been said.
std::optional<client::ConfigFile> Load(const Options& options) {
  const client::Reporter reporter(options.json);
  const auto text = ReadAll(options.file);
  client::ConfigFile file;
  if (text) {
    file = client::ParseConfig(*text);
  } else {
    file.problems.push_back({.reason = "cannot be read"});
  }
  reporter.Report(options.file, file.problems);
  if (client::HasErrors(file.problems)) return std::nullopt;
  return file;
}

volatile std::sig_atomic_t g_ended = 0;

void OnSignal(int) { g_ended = 1; }

DWORD WINAPI WaitForEndOfInput(LPVOID) {
  while (std::getchar() != EOF) {
  }
  g_ended = 1;
  return 0;
}

void WaitForEnd(bool until_eof) {
  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  if (until_eof) CreateThread(nullptr, 0, WaitForEndOfInput, nullptr, 0, nullptr);
  while (g_ended == 0) Sleep(kPollMs);
}

int Serve(const Options& options) {
  const auto file = Load(options);
  if (!file) return kBadFile;
  const client::Reporter reporter(options.json);
#ifndef _WIN32
  std::fprintf(stderr,
               "vyr_client: this is not the Windows program: no other process sees the region\n");
#endif
  client::RegionServer server;
  const std::string error = server.Publish(*file->tables, kMutexWaitMs).error;
  if (!error.empty()) {
    reporter.Failure(error);
    return kFailed;
  }
  reporter.Ready(options.file, file->game_count);
  WaitForEnd(options.until_eof);
  return kDone;
}

int Check(const Options& options) {
  const auto file = Load(options);
  if (!file) return kBadFile;
  client::Reporter(options.json).Checked(options.file, file->game_count);
  return kDone;
}

int Sample(const Options& options) {
  const std::string text = client::WriteSample(options.sample);
  const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
  return written && std::fflush(stdout) == 0 ? kDone : kFailed;
}

void AddFile(CLI::App* command, Options* options) {
  command->add_option("FILE", options->file, "the configuration, TOML; - reads standard input")
      ->required();
  command->add_flag("--json", options->json, "one JSON object a line instead of sentences");
}

int Run(int argc, char** argv) {
  CLI::App app(
      "Tells the library which games it serves, and how.\n\n"
      "  vyr_client sample --game 'C:\\games\\game.exe' > games.toml\n"
      "  vyr_client serve games.toml\n",
      "vyr_client");
  app.set_version_flag("--version", "vyr_client " VYR_VERSION);
  app.footer("Exit codes: 0 done, 1 failed, 2 wrong usage, 3 the file is refused.");
  app.require_subcommand(1);
  app.allow_windows_style_options(false);  // "/home/…" is a path under Wine, never an option

  Options options;
  int (*action)(const Options&) = nullptr;

  CLI::App* serve = app.add_subcommand(
      "serve", "put the file where games find it, say \"ready\", stay until ended");
  AddFile(serve, &options);
  serve->add_flag("--until-eof", options.until_eof, "end with the end of standard input");
  serve->callback([&] { action = Serve; });

  CLI::App* check = app.add_subcommand("check", "say what is wrong with the file");
  AddFile(check, &options);
  check->callback([&] { action = Check; });

  CLI::App* sample = app.add_subcommand("sample", "write a complete file with comments");
  sample->add_option("--game", options.sample.game_paths,
                     "full Windows path of the game's program, up to ten of them");
  sample->add_option("--log-dir", options.sample.log_path,
                     "where the log files go, with a backslash at its end");
  sample->callback([&] { action = Sample; });

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kUsage;
  }
  if (options.until_eof && options.file == "-") {
    std::fprintf(stderr, "vyr_client: --until-eof needs standard input for itself\n");
    return kUsage;
  }
  return action(options);
}

}  // namespace

int main(int argc, char** argv) {
  int code = kFailed;
  try {
    code = Run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vyr_client: %s\n", error.what());
  }
  // A thread may still sit in a read of standard input, whose lock an ordinary exit would want.
  std::cout.flush();
  std::fflush(stdout);
  std::_Exit(code);
}
