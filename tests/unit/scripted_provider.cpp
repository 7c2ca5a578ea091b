#include "tests/unit/scripted_provider.h"

#include <mswsock.h>

#include <cstring>

#include "common/process_info.h"
#include "engine/relay_mgr.h"
#include "sockets/socket_map.h"

namespace test {
namespace {

ScriptedProvider* current = nullptr;

template <class... T>
void Note(const char* name, T... arguments) {
  current->calls.push_back({name, WordsOf(arguments...)});
}

int Answer(LPINT error) {
  current->meanwhile();
  if (current->result != 0 && error != nullptr) *error = current->error;
  return current->result;
}

void StoreBytes(LPDWORD bytes) {
  if (current->stores_bytes && bytes != nullptr) *bytes = current->bytes;
}

SOCKET NewSocket(LPINT error) {
  if (current->result == 0) return current->socket;
  if (error != nullptr) *error = current->error;
  return INVALID_SOCKET;
}

SOCKET WSPAPI FakeSocket(int af, int type, int protocol, LPWSAPROTOCOL_INFOW info, GROUP g,
                         DWORD flags, LPINT error) {
  Note("WSPSocket", af, type, protocol, info, g, flags);
  return NewSocket(error);
}

SOCKET WSPAPI FakeAccept(SOCKET s, sockaddr* name, LPINT size, LPCONDITIONPROC condition,
                         DWORD_PTR data, LPINT error) {
  Note("WSPAccept", s, name, size, condition, data);
  return NewSocket(error);
}

int WSPAPI FakeBind(SOCKET s, const sockaddr* name, int size, LPINT error) {
  Note("WSPBind", s, name, size);
  return Answer(error);
}

int WSPAPI FakeConnect(SOCKET s, const sockaddr* name, int size, LPWSABUF caller, LPWSABUF callee,
                       LPQOS sqos, LPQOS gqos, LPINT error) {
  Note("WSPConnect", s, name, size, caller, callee, sqos, gqos);
  return Answer(error);
}

int WSPAPI FakeGetPeerName(SOCKET s, sockaddr* name, LPINT size, LPINT error) {
  Note("WSPGetPeerName", s, name, size);
  std::memcpy(name, &current->address, sizeof current->address);
  return Answer(error);
}

int WSPAPI FakeCloseSocket(SOCKET s, LPINT error) {
  Note("WSPCloseSocket", s);
  current->known_at_close = moru_vyr::lsp::GetSocketMap().Get(s).socket != INVALID_SOCKET;
  return Answer(error);
}

int WSPAPI FakeCleanup(LPINT error) {
  Note("WSPCleanup");
  return Answer(error);
}

int WSPAPI FakeSend(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                    LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE completion,
                    LPWSATHREADID thread, LPINT error) {
  Note("WSPSend", s, buffers, count, sent, flags, overlapped, completion, thread);
  StoreBytes(sent);
  return Answer(error);
}

int WSPAPI FakeRecv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                    LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE completion,
                    LPWSATHREADID thread, LPINT error) {
  Note("WSPRecv", s, buffers, count, received, flags, overlapped, completion, thread);
  StoreBytes(received);
  return Answer(error);
}

int WSPAPI FakeSendTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                      const sockaddr* to, int to_size, LPWSAOVERLAPPED overlapped,
                      LPWSAOVERLAPPED_COMPLETION_ROUTINE completion, LPWSATHREADID thread,
                      LPINT error) {
  Note("WSPSendTo", s, buffers, count, sent, flags, to, to_size, overlapped, completion, thread);
  current->sent = {};
  for (DWORD i = 0; i < count; ++i) current->sent.bytes.append(buffers[i].buf, buffers[i].len);
  if (to != nullptr) std::memcpy(&current->sent.to, to, sizeof current->sent.to);
  if (thread != nullptr) current->sent.thread = *thread;
  StoreBytes(sent);
  return Answer(error);
}

int WSPAPI FakeRecvFrom(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                        sockaddr* from, LPINT from_size, LPWSAOVERLAPPED overlapped,
                        LPWSAOVERLAPPED_COMPLETION_ROUTINE completion, LPWSATHREADID thread,
                        LPINT error) {
  Note("WSPRecvFrom", s, buffers, count, received, flags, from, from_size, overlapped, completion,
       thread);
  StoreBytes(received);
  if (from != nullptr) std::memcpy(from, &current->address, sizeof current->address);
  return Answer(error);
}

BOOL PASCAL FakeConnectEx(SOCKET s, const sockaddr* name, int size, PVOID buffer, DWORD length,
                          LPDWORD sent, LPOVERLAPPED overlapped) {
  Note("ConnectEx", s, name, size, buffer, length, sent, overlapped);
  current->meanwhile();
  WSASetLastError(current->error);
  return current->error == 0 ? TRUE : FALSE;
}

int WSPAPI FakeIoctl(SOCKET s, DWORD code, LPVOID in, DWORD in_size, LPVOID out, DWORD out_size,
                     LPDWORD returned, LPWSAOVERLAPPED overlapped,
                     LPWSAOVERLAPPED_COMPLETION_ROUTINE completion, LPWSATHREADID thread,
                     LPINT error) {
  Note("WSPIoctl", s, code, in, in_size, out, out_size, returned, overlapped, completion, thread);
  const GUID connect_ex = WSAID_CONNECTEX;
  if (code == SIO_GET_EXTENSION_FUNCTION_POINTER && in_size == sizeof connect_ex &&
      std::memcmp(in, &connect_ex, sizeof connect_ex) == 0) {
    const auto function = &FakeConnectEx;
    std::memcpy(out, &function, sizeof function);
  }
  return Answer(error);
}

}  // namespace

WSPPROC_TABLE ScriptedProvider::Table() {
  std::uintptr_t marks[sizeof(WSPPROC_TABLE) / sizeof(std::uintptr_t)];
  for (std::uintptr_t i = 0; i < std::size(marks); ++i) marks[i] = 0x100 + i;
  WSPPROC_TABLE table;
  static_assert(sizeof marks == sizeof table);
  std::memcpy(&table, marks, sizeof table);
  table.lpWSPSocket = FakeSocket;
  table.lpWSPAccept = FakeAccept;
  table.lpWSPBind = FakeBind;
  table.lpWSPConnect = FakeConnect;
  table.lpWSPGetPeerName = FakeGetPeerName;
  table.lpWSPCloseSocket = FakeCloseSocket;
  table.lpWSPCleanup = FakeCleanup;
  table.lpWSPSend = FakeSend;
  table.lpWSPRecv = FakeRecv;
  table.lpWSPSendTo = FakeSendTo;
  table.lpWSPRecvFrom = FakeRecvFrom;
  table.lpWSPIoctl = FakeIoctl;
  return table;
}

ScriptedProvider::ScriptedProvider() {
  // The relay starts at the first call that could use it. Its first log lines must not come while a
  // test reads the log.
  moru_vyr::lsp::GetRelayMgr().CheckAndInit(3000);
  current = this;
  common::ProcessInfo& process = common::GetProcessInfo();
  process.tcp_proc_table = process.udp_proc_table = process.raw_proc_table = Table();
}

ScriptedProvider::~ScriptedProvider() {
  common::ProcessInfo& process = common::GetProcessInfo();
  process.tcp_proc_table = process.udp_proc_table = process.raw_proc_table = {};
  moru_vyr::lsp::GetSocketMap().Remove(socket);
  current = nullptr;
}

sockaddr_in Address(const char* ip, unsigned short port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = static_cast<decltype(address.sin_addr.s_addr)>(inet_addr(ip));
  return address;
}

}  // namespace test
