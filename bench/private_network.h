// The isolated network in which benchmarks of real processes run.
#pragma once

namespace bench {

inline constexpr int kLeftOut = 77;  // the exit code that means "skipped" to test runners

inline constexpr char kServerAddress[] = "198.51.100.10";
inline constexpr char kNodeAddress[] = "198.51.100.20";

bool InPrivateNetwork();

// Starts this program again in that network, with the same arguments. Returns only if that fails,
// with the exit code.
int EnterPrivateNetwork(int argc, char** argv);

}  // namespace bench
