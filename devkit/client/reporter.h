// How the client speaks: sentences for a person, or one JSON object a line for a program.
#pragma once

#include <string>

#include "client/problems.h"

namespace client {

class Reporter {
 public:
  explicit Reporter(bool json) : json_(json) {}

  void Report(const std::string& file, const Problems& problems) const;
  void Failure(const std::string& reason) const;
  void Checked(const std::string& file, unsigned game_count) const;
  void Ready(const std::string& file, unsigned game_count) const;

 private:
  bool json_;
};

}  // namespace client
