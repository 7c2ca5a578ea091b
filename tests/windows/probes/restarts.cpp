// Starts, uses and ends Winsock repeatedly in one process, with traffic in flight at each end.
// Argument 3: the number of rounds; after a single one the process ends at once. The server reports
// the peer that it sees: for streams in the first line, for datagrams in each answer.
//
// Every second round leaves its sockets open, and closes them after the next start of Winsock.
#include "belongings.h"
#include "probe.h"

namespace {

constexpr DWORD kPatienceMs = 10'000;
constexpr int kDatagrams = 20;
constexpr size_t kStreamBytes = 64 * 1024;

struct Sockets {
  SOCKET stream = INVALID_SOCKET;
  SOCKET datagram = INVALID_SOCKET;

  void Close() {
    if (stream != INVALID_SOCKET) closesocket(stream);
    if (datagram != INVALID_SOCKET) closesocket(datagram);
    *this = {};
  }
};

void SetPatience(SOCKET s, DWORD patience_ms) {
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&patience_ms),
             sizeof(patience_ms));
}

// "none" with the error if the server cannot be reached.
std::string PeerOfStream(SOCKET s) {
  SetPatience(s, kPatienceMs);
  if (connect(s, probe::Server(), sizeof(probe::g_server)) != 0) {
    return "none: " + std::to_string(WSAGetLastError());
  }
  std::string line;
  for (char byte; recv(s, &byte, 1, 0) == 1 && byte != '\n';) line += byte;
  return line.empty() ? "none: " + std::to_string(WSAGetLastError()) : line;
}

std::string PeerOfDatagrams(SOCKET s) {
  constexpr DWORD kTries = 10;
  SetPatience(s, kPatienceMs / kTries);
  for (DWORD i = 0; i < kTries; ++i) {
    sendto(s, "who", 3, 0, probe::Server(), sizeof(probe::g_server));
    char answer[64];
    const int size = recvfrom(s, answer, sizeof(answer), 0, nullptr, nullptr);
    if (size > 0) return std::string(answer, static_cast<size_t>(size));
  }
  return "none: " + std::to_string(WSAGetLastError());
}

// Sends more than is read, so data is in flight in both directions when this returns.
void SetUnderWay(const Sockets& sockets) {
  const std::string bytes(kStreamBytes, 'x');
  send(sockets.stream, bytes.data(), static_cast<int>(bytes.size()), 0);
  for (int i = 0; i < kDatagrams; ++i) {
    sendto(sockets.datagram, bytes.data(), 500, 0, probe::Server(), sizeof(probe::g_server));
  }
}

void Start() {
  WSADATA data;
  const int result = WSAStartup(MAKEWORD(2, 2), &data);
  if (result != 0) probe::Say("WSAStartup: failed with %d", result);
}

// Returns the sockets that the round leaves open.
Sockets Round(int number) {
  Sockets sockets{probe::NewStream(), probe::NewDatagram()};
  const std::string stream = PeerOfStream(sockets.stream);
  const std::string datagrams = PeerOfDatagrams(sockets.datagram);
  SetUnderWay(sockets);
  if (number % 2 != 0) sockets.Close();
  const DWORD begin = GetTickCount();
  const int result = WSACleanup();
  probe::Say("round %d: stream from %s, datagrams from %s, cleanup %d in %lu ms", number,
             stream.c_str(), datagrams.c_str(), result, GetTickCount() - begin);
  return sockets;
}

void SayAfterTheEnd(const Sockets& sockets) {
  probe::SayResult("send after the end", send(sockets.stream, "x", 1, 0));
  probe::SayResult("closesocket after the end", closesocket(sockets.stream));
  fd_set set;
  FD_ZERO(&set);
  FD_SET(sockets.stream, &set);
  probe::SayResult("select after the end", select(0, &set, nullptr, nullptr, nullptr));
  probe::Say("socket after the end: %s", probe::NewStream() == INVALID_SOCKET ? "none" : "made");
}

void SayBelongings(const char* when, int threads) {
  probe::CountThreadsOnceAtMost(threads, kPatienceMs);
  probe::Say("%s: %s", when, probe::Text(probe::Look()).c_str());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  const int rounds = std::atoi(argv[3]);
  probe::g_server = probe::Address(argv[1], static_cast<u_short>(std::atoi(argv[2])));
  Start();
  const int threads = probe::CountThreads();
  SayBelongings("begin", threads);
  Sockets left = Round(1);
  if (rounds == 1) return 0;
  for (int i = 2; i <= rounds; ++i) {
    Start();
    left.Close();
    if (i == 2) SayBelongings("after the first", threads);
    left = Round(i);
    if (i == 2) SayAfterTheEnd(left);
  }
  Start();
  left.Close();
  SayBelongings("end", threads);
  probe::SayResult("WSACleanup", WSACleanup());
  return 0;
}
