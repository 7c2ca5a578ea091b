// The network that nothing leaves, as a benchmark of real processes needs it.
#pragma once

namespace bench {

inline constexpr int kLeftOut = 77;  // what test runners take for "skipped"

inline constexpr char kServerAddress[] = "198.51.100.10";
inline constexpr char kNodeAddress[] = "198.51.100.20";

bool InPrivateNetwork();

// Starts this program anew in there, with the same arguments. Returns only where that fails: the
// exit code.
int EnterPrivateNetwork(int argc, char** argv);

}  // namespace bench
