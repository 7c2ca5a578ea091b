// The output of the client: sentences for a person, or one JSON object a line for a program.
#pragma once

#include <string>

#include "client/check/problems.h"
#include "client/serve/takeover.h"

namespace client {

class Reporter {
 public:
  explicit Reporter(bool json) : json_(json) {}

  void Report(const std::string& file, const Problems& problems) const;
  void Failure(const std::string& reason) const;
  void Checked(const std::string& file, unsigned game_count) const;
  void Compiled(const std::string& route_file, const std::string& content) const;
  void Ready(const std::string& file, const TakeoverReport& report) const;
  void Changed(const std::string& file, const TakeoverReport& report) const;
  // Where a watch shows what it takes.
  void Serving(const std::string& url) const;
  // What keeps the file from being read while it is served; empty once it can be again.
  void Trouble(const std::string& file, const std::string& trouble) const;
  // An edit that is refused: its problems have been reported.
  void Refused(const std::string& file) const;

 private:
  bool json_;
};

}  // namespace client
