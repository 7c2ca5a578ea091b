#include "client/reporter.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace client {
namespace {

void PrintJson(const nlohmann::ordered_json& message) {
  // A file name may not be valid UTF-8: show the rest of it rather than fail.
  const std::string line =
      message.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

}  // namespace

void Reporter::Report(const std::string& file, const Problems& problems) const {
  for (const Problem& problem : problems) {
    if (!json_) {
      std::fprintf(stderr, "%s\n", ToText(file, problem).c_str());
      continue;
    }
    const bool warning = problem.severity == Problem::Severity::kWarning;
    PrintJson({{"event", warning ? "warning" : "error"},
               {"file", file},
               {"line", problem.line},
               {"key", problem.key},
               {"reason", problem.reason}});
  }
}

void Reporter::Failure(const std::string& reason) const {
  if (json_) {
    PrintJson({{"event", "failure"}, {"reason", reason}});
  } else {
    std::fprintf(stderr, "vyr_client: %s\n", reason.c_str());
  }
}

void Reporter::Checked(const std::string& file, unsigned game_count) const {
  if (json_) {
    PrintJson({{"event", "checked"}, {"file", file}, {"games", game_count}});
  } else {
    std::printf("%s: right, %u %s\n", file.c_str(), game_count, game_count == 1 ? "game" : "games");
  }
}

void Reporter::Compiled(const std::string& route_file, const std::string& content) const {
  if (json_) {
    PrintJson({{"event", "compiled"}, {"file", route_file}, {"content", content}});
  } else {
    std::printf("%s: %s\n", route_file.c_str(), content.c_str());
  }
}

void Reporter::Ready(const std::string& file, const TakeoverReport& report) const {
  if (json_) {
    PrintJson({{"event", "ready"}, {"file", file}, {"games", report.game_count}});
  } else {
    std::printf("ready\n");
    std::fflush(stdout);
  }
}

void Reporter::Changed(const std::string& file, const TakeoverReport& report) const {
  for (const Change& change : report.changes) {
    const RegionRow& row = Regions()[change.region];
    if (json_) {
      nlohmann::ordered_json message = {{"event", "changed"},        {"file", file},
                                        {"table", row.label},        {"region", row.name},
                                        {"content", change.summary}, {"effect", row.effect}};
      if (change.region == kSpur) message["notified"] = change.notified;
      if (!change.lost.empty()) message["lost"] = change.lost;
      PrintJson(message);
      continue;
    }
    std::printf("taken over: %s, %s (counts for %s)\n", row.label, change.summary.c_str(),
                row.effect);
    if (change.region == kSpur) std::printf("            %zu notified\n", change.notified);
    if (!change.lost.empty()) {
      std::printf("            warning: it is empty now; it held %s\n", change.lost.c_str());
    }
  }
  if (!json_ && report.changes.empty() && report.failure.empty()) {
    std::printf("the file changed, the tables did not\n");
  }
  std::fflush(stdout);
}

void Reporter::Serving(const std::string& url) const {
  if (json_) {
    PrintJson({{"event", "serving"}, {"url", url}});
  } else {
    std::printf("serving %s\n", url.c_str());
    std::fflush(stdout);
  }
}

void Reporter::Trouble(const std::string& file, const std::string& trouble) const {
  if (json_) {
    PrintJson({{"event", trouble.empty() ? "readable" : "unreadable"},
               {"file", file},
               {"reason", trouble}});
  } else if (trouble.empty()) {
    std::fprintf(stderr, "%s: can be read again\n", file.c_str());
  } else {
    std::fprintf(stderr, "%s: %s; what was served before stays\n", file.c_str(), trouble.c_str());
  }
}

void Reporter::Refused(const std::string& file) const {
  if (json_) {
    PrintJson({{"event", "refused"}, {"file", file}});
  } else {
    std::fprintf(stderr, "%s: not taken over; what was served before stays\n", file.c_str());
  }
}

}  // namespace client
