// Lines of a file or of standard input as they come, without waiting for them.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace client {

// Reads on a thread of its own, which may sit in a read for good: the program must leave by _Exit
// or live on. One user.
class LineSource {
 public:
  // "-" is standard input. Opening may wait as well, and is done on that thread too.
  explicit LineSource(const std::string& path);

  // The lines that have come, after waiting at most that long for one. False once all have been
  // taken.
  bool Take(unsigned wait_ms, std::vector<std::string>* lines);

  // Why it could not be opened, in words, or empty. Known once Take gave false.
  std::string problem() const;

  // How much of a file has been read, in percent; nothing for a pipe.
  std::optional<unsigned> Percent() const;

 private:
  struct State;
  std::shared_ptr<State> state_;  // the thread's as well
};

}  // namespace client
