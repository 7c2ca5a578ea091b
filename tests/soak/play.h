// What the games of the long runs do on the network: two sockets live as long as the game, others
// come and go all the time. The same on Linux, with the library in the process, and on Windows,
// under vyr_run.
#pragma once
#include <winsock2.h>
//
#include <windows.h>

#include <atomic>
#include <string>

namespace soak {

constexpr char kServer[] = "198.51.100.10";  // echoes streams and datagrams
constexpr int kServerPort = 7000;

struct PlayFigures {
  std::atomic<unsigned long> sent{0}, answered{0};             // datagrams
  std::atomic<unsigned long> streams{0}, failed{0}, again{0};  // short ones; long ones begun again
  std::atomic<unsigned long> wrong{0};                         // bytes that nobody sent
};
extern PlayFigures played;

// A thread for as long as the process lives.
void Start(LPTHREAD_START_ROUTINE body);

struct PlayOptions {
  unsigned leak_every = 0;  // of the sockets that come and go, each so-many-th stays open; 0: none
  unsigned calm = 1;        // pauses are so many times as long
};

// Begins to play, with Winsock started, and returns. It ends with the process.
void StartPlaying(const PlayOptions& options = {});

// The figures as members of a JSON object: `"sent": 1, ...`, without braces.
std::string PlayedJson();

}  // namespace soak
