// A socket with two handles: in this process, and in another one.
#include <cstdlib>

#include "parity.h"

namespace parity {
namespace {

Socket Second(SOCKET s, DWORD flags = WSA_FLAG_OVERLAPPED) {
  WSAPROTOCOL_INFOW info = {};
  const int result = WSADuplicateSocketW(s, GetCurrentProcessId(), &info);
  if (result != 0) return Socket(INVALID_SOCKET);
  return Socket(
      WSASocketW(FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, &info, 0, flags));
}

void OfAStream() {
  Peer peer = Ask("echo");
  const Socket second = Second(peer.s);
  Bound(second);
  Note("a second handle", YesNo(second != INVALID_SOCKET));
  Note("send by the second", Said(Send(second, "by the second")));
  Note("recv by the first", Receive(peer.s));
  sockaddr_in address = {};
  int size = sizeof address;
  const int named = getpeername(second, Of(address), &size);
  Note("getpeername of the second", named == 0 ? Text(address) : Said(named));
  Note("closesocket of the first", Said(peer.s.Close()));
  Note("send behind it", Said(Send(second, "alone")));
  Note("recv behind it", Receive(second));
  shutdown(second, SD_SEND);
  Note("the end", Receive(second));
}

void BeforeAConnection() {
  Socket first = NewStream();
  const Socket second = Second(first);
  Bound(second);
  const sockaddr_in server = Address(kServerIp, kPort);
  Note("connect of the first", Said(connect(first, Of(server), sizeof server)));
  Note("send by the second before it received", Said(Send(second, Request(NewId(), "say hello"))));
  Note("recv by the second", Receive(second));
  Socket made = NewStream();
  const Socket connects = Second(made);
  made.Close();
  Bound(connects);
  Note("connect of a second handle", Said(connect(connects, Of(server), sizeof server)));
  Send(connects, Request(NewId(), "say hello"));
  Note("recv by it", Receive(connects));
}

void OfADatagramSocket() {
  Socket first = NewDatagram();
  const Socket second = Second(first);
  Bound(second);
  const sockaddr_in server = Address(kServerIp, kPort);
  Note("sendto by the second", Said(sendto(second, "echo word", 9, 0, Of(server), sizeof server)));
  Note("its answer at the first", Receive(first));
  first.Close();
  Note("sendto after the first is closed",
       Said(sendto(second, "echo more", 9, 0, Of(server), sizeof server)));
  Note("its answer at the second", Receive(second));
  WSAPROTOCOL_INFOW info = {};
  Note("a duplicate of no socket",
       Said(WSADuplicateSocketW(0x12344, GetCurrentProcessId(), &info)));
  Note("a duplicate for no process", Said(WSADuplicateSocketW(second, 3, &info)));
}

// Starts this program as a child that inherits the handle, and waits until it has said what it
// sees.
bool RunChild(SOCKET s, const wchar_t* kind) {
  wchar_t path[MAX_PATH];
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring line = std::wstring(L"\"").append(path).append(L"\" child ");
  line.append(std::to_wstring(s)).append(L" ").append(kind);
  STARTUPINFOW start = {};
  start.cb = sizeof start;
  PROCESS_INFORMATION process = {};
  if (!CreateProcessW(path, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &start,
                      &process)) {
    return false;
  }
  const bool ended = WaitForSingleObject(process.hProcess, 8000) == WAIT_OBJECT_0;
  if (!ended) TerminateProcess(process.hProcess, 1);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return ended;
}

}  // namespace

void Duplicated() {
  OfAStream();
  BeforeAConnection();
  OfADatagramSocket();
}

void Inherited() {
  Peer peer = Ask("echo");
  DWORD flags = 0;
  GetHandleInformation(reinterpret_cast<HANDLE>(static_cast<SOCKET>(peer.s)), &flags);
  Note("a socket can be inherited", YesNo((flags & HANDLE_FLAG_INHERIT) != 0));
  Note("a child with a connected stream ends", YesNo(RunChild(peer.s, L"stream")));
  Note("the parent's stream works on", Said(Send(peer.s, "again")));
  Note("its echo", Receive(peer.s));
  Socket datagrams = NewDatagram();
  const sockaddr_in server = Address(kServerIp, kPort);
  sendto(datagrams, "echo first", 10, 0, Of(server), sizeof server);
  Note("an answer before the child", Receive(datagrams));
  Note("a child with a datagram socket ends", YesNo(RunChild(datagrams, L"datagrams")));
  sendto(datagrams, "echo last", 9, 0, Of(server), sizeof server);
  Note("an answer after the child", Receive(datagrams));
  const Socket hidden(WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                                 WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT));
  flags = 1;
  GetHandleInformation(reinterpret_cast<HANDLE>(static_cast<SOCKET>(hidden)), &flags);
  Note("one that is made not to be inherited", YesNo((flags & HANDLE_FLAG_INHERIT) != 0));
}

int Child(const char* handle_text, const std::string& kind) {
  const auto s = static_cast<SOCKET>(std::strtoul(handle_text, nullptr, 10));
  if (kind == "stream") {
    Note("the child sends", Said(Send(s, "from the child")));
    Note("the child receives", Receive(s));
    sockaddr_in address = {};
    int size = sizeof address;
    const int named = getpeername(s, Of(address), &size);
    Note("the child's getpeername", named == 0 ? Text(address) : Said(named));
    Note("the child's SO_ERROR", Number(static_cast<unsigned>(ErrorOption(s))));
    Note("the child closes", Said(closesocket(s)));
    return 0;
  }
  const sockaddr_in server = Address(kServerIp, kPort);
  Note("the child's sendto", Said(sendto(s, "echo child", 10, 0, Of(server), sizeof server)));
  Note("the answer to the child", Receive(s));
  return 0;
}

}  // namespace parity
