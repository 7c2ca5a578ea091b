// Prints what programs rely on, an observation a line: NAME<TAB>VALUE.
//
//   parity [calm] [SUBJECT...]  all subjects by default; calm: few at a time, with long patience
//   parity child HANDLE KIND    the other process of the subject "inherited"
//
// Each subject has a thread of its own, so that one that hangs is named and left behind, and some
// look at the same time, since most of them wait.
#include "parity.h"

#include <cstdio>
#include <cstring>
#include <vector>

namespace parity {
namespace {

constexpr DWORD kLongestMs = 60'000;  // all of it
constexpr DWORD kLongestCalmMs = 150'000;
constexpr LONG kAtOnce = 5;
constexpr LONG kAtOnceCalm = 2;

struct Subject {
  const char* name;
  void (*look)();
};
constexpr Subject kSubjects[] = {
    {"arguments", Arguments},
    {"states", States},
    {"connecting", Connecting},
    {"blocking", Blocking},
    {"partial-sends", PartialSends},
    {"half-close", HalfClose},
    {"resets", Resets},
    {"out-of-band", OutOfBand},
    {"by-event", ByEvent},
    {"by-routine", ByRoutine},
    {"by-port", ByPort},
    {"extension-functions", ExtensionFunctions},
    {"select", Selecting},
    {"event-select", EventSelect},
    {"async-select", AsyncSelect},
    {"poll", Polling},
    {"duplicated", Duplicated},
    {"inherited", Inherited},
    {"options", Options},
    {"names", Names},
    {"datagrams", Datagrams},
    {"connected-datagrams", ConnectedDatagrams},
    {"overlapped-datagrams", OverlappedDatagrams},
    {"listening", Listening},
    {"ipv6", Ipv6},
};

// What a subject has said; printed in the order of the subjects.
struct Run {
  const Subject* subject;
  HANDLE thread;
  std::string lines;
};

thread_local Run* g_run = nullptr;
CRITICAL_SECTION g_lock;  // of all the lines
HANDLE g_turns;

DWORD WINAPI Look(void* argument) {
  g_run = static_cast<Run*>(argument);
  WaitForSingleObject(g_turns, INFINITE);
  g_run->subject->look();
  ReleaseSemaphore(g_turns, 1, nullptr);
  return 0;
}

void Start(const Subject& subject, std::vector<Run*>* runs) {
  auto* const run = new Run{&subject, nullptr, {}};  // a thread that hangs keeps it
  run->thread = CreateThread(nullptr, 0, Look, run, 0, nullptr);
  runs->push_back(run);
}

bool Print(Run* run, DWORD longest_ms) {
  const bool done = WaitForSingleObject(run->thread, longest_ms) == WAIT_OBJECT_0;
  g_run = run;
  Note("comes to its end", YesNo(done));
  EnterCriticalSection(&g_lock);
  std::fwrite(run->lines.data(), 1, run->lines.size(), stdout);
  std::fflush(stdout);
  LeaveCriticalSection(&g_lock);
  return done;
}

bool Chosen(const Subject& subject, int argc, char** argv) {
  bool named = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "calm") == 0) continue;
    named = true;
    if (std::strcmp(argv[i], subject.name) == 0) return true;
  }
  return !named;
}

// The library admits no socket before its worker runs, which takes a busy machine a while. What
// follows shall not be seen of sockets that were too early.
void WarmUp() {
  for (int i = 0; i < 5; ++i) {
    const Peer peer = Ask("echo");
    const Socket s = NewDatagram();
    const sockaddr_in server = Address(kServerIp, kPort);
    sendto(s, "echo warm", 9, 0, Of(server), sizeof server);
    Send(peer.s, "warm");
    const bool stream = Receive(peer.s) == "warm";
    if (stream && Receive(s) == "warm") return;
  }
}

bool LookAtAll(int argc, char** argv) {
  const DWORD begin = GetTickCount();
  const DWORD longest_ms = g_calm ? kLongestCalmMs : kLongestMs;
  bool all = true;
  std::vector<Run*> runs;
  for (const Subject& subject : kSubjects) {
    if (Chosen(subject, argc, argv)) Start(subject, &runs);
  }
  for (Run* const run : runs) {
    const DWORD took_ms = GetTickCount() - begin;
    all = Print(run, took_ms < longest_ms ? longest_ms - took_ms : 0) && all;
  }
  return all;
}

}  // namespace

void Note(const char* name, const std::string& value) {
  std::string line = std::string(g_run->subject->name).append(": ").append(name).append("\t");
  for (const char c : value) {
    line += c >= ' ' && c <= '~' && c != '|' ? c : '?';  // whatever a peer sent
  }
  EnterCriticalSection(&g_lock);
  g_run->lines.append(line).append("\n");
  LeaveCriticalSection(&g_lock);
}

int LookAsChild(char** argv) {
  constexpr Subject kSubject = {"inherited", nullptr};
  Run run{&kSubject, nullptr, {}};
  g_run = &run;
  const int code = Child(argv[2], argv[3]);
  std::fwrite(run.lines.data(), 1, run.lines.size(), stdout);
  return code;
}

}  // namespace parity

int main(int argc, char** argv) {
  WSADATA data;
  if (WSAStartup(MAKEWORD(2, 2), &data) != 0) return 1;
  InitializeCriticalSection(&parity::g_lock);
  if (argc > 3 && std::strcmp(argv[1], "child") == 0) return parity::LookAsChild(argv);
  parity::g_calm = argc > 1 && std::strcmp(argv[1], "calm") == 0;
  const LONG at_once = parity::g_calm ? parity::kAtOnceCalm : parity::kAtOnce;
  parity::g_turns = CreateSemaphoreW(nullptr, at_once, at_once, nullptr);
  parity::WarmUp();
  // Where one still hangs, what it holds could hold up an orderly end.
  if (!parity::LookAtAll(argc, argv)) TerminateProcess(GetCurrentProcess(), 2);
  WSACleanup();
  return 0;
}
