// Being told what a socket is ready for: select, WSAEventSelect, WSAAsyncSelect, WSAPoll.
#include "parity.h"

namespace parity {
namespace {

void SelectStates() {
  const Peer peer = Ask("late word");
  Note("a connection", Ready(peer.s, 0));
  Note("with something to read", YesNo(Readable(peer.s)));
  Note("both", Ready(peer.s, 0));
  Receive(peer.s);
  Note("once it is read", Ready(peer.s, 0));
  const Peer ended = Ask("bye");
  Note("at the end", YesNo(Readable(ended.s)));
  Note("the end of it", Receive(ended.s));
  sockaddr_in address;
  const Socket listener = Listener(&address);
  Note("a listener", Ready(listener, 0));
  const Socket caller = NewStream();
  connect(caller, Of(address), sizeof address);
  Note("a listener with a caller", Ready(listener, PatienceMs()));
}

void SelectMany() {
  Peer peers[] = {Ask("echo"), Ask("echo"), Ask("echo"), Ask("echo")};
  Send(peers[2].s, "third");
  fd_set set;
  FD_ZERO(&set);
  for (const Peer& peer : peers) set.fd_array[set.fd_count++] = peer.s;
  timeval wait = {1, 500'000};
  Note("of four, one is ready", Said(select(0, &set, nullptr, nullptr, &wait)));
  Note("which one", YesNo(set.fd_count == 1 && set.fd_array[0] == peers[2].s));
  Send(peers[0].s, "first");
  Readable(peers[0].s);
  FD_ZERO(&set);
  for (const Peer& peer : peers) set.fd_array[set.fd_count++] = peer.s;
  Note("then two", Said(select(0, &set, nullptr, nullptr, &wait)));
  peers[1].s.Close();
  Note("a closed one among them", Said(select(0, nullptr, &set, nullptr, &wait) >= 0 ? 0 : -1));
}

// What has come of a socket's events; those that came with another one count too.
class Arrived {
 public:
  Arrived(SOCKET s, const Event& event) : s_(s), event_(event) {}

  // Takes the event off again.
  std::string Await(int bit) {
    const long wanted = 1 << bit;
    for (int i = 0; i < 10 && (come_ & wanted) == 0 && event_.Await(); ++i) {
      WSANETWORKEVENTS events = {};
      if (WSAEnumNetworkEvents(s_, event_, &events) != 0) return Said(-1);
      come_ |= events.lNetworkEvents;
      for (int one = 0; one < FD_MAX_EVENTS; ++one) {
        if ((events.lNetworkEvents & (1 << one)) != 0) errors_[one] = events.iErrorCode[one];
      }
    }
    if ((come_ & wanted) == 0) return "does not come";
    come_ &= ~wanted;
    return std::string("comes, ").append(ErrorText(errors_[bit]));
  }

 private:
  SOCKET s_;
  const Event& event_;
  long come_ = 0;
  int errors_[FD_MAX_EVENTS] = {};
};

void EventsOfAStream() {
  const Socket s = NewStream();
  const Event event;
  const sockaddr_in server = Address(kServerIp, kPort);
  Note("WSAEventSelect",
       Said(WSAEventSelect(s, event, FD_CONNECT | FD_READ | FD_WRITE | FD_CLOSE)));
  Note("connect", Said(connect(s, Of(server), sizeof server)));
  Arrived arrived(s, event);
  Note("FD_CONNECT", arrived.Await(FD_CONNECT_BIT));
  Note("send", Said(Send(s, Request(NewId(), "all"))));
  Send(s, "words");
  shutdown(s, SD_SEND);
  Note("FD_READ", arrived.Await(FD_READ_BIT));
  Note("recv", Receive(s));
  Note("FD_CLOSE", arrived.Await(FD_CLOSE_BIT));
  u_long blocking = 0;
  Note("FIONBIO while events are on", Said(ioctlsocket(s, static_cast<long>(FIONBIO), &blocking)));
  Note("WSAEventSelect off", Said(WSAEventSelect(s, nullptr, 0)));
  Note("FIONBIO behind it", Said(ioctlsocket(s, static_cast<long>(FIONBIO), &blocking)));
}

void EventsAgain() {
  const Peer peer = Ask("say words");
  const Event event;
  WSAEventSelect(peer.s, event, FD_READ | FD_WRITE);
  Arrived arrived(peer.s, event);
  Note("FD_WRITE of a connection", arrived.Await(FD_WRITE_BIT));
  Note("FD_READ of what was there", arrived.Await(FD_READ_BIT));
  Note("recv of a part", Receive(peer.s, 2));
  Note("FD_READ of the rest", arrived.Await(FD_READ_BIT));
  Note("recv of the rest", Receive(peer.s));
  WSAResetEvent(event);
  Note("no event without bytes", YesNo(event.Await(100)));
  const Socket refused = NewStream();
  const Event fails;
  WSAEventSelect(refused, fails, FD_CONNECT);
  const sockaddr_in nobody = Address(kServerIp, kRefusedPort);
  connect(refused, Of(nobody), sizeof nobody);
  Note("FD_CONNECT of a refusal", Arrived(refused, fails).Await(FD_CONNECT_BIT));
}

void EventsOfAListener() {
  sockaddr_in address;
  const Socket listener = Listener(&address);
  const Event event;
  WSAEventSelect(listener, event, FD_ACCEPT);
  const Socket caller = NewStream();
  connect(caller, Of(address), sizeof address);
  Note("FD_ACCEPT", Arrived(listener, event).Await(FD_ACCEPT_BIT));
  const Socket accepted(accept(listener, nullptr, nullptr));
  Note("accept", YesNo(accepted != INVALID_SOCKET));
  Note("an accepted socket has its listener's events", Receive(accepted, 1));
  const Socket datagrams = NewDatagram();
  const Event answered;
  WSAEventSelect(datagrams, answered, FD_READ);
  const sockaddr_in server = Address(kServerIp, kPort);
  sendto(datagrams, "echo word", 9, 0, Of(server), sizeof server);
  Note("FD_READ of a datagram", Arrived(datagrams, answered).Await(FD_READ_BIT));
  Note("the datagram", Receive(datagrams));
}

// --- Window messages. -------------------------------------------------------------------------
constexpr UINT kMessage = WM_USER + 1;

std::string Message(HWND window, int wanted) {
  const DWORD begin = GetTickCount();
  while (GetTickCount() - begin < PatienceMs()) {
    MSG message;
    if (!PeekMessageW(&message, window, kMessage, kMessage, PM_REMOVE)) {
      MsgWaitForMultipleObjects(0, nullptr, FALSE, 50, QS_ALLINPUT);
    } else if (WSAGETSELECTEVENT(message.lParam) == wanted) {
      return std::string("comes, ").append(ErrorText(WSAGETSELECTERROR(message.lParam)));
    }
  }
  return "does not come";
}

void Messages(HWND window) {
  const Socket s = NewStream();
  const sockaddr_in server = Address(kServerIp, kPort);
  Note("WSAAsyncSelect",
       Said(WSAAsyncSelect(s, window, kMessage, FD_CONNECT | FD_READ | FD_WRITE | FD_CLOSE)));
  Note("connect", Said(connect(s, Of(server), sizeof server)));
  Note("FD_CONNECT", Message(window, FD_CONNECT));
  Note("FD_WRITE", Message(window, FD_WRITE));
  Note("send", Said(Send(s, Request(NewId(), "all"))));
  Send(s, "words");
  shutdown(s, SD_SEND);
  Note("FD_READ", Message(window, FD_READ));
  Note("recv", Receive(s));
  Note("FD_CLOSE", Message(window, FD_CLOSE));
  Note("WSAAsyncSelect off", Said(WSAAsyncSelect(s, window, 0, 0)));
  const Socket refused = NewStream();
  WSAAsyncSelect(refused, window, kMessage, FD_CONNECT);
  const sockaddr_in nobody = Address(kServerIp, kRefusedPort);
  connect(refused, Of(nobody), sizeof nobody);
  Note("FD_CONNECT of a refusal", Message(window, FD_CONNECT));
  const Peer reset = Ask("reset slow");
  Receive(reset.s);
  WSAAsyncSelect(reset.s, window, kMessage, FD_CLOSE);
  Note("FD_CLOSE of a reset", Message(window, FD_CLOSE));
}

void MessagesOfDatagrams(HWND window) {
  const Socket datagrams = NewDatagram();
  WSAAsyncSelect(datagrams, window, kMessage, FD_READ);
  const sockaddr_in server = Address(kServerIp, kPort);
  sendto(datagrams, "echo word", 9, 0, Of(server), sizeof server);
  Note("FD_READ of a datagram", Message(window, FD_READ));
  Note("the datagram", Receive(datagrams));
}

// --- WSAPoll. ---------------------------------------------------------------------------------
std::string Poll(SOCKET s, short asked, int wait_ms) {
  WSAPOLLFD one = {s, asked, 0};
  const int count = WSAPoll(&one, 1, wait_ms);
  if (count <= 0) return count == 0 ? "nothing" : Said(count);
  std::string text;
  const std::pair<short, const char*> names[] = {{POLLRDNORM, "read "},  {POLLRDBAND, "urgent "},
                                                 {POLLWRNORM, "write "}, {POLLERR, "error "},
                                                 {POLLHUP, "end "},      {POLLNVAL, "invalid "}};
  for (const auto& [bit, name] : names) {
    if ((one.revents & bit) != 0) text.append(name);
  }
  if (!text.empty()) text.pop_back();
  return text;
}

void PollStates() {
  const Peer peer = Ask("late word");
  Note("a connection", Poll(peer.s, POLLIN | POLLOUT, 0));
  Note("nothing to read", Poll(peer.s, POLLIN, 50));
  Note("something to read", Poll(peer.s, POLLIN, PatienceMs()));
  Note("both", Poll(peer.s, POLLIN | POLLOUT, 0));
  Note("a socket without a connection", Poll(NewStream(), POLLOUT, 0));
  Note("no socket", Poll(0x12344, POLLIN, 0));
  const Peer ended = Ask("bye");
  Readable(ended.s);
  Note("the end", Poll(ended.s, POLLIN, PatienceMs()));
  const Peer reset = Ask("reset slow");
  Receive(reset.s);
  Readable(reset.s);
  Note("a reset", Poll(reset.s, POLLIN, PatienceMs()));
  const Socket s = NewStream();
  SetBlocking(s, false);
  const sockaddr_in server = Address(kServerIp, kPort);
  connect(s, Of(server), sizeof server);
  Note("a connection that comes to be", Poll(s, POLLOUT, PatienceMs()));
  const Socket refused = NewStream();
  SetBlocking(refused, false);
  const sockaddr_in nobody = Address(kServerIp, kRefusedPort);
  connect(refused, Of(nobody), sizeof nobody);
  Note("a refusal", Poll(refused, POLLOUT, PatienceMs()));
  const Peer quiet = Ask("echo");
  const Watch watch;
  Note("a wait", Poll(quiet.s, POLLIN, 300).append(", ").append(watch.Took(300)));
}

}  // namespace

void Selecting() {
  SelectStates();
  SelectMany();
}

void EventSelect() {
  EventsOfAStream();
  EventsAgain();
  EventsOfAListener();
}

void AsyncSelect() {
  const HWND window =
      CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
  Messages(window);
  MessagesOfDatagrams(window);
  DestroyWindow(window);
}

void Polling() { PollStates(); }

}  // namespace parity
