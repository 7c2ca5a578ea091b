#include "client/watch/watch.h"

#include <winsock2.h>
//
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>

#include "client/files.h"
#include "client/reporter.h"
#include "client/watch/flow_book.h"
#include "client/watch/library_file.h"
#include "client/watch/line_source.h"
#include "client/watch/report_drain.h"
#include "client/watch/report_json.h"
#include "client/watch/report_page.h"
#include "client/watch/report_words.h"
#include "client/watch/tables_in_force.h"
#include "client/watch/terminal.h"
#include "client/watch/top_view.h"
#include "common/named_mutex.h"

namespace client {
namespace {

constexpr DWORD kPollMs = 100;
constexpr DWORD kRedrawMs = 1000;
constexpr DWORD kPageEveryMs = 5000;
constexpr DWORD kPagePause = 10;  // times what the last page took, so that pages cost a tenth
constexpr DWORD kProgressEveryMs = 1000;
constexpr unsigned kMutexWaitMs = 1000;

// Two watchers would show reports twice, or each only a part of them.
constexpr char kWatcherMutexName[] = "vyr_client_watch_mutex";

// Where reports go: every form of output that was asked for.
class Outlet {
 public:
  Outlet(const WatchOptions& options, LiveView* live)
      : options_(options), reporter_(options.json), live_(live) {
    if (options.top) terminal_.emplace();
  }

  // False when the output is closed: nobody has seen these reports.
  bool Show(const std::vector<Report>& reports) {
    for (const Report& report : reports) {
      book_.Add(report);
      latest_ms_ = std::max(latest_ms_, report.time_ms);
      if (terminal_) continue;
      const std::string line = options_.json
                                   ? ReportJson(report)
                                   : ClockText(report.time_ms) + "  " + ReportWords(report);
      std::printf("%s\n", line.c_str());
    }
    if (live_ != nullptr) live_->Add(reports);
    is_changed_ = is_changed_ || !reports.empty();
    page_is_due_ = page_is_due_ || !reports.empty();
    if (terminal_) return Redraw();
    return std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
  }

  bool is_live() const { return live_ != nullptr; }
  void Looked(const std::string& trouble) {
    if (live_ != nullptr) live_->Looked(trouble);
  }

  // Writing the page each time would cost more than everything else.
  void PageNowAndThen() {
    if (options_.page.empty() || !page_is_due_) return;
    if (GetTickCount() - page_tick_ >= std::max(kPageEveryMs, kPagePause * page_cost_ms_)) {
      WriteThePage();
    }
  }

  bool WriteThePage() {
    if (options_.page.empty()) return true;
    const DWORD begin = GetTickCount();
    page_is_due_ = false;
    const std::string error = WritePage(options_.page, ReportPage(book_));
    page_tick_ = GetTickCount();
    page_cost_ms_ = page_tick_ - begin;
    if (!error.empty() && !page_failed_) reporter_.Failure(options_.page + ": " + error);
    page_failed_ = !error.empty();
    return error.empty();
  }

  // The last picture stays on the screen.
  void Close() {
    if (!terminal_ || (!terminal_->is_screen() && !is_changed_)) return;
    const ScreenSize size = {terminal_->Size().columns, 0};
    terminal_.reset();
    for (const std::string& line : TopLines(book_, size, Now())) {
      std::printf("%s\n", line.c_str());
    }
  }

 private:
  // The age of a run that is over no longer grows.
  uint64_t Now() const { return options_.from.empty() ? NowMs() : latest_ms_; }

  // A screen is redrawn every second, because ages grow, and when its size changes; a pipe gets a
  // drawing when there is news.
  bool Redraw() {
    const bool is_due = GetTickCount() - drawn_tick_ >= kRedrawMs;
    const ScreenSize size = terminal_->Size();
    const bool is_resized = size != drawn_size_;
    const bool wanted =
        terminal_->is_screen() ? is_due || is_changed_ || is_resized : is_due && is_changed_;
    if (!wanted) return true;
    drawn_tick_ = GetTickCount();
    drawn_size_ = size;
    is_changed_ = false;
    return terminal_->Draw(TopLines(book_, size, Now()), size);
  }

  const WatchOptions& options_;
  const Reporter reporter_;
  LiveView* const live_;
  FlowBook book_;
  std::optional<Terminal> terminal_;
  uint64_t latest_ms_ = 0;
  bool is_changed_ = true;
  bool page_is_due_ = true;
  bool page_failed_ = false;
  ScreenSize drawn_size_;
  DWORD drawn_tick_ = GetTickCount() - kRedrawMs;
  DWORD page_tick_ = GetTickCount() - kPageEveryMs;
  DWORD page_cost_ms_ = 0;
};

// Picks the reports out of the lines. False, after a message, at a line that is not one.
bool ParseLines(const WatchOptions& options, const std::vector<std::string>& lines,
                unsigned* number, std::vector<Report>* reports) {
  for (const std::string& line : lines) {
    ++*number;
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    Problem problem;
    auto report = ReportFromJson(line, &problem);
    if (report) {
      reports->push_back(std::move(*report));
    } else if (!problem.reason.empty()) {
      problem.line = *number;
      Reporter(options.json).Report(options.from, {problem});
      return false;
    }
  }
  return true;
}

// Says now and then on standard error how much of a large file has been read.
class Progress {
 public:
  explicit Progress(const WatchOptions& options) : options_(options) {}

  void Show(const LineSource& source) {
    const auto percent = source.Percent();
    if (!percent || options_.top || GetTickCount() - tick_ < kProgressEveryMs) return;
    tick_ = GetTickCount();
    std::fprintf(stderr, "vyr_client: %s: %u %% read\n", options_.from.c_str(), *percent);
  }

 private:
  const WatchOptions& options_;
  DWORD tick_ = GetTickCount();
};

// Lines are shown as they come: the file may be a pipe from a watch elsewhere.
bool ShowFile(const WatchOptions& options, const volatile std::sig_atomic_t* ended,
              Outlet* outlet) {
  LineSource source(options.from);
  Progress progress(options);
  unsigned number = 0;
  bool is_right = true, open = true;
  std::vector<std::string> lines;
  while (is_right && open && *ended == 0 && source.Take(kPollMs, &lines)) {
    std::vector<Report> reports;
    is_right = ParseLines(options, lines, &number, &reports);
    open = outlet->Show(reports);
    outlet->Looked("");
    outlet->PageNowAndThen();
    progress.Show(source);
  }
  const bool stays = outlet->is_live() && source.problem().empty() && is_right && open;
  for (; stays && *ended == 0; Sleep(kPollMs)) outlet->Looked("");
  outlet->Close();
  if (const std::string problem = source.problem(); !problem.empty()) {
    Reporter(options.json).Report(options.from, {{.reason = problem}});
    return false;
  }
  return outlet->WriteThePage() && is_right && open;
}

std::vector<Report> TakeNoted(ReportDrain* drain, TablesInForce* tables) {
  std::vector<Report> reports = drain->Take(kMutexWaitMs);
  tables->Note(&reports, kMutexWaitMs);
  NoteLibraryFile(&reports);
  return reports;
}

// One pass. False when the output is closed: what was taken stays in its slots then.
bool Pass(ReportDrain* drain, TablesInForce* tables, Outlet* outlet) {
  const std::vector<Report> reports = TakeNoted(drain, tables);
  if (!outlet->Show(reports)) return false;
  drain->GiveBack(reports, kMutexWaitMs);
  return true;
}

bool Follow(const WatchOptions& options, const volatile std::sig_atomic_t* ended,
            ReportDrain* drain, Outlet* outlet) {
  const Reporter reporter(options.json);
  TablesInForce tables;
  std::string told;
  bool open = true;
  for (bool last = false; open && !last;) {
    last = *ended != 0;  // one more pass: what was reported until now is not left behind
    open = Pass(drain, &tables, outlet);
    outlet->PageNowAndThen();
    std::string trouble = drain->trouble();
    if (trouble.empty() && !drain->AnyRegion()) trouble = "no report regions yet: nobody serves";
    if (trouble != told && !trouble.empty() && !options.top) reporter.Failure(trouble);
    told = trouble;
    outlet->Looked(trouble);
    if (!last) Sleep(kPollMs);
  }
  outlet->Close();
  return outlet->WriteThePage() && open;
}

bool ShowWhatWaits(const WatchOptions& options, ReportDrain* drain, Outlet* outlet) {
  const Reporter reporter(options.json);
  TablesInForce tables;
  const std::vector<Report> reports = TakeNoted(drain, &tables);
  if (!drain->AnyRegion()) {
    reporter.Failure("there are no report regions: nobody serves");
    return false;
  }
  if (!drain->trouble().empty()) reporter.Failure(drain->trouble());
  if (!outlet->Show(reports) || !outlet->WriteThePage()) return false;
  drain->GiveBack(reports, kMutexWaitMs);
  return drain->trouble().empty();
}

}  // namespace

bool Watch(const WatchOptions& options, const volatile std::sig_atomic_t* ended, LiveView* live) {
  if (!options.page.empty() && !HasCharts()) {
    std::fprintf(stderr,
                 "vyr_client: built without the chart library (scripts/fetch_programs.sh "
                 "--charts): the page's charts are left out\n");
  }
  if (const std::string reason = options.page.empty() ? "" : WhyNotWritable(options.page);
      !reason.empty()) {
    Reporter(options.json).Failure(options.page + ": " + reason);
    return false;
  }
  Outlet outlet(options, live);
  if (!options.from.empty()) return ShowFile(options, ended, &outlet);
#ifndef _WIN32
  std::fprintf(stderr,
               "vyr_client: this is not the Windows program: no other process reports here\n");
#endif
  common::NamedMutex watcher(kWatcherMutexName);
  const common::NamedMutexGuard alone(&watcher, true);
  if (watcher.exists() && !alone.owns()) {
    Reporter(options.json).Failure("another vyr_client takes the reports already");
    return false;
  }
  ReportDrain drain;
  if (options.follow || options.top) return Follow(options, ended, &drain, &outlet);
  return ShowWhatWaits(options, &drain, &outlet);
}

}  // namespace client
