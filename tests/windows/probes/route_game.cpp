// A game that runs until its standard input ends, and does what the lines of the input say:
//   connect ADDRESS PORT   opens a TCP connection and keeps it open; prints the result and the peer
//   echo NUMBER TEXT       sends TEXT over the connection of that number and prints the answer
//   chatter COUNT          opens and closes that many sockets, so that the log writes the lines
//   that
//                          it has collected
#include <iostream>
#include <sstream>
#include <vector>

#include "probe.h"

namespace {

constexpr DWORD kReceiveTimeoutMs = 10000;

std::vector<SOCKET> g_connections;

void Connect(std::istream& words) {
  std::string ip;
  u_short port = 0;
  words >> ip >> port;
  const sockaddr_in address = probe::Address(ip.c_str(), port);
  const SOCKET s = probe::NewStream();
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&kReceiveTimeoutMs),
             sizeof kReceiveTimeoutMs);
  g_connections.push_back(s);
  const int result = connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  if (result != 0) return probe::SayResult("connect", result);
  sockaddr_in peer = {};
  int size = sizeof peer;
  const int named = getpeername(s, reinterpret_cast<sockaddr*>(&peer), &size);
  if (named != 0) return probe::SayResult("getpeername", named);
  probe::Say("connect: 0 peer: %s:%d", inet_ntoa(peer.sin_addr), ntohs(peer.sin_port));
}

void Echo(std::istream& words) {
  size_t number = 0;
  std::string text;
  words >> number >> text;
  if (number >= g_connections.size()) return probe::Say("echo: no such connection");
  const SOCKET s = g_connections[number];
  send(s, text.data(), static_cast<int>(text.size()), 0);
  probe::Say("echo: %s", probe::ReceiveAll(s, text.size()).c_str());
}

void Chatter(std::istream& words) {
  int count = 0;
  words >> count;
  while (count-- > 0) closesocket(probe::NewDatagram());
}

}  // namespace

int main() {
  WSADATA data;
  probe::SayResult("WSAStartup", WSAStartup(MAKEWORD(2, 2), &data));
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string what;
    words >> what;
    if (what == "connect") Connect(words);
    if (what == "echo") Echo(words);
    if (what == "chatter") Chatter(words);
  }
  for (const SOCKET s : g_connections) closesocket(s);
  return probe::End();
}
