#include "tests/scenario/whole_late.h"

#include <cstring>
#include <map>
#include <memory>
#include <utility>

#include "hooks/downcall_table.h"
#include "port/shared/backend.h"
#include "port/shared/process.h"
#include "port/shared/winsock.h"

namespace whole_test {
namespace {

int poll_ms = 200;

// One overlapped call.
struct Operation {
  SOCKET s = INVALID_SOCKET;
  bool receives = false;
  WSABUF buffer = {};     // of a receive
  std::string text;       // of a send
  bool is_named = false;  // WSPSendTo, WSPRecvFrom
  sockaddr_in to = {};
  sockaddr* from = nullptr;
  LPINT from_size = nullptr;
  bool done = false;
  int error = 0;
  DWORD bytes = 0;
  DWORD flags = 0;
};

// One WSAEventSelect.
struct Watch {
  HANDLE event = nullptr;
  long wanted = 0;
  long happened = 0;
  bool is_writable = false;  // its event was set, and no send has found the buffer full since
  bool is_over = false;
};

struct State {
  std::map<const WSAOVERLAPPED*, std::shared_ptr<Operation>> operations;
  std::map<SOCKET, std::shared_ptr<Watch>> watches;
  std::map<int, WSPPROC_TABLE> before;  // by protocol
};
// Never freed: its threads may run to the end of the world.
State& Late() {
  static auto& state = *new State;
  return state;
}

const WSPPROC_TABLE& Base() { return port::BaseProviderTable(); }

// Some of "rwe", or "x": the socket is not open any more.
std::string StateOf(SOCKET s, bool read, bool write, int ms) {
  fd_set readable = {}, writable = {}, failed = {};
  if (read) FD_SET(s, &readable);
  if (write) FD_SET(s, &writable);
  FD_SET(s, &failed);
  const struct timeval most = {ms / 1000, ms % 1000 * 1000};
  INT error = 0;
  if (Base().lpWSPSelect(0, &readable, &writable, &failed, &most, &error) == SOCKET_ERROR) {
    if (error == WSAENOTSOCK) return "x";
    Sleep(10);  // an injected failure
    return "";
  }
  std::string in;
  if (FD_ISSET(s, &readable)) in += 'r';
  if (FD_ISSET(s, &writable)) in += 'w';
  if (FD_ISSET(s, &failed)) in += 'e';
  return in;
}

// --- overlapped calls ---------------------------------------------------------------------------

int ReceiveNow(Operation* one) {
  INT error = 0;
  WSATHREADID thread = {};
  const int result =
      one->is_named
          ? Base().lpWSPRecvFrom(one->s, &one->buffer, 1, &one->bytes, &one->flags, one->from,
                                 one->from_size, nullptr, nullptr, &thread, &error)
          : Base().lpWSPRecv(one->s, &one->buffer, 1, &one->bytes, &one->flags, nullptr, nullptr,
                             &thread, &error);
  return result == 0 ? 0 : error;
}

int SendNow(Operation* one) {
  while (true) {
    INT error = 0;
    DWORD sent = 0;
    WSATHREADID thread = {};
    WSABUF rest = {static_cast<ULONG>(one->text.size() - one->bytes),
                   one->text.data() + one->bytes};
    const int result =
        one->is_named
            ? Base().lpWSPSendTo(one->s, &rest, 1, &sent, 0,
                                 reinterpret_cast<const struct sockaddr*>(&one->to), sizeof one->to,
                                 nullptr, nullptr, &thread, &error)
            : Base().lpWSPSend(one->s, &rest, 1, &sent, 0, nullptr, nullptr, &thread, &error);
    if (result != 0) return error;
    one->bytes += sent;
    if (one->is_named || one->bytes >= one->text.size()) return 0;
  }
}

void CarryOut(Operation* one, HANDLE event) {
  while (true) {
    const std::string state = StateOf(one->s, one->receives, !one->receives, poll_ms);
    if (state == "x") {
      one->error = kCancelled;
      break;
    }
    if (state.empty()) continue;
    one->error = one->receives ? ReceiveNow(one) : SendNow(one);
    if (one->error != WSAEWOULDBLOCK) break;
    Sleep(1);
  }
  one->done = true;
  if (event != nullptr) SetEvent(event);
}

int Begin(const Operation& one, const WSAOVERLAPPED* overlapped, LPINT error) {
  const auto kept = std::make_shared<Operation>(one);
  Late().operations[overlapped] = kept;
  const HANDLE event = overlapped->hEvent;
  if (event != nullptr) ResetEvent(event);
  sim::World& world = sim::TheWorld();
  world.Spawn(world.home(), "late", [kept, event] { CarryOut(kept.get(), event); });
  *error = WSA_IO_PENDING;
  return SOCKET_ERROR;
}

int WSPAPI LateRecv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                    LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                    LPWSATHREADID thread, LPINT error) {
  if (overlapped == nullptr)
    return Base().lpWSPRecv(s, buffers, count, received, flags, overlapped, routine, thread, error);
  Operation one;
  one.s = s;
  one.receives = true;
  one.buffer = *buffers;
  return Begin(one, overlapped, error);
}

int WSPAPI LateRecvFrom(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                        struct sockaddr* from, LPINT from_size, LPWSAOVERLAPPED overlapped,
                        LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, LPWSATHREADID thread,
                        LPINT error) {
  if (overlapped == nullptr)
    return Base().lpWSPRecvFrom(s, buffers, count, received, flags, from, from_size, overlapped,
                                routine, thread, error);
  Operation one;
  one.s = s;
  one.receives = one.is_named = true;
  one.buffer = *buffers;
  one.from = from;
  one.from_size = from_size;
  return Begin(one, overlapped, error);
}

int WSPAPI LateSend(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                    LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                    LPWSATHREADID thread, LPINT error) {
  if (overlapped == nullptr) {
    const int result =
        Base().lpWSPSend(s, buffers, count, sent, flags, overlapped, routine, thread, error);
    const auto watch = Late().watches.find(s);
    if (result != 0 && *error == WSAEWOULDBLOCK && watch != Late().watches.end())
      watch->second->is_writable = false;
    return result;
  }
  Operation one;
  one.s = s;
  one.text.assign(buffers->buf, buffers->len);
  return Begin(one, overlapped, error);
}

int WSPAPI LateSendTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                      const struct sockaddr* to, int to_size, LPWSAOVERLAPPED overlapped,
                      LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, LPWSATHREADID thread,
                      LPINT error) {
  if (overlapped == nullptr)
    return Base().lpWSPSendTo(s, buffers, count, sent, flags, to, to_size, overlapped, routine,
                              thread, error);
  Operation one;
  one.s = s;
  one.is_named = true;
  one.text.assign(buffers->buf, buffers->len);
  std::memcpy(&one.to, to, sizeof one.to);
  return Begin(one, overlapped, error);
}

BOOL WSPAPI LateResult(SOCKET, LPWSAOVERLAPPED overlapped, LPDWORD bytes, BOOL, LPDWORD flags,
                       LPINT error) {
  const auto found = Late().operations.find(overlapped);
  if (found == Late().operations.end()) {
    *error = WSAEINVAL;
    return FALSE;
  }
  const Operation& one = *found->second;
  *error = one.done ? one.error : kNotYet;
  *bytes = one.bytes;
  *flags = one.flags;
  return *error == 0 ? TRUE : FALSE;
}

// --- events -------------------------------------------------------------------------------------

// Whether a readable stream has data, or only its end.
bool HasData(SOCKET s) {
  char byte = 0;
  WSABUF buffer = {1, &byte};
  DWORD bytes = 0, flags = MSG_PEEK;
  INT error = 0;
  WSATHREADID thread = {};
  const int result =
      Base().lpWSPRecv(s, &buffer, 1, &bytes, &flags, nullptr, nullptr, &thread, &error);
  return result == 0 ? bytes > 0 : error == WSAEMSGSIZE;
}

void Happen(Watch* watch, long events) {
  events &= watch->wanted & ~watch->happened;
  if (events == 0) return;
  watch->happened |= events;
  SetEvent(watch->event);
}

void Observe(SOCKET s, Watch* watch) {
  while (!watch->is_over) {
    const bool read = (watch->happened & (kReadEvent | kCloseEvent)) == 0;
    const bool write = !watch->is_writable;
    const bool waits = read || write;  // or else only for its end, and for the game to look
    const std::string state = StateOf(s, read, write, waits ? poll_ms : 5);
    if (state == "x") return;
    for (const char event : state) {
      if (event == 'w') watch->is_writable = true;
      Happen(watch, event == 'r' && HasData(s) ? kReadEvent
                    : event == 'w'             ? kWriteEvent | kConnectEvent
                    : event == 'r'             ? kCloseEvent
                                               : kConnectEvent | kCloseEvent);
    }
    if (!state.empty() && watch->happened != 0) Sleep(1);
  }
}

int WSPAPI LateEventSelect(SOCKET s, WSAEVENT event, long events, LPINT error) {
  u_long on = 1;
  DWORD returned = 0;
  WSATHREADID thread = {};
  if (const auto old = Late().watches.find(s); old != Late().watches.end())
    old->second->is_over = true;
  if (Base().lpWSPIoctl(s, static_cast<DWORD>(FIONBIO), &on, sizeof on, nullptr, 0, &returned,
                        nullptr, nullptr, &thread, error) != 0)
    return SOCKET_ERROR;
  const auto watch = std::make_shared<Watch>();
  watch->event = event;
  watch->wanted = events;
  Late().watches[s] = watch;
  sim::World& world = sim::TheWorld();
  world.Spawn(world.home(), "watch", [s, watch] { Observe(s, watch.get()); });
  return 0;
}

int WSPAPI LateEnumNetworkEvents(SOCKET s, WSAEVENT event, LPWSANETWORKEVENTS out, LPINT error) {
  const auto found = Late().watches.find(s);
  if (found == Late().watches.end()) {
    *error = WSAEINVAL;
    return SOCKET_ERROR;
  }
  ResetEvent(event);
  *out = {};
  out->lNetworkEvents = static_cast<LONG>(std::exchange(found->second->happened, 0));
  return 0;
}

// What the library has replaced leads to ours; the rest of its table is the base provider's.
template <class Entry>
Entry OursIfPlain(Entry in_table, Entry plain, Entry ours) {
  return in_table == plain ? ours : in_table;
}

}  // namespace

void PollLateCallsEvery(int ms) { poll_ms = ms; }

const WSPPROC_TABLE& TableOf(SOCKET s) { return port::CurrentProcess().layers.TableOf(s); }

int SelectEvents(SOCKET s, HANDLE event, long events) {
  INT error = 0;
  const auto call =
      OursIfPlain(TableOf(s).lpWSPEventSelect, Base().lpWSPEventSelect, &LateEventSelect);
  return call(s, event, events, &error) == 0 ? 0 : error;
}

long TakeEvents(SOCKET s, HANDLE event) {
  WSANETWORKEVENTS events = {};
  INT error = 0;
  const auto call = OursIfPlain(TableOf(s).lpWSPEnumNetworkEvents, Base().lpWSPEnumNetworkEvents,
                                &LateEnumNetworkEvents);
  return call(s, event, &events, &error) == 0 ? events.lNetworkEvents : 0;
}

int ResultOf(SOCKET s, WSAOVERLAPPED* overlapped, DWORD* bytes) {
  INT error = 0;
  DWORD flags = 0;
  const auto call = OursIfPlain(TableOf(s).lpWSPGetOverlappedResult,
                                Base().lpWSPGetOverlappedResult, &LateResult);
  return call(s, overlapped, bytes, FALSE, &flags, &error) ? 0 : error;
}

LateCalls::LateCalls() {
  for (const int protocol : {moru_vyr::lsp::kProtocolTcp, moru_vyr::lsp::kProtocolUdp}) {
    WSPPROC_TABLE& next = *moru_vyr::lsp::GetDowncallTable(protocol, nullptr);
    Late().before[protocol] = next;
    next.lpWSPRecv = LateRecv;
    next.lpWSPRecvFrom = LateRecvFrom;
    next.lpWSPSend = LateSend;
    next.lpWSPSendTo = LateSendTo;
    next.lpWSPGetOverlappedResult = LateResult;
    next.lpWSPEventSelect = LateEventSelect;
    next.lpWSPEnumNetworkEvents = LateEnumNetworkEvents;
  }
}

LateCalls::~LateCalls() {
  for (const auto& [protocol, table] : Late().before)
    *moru_vyr::lsp::GetDowncallTable(protocol, nullptr) = table;
}

}  // namespace whole_test
