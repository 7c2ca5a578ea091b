#include "winsock_hooks.h"

#include "catalogue.h"
#include "dispatch.h"
#include "patch.h"

namespace winsock_host {
namespace {

struct Replacement {
  const char* name;
  void* function;
};

template <typename Function>
Replacement Replace(const char* name, Function* function) {
  return {name, reinterpret_cast<void*>(function)};
}

}  // namespace

void AddWinsockReplacements() {
  const Replacement replacements[] = {
      Replace("WSAStartup", Startup),
      Replace("WSACleanup", Cleanup),
      Replace("inet_ntoa", AddressText),
      Replace("socket", Socket),
      Replace("WSASocketA", SocketA),
      Replace("WSASocketW", SocketW),
      Replace("accept", Accept),
      Replace("WSAAccept", AcceptConditional),
      Replace("WSAJoinLeaf", JoinLeaf),
      Replace("closesocket", CloseSocket),
      Replace("WSADuplicateSocketA", DuplicateSocketA),
      Replace("WSADuplicateSocketW", DuplicateSocketW),
      Replace("recv", Recv),
      Replace("WSARecvEx", RecvEx),
      Replace("recvfrom", RecvFrom),
      Replace("send", Send),
      Replace("sendto", SendTo),
      Replace("WSARecv", RecvBuffers),
      Replace("WSARecvFrom", RecvBuffersFrom),
      Replace("WSASend", SendBuffers),
      Replace("WSASendTo", SendBuffersTo),
      Replace("WSASendMsg", SendMsg),
      Replace("WSARecvDisconnect", RecvDisconnect),
      Replace("WSASendDisconnect", SendDisconnect),
      Replace("WSAGetOverlappedResult", GetOverlappedResult),
      Replace("bind", Bind),
      Replace("connect", Connect),
      Replace("WSAConnect", ConnectWithData),
      Replace("listen", Listen),
      Replace("shutdown", Shutdown),
      Replace("getpeername", GetPeerName),
      Replace("getsockname", GetSockName),
      Replace("getsockopt", GetSockOpt),
      Replace("setsockopt", SetSockOpt),
      Replace("ioctlsocket", IoctlSocket),
      Replace("WSAIoctl", Ioctl),
      Replace("select", Select),
      Replace("WSAAsyncSelect", AsyncSelect),
      Replace("WSAEventSelect", EventSelect),
      Replace("WSAEnumNetworkEvents", EnumNetworkEvents),
      Replace("WSAGetQOSByName", GetQosByName),
      Replace("WSCEnumProtocols", EnumProtocols),
      Replace("WSCGetProviderPath", GetProviderPath),
  };
  const HMODULE winsock = GetModuleHandleW(L"ws2_32.dll");
  for (const Replacement& replacement : replacements) {
    AddReplacement(reinterpret_cast<void*>(GetProcAddress(winsock, replacement.name)),
                   replacement.function);
  }
}

}  // namespace winsock_host
