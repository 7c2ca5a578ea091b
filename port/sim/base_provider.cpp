// The simulated machine's own Winsock provider: thirty entries over the simulated network.
//
// Each entry begins with the same step, which is a preemption point and may fail on demand, and
// writes a line to the trace. Overlapped calls are refused with 10045.
#include <mswsock.h>

#include "port/shared/backend.h"
#include "port/shared/faults.h"
#include "port/sim/sockets.h"
#include "port/sim/threads.h"

namespace sim {
namespace {

constexpr GUID kConnectExId = WSAID_CONNECTEX;

constexpr auto kNoMore = [] { return std::string(); };

// `says_more` makes the rest of the text, which costs more than most calls.
template <class More>
void Note(const char* call, SOCKET s, int error, const More& says_more) {
  if (!TheWorld().options().traces) return;
  const std::string more = says_more();
  std::string line = Self().name() + " " + call;
  if (s != INVALID_SOCKET) line += Format(" %u", s);
  if (!more.empty()) line += " " + more;
  if (error != 0) line += Format(" = %d", error);
  TheWorld().Trace(line);
}

// Converts the result to the interface's form, and traces it.
template <class More = decltype(kNoMore)>
int Answer(const char* call, SOCKET s, int error, LPINT out, const More& more = kNoMore) {
  Note(call, s, error, more);
  if (error == 0) return 0;
  if (out) *out = error;
  return SOCKET_ERROR;
}

template <class More = decltype(kNoMore)>
SOCKET AnswerSocket(const char* call, SOCKET made, int error, LPINT out,
                    const More& more = kNoMore) {
  Note(call, made, error, more);
  if (error == 0) return made;
  if (out) *out = error;
  return INVALID_SOCKET;
}

SocketRef Find(SOCKET s) { return TheWorld().sockets().Find(s, *Self().process()); }

int ReadAddress(const struct sockaddr* name, int size, Address* out) {
  if (!name || size < static_cast<int>(sizeof(sockaddr_in))) return WSAEFAULT;
  sockaddr_in in;
  std::memcpy(&in, name, sizeof in);
  if (in.sin_family != AF_INET) return WSAEAFNOSUPPORT;
  *out = {ntohl(in.sin_addr.s_addr), ntohs(in.sin_port)};
  return 0;
}

int WriteAddress(const Address& address, struct sockaddr* name, LPINT size) {
  if (!name || !size || *size < static_cast<int>(sizeof(sockaddr_in))) return WSAEFAULT;
  sockaddr_in in = {};
  in.sin_family = AF_INET;
  in.sin_addr.s_addr = htonl(address.ip);
  in.sin_port = htons(address.port);
  std::memcpy(name, &in, sizeof in);
  *size = sizeof in;
  return 0;
}

// A single buffer, the usual case, is not copied: a sender whose peer reads slowly offers all its
// data again and again.
std::string_view Gather(const WSABUF* buffers, DWORD count, std::string* space) {
  if (count == 1) return {buffers[0].buf, buffers[0].len};
  std::string& data = *space;
  for (DWORD i = 0; i < count; ++i) data.append(buffers[i].buf, buffers[i].len);
  return data;
}

size_t Room(const WSABUF* buffers, DWORD count) {
  size_t room = 0;
  for (DWORD i = 0; i < count; ++i) room += buffers[i].len;
  return room;
}

void Scatter(std::string_view data, const WSABUF* buffers, DWORD count) {
  for (DWORD i = 0; i < count && !data.empty(); ++i) {
    const size_t n = std::min<size_t>(data.size(), buffers[i].len);
    if (n > 0) std::memcpy(buffers[i].buf, data.data(), n);
    data.remove_prefix(n);
  }
}

// --- the entries, in the table's order -------------------------------------------------------

SOCKET WSPAPI WspAccept(SOCKET s, struct sockaddr* name, LPINT name_size, LPCONDITIONPROC,
                        DWORD_PTR, LPINT error) {
  if (port::Fails("WSPAccept", error)) return INVALID_SOCKET;
  const auto socket = Find(s);
  SOCKET made = INVALID_SOCKET;
  Address peer;
  int result = WSAENOTSOCK;
  if (socket && name && (!name_size || *name_size < static_cast<int>(sizeof(sockaddr_in))))
    result = WSAEFAULT;
  else if (socket)
    result = Accept(*socket, &made, &peer);
  if (result == 0 && name) WriteAddress(peer, name, name_size);
  return AnswerSocket("accept", made, result, error, [&] { return Format("on %u", s); });
}

int WSPAPI WspBind(SOCKET s, const struct sockaddr* name, int name_size, LPINT error) {
  if (port::Fails("WSPBind", error)) return SOCKET_ERROR;
  const auto socket = Find(s);
  Address address;
  int result = socket ? ReadAddress(name, name_size, &address) : WSAENOTSOCK;
  if (result == 0) result = Bind(*socket, address);
  return Answer("bind", s, result, error, [&] { return ToText(address); });
}

int WSPAPI WspCleanup(LPINT error) { return port::Fails("WSPCleanup", error) ? SOCKET_ERROR : 0; }

int WSPAPI WspCloseSocket(SOCKET s, LPINT error) {
  if (port::Fails("WSPCloseSocket", error)) return SOCKET_ERROR;
  const auto socket = Find(s);
  return Answer("closesocket", s, socket ? CloseSocket(*socket) : WSAENOTSOCK, error);
}

int WSPAPI WspConnect(SOCKET s, const struct sockaddr* name, int name_size, LPWSABUF, LPWSABUF,
                      LPQOS, LPQOS, LPINT error) {
  if (port::Fails("WSPConnect", error)) return SOCKET_ERROR;
  const auto socket = Find(s);
  Address address;
  int result = socket ? ReadAddress(name, name_size, &address) : WSAENOTSOCK;
  if (result == WSAEAFNOSUPPORT && socket->datagrams && name->sa_family == AF_UNSPEC) result = 0;
  if (result == 0) result = Connect(*socket, address);
  return Answer("connect", s, result, error, [&] { return ToText(address); });
}

int WSPAPI WspGetPeerName(SOCKET s, struct sockaddr* name, LPINT name_size, LPINT error) {
  if (port::Fails("WSPGetPeerName", error)) return SOCKET_ERROR;
  const auto socket = Find(s);
  Address address;
  int result = socket ? PeerName(*socket, &address) : WSAENOTSOCK;
  if (result == 0) result = WriteAddress(address, name, name_size);
  return Answer("getpeername", s, result, error);
}

int WSPAPI WspGetSockName(SOCKET s, struct sockaddr* name, LPINT name_size, LPINT error) {
  if (port::Fails("WSPGetSockName", error)) return SOCKET_ERROR;
  const auto socket = Find(s);
  Address address;
  int result = socket ? LocalName(*socket, &address) : WSAENOTSOCK;
  if (result == 0) result = WriteAddress(address, name, name_size);
  return Answer("getsockname", s, result, error);
}

int WSPAPI WspGetSockOpt(SOCKET s, int level, int option, char* value, LPINT value_size,
                         LPINT error) {
  if (port::Fails("WSPGetSockOpt", error)) return SOCKET_ERROR;
  const auto socket = Find(s);
  int result = WSAENOTSOCK;
  if (socket)
    result = value && value_size ? GetOption(*socket, level, option, value, value_size) : WSAEFAULT;
  return Answer("getsockopt", s, result, error,
                [&] { return Format("0x%x", static_cast<unsigned>(option)); });
}

// Connects synchronously, so nothing is ever pending: returns TRUE, or FALSE with the error of the
// connect.
BOOL WINAPI ConnectEx(SOCKET s, const struct sockaddr* name, int name_size, PVOID data, DWORD size,
                      LPDWORD sent, LPOVERLAPPED overlapped) {
  const auto fail = [](int error) {
    WSASetLastError(error);
    return FALSE;
  };
  INT injected = 0;
  if (port::Fails("ConnectEx", &injected)) return fail(injected);
  const auto socket = Find(s);
  if (!socket) return fail(WSAENOTSOCK);
  if (!overlapped || !socket->binding) return fail(WSAEINVAL);
  Address address;
  int result = ReadAddress(name, name_size, &address);
  const bool nonblocking = std::exchange(socket->nonblocking, false);
  if (result == 0) result = Connect(*socket, address);
  DWORD done = 0;
  if (result == 0 && data && size > 0)
    result = Send(*socket, std::string(static_cast<const char*>(data), size), false, &done);
  socket->nonblocking = nonblocking;
  if (sent) *sent = done;
  Note("ConnectEx", s, result, [&] { return ToText(address); });
  if (result != 0) return fail(result);
  WSASetLastError(0);
  return TRUE;
}

int GiveExtension(LPVOID in, DWORD in_size, LPVOID out, DWORD out_size, LPDWORD returned) {
  if (!in || in_size < sizeof(GUID) || !out || out_size < sizeof(void*)) return WSAEFAULT;
  GUID id;
  std::memcpy(&id, in, sizeof id);
  if (!(id == kConnectExId)) return WSAEINVAL;
  const LPFN_CONNECTEX function = ConnectEx;
  std::memcpy(out, &function, sizeof function);
  *returned = sizeof function;
  return 0;
}

constexpr DWORD kRoutingInterfaceQuery = 0xc8000014u;  // SIO_ROUTING_INTERFACE_QUERY

int GiveRoute(const Socket& socket, LPVOID in, DWORD in_size, LPVOID out, DWORD out_size,
              LPDWORD returned) {
  sockaddr_in address = {};
  if (!in || !out || in_size < sizeof address || out_size < sizeof address) return WSAEFAULT;
  std::memcpy(&address, in, sizeof address);
  address.sin_addr.s_addr = htonl(socket.stack().SourceFor(ntohl(address.sin_addr.s_addr)));
  address.sin_port = 0;
  std::memcpy(out, &address, sizeof address);
  *returned = sizeof address;
  return 0;
}

int Control(Socket& socket, DWORD code, LPVOID in, DWORD in_size, LPVOID out, DWORD out_size,
            LPDWORD returned) {
  DWORD value = 0;
  if (code == static_cast<DWORD>(FIONREAD)) {
    if (!out || out_size < sizeof value) return WSAEFAULT;
    PendingBytes(socket, &value);
    std::memcpy(out, &value, sizeof value);
    *returned = sizeof value;
    return 0;
  }
  if (code == kRoutingInterfaceQuery)
    return GiveRoute(socket, in, in_size, out, out_size, returned);
  if (code == SIO_GET_EXTENSION_FUNCTION_POINTER)
    return GiveExtension(in, in_size, out, out_size, returned);
  if (code != static_cast<DWORD>(FIONBIO) && code != SIO_UDP_CONNRESET) return WSAEOPNOTSUPP;
  const DWORD least = code == SIO_UDP_CONNRESET ? 1 : sizeof value;
  if (!in || in_size < least) return WSAEFAULT;
  std::memcpy(&value, in, std::min<size_t>(in_size, sizeof value));
  if (code == SIO_UDP_CONNRESET) {
    if (!socket.datagrams) return WSAEINVAL;
    socket.datagrams->report_unreachable = value != 0;
  } else {
    socket.nonblocking = value != 0;
  }
  *returned = 0;
  return 0;
}

int WSPAPI WspIoctl(SOCKET s, DWORD code, LPVOID in, DWORD in_size, LPVOID out, DWORD out_size,
                    LPDWORD returned, LPWSAOVERLAPPED overlapped,
                    LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID, LPINT error) {
  if (port::Fails("WSPIoctl", error)) return SOCKET_ERROR;
  const auto socket = Find(s);
  int result = WSAENOTSOCK;
  if (socket)
    result = overlapped  ? WSAEOPNOTSUPP
             : !returned ? WSAEFAULT
                         : Control(*socket, code, in, in_size, out, out_size, returned);
  return Answer("ioctl", s, result, error, [&] { return Format("0x%x", code); });
}

int WSPAPI WspListen(SOCKET s, int backlog, LPINT error) {
  if (port::Fails("WSPListen", error)) return SOCKET_ERROR;
  const auto socket = Find(s);
  return Answer("listen", s, socket ? Listen(*socket, backlog) : WSAENOTSOCK, error);
}

// Common to WspRecv and WspRecvFrom: `from` and `from_size` may be null.
int ReceiveInto(const char* call, SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received,
                LPDWORD flags, struct sockaddr* from, LPINT from_size, bool overlapped,
                LPINT error) {
  const auto socket = Find(s);
  if (!socket) return Answer(call, s, WSAENOTSOCK, error);
  if (overlapped) return Answer(call, s, WSAEOPNOTSUPP, error);
  if (!buffers || !received || !flags) return Answer(call, s, WSAEFAULT, error);
  if (from && (!from_size || *from_size < static_cast<int>(sizeof(sockaddr_in))))
    return Answer(call, s, WSAEFAULT, error);
  if ((*flags & ~static_cast<DWORD>(MSG_PEEK | MSG_OOB)) != 0)
    return Answer(call, s, WSAEOPNOTSUPP, error);
  // A single buffer, the usual case, is filled in place.
  std::string space(count == 1 ? 0 : Room(buffers, count), '\0');
  char* const out = count == 1 ? buffers[0].buf : space.data();
  const size_t size = count == 1 ? buffers[0].len : space.size();
  DWORD n = 0;
  std::optional<Address> peer;
  const int result =
      Receive(*socket, out, size, (*flags & MSG_PEEK) != 0, (*flags & MSG_OOB) != 0, &n, &peer);
  if (result == 0 || result == WSAEMSGSIZE) {
    if (count != 1) Scatter(std::string_view(space).substr(0, n), buffers, count);
    *received = n;
    *flags = 0;
    if (peer && from) WriteAddress(*peer, from, from_size);
  }
  return Answer(call, s, result, error, [&] { return Format("%u bytes", n); });
}

int WSPAPI WspRecv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                   LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE completion,
                   LPWSATHREADID, LPINT error) {
  if (port::Fails("WSPRecv", error)) return SOCKET_ERROR;
  return ReceiveInto("recv", s, buffers, count, received, flags, nullptr, nullptr,
                     overlapped || completion, error);
}

int WSPAPI WspRecvFrom(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                       struct sockaddr* from, LPINT from_size, LPWSAOVERLAPPED overlapped,
                       LPWSAOVERLAPPED_COMPLETION_ROUTINE completion, LPWSATHREADID, LPINT error) {
  if (port::Fails("WSPRecvFrom", error)) return SOCKET_ERROR;
  return ReceiveInto("recvfrom", s, buffers, count, received, flags, from, from_size,
                     overlapped || completion, error);
}

int WSPAPI WspSelect(int, fd_set* read, fd_set* write, fd_set* except,
                     const struct timeval* timeout, LPINT error) {
  if (port::Fails("WSPSelect", error)) return SOCKET_ERROR;
  int ready = 0;
  const int result = Select(*Self().process(), read, write, except, timeout, &ready);
  if (Answer("select", INVALID_SOCKET, result, error, [&] { return Format("%d ready", ready); }) !=
      0)
    return SOCKET_ERROR;
  return ready;
}

int CheckSend(const SocketRef& socket, const WSABUF* buffers, const DWORD* sent, DWORD flags,
              bool overlapped) {
  if (!socket) return WSAENOTSOCK;
  if (overlapped) return WSAEOPNOTSUPP;
  if (!buffers || !sent) return WSAEFAULT;
  return (flags & ~static_cast<DWORD>(MSG_OOB)) != 0 ? WSAEOPNOTSUPP : 0;
}

int WSPAPI WspSend(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                   LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE completion,
                   LPWSATHREADID, LPINT error) {
  if (port::Fails("WSPSend", error)) return SOCKET_ERROR;
  const auto socket = Find(s);
  DWORD n = 0;
  int result = CheckSend(socket, buffers, sent, flags, overlapped || completion);
  std::string space;
  if (result == 0)
    result = Send(*socket, Gather(buffers, count, &space), (flags & MSG_OOB) != 0, &n);
  if (result == 0) *sent = n;
  return Answer("send", s, result, error, [&] { return Format("%u bytes", n); });
}

int WSPAPI WspSendTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                     const struct sockaddr* to, int to_size, LPWSAOVERLAPPED overlapped,
                     LPWSAOVERLAPPED_COMPLETION_ROUTINE completion, LPWSATHREADID, LPINT error) {
  if (port::Fails("WSPSendTo", error)) return SOCKET_ERROR;
  const auto socket = Find(s);
  DWORD n = 0;
  std::optional<Address> target;
  int result = CheckSend(socket, buffers, sent, flags, overlapped || completion);
  if (result == 0 && to && !socket->stream()) {
    target.emplace();
    result = ReadAddress(to, to_size, &*target);
  }
  std::string space;
  if (result == 0) {
    result = SendTo(*socket, std::string(Gather(buffers, count, &space)), target, &n);
  }
  if (result == 0) *sent = n;
  return Answer("sendto", s, result, error,
                [&] { return Format("%u bytes", n) + (target ? " to " + ToText(*target) : ""); });
}

int WSPAPI WspSetSockOpt(SOCKET s, int level, int option, const char* value, int value_size,
                         LPINT error) {
  if (port::Fails("WSPSetSockOpt", error)) return SOCKET_ERROR;
  const auto socket = Find(s);
  int result = WSAENOTSOCK;
  if (socket) result = value ? SetOption(*socket, level, option, value, value_size) : WSAEFAULT;
  return Answer("setsockopt", s, result, error,
                [&] { return Format("0x%x", static_cast<unsigned>(option)); });
}

int WSPAPI WspShutdown(SOCKET s, int how, LPINT error) {
  if (port::Fails("WSPShutdown", error)) return SOCKET_ERROR;
  const auto socket = Find(s);
  return Answer("shutdown", s, socket ? Shutdown(*socket, how) : WSAENOTSOCK, error);
}

SOCKET WSPAPI WspSocket(int family, int type, int protocol, LPWSAPROTOCOL_INFOW, GROUP, DWORD,
                        LPINT error) {
  if (port::Fails("WSPSocket", error)) return INVALID_SOCKET;
  SOCKET made = INVALID_SOCKET;
  const int result = OpenSocket(*Self().process(), family, type, protocol, &made);
  return AnswerSocket("socket", made, result, error, [&] { return Format("type %d", type); });
}

// --- entries that are not implemented ---------------------------------------------------------

template <class Result>
Result Unsupported(Result failure, LPINT error) {
  Step();
  if (error) *error = WSAEOPNOTSUPP;
  return failure;
}

INT WSPAPI WspAddressToString(LPSOCKADDR, DWORD, LPWSAPROTOCOL_INFOW, LPWSTR, LPDWORD,
                              LPINT error) {
  return Unsupported(SOCKET_ERROR, error);
}
int WSPAPI WspAsyncSelect(SOCKET, HWND, unsigned int, long, LPINT error) {
  return Unsupported(SOCKET_ERROR, error);
}
int WSPAPI WspCancelBlockingCall(LPINT error) { return Unsupported(SOCKET_ERROR, error); }
int WSPAPI WspDuplicateSocket(SOCKET, DWORD, LPWSAPROTOCOL_INFOW, LPINT error) {
  return Unsupported(SOCKET_ERROR, error);
}
int WSPAPI WspEnumNetworkEvents(SOCKET, WSAEVENT, LPWSANETWORKEVENTS, LPINT error) {
  return Unsupported(SOCKET_ERROR, error);
}
int WSPAPI WspEventSelect(SOCKET, WSAEVENT, long, LPINT error) {
  return Unsupported(SOCKET_ERROR, error);
}
BOOL WSPAPI WspGetOverlappedResult(SOCKET, LPWSAOVERLAPPED, LPDWORD, BOOL, LPDWORD, LPINT error) {
  return Unsupported(FALSE, error);
}
BOOL WSPAPI WspGetQosByName(SOCKET, LPWSABUF, LPQOS, LPINT error) {
  return Unsupported(FALSE, error);
}
SOCKET WSPAPI WspJoinLeaf(SOCKET, const struct sockaddr*, int, LPWSABUF, LPWSABUF, LPQOS, LPQOS,
                          DWORD, LPINT error) {
  return Unsupported(INVALID_SOCKET, error);
}
int WSPAPI WspRecvDisconnect(SOCKET, LPWSABUF, LPINT error) {
  return Unsupported(SOCKET_ERROR, error);
}
int WSPAPI WspSendDisconnect(SOCKET, LPWSABUF, LPINT error) {
  return Unsupported(SOCKET_ERROR, error);
}
INT WSPAPI WspStringToAddress(LPWSTR, INT, LPWSAPROTOCOL_INFOW, LPSOCKADDR, LPINT, LPINT error) {
  return Unsupported(SOCKET_ERROR, error);
}

}  // namespace
}  // namespace sim

namespace port {

const WSPPROC_TABLE& BaseProviderTable() {
  static const WSPPROC_TABLE table = {
      sim::WspAccept,
      sim::WspAddressToString,
      sim::WspAsyncSelect,
      sim::WspBind,
      sim::WspCancelBlockingCall,
      sim::WspCleanup,
      sim::WspCloseSocket,
      sim::WspConnect,
      sim::WspDuplicateSocket,
      sim::WspEnumNetworkEvents,
      sim::WspEventSelect,
      sim::WspGetOverlappedResult,
      sim::WspGetPeerName,
      sim::WspGetSockName,
      sim::WspGetSockOpt,
      sim::WspGetQosByName,
      sim::WspIoctl,
      sim::WspJoinLeaf,
      sim::WspListen,
      sim::WspRecv,
      sim::WspRecvDisconnect,
      sim::WspRecvFrom,
      sim::WspSelect,
      sim::WspSend,
      sim::WspSendDisconnect,
      sim::WspSendTo,
      sim::WspSetSockOpt,
      sim::WspShutdown,
      sim::WspSocket,
      sim::WspStringToAddress,
  };
  return table;
}

}  // namespace port
