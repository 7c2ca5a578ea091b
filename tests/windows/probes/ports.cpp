// An I/O completion port that serves several connections from several threads.
#include "probe.h"

#include <vector>

namespace {

constexpr int kConnections = 8;
constexpr int kRounds = 25;
constexpr int kMessage = 512;

struct Connection {
  WSAOVERLAPPED overlapped = {};
  SOCKET s = INVALID_SOCKET;
  char buffer[kMessage] = {};
  int rounds = 0;
  DWORD in_round = 0;
  bool sending = false;
};

HANDLE g_port;
volatile LONG g_finished;
volatile LONG g_failed;

void Finish(bool ok) {
  if (!ok) InterlockedIncrement(&g_failed);
  if (InterlockedIncrement(&g_finished) == kConnections) {
    PostQueuedCompletionStatus(g_port, 0, 0, nullptr);
  }
}

bool Started(int result) { return result == 0 || WSAGetLastError() == WSA_IO_PENDING; }

bool StartSend(Connection* connection) {
  connection->sending = true;
  connection->in_round = 0;
  WSABUF out = {kMessage, connection->buffer};
  return Started(WSASend(connection->s, &out, 1, nullptr, 0, &connection->overlapped, nullptr));
}

bool StartReceive(Connection* connection) {
  connection->sending = false;
  WSABUF in = {kMessage - connection->in_round, connection->buffer + connection->in_round};
  DWORD flags = 0;
  return Started(WSARecv(connection->s, &in, 1, nullptr, &flags, &connection->overlapped, nullptr));
}

bool Advance(Connection* connection, DWORD bytes) {
  if (connection->sending) return bytes == kMessage && StartReceive(connection);
  if (bytes == 0) return false;
  connection->in_round += bytes;
  if (connection->in_round < kMessage) return StartReceive(connection);
  if (++connection->rounds == kRounds) {
    Finish(true);
    return true;
  }
  return StartSend(connection);
}

DWORD WINAPI Serve(void*) {
  for (;;) {
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;
    const BOOL ok = GetQueuedCompletionStatus(g_port, &bytes, &key, &overlapped, 30'000);
    if (overlapped == nullptr) {
      PostQueuedCompletionStatus(g_port, 0, 0, nullptr);  // wakes the next thread
      return 0;
    }
    auto* connection = reinterpret_cast<Connection*>(overlapped);
    if (!ok || !Advance(connection, bytes)) Finish(false);
  }
}

}  // namespace

int main(int argc, char** argv) {
  probe::Begin(argc, argv);
  g_port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
  std::vector<Connection> connections(kConnections);
  std::vector<HANDLE> threads;
  for (Connection& connection : connections) {
    connection.s = probe::ConnectedStream();
    std::memset(connection.buffer, 'a' + static_cast<int>(&connection - connections.data()),
                kMessage);
    CreateIoCompletionPort(reinterpret_cast<HANDLE>(connection.s), g_port, 1, 0);
  }
  for (int i = 0; i < 4; ++i)
    threads.push_back(CreateThread(nullptr, 0, Serve, nullptr, 0, nullptr));
  for (Connection& connection : connections) {
    if (!StartSend(&connection)) Finish(false);
  }
  WaitForMultipleObjects(4, threads.data(), TRUE, 60'000);
  probe::Say("finished %ld, failed %ld", static_cast<long>(g_finished),
             static_cast<long>(g_failed));
  for (const Connection& connection : connections) {
    probe::Say("rounds %d, holds %c", connection.rounds, connection.buffer[kMessage - 1]);
    closesocket(connection.s);
  }
  return probe::End();
}
