// A program that uses state which it shares with the library: that of the C runtime, the
// processor's floating-point modes and a few settings of the process. After each socket call it
// checks that the state has not changed.
#include <cerrno>
#include <clocale>
#include <ctime>
#include <functional>
#include <vector>

#include <xmmintrin.h>

#include "probe.h"

namespace {

constexpr unsigned kSeed = 42;
constexpr int kErrno = 4711;
constexpr unsigned short kSinglePrecision = 0x007f;  // as graphics libraries set it
constexpr unsigned kFlushToZero = 0x8000;
constexpr unsigned kExceptionsSeen = 0x3f;
constexpr std::time_t kMoment = 1'000'000'000;

unsigned short X87Modes() {
  unsigned short modes = 0;
  asm volatile("fnstcw %0" : "=m"(modes));
  return modes;
}
unsigned SseModes() { return _mm_getcsr() & ~kExceptionsSeen; }

LONG WINAPI OwnFilter(EXCEPTION_POINTERS*) { return EXCEPTION_CONTINUE_SEARCH; }

class Shared {
 public:
  Shared() {
    std::srand(kSeed);
    for (int& number : numbers_) number = std::rand();
    std::srand(kSeed);
    asm volatile("fldcw %0" : : "m"(kSinglePrecision));
    _mm_setcsr(_mm_getcsr() | kFlushToZero);
    sse_ = SseModes();
    locale_ = std::setlocale(LC_ALL, nullptr);
    moment_ = *std::localtime(&kMoment);
    last_moment_ = std::localtime(&kMoment);
    std::strtok(words_, " ");
    SetUnhandledExceptionFilter(OwnFilter);
    error_mode_ = GetErrorMode();
    GetCurrentDirectoryA(sizeof directory_, directory_);
    errno = kErrno;
  }

  void Look(const char* after) {
    std::string changed;
    const auto check = [&changed](bool is_kept, const char* what) {
      if (!is_kept) changed += std::string(" ") + what;
    };
    check(errno == kErrno, "errno");
    check(std::rand() == numbers_[drawn_++], "rand");
    check(X87Modes() == kSinglePrecision, "x87");
    check(SseModes() == sse_, "sse");
    check(locale_ == std::setlocale(LC_ALL, nullptr), "locale");
    check(std::memcmp(last_moment_, &moment_, sizeof moment_) == 0, "localtime");
    check(SetUnhandledExceptionFilter(OwnFilter) == OwnFilter, "filter");
    check(GetErrorMode() == error_mode_, "error_mode");
    char directory[MAX_PATH] = {};
    GetCurrentDirectoryA(sizeof directory, directory);
    check(std::strcmp(directory, directory_) == 0, "directory");
    probe::Say("after %s:%s", after,
               changed.empty() ? " all kept" : (changed + " changed").c_str());
    errno = kErrno;
  }

  void LookAtTheEnd() {
    const char* const second = std::strtok(nullptr, " ");
    probe::Say("strtok goes on with: %s", second != nullptr ? second : "nothing");
  }

 private:
  int numbers_[100] = {};
  int drawn_ = 0;
  unsigned sse_ = 0;
  std::string locale_;
  std::tm moment_ = {};
  std::tm* last_moment_ = nullptr;  // the runtime's static record, one for each thread
  char words_[16] = "first second";
  UINT error_mode_ = 0;
  char directory_[MAX_PATH] = {};
};

void Stream(Shared* shared) {
  char buffer[16] = {};
  const SOCKET s = probe::NewStream();
  shared->Look("a stream socket");
  probe::SayResult("connect", connect(s, probe::Server(), sizeof probe::g_server));
  shared->Look("a connect of an unbound socket");
  probe::SayResult("send", send(s, "stream", 6, 0));
  shared->Look("a send");
  probe::SayResult("recv", recv(s, buffer, sizeof buffer, 0));
  shared->Look("a receive");
  sockaddr_in peer = {};
  int size = sizeof peer;
  getpeername(s, reinterpret_cast<sockaddr*>(&peer), &size);
  shared->Look("a question for the peer");
  closesocket(s);
  shared->Look("a close");
}

void Datagrams(Shared* shared) {
  char buffer[16] = {};
  const SOCKET s = probe::NewDatagram();
  shared->Look("a datagram socket");
  probe::SayResult("sendto", sendto(s, "datagram", 8, 0, probe::Server(), sizeof probe::g_server));
  shared->Look("a datagram");
  probe::SayResult("recvfrom", recvfrom(s, buffer, sizeof buffer, 0, nullptr, nullptr));
  shared->Look("an answer");
  closesocket(s);
  shared->Look("a close");
}

// A thread that starts while the library is loaded has the same state as without it.
DWORD WINAPI NewThread(void*) {
  Shared shared;
  probe::Say("a new thread's x87 modes: %04x", X87Modes());
  Stream(&shared);
  Datagrams(&shared);
  return 0;
}

DWORD WINAPI FreshModes(void*) {
  probe::Say("a new thread's floating-point modes: %04x, %04x", X87Modes(), SseModes());
  return 0;
}

void Run(LPTHREAD_START_ROUTINE thread) {
  const HANDLE handle = CreateThread(nullptr, 0, thread, nullptr, 0, nullptr);
  WaitForSingleObject(handle, INFINITE);
  CloseHandle(handle);
}

}  // namespace

int main(int argc, char** argv) {
  Shared shared;
  Run(FreshModes);
  probe::Begin(argc, argv);
  shared.Look("the start of Winsock");
  Stream(&shared);
  Datagrams(&shared);
  shared.LookAtTheEnd();
  Run(FreshModes);
  Run(NewThread);
  const int code = probe::End();
  shared.Look("the end of Winsock");
  return code;
}
