// The sockets of every simulated process, and the calls on them.
//
// There is one function for each Windows call; base_provider.cpp puts them into a table. Each
// returns a Winsock error number, or 0 for success. Addresses are in host order here.
#pragma once
#include <winsock2.h>

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "port/sim/scheduler.h"
#include "port/sim/stack.h"

namespace sim {

// A socket belongs to one process, and each call on it keeps it alive. If it is closed during a
// blocking call, that call fails with WSAEINTR.
struct Socket {
  SOCKET handle = INVALID_SOCKET;
  Process* process = nullptr;
  int type = 0;
  int protocol = 0;
  bool nonblocking = false;
  bool closed = false;

  std::shared_ptr<Binding> binding;  // null: unbound
  Address local;                     // as getsockname returns it
  Address peer;
  bool share = false, exclusive = false;

  // A stream is idle, listening, connecting (tcp set, not yet settled) or connected.
  std::shared_ptr<TcpConnection> tcp;
  std::shared_ptr<TcpListener> listener;
  bool connecting = false;
  bool connect_failed = false;  // the socket is in the exception set until the next connect
  int pending_error = 0;        // SO_ERROR
  bool send_shut = false, receive_shut = false;
  TcpConnection::Settings settings;
  bool linger_on = false;
  int linger_seconds = 0;

  std::shared_ptr<DatagramPort> datagrams;  // UDP and raw sockets, from the start

  DWORD send_timeout_ms = 0, receive_timeout_ms = 0;  // 0: none
  std::map<std::pair<int, int>, int> plain_options;   // stored, without effect

  bool stream() const { return type == SOCK_STREAM; }
  Stack& stack() const { return process->host.stack(); }

  // Reads the outcome of a pending connect.
  void Settle();
  bool CanRead() const;
  bool CanWrite() const;
  bool HasException() const;
};
using SocketRef = std::shared_ptr<Socket>;

class SocketTable {
 public:
  explicit SocketTable(bool reuse) : reuse_(reuse) {}
  SOCKET Add(SocketRef socket);
  // Null if the handle is closed or belongs to another process.
  SocketRef Find(SOCKET handle, const Process& process) const;
  void Remove(SOCKET handle);
  void CloseAllOf(Process& process);  // as when a process is killed: streams are reset
  void SetReuse(bool reuse) { reuse_ = reuse; }
  size_t size() const { return sockets_.size(); }
  size_t CountOf(const Process& process) const;      // open ones
  std::string ListOf(const Process& process) const;  // the same in words, one line for each

 private:
  bool reuse_;  // true: the value that was closed last is reused first
  SOCKET next_ = 0x100;
  std::deque<SOCKET> closed_;  // the latest ones; a search closes sockets for hours
  std::map<SOCKET, SocketRef> sockets_;
};

int OpenSocket(Process& process, int family, int type, int protocol, SOCKET* out);
int CloseSocket(Socket& socket);
int Bind(Socket& socket, const Address& address);
int Listen(Socket& socket, int backlog);
int Accept(Socket& socket, SOCKET* out, Address* peer);
int Connect(Socket& socket, const Address& address);
int Shutdown(Socket& socket, int how);
int LocalName(const Socket& socket, Address* out);
int PeerName(Socket& socket, Address* out);

int Send(Socket& socket, std::string_view data, bool urgent, DWORD* sent);
int SendTo(Socket& socket, const std::string& data, const std::optional<Address>& to, DWORD* sent);
// `*from` is set for datagrams. If a datagram is too long, returns 10040 with the part that fits.
int Receive(Socket& socket, char* out, size_t size, bool peek, bool urgent, DWORD* received,
            std::optional<Address>* from);

int GetOption(Socket& socket, int level, int option, char* value, int* size);
int SetOption(Socket& socket, int level, int option, const char* value, int size);
int PendingBytes(const Socket& socket, DWORD* out);

int Select(const Process& process, fd_set* read, fd_set* write, fd_set* except,
           const struct timeval* timeout, int* ready);

}  // namespace sim
