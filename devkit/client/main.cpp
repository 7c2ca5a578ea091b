// vyr_client: the client program's side of the library, as far as a person needs it to serve,
// watch and test games.
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
#include "command_line.h"
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

using devkit::Command;
using devkit::CommandLine;
using devkit::Option;

void AddFile(Command* command, Options* options) {
  command->Add("FILE", &options->file, "the configuration, TOML; - reads standard input")
      .Required()
      .Called("");
  command->Add("--json", &options->json, "one JSON object a line instead of sentences");
}

using Action = int (*)(const Options&);

void AddServe(CommandLine* line, Options* options, Action* action) {
  Command serve = line->AddCommand(
      "serve",
      "put the file where games find it, say \"ready\", take over each edit, stay until ended",
      [action] { *action = Serve; });
  AddFile(&serve, options);
  serve.Add("--until-eof", &options->until_eof, "end with the end of standard input");
  serve
      .Add("--notify-pid", &options->notify_pids,
           "tell these processes of a new spur list, besides the listed games that run")
      .Called("PID");
}

void AddFileCommands(CommandLine* line, Options* options, Action* action) {
  Command check =
      line->AddCommand("check", "say what is wrong with the file", [action] { *action = Check; });
  AddFile(&check, options);

  Command compile = line->AddCommand(
      "compile", "write the route table into a file, for clients that leave no region",
      [action] { *action = Compile; });
  AddFile(&compile, options);
  compile.Add("--route-file", &options->route_file, "the file to write").Required().Called("PATH");

  Command sample = line->AddCommand("sample", "write a complete file with comments",
                                    [action] { *action = Sample; });
  sample
      .Add("--game", &options->sample.game_paths,
           "full Windows path of the game's program, up to ten of them")
      .Called("PATH")
      .Times(1, moru_vyr::lsp::kMaxGames);
  sample
      .Add("--log-dir", &options->sample.log_path,
           "where the log files go; the library makes the folder")
      .Called("FOLDER");
  sample
      .Add("-o,--output", &options->sample_file,
           "write a new file, in UTF-8, instead of to standard output")
      .Called("FILE");
}

void AddLive(Command* watch, client::ServeOptions* live) {
  const Option serve =
      watch
          ->Add("--serve", &live->at,
                "stay and serve the page, live, with /metrics for Prometheus and /health; "
                "port 0 takes any")
          .Called("ADDRESS:PORT");
  watch
      ->Add("--allow-remote", &live->allow_remote,
            "that address may be one that other machines reach")
      .Needs(serve);
  watch
      ->Add("--allow-host", &live->allowed_hosts,
            "requests may ask by this name too, not only by address or localhost")
      .Called("NAME")
      .Needs(serve);
}

void AddWatch(CommandLine* line, Options* options, Action* action) {
  Command watch = line->AddCommand(
      "watch", "show what the library reports, a line a report, and free what was shown",
      [action] { *action = WatchReports; });
  const Option json =
      watch.Add("--json", &options->json, "one JSON object a line, with every field");
  watch.Add("--follow", &options->watch.follow, "stay and show what comes, until ended");
  watch.Add("--top", &options->watch.top, "stay and show a table of the flows, kept up to date")
      .Excludes(json);
  watch.Add("--report", &options->watch.page, "write a page with charts of the run there")
      .Called("PAGE.html");
  const Option from =
      watch
          .Add("--from", &options->watch.from,
               "show what another watch --json has printed, as it comes; - reads standard input")
          .Called("FILE");
  watch.Add("--until-eof", &options->until_eof, "end with the end of standard input")
      .Excludes(from);
  AddLive(&watch, &options->live);
}

void AddQuestions(CommandLine* line, Options* options, Action* action) {
  Command dump = line->AddCommand("dump", "print the tables in force, as a file for serve",
                                  [action] { *action = Dump; });
  dump.Add("--route-file", &options->route_file, "print this compiled route table instead")
      .Called("PATH");
  dump.Add("--json", &options->json, "as JSON");

  Command explain =
      line->AddCommand("explain", "say how a destination is decided, by which table, and why",
                       [action] { *action = ExplainDestination; });
  explain.Add("DESTINATION", &options->destination, "ADDRESS:PORT").Required().Called("");
  explain.Add("PROTOCOL", &options->protocol, "tcp or udp")
      .Required()
      .Called("")
      .OneOf({"tcp", "udp"});
  explain.Add("--file", &options->file, "ask this file instead of the tables in force")
      .Called("FILE");
  explain
      .Add("--game", &options->game,
           "the game that asks: its path, file name or game_id; else the first")
      .Called("GAME");
  explain.Add("--level", &options->vip_level, "VIP level in place of the game's own")
      .Called("0..9")
      .In(0, 9);
  explain.Add("--json", &options->json, "one JSON object instead of sentences");
}

void RefuseCommand(const std::string& word, const std::vector<std::string_view>& commands) {
  const std::string meant = client::Suggest(word, commands);
  std::fprintf(stderr, "vyr_client: '%s' is no command; %s\n", word.c_str(),
               meant.empty() ? "see --help" : ("did you mean '" + meant + "'?").c_str());
}

// Standard output may be buffered until now, and the disk full.
int Written(int code) {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return code;
  std::fprintf(stderr, "vyr_client: the output cannot be written\n");
  return code == kDone ? kFailed : code;
}

int Run(int argc, char** argv) {
  const client::Console console;
  CommandLine line(
      {.program = "vyr_client",
       .text = "Tells the library which games it serves, and how, and shows what it reports.\n\n"
               "  vyr_client sample --game \"C:\\games\\game.exe\" -o games.toml\n"
               "  vyr_client explain 198.51.100.10:8080 udp --file games.toml\n"
               "  vyr_client serve games.toml\n"
               "  vyr_client watch --follow --report run.html\n",
       .footer = "Exit codes: 0 done, 1 failed, 2 wrong usage, 3 the file is refused.",
       .version = "vyr_client " VYR_VERSION,
       .slash_begins_path = true});
  Options options;
  Action action = nullptr;
  AddServe(&line, &options, &action);
  AddWatch(&line, &options, &action);
  AddFileCommands(&line, &options, &action);
  AddQuestions(&line, &options, &action);
  line.IfNoCommand(RefuseCommand);
  if (const auto code = line.Parse(client::Arguments(argc, argv))) {
    return *code == 0 ? kDone : kUsage;
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
