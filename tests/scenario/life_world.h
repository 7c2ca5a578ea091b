// A game with streams and datagrams, in a process that may end Winsock or lose one of our threads
// at any time, with checks of what remains in the process.
#pragma once
#include "tests/scenario/tcp_world.h"
//
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "engine/relay_mgr.h"
#include "port/shared/objects.h"
#include "port/shared/winsock.h"
#include "port/sim/scheduler.h"
#include "port/sim/sockets.h"

namespace life_test {

using namespace tcp_test;  // NOLINT: the verbs of these tests

// The first threads that the game's process creates with CreateThread.
inline constexpr char kWorker[] = "home/thread1";
inline constexpr char kSyncThread[] = "home/thread2";

class LifeWorld : public TcpWorld {
 protected:
  explicit LifeWorld(const Configure& configure = nullptr) : TcpWorld(L"", configure) {
    for (const char* ip : {kServer, kDirect, kUnlisted}) StartEcho(ip);
    RunFor(1ms);
  }

  // --- the game ---
  static void StartsWinsock() {
    WSADATA data = {};
    EXPECT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  }
  // Returns how many milliseconds it took.
  static common::u32 EndsWinsock() {
    const common::u32 start = GetTickCount();
    EXPECT_EQ(WSACleanup(), 0);
    return GetTickCount() - start;
  }
  // Sends a datagram and waits for its echo. Returns who delivered it to the server ("A", "game"),
  // or "".
  std::string TalksByDatagram(SOCKET s, const char* server = kServer) {
    const std::string text = "datagram " + std::to_string(++datagrams_);
    if (SendTextTo(s, text, server, kPort) < 0 || !ReadableWithin(s, 3000)) return "";
    sockaddr_in from = {};
    int size = sizeof from;
    char bytes[100];
    const int count = recvfrom(s, bytes, sizeof bytes, 0, Raw(from), &size);
    if (count < 0 || std::string(bytes, static_cast<size_t>(count)) != text) return "";
    EXPECT_STREQ(inet_ntoa(from.sin_addr), server);
    return heard_->empty() ? "" : heard_->back();
  }
  // Expects that a new connection works and goes that way ("A", "game").
  void ExpectConnects(const char* way) {
    const SOCKET s = Joins();
    ASSERT_NE(s, INVALID_SOCKET) << WSAGetLastError();
    EXPECT_EQ(Talks(s, "hello"), "hello");
    EXPECT_EQ(LastCall().from, way);
    closesocket(s);
  }
  void ExpectTalksByDatagram(const char* way) {
    const SOCKET s = Udp();
    EXPECT_EQ(TalksByDatagram(s), way);
    closesocket(s);
  }

  // --- what is left ---
  size_t Sockets() { return world.sockets().CountOf(world.home()); }
  // The threads that the process created with CreateThread, which are ours.
  std::vector<std::string> ThreadsOfOurs() {
    std::vector<std::string> found;
    for (const auto& thread : world.scheduler().threads()) {
      if (!thread->ended() && thread->name().rfind("home/thread", 0) == 0)
        found.push_back(thread->name());
    }
    return found;
  }
  DWORD Worker() { return moru_vyr::lsp::GetRelayMgr().GetWorkerThreadId(); }

 private:
  void StartEcho(const std::string& ip) {
    world.SpawnOn(server_host, "echo " + ip, [heard = heard_, ip] {
      const SOCKET s = Udp();
      EXPECT_EQ(BindTo(s, ip.c_str(), kPort), 0);
      while (true) {
        char bytes[2048];
        sockaddr_in from = {};
        int size = sizeof from;
        const int count = recvfrom(s, bytes, sizeof bytes, 0, Raw(from), &size);
        if (count < 0) continue;
        const std::string peer = inet_ntoa(from.sin_addr);
        heard->push_back(peer == kNodeA   ? "A"
                         : peer == kNodeB ? "B"
                         : peer == kGame  ? "game"
                                          : peer);
        sendto(s, bytes, count, 0, Raw(from), size);
      }
    });
  }

  // Shared, because its writers may outlive the test's body.
  const std::shared_ptr<std::vector<std::string>> heard_ =
      std::make_shared<std::vector<std::string>>();
  int datagrams_ = 0;
};

}  // namespace life_test
