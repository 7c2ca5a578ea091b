// ConnectEx, DisconnectEx, AcceptEx, TransmitFile.
#include "parity.h"

#include <mswsock.h>

namespace parity {
namespace {

const sockaddr_in kAny = Address("0.0.0.0", 0);

Socket BoundStream() {
  Socket s = NewStream();
  Bound(s);
  bind(s, Of(kAny), sizeof kAny);
  return s;
}

int Begun(BOOL result) { return result ? 0 : SOCKET_ERROR; }

// What is said of a call that goes on by itself, and by which it is said.
std::string Taken(BOOL result) {
  if (result) return "taken";
  return WSAGetLastError() == WSA_IO_PENDING ? "taken" : Said(SOCKET_ERROR);
}

void Connects() {
  const Socket s = BoundStream();
  const auto connect_ex = Extension<LPFN_CONNECTEX>(s, WSAID_CONNECTEX);
  Note("ConnectEx is there", YesNo(connect_ex != nullptr));
  const sockaddr_in server = Address(kServerIp, kPort);
  Pending pending;
  std::string words = Request(NewId(), "say hello");
  DWORD sent = 0;
  const BOOL result = connect_ex(s, Of(server), sizeof server, words.data(),
                                 static_cast<DWORD>(words.size()), &sent, &pending.overlapped);
  Note("ConnectEx with data", result ? "true" : Said(SOCKET_ERROR));
  if (!result) WSASetLastError(WSA_IO_PENDING);
  const std::string end = pending.End(s, Begun(result), 3 * PatienceMs());
  Note("its end", end == Number(words.size()).append(" bytes") ? "all bytes" : end);
  Note("SO_UPDATE_CONNECT_CONTEXT",
       Said(setsockopt(s, SOL_SOCKET, SO_UPDATE_CONNECT_CONTEXT, nullptr, 0)));
  sockaddr_in peer = {};
  int size = sizeof peer;
  const int named = getpeername(s, Of(peer), &size);
  Note("getpeername behind it", named == 0 ? Text(peer) : Said(named));
  Note("recv behind it", Receive(s));
  Note("ConnectEx again",
       Taken(connect_ex(s, Of(server), sizeof server, nullptr, 0, &sent, &pending.overlapped)));
  const Socket unbound = NewStream();
  Note("ConnectEx of a socket that is not bound",
       Taken(
           connect_ex(unbound, Of(server), sizeof server, nullptr, 0, &sent, &pending.overlapped)));
}

void ConnectExRefused() {
  const Socket s = BoundStream();
  const auto connect_ex = Extension<LPFN_CONNECTEX>(s, WSAID_CONNECTEX);
  const sockaddr_in nobody = Address(kServerIp, kRefusedPort);
  Pending pending;
  DWORD sent = 0;
  const BOOL result =
      connect_ex(s, Of(nobody), sizeof nobody, nullptr, 0, &sent, &pending.overlapped);
  Note("ConnectEx where nobody listens", result ? "true" : Said(SOCKET_ERROR));
  if (!result) WSASetLastError(WSA_IO_PENDING);
  Note("the end of a refusal", pending.End(s, Begun(result), 3 * PatienceMs()));
  const Socket direct = BoundStream();
  const sockaddr_in server = Address(kDirectIp, kPort);
  Pending other;
  const BOOL begun =
      connect_ex(direct, Of(server), sizeof server, nullptr, 0, &sent, &other.overlapped);
  if (!begun) WSASetLastError(WSA_IO_PENDING);
  Note("ConnectEx to a server of no table", other.End(direct, Begun(begun)));
}

void Disconnects() {
  const Peer peer = Ask("echo");
  const auto disconnect_ex = Extension<LPFN_DISCONNECTEX>(peer.s, WSAID_DISCONNECTEX);
  Note("DisconnectEx is there", YesNo(disconnect_ex != nullptr));
  if (disconnect_ex == nullptr) return;
  Pending pending;
  const BOOL result = disconnect_ex(peer.s, &pending.overlapped, 0, 0);
  Note("DisconnectEx", pending.End(peer.s, Begun(result)));
  Note("what the server saw", peer.Saw());
}

void Accepts() {
  sockaddr_in address;
  const Socket listener = Listener(&address);
  const auto accept_ex = Extension<LPFN_ACCEPTEX>(listener, WSAID_ACCEPTEX);
  Note("AcceptEx is there", YesNo(accept_ex != nullptr));
  const Socket accepted = NewStream();
  Bound(accepted);
  constexpr DWORD kRoom = sizeof(sockaddr_in) + 16;
  char room[16 + 2 * kRoom] = {};
  DWORD got = 0;
  Pending pending;
  const BOOL result =
      accept_ex(listener, accepted, room, 16, kRoom, kRoom, &got, &pending.overlapped);
  Note("AcceptEx", result ? "true" : Said(SOCKET_ERROR));
  const Socket caller = NewStream();
  connect(caller, Of(address), sizeof address);
  Send(caller, "first");
  WSASetLastError(WSA_IO_PENDING);
  Note("its end with the first bytes",
       pending.End(listener, Begun(result)).append(" ").append(room, 5));
  const SOCKET context = listener;
  Note("SO_UPDATE_ACCEPT_CONTEXT",
       Said(setsockopt(accepted, SOL_SOCKET, SO_UPDATE_ACCEPT_CONTEXT,
                       reinterpret_cast<const char*>(&context), sizeof context)));
  Send(accepted, "back");
  Note("recv from the accepted", Receive(caller));
}

void Transmits() {
  wchar_t folder[MAX_PATH];
  wchar_t path[MAX_PATH];
  GetTempPathW(MAX_PATH, folder);
  GetTempFileNameW(folder, L"par", 0, path);
  const HANDLE file = CreateFileW(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                  FILE_FLAG_DELETE_ON_CLOSE, nullptr);
  const std::string text(100'000, 'f');
  DWORD written = 0;
  WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
  SetFilePointer(file, 0, nullptr, FILE_BEGIN);
  const Peer peer = Ask("sink");
  const auto transmit = Extension<LPFN_TRANSMITFILE>(peer.s, WSAID_TRANSMITFILE);
  Pending pending;
  const BOOL result = transmit(peer.s, file, 0, 0, &pending.overlapped, nullptr, 0);
  Note("TransmitFile", pending.End(peer.s, Begun(result), 3 * PatienceMs()));
  shutdown(peer.s, SD_SEND);
  Note("what the server saw of a file", peer.Saw());
  CloseHandle(file);
}

}  // namespace

void ExtensionFunctions() {
  Connects();
  ConnectExRefused();
  Disconnects();
  Accepts();
  Transmits();
}

}  // namespace parity
