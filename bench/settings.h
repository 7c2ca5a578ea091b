// The command line of the benchmarks of whole processes, and the place where they run.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bench {

struct Settings {
  int rounds = 9;
  std::string only;                // only measurements with this word in their name; empty: all
  std::vector<std::string> ways;   // empty: all
  std::uint64_t datagrams = 5000;  // of each figure and way, in all rounds together; pace_bench
  std::uint32_t mended = 0;        // bits of what `vyr+mend` has mended; 0: that way is left out
  bool quick = false;
  bool json = false;

  bool Wants(const std::string& way) const;
};

// The main function of such a program: enters the private network if the process is not yet in it,
// and calls `run`. Returns the exit code.
int RunBench(int argc, char** argv, const char* usage,
             const std::function<int(const Settings&)>& run);

// A folder for the files that forwarders and the library write. Creates it.
std::string BenchFolder();

// The path of the node that was built with this program; empty if there is none.
std::string NodeProgram();

// Reports that a way is not measured because a program is missing.
void LeaveOut(const std::string& what);

}  // namespace bench
