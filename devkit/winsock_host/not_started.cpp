#include "not_started.h"

#include <tuple>

namespace winsock_host {
namespace {

// Every entry ends with the word for its error.
template <typename Result, Result kFailure, typename... Arguments>
Result WSPAPI NotStarted(Arguments... arguments) {
  const LPINT error = std::get<sizeof...(Arguments) - 1>(std::tie(arguments...));
  if (error != nullptr) *error = WSANOTINITIALISED;
  return kFailure;
}

template <auto kFailure, typename Result, typename... Arguments>
void Fill(Result(WSPAPI** entry)(Arguments...)) {
  *entry = NotStarted<Result, static_cast<Result>(kFailure), Arguments...>;
}

void FillSocketsAndAnswers(WSPPROC_TABLE* table) {
  Fill<INVALID_SOCKET>(&table->lpWSPAccept);
  Fill<INVALID_SOCKET>(&table->lpWSPJoinLeaf);
  Fill<INVALID_SOCKET>(&table->lpWSPSocket);
  Fill<FALSE>(&table->lpWSPGetOverlappedResult);
  Fill<FALSE>(&table->lpWSPGetQOSByName);
}

void FillResults(WSPPROC_TABLE* table) {
  Fill<SOCKET_ERROR>(&table->lpWSPAddressToString);
  Fill<SOCKET_ERROR>(&table->lpWSPAsyncSelect);
  Fill<SOCKET_ERROR>(&table->lpWSPBind);
  Fill<SOCKET_ERROR>(&table->lpWSPCancelBlockingCall);
  Fill<SOCKET_ERROR>(&table->lpWSPCleanup);
  Fill<SOCKET_ERROR>(&table->lpWSPCloseSocket);
  Fill<SOCKET_ERROR>(&table->lpWSPConnect);
  Fill<SOCKET_ERROR>(&table->lpWSPDuplicateSocket);
  Fill<SOCKET_ERROR>(&table->lpWSPEnumNetworkEvents);
  Fill<SOCKET_ERROR>(&table->lpWSPEventSelect);
  Fill<SOCKET_ERROR>(&table->lpWSPGetPeerName);
  Fill<SOCKET_ERROR>(&table->lpWSPGetSockName);
  Fill<SOCKET_ERROR>(&table->lpWSPGetSockOpt);
  Fill<SOCKET_ERROR>(&table->lpWSPIoctl);
  Fill<SOCKET_ERROR>(&table->lpWSPListen);
  Fill<SOCKET_ERROR>(&table->lpWSPRecv);
  Fill<SOCKET_ERROR>(&table->lpWSPRecvDisconnect);
  Fill<SOCKET_ERROR>(&table->lpWSPRecvFrom);
  Fill<SOCKET_ERROR>(&table->lpWSPSelect);
  Fill<SOCKET_ERROR>(&table->lpWSPSend);
  Fill<SOCKET_ERROR>(&table->lpWSPSendDisconnect);
  Fill<SOCKET_ERROR>(&table->lpWSPSendTo);
  Fill<SOCKET_ERROR>(&table->lpWSPSetSockOpt);
  Fill<SOCKET_ERROR>(&table->lpWSPShutdown);
  Fill<SOCKET_ERROR>(&table->lpWSPStringToAddress);
}

}  // namespace

const Provider& RefusingProvider() {
  static const Provider& provider = *[] {
    auto* refusing = new Provider{};
    FillSocketsAndAnswers(&refusing->table);
    FillResults(&refusing->table);
    return refusing;
  }();
  return provider;
}

}  // namespace winsock_host
