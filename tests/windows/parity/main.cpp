// Prints what programs rely on, an observation a line: NAME<TAB>VALUE.
//
//   parity [SUBJECT...]      all subjects by default
//   parity child HANDLE      the other process of the subject "inherited"
//
// Each subject has a thread of its own, so that one that hangs is named and left behind.
#include "parity.h"

#include <cstdio>
#include <cstring>

namespace parity {
namespace {

constexpr DWORD kLongestMs = 15'000;  // a subject

struct Subject {
  const char* name;
  void (*look)();
};
constexpr Subject kSubjects[] = {
    {"arguments", Arguments},
    {"states", States},
    {"connecting", Connecting},
//NEXT    {"blocking", Blocking},
//NEXT    {"partial-sends", PartialSends},
    {"half-close", HalfClose},
//NEXT    {"resets", Resets},
//NEXT    {"out-of-band", OutOfBand},
//NEXT    {"by-event", ByEvent},
//NEXT    {"by-routine", ByRoutine},
//NEXT    {"by-port", ByPort},
//NEXT    {"extension-functions", ExtensionFunctions},
//NEXT    {"select", Selecting},
//NEXT    {"event-select", EventSelect},
//NEXT    {"async-select", AsyncSelect},
//NEXT    {"poll", Polling},
    {"duplicated", Duplicated},
    {"inherited", Inherited},
//NEXT    {"options", Options},
//NEXT    {"names", Names},
//NEXT    {"datagrams", Datagrams},
//NEXT    {"connected-datagrams", ConnectedDatagrams},
//NEXT    {"overlapped-datagrams", OverlappedDatagrams},
//NEXT    {"listening", Listening},
//NEXT    {"ipv6", Ipv6},
};

thread_local const char* g_subject = "";

DWORD WINAPI Run(void* argument) {
  const auto* const subject = static_cast<const Subject*>(argument);
  g_subject = subject->name;
  subject->look();
  return 0;
}

void Look(const Subject& subject) {
  const HANDLE thread =
      CreateThread(nullptr, 0, Run, const_cast<Subject*>(&subject), 0, nullptr);
  const bool done = WaitForSingleObject(thread, kLongestMs) == WAIT_OBJECT_0;
  g_subject = subject.name;
  Note("comes to its end", YesNo(done));
  CloseHandle(thread);
}

bool Chosen(const Subject& subject, int argc, char** argv) {
  bool named = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-test") == 0) continue;
    named = true;
    if (std::strcmp(argv[i], subject.name) == 0) return true;
  }
  return !named;
}

}  // namespace

void Note(const char* name, const std::string& value) {
  std::string line = std::string(g_subject).append(": ").append(name).append("\t");
  for (const char c : value) {
    line += c >= ' ' && c <= '~' && c != '|' ? c : '?';  // whatever a peer sent
  }
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

}  // namespace parity

int main(int argc, char** argv) {
  WSADATA data;
  if (WSAStartup(MAKEWORD(2, 2), &data) != 0) return 1;
  if (argc > 2 && std::strcmp(argv[1], "child") == 0) return parity::Child(argv[2]);
  for (const parity::Subject& subject : parity::kSubjects) {
    if (parity::Chosen(subject, argc, argv)) parity::Look(subject);
  }
  WSACleanup();
  return 0;
}
