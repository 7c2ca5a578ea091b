// Several threads on one socket, and an accept loop with many clients.
#include "probe.h"

#include <vector>

namespace {

constexpr int kChunks = 64;
constexpr int kChunk = 4096;
constexpr int kClients = 20;

SOCKET g_shared;
SOCKET g_listener;
sockaddr_in g_listener_address;
volatile LONG g_sent_datagrams;

DWORD WINAPI SendAll(void*) {
  std::string chunk(kChunk, 'x');
  for (int i = 0; i < kChunks; ++i) {
    std::memset(chunk.data(), 'A' + i % 26, chunk.size());
    for (int at = 0; at < kChunk;) {
      const int sent = send(g_shared, chunk.data() + at, kChunk - at, 0);
      if (sent <= 0) return 1;
      at += sent;
    }
  }
  return 0;
}

void OneSocketTwoThreads() {
  g_shared = probe::ConnectedStream();
  const HANDLE sender = CreateThread(nullptr, 0, SendAll, nullptr, 0, nullptr);
  const std::string echo = probe::ReceiveAll(g_shared, kChunks * kChunk);
  probe::Say("sender ended: %d", WaitForSingleObject(sender, 30'000) == WAIT_OBJECT_0);
  probe::Say("echo of %u bytes, sum %08x", static_cast<unsigned>(echo.size()), probe::SumOf(echo));
  closesocket(g_shared);
}

DWORD WINAPI SendDatagrams(void*) {
  for (int i = 0; i < 50; ++i) {
    if (sendto(g_shared, "d", 1, 0, probe::Server(), sizeof(sockaddr_in)) == 1) {
      InterlockedIncrement(&g_sent_datagrams);
    }
  }
  return 0;
}

void OneDatagramSocketFourThreads() {
  g_shared = probe::NewDatagram();
  HANDLE threads[4];
  for (HANDLE& thread : threads) {
    thread = CreateThread(nullptr, 0, SendDatagrams, nullptr, 0, nullptr);
  }
  probe::Say("all ended: %d", WaitForMultipleObjects(4, threads, TRUE, 30'000) == WAIT_OBJECT_0);
  probe::Say("datagrams sent: %ld", static_cast<long>(g_sent_datagrams));
  closesocket(g_shared);
}

DWORD WINAPI Client(void* number) {
  const SOCKET s = probe::NewStream();
  if (connect(s, reinterpret_cast<sockaddr*>(&g_listener_address), sizeof(sockaddr_in)) != 0) {
    return 0;
  }
  const char letter = static_cast<char>('a' + reinterpret_cast<uintptr_t>(number));
  send(s, &letter, 1, 0);
  char back = 0;
  const bool echoed = recv(s, &back, 1, 0) == 1 && back == letter;
  closesocket(s);
  return echoed ? 1 : 0;
}

void AcceptLoop() {
  g_listener = probe::Listener(&g_listener_address);
  std::vector<HANDLE> clients;
  for (uintptr_t i = 0; i < kClients; ++i) {
    clients.push_back(CreateThread(nullptr, 0, Client, reinterpret_cast<void*>(i), 0, nullptr));
  }
  int accepted = 0;
  for (int i = 0; i < kClients; ++i) {
    sockaddr_in from = {};
    int length = sizeof(from);
    const SOCKET s = accept(g_listener, reinterpret_cast<sockaddr*>(&from), &length);
    if (s == INVALID_SOCKET) continue;
    ++accepted;
    char letter = 0;
    if (recv(s, &letter, 1, 0) == 1) send(s, &letter, 1, 0);
    closesocket(s);
  }
  DWORD echoed = 0;
  for (const HANDLE client : clients) {
    DWORD result = 0;
    WaitForSingleObject(client, 30'000);
    GetExitCodeThread(client, &result);
    echoed += result;
  }
  probe::Say("accepted %d, echoed %lu", accepted, echoed);
  closesocket(g_listener);
}

}  // namespace

int main(int argc, char** argv) {
  probe::Begin(argc, argv);
  OneSocketTwoThreads();
  OneDatagramSocketFourThreads();
  AcceptLoop();
  return probe::End();
}
