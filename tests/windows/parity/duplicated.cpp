// A socket with two handles: in this process, and in another one.
#include <cstdlib>

#include "parity.h"

namespace parity {
namespace {

Socket Second(SOCKET s, DWORD flags = WSA_FLAG_OVERLAPPED) {
  WSAPROTOCOL_INFOW info = {};
  const int result = WSADuplicateSocketW(s, GetCurrentProcessId(), &info);
  if (result != 0) return Socket(INVALID_SOCKET);
  return Socket(WSASocketW(FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, &info, 0, flags));
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
  sendto(first, "echo more", 9, 0, Of(server), sizeof server);
  first.Close();
  Note("an answer after the first is closed", Receive(second));
  WSAPROTOCOL_INFOW info = {};
  Note("a duplicate of no socket", Said(WSADuplicateSocketW(0x12344, GetCurrentProcessId(), &info)));
  Note("a duplicate for no process", Said(WSADuplicateSocketW(second, 3, &info)));
}

// Starts this program as a child that inherits the handle; returns its exit code.
DWORD RunChild(SOCKET s) {
  wchar_t path[MAX_PATH];
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring line = std::wstring(L"\"").append(path).append(L"\" child ");
  line.append(std::to_wstring(s)).append(L" -test");
  STARTUPINFOW start = {};
  start.cb = sizeof start;
  PROCESS_INFORMATION process = {};
  if (!CreateProcessW(path, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &start, &process)) {
    return 99;
  }
  DWORD code = 98;
  if (WaitForSingleObject(process.hProcess, 8000) == WAIT_OBJECT_0) {
    GetExitCodeProcess(process.hProcess, &code);
  } else {
    TerminateProcess(process.hProcess, 97);
  }
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return code;
}

// What a child that tries everything says by its exit code.
constexpr DWORD kSent = 1, kReceived = 2, kNamed = 4, kClosed = 8;

void NoteChild(const char* what, DWORD code) {
  std::string text = (code & kSent) != 0 ? "sends" : "does not send";
  text.append((code & kReceived) != 0 ? ", receives" : ", does not receive");
  text.append((code & kNamed) != 0 ? ", knows its peer" : ", does not know its peer");
  text.append((code & kClosed) != 0 ? ", closes" : ", does not close");
  if (code > 15) text = std::string("ends with ").append(std::to_string(code));
  Note(what, text);
}

}  // namespace

void Duplicated() {
  OfAStream();
  BeforeAConnection();
  OfADatagramSocket();
}

void Inherited() {
  const Peer peer = Ask("echo");
  DWORD flags = 0;
  GetHandleInformation(reinterpret_cast<HANDLE>(static_cast<SOCKET>(peer.s)), &flags);
  Note("a socket can be inherited", YesNo((flags & HANDLE_FLAG_INHERIT) != 0));
  NoteChild("a child with a connected stream", RunChild(peer.s));
  Note("the parent's stream works on", Said(Send(peer.s, "again")));
  Note("its echo", Receive(peer.s));
  const Socket later = NewStream();
  Bound(later);
  const DWORD code = RunChild(later);
  NoteChild("a child with a stream that is not connected", code);
  const Socket hidden(WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                                 WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT));
  flags = 1;
  GetHandleInformation(reinterpret_cast<HANDLE>(static_cast<SOCKET>(hidden)), &flags);
  Note("one that is made not to be inherited", YesNo((flags & HANDLE_FLAG_INHERIT) != 0));
}

int Child(const char* handle_text) {
  const auto s = static_cast<SOCKET>(std::strtoul(handle_text, nullptr, 10));
  const std::string word = "from the child";
  DWORD code = Send(s, word) == static_cast<int>(word.size()) ? kSent : 0;
  if (Receive(s) == word) code |= kReceived;
  sockaddr_in address = {};
  int size = sizeof address;
  if (getpeername(s, Of(address), &size) == 0 && ntohs(address.sin_port) == kPort) code |= kNamed;
  if (closesocket(s) == 0) code |= kClosed;
  return static_cast<int>(code);
}

}  // namespace parity
