#include "tests/unit/socket_storm.h"

#include <winsock2.h>
#include <ws2spi.h>

#include <set>
#include <vector>

#include "common/lock.h"
#include "common/process_info.h"
#include "hooks/downcall_table.h"
#include "sockets/socket_map.h"
#include "tests/support/threads.h"
#include "tests/unit/scripted_provider.h"

namespace test {
namespace {

// The handle that was closed last is the next one handed out.
class HandlePool {
 public:
  SOCKET Take() {
    common::Lock hold(lock_);
    if (free_.empty()) return ++last_;
    const SOCKET socket = free_.back();
    free_.pop_back();
    return socket;
  }
  void Give(SOCKET socket) {
    common::Lock hold(lock_);
    free_.push_back(socket);
  }

 private:
  common::Mutex lock_;
  std::vector<SOCKET> free_;
  SOCKET last_ = 0x10000;
};

class Tokens {
 public:
  bool AddNew(unsigned token) {
    common::Lock hold(lock_);
    return seen_.insert(token).second;
  }

 private:
  common::Mutex lock_;
  std::set<unsigned> seen_;
};

HandlePool* pool = nullptr;

SOCKET WSPAPI OpenFromPool(int, int, int, LPWSAPROTOCOL_INFOW, GROUP, DWORD, LPINT) {
  return pool->Take();
}
int WSPAPI CloseToPool(SOCKET s, LPINT) {
  pool->Give(s);
  Sleep(0);  // lets another thread have the value before the closer goes on
  return 0;
}
int WSPAPI ConnectNothing(SOCKET, const sockaddr*, int, LPWSABUF, LPWSABUF, LPQOS, LPQOS, LPINT) {
  return 0;
}
int WSPAPI SendAll(SOCKET, LPWSABUF buffers, DWORD, LPDWORD sent, DWORD, LPWSAOVERLAPPED,
                   LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID, LPINT) {
  *sent = buffers[0].len;
  return 0;
}
int WSPAPI FailRecv(SOCKET, LPWSABUF, DWORD, LPDWORD, LPDWORD, LPWSAOVERLAPPED,
                    LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID, LPINT error) {
  *error = WSAECONNRESET;
  return SOCKET_ERROR;
}

WSPPROC_TABLE HookedTable() {
  WSPPROC_TABLE next = ScriptedProvider::Table();
  next.lpWSPSocket = OpenFromPool;
  next.lpWSPCloseSocket = CloseToPool;
  next.lpWSPConnect = ConnectNothing;
  next.lpWSPSend = SendAll;
  next.lpWSPRecv = FailRecv;
  const WSPUPCALLTABLE upcalls{};
  WSPPROC_TABLE hooked{};
  moru_vyr::lsp::SaveDowncallTable(moru_vyr::lsp::kProtocolTcp, &upcalls, &next, &hooked);
  return hooked;
}

// The whole life of a game's socket.
void UseOneSocket(const WSPPROC_TABLE& table, Tokens& tokens, StormResult* result) {
  INT error = 0;
  const SOCKET s = table.lpWSPSocket(AF_INET, 1, 6, nullptr, 0, 1, &error);
  const moru_vyr::lsp::SocketRecord record = moru_vyr::lsp::GetSocketMap().Get(s);
  if (record.socket != s) ++result->lost_records;
  if (!tokens.AddNew(record.token)) ++result->repeated_tokens;

  const sockaddr_in server = Address("198.51.100.20", 8080);
  char data[16] = {};
  WSABUF buffer{sizeof data, data};
  DWORD bytes = 0;
  DWORD flags = 0;
  if (table.lpWSPConnect(s, Generic(server), sizeof server, nullptr, nullptr, nullptr, nullptr,
                         &error) != 0) {
    ++result->failed_calls;
  }
  if (table.lpWSPSend(s, &buffer, 1, &bytes, 0, nullptr, nullptr, nullptr, &error) != 0 ||
      bytes != sizeof data) {
    ++result->failed_calls;
  }
  error = 0;
  table.lpWSPRecv(s, &buffer, 1, &bytes, &flags, nullptr, nullptr, nullptr, &error);
  if (error != WSAECONNRESET) ++result->failed_calls;

  const moru_vyr::lsp::SocketRecord still = moru_vyr::lsp::GetSocketMap().Get(s);
  if (still.socket != s || still.token != record.token) ++result->lost_records;
  if (table.lpWSPCloseSocket(s, &error) != 0) ++result->failed_calls;
  ++result->sockets;
}

}  // namespace

void RunSocketStorm(int threads, int sockets_per_thread, StormResult* result) {
  HandlePool handles;
  Tokens tokens;
  pool = &handles;
  const WSPPROC_TABLE table = HookedTable();
  RunThreads(threads, [&](int) {
    for (int i = 0; i < sockets_per_thread; ++i) UseOneSocket(table, tokens, result);
  });
  common::GetProcessInfo().tcp_proc_table = {};
  pool = nullptr;
}

}  // namespace test
