// Network events with WSAEventSelect, and window messages with WSAAsyncSelect.
#include "probe.h"

namespace {

constexpr UINT kSocketMessage = WM_USER + 1;
constexpr DWORD kPatienceMs = 10'000;

// Waits for one of the events. The platform may report several at once, so only the wanted one is
// printed.
bool AwaitEvent(SOCKET s, WSAEVENT event, long wanted, int bit) {
  for (int i = 0; i < 20; ++i) {
    if (WSAWaitForMultipleEvents(1, &event, FALSE, kPatienceMs, FALSE) != WSA_WAIT_EVENT_0) break;
    WSANETWORKEVENTS events = {};
    if (WSAEnumNetworkEvents(s, event, &events) != 0) break;
    if ((events.lNetworkEvents & wanted) != 0) {
      probe::Say("event with error %d", events.iErrorCode[bit]);
      return true;
    }
  }
  probe::Say("event did not come");
  return false;
}

void WithEvents() {
  const SOCKET s = probe::NewStream();
  WSAEVENT event = WSACreateEvent();
  probe::SayResult("WSAEventSelect",
                   WSAEventSelect(s, event, FD_CONNECT | FD_READ | FD_WRITE | FD_CLOSE));
  probe::SayResult("connect", connect(s, probe::Server(), sizeof(sockaddr_in)));
  AwaitEvent(s, event, FD_CONNECT, FD_CONNECT_BIT);
  probe::SayResult("send", send(s, "by event", 8, 0));
  AwaitEvent(s, event, FD_READ, FD_READ_BIT);
  char buffer[16] = {};
  probe::SayResult("recv", recv(s, buffer, sizeof(buffer) - 1, 0));
  probe::SayResult("shutdown", shutdown(s, SD_SEND));
  AwaitEvent(s, event, FD_CLOSE, FD_CLOSE_BIT);
  closesocket(s);
  WSACloseEvent(event);
}

void WithMessages() {
  const HWND window = CreateWindowExW(0, L"STATIC", L"probe", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                                      nullptr, nullptr);
  probe::Say("window: %d", window != nullptr);
  if (window == nullptr) return;
  const SOCKET s = probe::NewStream();
  probe::SayResult("WSAAsyncSelect",
                   WSAAsyncSelect(s, window, kSocketMessage, FD_CONNECT | FD_READ));
  probe::SayResult("connect", connect(s, probe::Server(), sizeof(sockaddr_in)));
  const UINT_PTR timer = SetTimer(window, 1, kPatienceMs, nullptr);
  MSG message;
  bool done = false;
  while (!done && GetMessageW(&message, window, 0, 0) > 0) {
    if (message.message == WM_TIMER) {
      probe::Say("messages did not come");
      break;
    }
    if (message.message != kSocketMessage) continue;
    probe::Say("message: event %d, error %d", WSAGETSELECTEVENT(message.lParam),
               WSAGETSELECTERROR(message.lParam));
    if (WSAGETSELECTEVENT(message.lParam) == FD_CONNECT) {
      probe::SayResult("send", send(s, "by message", 10, 0));
    } else {
      char buffer[16] = {};
      probe::SayResult("recv", recv(s, buffer, sizeof(buffer) - 1, 0));
      done = true;
    }
  }
  KillTimer(window, timer);
  closesocket(s);
  DestroyWindow(window);
}

}  // namespace

int main(int argc, char** argv) {
  probe::Begin(argc, argv);
  WithEvents();
  WithMessages();
  return probe::End();
}
