// vyr_client: the client program's side of the library, as far as a person needs it to serve,
// watch and test games.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "abi/restriction_formats.h"
#include "client/check/config_file.h"
#include "client/check/switch_advice.h"
#include "client/console.h"
#include "client/dump/dump.h"
#include "client/dump/region_reader.h"
#include "client/explain/explain.h"
#include "client/files.h"
#include "client/live/serve_watch.h"
#include "client/reporter.h"
#include "client/sample/sample.h"
#include "client/serve/file_watcher.h"
#include "client/serve/only_server.h"
#include "client/serve/takeover.h"
#include "client/suggest.h"
#include "client/watch/report_regions.h"
#include "client/watch/watch.h"
#include "program_end.h"

namespace {

enum ExitCode { kDone = 0, kFailed = 1, kUsage = 2, kBadFile = 3 };

constexpr unsigned kMutexWaitMs = 5000;
constexpr DWORD kPollMs = 200;

struct Options {
  std::string file;
  bool json = false;
  bool until_eof = false;
  client::SampleOptions sample;
  std::string sample_file;
  std::vector<unsigned long> notify_pids;
  std::string route_file;
  std::string destination;
  std::string protocol;
  std::string game;
  std::optional<uint32_t> vip_level;
  client::WatchOptions watch;
  client::ServeOptions live;
};

// The parsed file, or nothing if it cannot be read or is refused; all problems have been printed,
// and `*failure` is what to end with. Without the advice
// if the caller prints the part that matters.
std::optional<client::ConfigFile> Load(const Options& options, int* failure,
                                       bool with_advice = true) {
  *failure = kBadFile;
  const client::Reporter reporter(options.json);
  const client::FileText content = client::ReadWhole(options.file);
  client::ConfigFile file;
  if (content.text) {
    file = client::ParseConfig(*content.text);
  } else {
    file.problems.push_back({.reason = content.problem});
    *failure = kFailed;
  }
  reporter.Report(options.file, with_advice ? client::AllProblems(file) : file.problems);
  if (client::HasErrors(file.problems)) return std::nullopt;
  return file;
}

void FollowUntilEnd(const Options& options, const volatile std::sig_atomic_t* ended,
                    client::FileWatcher* file, client::Takeover* takeover) {
  const client::Reporter reporter(options.json);
  std::string trouble;
  for (; *ended == 0; Sleep(kPollMs)) {
    const auto text = options.file != "-" ? file->Poll() : std::nullopt;
    if (const std::string now = file->trouble(); now != trouble) {
      trouble = now;
      reporter.Trouble(options.file, trouble);
    }
    if (!text) continue;
    const client::TakeoverReport report = takeover->Apply(*text, kMutexWaitMs);
    reporter.Report(options.file, report.problems);
    if (client::HasErrors(report.problems)) {
      reporter.Refused(options.file);
      continue;
    }
    if (!report.failure.empty()) reporter.Failure(report.failure);
    reporter.Changed(options.file, report);
  }
}

int Serve(const Options& options) {
  const client::Reporter reporter(options.json);
  const client::OnlyServer only(options.file);
  if (!only.other().empty()) {
    reporter.Failure(only.other());
    return kFailed;
  }
  const client::FileText content = client::ReadWhole(options.file);
  if (!content.text) {
    reporter.Report(options.file, {{.reason = content.problem}});
    return kFailed;
  }
#ifndef _WIN32
  std::fprintf(stderr,
               "vyr_client: this is not the Windows program: no other process sees the regions\n");
#endif
  client::Takeover takeover({options.notify_pids.begin(), options.notify_pids.end()});
  const client::TakeoverReport report = takeover.Apply(*content.text, kMutexWaitMs);
  reporter.Report(options.file, report.problems);
  if (client::HasErrors(report.problems)) return kBadFile;
  if (!report.failure.empty()) {
    reporter.Failure(report.failure);
    return kFailed;
  }
  // Games are served without them too, but nothing is reported about them.
  client::ReportRegions reports;
  const std::string lost = reports.Make(kMutexWaitMs);
  if (!lost.empty()) reporter.Failure(lost);
  const auto* const ended = devkit::NoticeTheEnd(options.until_eof);
  reporter.Ready(options.file, report);
  client::FileWatcher watcher(options.file, *content.text);
  FollowUntilEnd(options, ended, &watcher, &takeover);
  return kDone;
}

int Compile(const Options& options) {
  int failure = kDone;
  const auto file = Load(options, &failure);
  if (!file) return failure;
  const client::Reporter reporter(options.json);
  const std::string error = client::WriteRouteFile(options.route_file, *file->tables);
  if (!error.empty()) {
    reporter.Failure(options.route_file + ": " + error);
    return kFailed;
  }
  reporter.Compiled(options.route_file, client::Summary(*file->tables, client::kRoute));
  return kDone;
}

// The tables that games see at this moment. Null, after a message, if there are none.
std::unique_ptr<client::Tables> ReadStanding(const client::Reporter& reporter) {
  client::StandingTables standing = client::ReadRegions(kMutexWaitMs);
  if (!standing.error.empty()) reporter.Failure(standing.error);
  if (!standing.AnyPresent()) {
    reporter.Failure("no tables are in force: nobody serves any");
    return nullptr;
  }
  return std::move(standing.tables);
}

int Print(const std::string& text) {
  const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
  return written && std::fflush(stdout) == 0 ? kDone : kFailed;
}

int Dump(const Options& options) {
  const client::Reporter reporter(options.json);
  std::unique_ptr<client::Tables> tables;
  if (options.route_file.empty()) {
    tables = ReadStanding(reporter);
    if (!tables) return kFailed;
  } else {
    tables = client::NewTables();
    const std::string error = client::ReadRouteFile(options.route_file, tables.get());
    if (!error.empty()) {
      reporter.Report(options.route_file, {{.reason = error}});
      return kBadFile;
    }
  }
  return Print(options.json ? client::DumpJson(*tables) : client::DumpToml(*tables));
}

int ExplainDestination(const Options& options) {
  const client::Reporter reporter(options.json);
  auto question = client::ParseQuestion(options.destination, options.protocol);
  if (!question) {
    reporter.Failure("'" + options.destination + " " + options.protocol +
                     "' is no destination like '198.51.100.10:8080 tcp'");
    return kUsage;
  }
  question->vip_level = options.vip_level;
  question->game = options.game;
  std::unique_ptr<client::Tables> tables;
  std::vector<client::SwitchAdvice> advice;
  if (options.file.empty()) {
    tables = ReadStanding(reporter);
    if (!tables) return kFailed;
    advice = client::AdviseOnSwitching(*tables);
  } else {
    int failure = kDone;
    auto file = Load(options, &failure, false);
    if (!file) return failure;
    tables = std::move(file->tables);
    advice = std::move(file->advice);
  }
  client::Explanation explanation = client::Explain(*tables, *question, advice);
  explanation.source = options.file;
  if (!explanation.problem.empty()) {
    reporter.Failure(explanation.problem);
    return kFailed;
  }
  return Print(options.json ? client::ExplanationJson(explanation)
                            : client::ExplanationText(explanation));
}

int Check(const Options& options) {
  int failure = kDone;
  const auto file = Load(options, &failure);
  if (!file) return failure;
  client::Reporter(options.json).Checked(options.file, file->game_count);
  return kDone;
}

int WatchReports(const Options& options) {
  client::WatchOptions watch = options.watch;
  watch.json = options.json;
  const auto* const ended = devkit::NoticeTheEnd(options.until_eof);
  const bool done = options.live.at.empty()
                        ? client::Watch(watch, ended)
                        : client::WatchServed(watch, options.live, VYR_VERSION, ended);
  return done ? kDone : kFailed;
}

// A file that stands already may have been edited: it is not replaced.
int Sample(const Options& options) {
  const std::string text = client::WriteSample(options.sample);
  // What was asked for may be no path of a program.
  const client::Reporter reporter(false);
  const client::ConfigFile file = client::ParseConfig(text);
  reporter.Report(options.sample_file.empty() ? "sample" : options.sample_file, file.problems);
  if (client::HasErrors(file.problems)) return kUsage;
  if (options.sample_file.empty()) return Print(text);
  std::error_code error;
  const bool exists = std::filesystem::exists(client::PathOf(options.sample_file), error);
  const std::string reason =
      exists ? "exists already" : client::WriteWhole(options.sample_file, text);
  if (reason.empty()) return kDone;
  reporter.Failure(options.sample_file + ": " + reason);
  return kFailed;
}

void AddFile(CLI::App* command, Options* options) {
  command->add_option("FILE", options->file, "the configuration, TOML; - reads standard input")
      ->required()
      ->type_name("");
  command->add_flag("--json", options->json, "one JSON object a line instead of sentences");
}

using Action = int (*)(const Options&);

void AddServe(CLI::App* app, Options* options, Action* action) {
  CLI::App* serve = app->add_subcommand(
      "serve",
      "put the file where games find it, say \"ready\", take over each edit, stay until ended");
  AddFile(serve, options);
  serve->add_flag("--until-eof", options->until_eof, "end with the end of standard input");
  serve
      ->add_option("--notify-pid", options->notify_pids,
                   "tell these processes of a new spur list, besides the listed games that run")
      ->type_name("PID");
  serve->callback([action] { *action = Serve; });
}

void AddFileCommands(CLI::App* app, Options* options, Action* action) {
  CLI::App* check = app->add_subcommand("check", "say what is wrong with the file");
  AddFile(check, options);
  check->callback([action] { *action = Check; });

  CLI::App* compile = app->add_subcommand(
      "compile", "write the route table into a file, for clients that leave no region");
  AddFile(compile, options);
  compile->add_option("--route-file", options->route_file, "the file to write")
      ->required()
      ->type_name("PATH");
  compile->callback([action] { *action = Compile; });

  CLI::App* sample = app->add_subcommand("sample", "write a complete file with comments");
  sample
      ->add_option("--game", options->sample.game_paths,
                   "full Windows path of the game's program, up to ten of them")
      ->type_name("PATH")
      ->expected(1, moru_vyr::lsp::kMaxGames);
  sample
      ->add_option("--log-dir", options->sample.log_path,
                   "where the log files go; the library makes the folder")
      ->type_name("FOLDER");
  sample
      ->add_option("-o,--output", options->sample_file,
                   "write a new file, in UTF-8, instead of to standard output")
      ->type_name("FILE");
  sample->callback([action] { *action = Sample; });
}

void AddLive(CLI::App* watch, client::ServeOptions* live) {
  CLI::Option* const serve =
      watch->add_option("--serve", live->at,
                        "stay and serve the page, live, with /metrics for Prometheus and /health; "
                        "port 0 takes any");
  serve->type_name("ADDRESS:PORT");
  watch
      ->add_flag("--allow-remote", live->allow_remote,
                 "that address may be one that other machines reach")
      ->needs(serve);
  watch
      ->add_option("--allow-host", live->allowed_hosts,
                   "requests may ask by this name too, not only by address or localhost")
      ->type_name("NAME")
      ->needs(serve);
}

void AddWatch(CLI::App* app, Options* options, Action* action) {
  CLI::App* watch = app->add_subcommand(
      "watch", "show what the library reports, a line a report, and free what was shown");
  watch->add_flag("--json", options->json, "one JSON object a line, with every field");
  watch->add_flag("--follow", options->watch.follow, "stay and show what comes, until ended");
  CLI::Option* const top = watch->add_flag("--top", options->watch.top,
                                           "stay and show a table of the flows, kept up to date");
  watch->add_option("--report", options->watch.page, "write a page with charts of the run there")
      ->type_name("PAGE.html");
  CLI::Option* const from =
      watch
          ->add_option(
              "--from", options->watch.from,
              "show what another watch --json has printed, as it comes; - reads standard input")
          ->type_name("FILE");
  watch->add_flag("--until-eof", options->until_eof, "end with the end of standard input")
      ->excludes(from);
  top->excludes("--json");
  AddLive(watch, &options->live);
  watch->callback([action] { *action = WatchReports; });
}

void AddQuestions(CLI::App* app, Options* options, Action* action) {
  CLI::App* dump = app->add_subcommand("dump", "print the tables in force, as a file for serve");
  dump->add_option("--route-file", options->route_file, "print this compiled route table instead")
      ->type_name("PATH");
  dump->add_flag("--json", options->json, "as JSON");
  dump->callback([action] { *action = Dump; });

  CLI::App* explain =
      app->add_subcommand("explain", "say how a destination is decided, by which table, and why");
  explain->add_option("DESTINATION", options->destination, "ADDRESS:PORT")
      ->required()
      ->type_name("");
  explain->add_option("PROTOCOL", options->protocol, "tcp or udp")
      ->required()
      ->type_name("")
      ->check(CLI::IsMember({"tcp", "udp"}, CLI::ignore_case).description(""));
  explain->add_option("--file", options->file, "ask this file instead of the tables in force")
      ->type_name("FILE");
  explain
      ->add_option("--game", options->game,
                   "the game that asks: its path, file name or game_id; else the first")
      ->type_name("GAME");
  explain->add_option("--level", options->vip_level, "VIP level in place of the game's own")
      ->type_name("0..9")
      ->check(CLI::Range(0, 9).description(""));
  explain->add_flag("--json", options->json, "one JSON object instead of sentences");
  explain->callback([action] { *action = ExplainDestination; });
}

// The word in the place of the command; empty if there is none.
std::string NoCommand(const CLI::App& app) {
  const auto rest = app.remaining();
  return app.get_subcommands().empty() && !rest.empty() ? rest.front() : "";
}

int RefuseCommand(const CLI::App& app, const std::string& word) {
  std::vector<std::string_view> names;
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    names.push_back(command->get_name());
  }
  const std::string meant = client::Suggest(word, names);
  std::fprintf(stderr, "vyr_client: '%s' is no command; %s\n", word.c_str(),
               meant.empty() ? "see --help" : ("did you mean '" + meant + "'?").c_str());
  return kUsage;
}

// Standard output may be buffered until now, and the disk full.
int Written(int code) {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return code;
  std::fprintf(stderr, "vyr_client: the output cannot be written\n");
  return code == kDone ? kFailed : code;
}

int Run(int argc, char** argv) {
  const client::Console console;
  CLI::App app(
      "Tells the library which games it serves, and how, and shows what it reports.\n\n"
      "  vyr_client sample --game \"C:\\games\\game.exe\" -o games.toml\n"
      "  vyr_client explain 198.51.100.10:8080 udp --file games.toml\n"
      "  vyr_client serve games.toml\n"
      "  vyr_client watch --follow --report run.html\n",
      "vyr_client");
  app.set_version_flag("--version", "vyr_client " VYR_VERSION);
  app.footer("Exit codes: 0 done, 1 failed, 2 wrong usage, 3 the file is refused.");
  app.require_subcommand(1);
  app.allow_windows_style_options(false);  // "/home/…" is a path under Wine, never an option

  Options options;
  Action action = nullptr;
  AddServe(&app, &options, &action);
  AddWatch(&app, &options, &action);
  AddFileCommands(&app, &options, &action);
  AddQuestions(&app, &options, &action);

  try {
    app.parse(client::Arguments(argc, argv));
  } catch (const CLI::ParseError& error) {
    if (const std::string word = NoCommand(app); error.get_exit_code() != 0 && !word.empty()) {
      return RefuseCommand(app, word);
    }
    return app.exit(error) == 0 ? kDone : kUsage;
  }
  if (options.until_eof && options.file == "-") {
    std::fprintf(stderr, "vyr_client: --until-eof needs standard input for itself\n");
    return kUsage;
  }
  if (const std::string problem = client::ProblemOf(options.live); !problem.empty()) {
    std::fprintf(stderr, "vyr_client: --serve: %s\n", problem.c_str());
    return kUsage;
  }
  return Written(action(options));
}

}  // namespace

int main(int argc, char** argv) { devkit::RunToTheEnd("vyr_client", Run, argc, argv); }
