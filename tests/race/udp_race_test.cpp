// A game that closes a relayed datagram socket while its other threads still send and receive on
// it. At stake: no queue or session is used after it has been freed, and none is left behind.
#include <winsock2.h>
//
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "bench/game_library.h"
#include "bench/private_network.h"
#include "tests/support/threads.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr u_short kPort = 27015;

sockaddr_in Server() {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(kPort);
  address.sin_addr.s_addr = static_cast<in_addr_t>(inet_addr(bench::kServerAddress));
  return address;
}

// Sends everything back, in a process without the library, for as long as its parent lives.
[[noreturn]] void Echo() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  const sockaddr_in here = Server();
  if (bind(s, reinterpret_cast<const sockaddr*>(&here), sizeof here) != 0) _exit(1);
  for (;;) {
    char bytes[2048];
    sockaddr_in from = {};
    int size = sizeof from;
    const int count =
        recvfrom(s, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr*>(&from), &size);
    if (count >= 0) sendto(s, bytes, count, 0, reinterpret_cast<const sockaddr*>(&from), size);
  }
}

SOCKET Open() {
  const SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  const DWORD most_ms = 20;
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&most_ms), sizeof most_ms);
  return s;
}

bool Send(SOCKET s, const std::string& text) {
  const sockaddr_in to = Server();
  return sendto(s, text.data(), static_cast<int>(text.size()), 0,
                reinterpret_cast<const sockaddr*>(&to), sizeof to) != SOCKET_ERROR;
}

// The source of the next datagram, if one comes.
std::string Receive(SOCKET s, std::string* text) {
  char bytes[2048];
  sockaddr_in from = {};
  int size = sizeof from;
  const int count = recvfrom(s, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr*>(&from), &size);
  if (count == SOCKET_ERROR) return "";
  text->assign(bytes, static_cast<size_t>(count));
  return inet_ntoa(from.sin_addr);
}

// Whether a new socket's datagram is answered, by the server.
bool Works() {
  const SOCKET s = Open();
  bool answered = false;
  for (int tries = 0; tries < 100 && !answered; ++tries) {
    Send(s, "hello");
    std::string text;
    answered = Receive(s, &text) == bench::kServerAddress && text == "hello";
  }
  closesocket(s);
  return answered;
}

// What is open: "socket:[123]", "anon_inode:[eventfd]" …
std::vector<std::string> OpenFiles() {
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    files.push_back(std::filesystem::read_symlink(entry.path(), gone));
  }
  return files;
}

// A thread gets a descriptor at its first call that has to wait, and keeps it. Whether this thread
// has waited by now is chance: an answer that has already come needs no wait.
void WaitOnce() {
  const SOCKET s = Open();
  sockaddr_in here = {};
  here.sin_family = AF_INET;
  here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(s, reinterpret_cast<const sockaddr*>(&here), sizeof here), 0);
  std::string nothing;
  EXPECT_EQ(Receive(s, &nothing), "");
  EXPECT_EQ(WSAGetLastError(), WSAETIMEDOUT);
  closesocket(s);
}

std::chrono::seconds HowLong() {
  const char* const wanted = std::getenv("VYR_RACE_SECONDS");
  return std::chrono::seconds(wanted != nullptr ? std::atoi(wanted) : 2);
}

TEST(UdpRace, SendingAndReceivingWhileClosing) {
  ASSERT_TRUE(Works());
  WaitOnce();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // for the relay to see the end
  const size_t files = OpenFiles().size();
  std::mt19937 random(1);
  int rounds = 0;
  std::atomic<int> answers{0};
  for (const auto end = Clock::now() + HowLong(); Clock::now() < end; ++rounds) {
    const SOCKET s = Open();
    ASSERT_TRUE(Send(s, "first"));
    const auto stays = std::chrono::microseconds(random() % 3000);
    std::atomic<bool> closing{false};
    test::RunThreads(4, [&](int thread) {
      if (thread == 0) {
        std::this_thread::sleep_for(stays);
        closing = true;
        closesocket(s);
      } else if (thread == 1) {
        for (std::string text, from; !(from = Receive(s, &text)).empty(); ++answers) {
          // The true sources end with the relay, so datagrams that are read last may have the
          // relay's.
          EXPECT_TRUE(from == bench::kServerAddress || closing) << from << " " << text;
        }
      } else {
        for (int i = 0; i < 10'000 && Send(s, std::to_string(thread * 100'000 + i)); ++i) {
        }
      }
    });
  }
  EXPECT_GT(rounds, 10);
  EXPECT_TRUE(Works());
  for (int i = 0; i < 100 && OpenFiles().size() > files; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const std::vector<std::string> left = OpenFiles();
  EXPECT_LE(left.size(), files) << testing::PrintToString(left) << " after " << rounds << " rounds";
  std::printf("%d sockets, %d answers\n", rounds, answers.load());
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!bench::InPrivateNetwork()) return bench::EnterPrivateNetwork(argc, argv);
  if (fork() == 0) Echo();
  const auto folder =
      std::filesystem::temp_directory_path() / ("vyr_race_" + std::to_string(getpid()));
  std::filesystem::create_directories(folder);
  bench::LibrarySetup setup;
  setup.server = bench::kServerAddress;
  setup.folder = folder;
  bench::InstallLibrary(setup);
  const int result = RUN_ALL_TESTS();
  std::filesystem::remove_all(folder);
  return result;
}
