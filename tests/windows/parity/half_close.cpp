// One side ends its sending, and the other direction lives on.
#include "parity.h"

namespace parity {
namespace {

void OfTheGame() {
  const Peer peer = Ask("all");
  Send(peer.s, "question");
  Note("shutdown of sending", Said(shutdown(peer.s, SD_SEND)));
  Note("the answer to what was sent before", ReceiveToEnd(peer.s));
  Note("send behind it", Said(Send(peer.s, "x")));
  Note("shutdown of sending again", Said(shutdown(peer.s, SD_SEND)));
  Note("what the server saw", peer.Saw());
  const Peer much = Ask("all");
  Send(much.s, std::string(300'000, 'x'));
  shutdown(much.s, SD_SEND);
  Note("a long answer", ReceiveToEnd(much.s));
  const Peer late = Ask("all-late");
  Send(late.s, "question");
  shutdown(late.s, SD_SEND);
  Note("before a late answer", Ready(late.s, kQuietMs));
  Note("a late answer", ReceiveToEnd(late.s));
}

void OfTheServer() {
  const Peer peer = Ask("half bye");
  Note("what the server sent before its end", ReceiveToEnd(peer.s));
  Note("send behind its end", Said(Send(peer.s, "still ")));
  Sleep(50);
  Note("and again", Said(Send(peer.s, "here")));
  Note("select behind its end", Ready(peer.s, 0));
  Note("SO_ERROR behind its end", Number(static_cast<unsigned>(ErrorOption(peer.s))));
  shutdown(peer.s, SD_SEND);
  Note("what the server saw behind it", peer.Saw());
  const Peer at_once = Ask("half");
  Note("an end without a byte", Receive(at_once.s));
  Note("the end again", Receive(at_once.s));
}

void OfReceiving() {
  const Peer peer = Ask("echo");
  Note("shutdown of receiving", Said(shutdown(peer.s, SD_RECEIVE)));
  Note("recv behind it", Receive(peer.s));
  Note("send after the end of receiving", Said(Send(peer.s, "x")));
  const Peer both = Ask("sink");
  Send(both.s, "words");
  Note("shutdown of both", Said(shutdown(both.s, SD_BOTH)));
  Note("recv behind both", Receive(both.s));
  Note("send behind both", Said(Send(both.s, "x")));
  Note("what the server saw of both", both.Saw());
  Note("shutdown with an unknown side", Said(shutdown(Ask("echo").s, 7)));
}

void Closed() {
  Peer peer = Ask("sink");
  Send(peer.s, std::string(200'000, 'y'));
  Note("closesocket with bytes on their way", Said(peer.s.Close()));
  Note("what the server saw of a close", peer.Saw());
  const Peer bye = Ask("bye last-words");
  Note("last words and an orderly end", ReceiveToEnd(bye.s));
  Peer lingering = Ask("sink");
  const linger wait = {1, 2};
  setsockopt(lingering.s, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&wait), sizeof wait);
  Send(lingering.s, std::string(100'000, 'z'));
  Note("closesocket that lingers", Said(lingering.s.Close()));
  Note("what the server saw of it", lingering.Saw());
  const Peer ended = Ask("all");
  Send(ended.s, "words");
  Note("WSASendDisconnect", Said(WSASendDisconnect(ended.s, nullptr)));
  Note("the answer behind it", ReceiveToEnd(ended.s));
}

}  // namespace

void HalfClose() {
  OfTheGame();
  OfTheServer();
  OfReceiving();
  Closed();
}

}  // namespace parity
