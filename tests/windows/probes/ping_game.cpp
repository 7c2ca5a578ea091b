// A game that runs until its standard input ends, and sends pings as the lines of the input say,
// through non-blocking raw sockets:
//   ping ADDRESS SIZE [broken]   an echo request of that many bytes on a connected socket; a broken
//                                one has a wrong checksum
//   unconnected ADDRESS SIZE     the same with sendto and recvfrom
//   watch ADDRESS SIZE           the same, and prints what select reports meanwhile
//   burst ADDRESS COUNT          that many requests at once, and all their replies
//   close                        closes all connected sockets
// A socket stays connected for later lines with the same address. Times are in the platform's tick
// count, which the delay of a ping uses, too.
#include <iostream>
#include <map>
#include <sstream>
#include <vector>

#include "probe.h"

namespace {

constexpr DWORD kPatienceMs = 600;
constexpr DWORD kBurstPatienceMs = 20000;
constexpr int kHeaderSize = 20;
constexpr timeval kLook = {0, 150000};

std::map<std::string, SOCKET> g_sockets;
u_short g_sequence = 0;

SOCKET NewPing() {
  const SOCKET s = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
  if (s == INVALID_SOCKET) probe::Say("raw socket: failed with %d", WSAGetLastError());
  u_long on = 1;
  ioctlsocket(s, static_cast<long>(FIONBIO), &on);
  return s;
}

SOCKET Connected(const std::string& ip) {
  const auto known = g_sockets.find(ip);
  if (known != g_sockets.end()) return known->second;
  const SOCKET s = NewPing();
  const sockaddr_in address = probe::Address(ip.c_str(), 0);
  if (connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    probe::Say("connect: failed with %d", WSAGetLastError());
  }
  return g_sockets[ip] = s;
}

u_short Checksum(const std::string& message) {
  unsigned sum = 0;
  for (size_t i = 0; i < message.size(); ++i) {
    const unsigned byte = static_cast<unsigned char>(message[i]);
    sum += i % 2 == 0 ? byte << 8 : byte;
  }
  while (sum > 0xffff) sum = (sum >> 16) + (sum & 0xffff);
  return static_cast<u_short>(~sum);
}

void Put(std::string* message, size_t at, u_short value) {
  (*message)[at] = static_cast<char>(value >> 8);
  (*message)[at + 1] = static_cast<char>(value & 0xff);
}

int Word(const char* packet, int at) {
  return static_cast<unsigned char>(packet[at]) << 8 | static_cast<unsigned char>(packet[at + 1]);
}

std::string Request(size_t size) {
  std::string message(size, '\0');
  message[0] = 8;
  for (size_t i = 8; i < size; ++i) message[i] = static_cast<char>('a' + i % 26);
  Put(&message, 4, static_cast<u_short>(GetCurrentProcessId()));
  Put(&message, 6, ++g_sequence);
  Put(&message, 2, Checksum(message));
  return message;
}

// Prints the reply to the last request, if it arrives in time.
void SayReply(SOCKET s, bool connected, DWORD begin) {
  while (GetTickCount() - begin < kPatienceMs) {
    char packet[2048];
    sockaddr_in from = {};
    int from_size = sizeof from;
    const int got = connected ? recv(s, packet, sizeof packet, 0)
                              : recvfrom(s, packet, sizeof packet, 0,
                                         reinterpret_cast<sockaddr*>(&from), &from_size);
    if (got < kHeaderSize + 8 || packet[kHeaderSize] != 0 ||
        Word(packet, kHeaderSize + 6) != g_sequence) {
      Sleep(1);
      continue;
    }
    return probe::Say("reply: %d bytes after %lu ms, ttl %d", got, GetTickCount() - begin,
                      packet[8]);
  }
  probe::Say("reply: none");
}

void Ping(const std::string& ip, size_t size, bool broken) {
  const SOCKET s = Connected(ip);
  std::string message = Request(size);
  if (broken) message[2] = static_cast<char>(message[2] + 1);
  const DWORD begin = GetTickCount();
  probe::SayResult("send", send(s, message.data(), static_cast<int>(size), 0));
  SayReply(s, true, begin);
}

void PingUnconnected(const std::string& ip, size_t size) {
  const SOCKET s = NewPing();
  const sockaddr_in to = probe::Address(ip.c_str(), 0);
  const std::string message = Request(size);
  const DWORD begin = GetTickCount();
  probe::SayResult("sendto", sendto(s, message.data(), static_cast<int>(size), 0,
                                    reinterpret_cast<const sockaddr*>(&to), sizeof to));
  SayReply(s, false, begin);
  closesocket(s);
}

void Watch(const std::string& ip, size_t size) {
  const SOCKET s = Connected(ip);
  const std::string message = Request(size);
  const DWORD begin = GetTickCount();
  probe::SayResult("send", send(s, message.data(), static_cast<int>(size), 0));
  fd_set readable = {};
  FD_SET(s, &readable);
  timeval look = kLook;
  probe::SayResult("select", select(0, &readable, nullptr, nullptr, &look));
  SayReply(s, true, begin);
}

void Burst(const std::string& ip, int count) {
  const SOCKET s = Connected(ip);
  const int first = g_sequence + 1;
  int sent = 0, right = 0;
  const DWORD begin = GetTickCount();
  for (int i = 0; i < count; ++i) {
    const std::string message = Request(64);
    if (send(s, message.data(), 64, 0) == 64) ++sent;
  }
  while (right < count && GetTickCount() - begin < kBurstPatienceMs) {
    char packet[2048];
    if (recv(s, packet, sizeof packet, 0) <= 0) {
      Sleep(1);
      continue;
    }
    if (Word(packet, kHeaderSize + 6) != first + right) break;
    ++right;
  }
  probe::Say("burst: %d sent, %d answered in order", sent, right);
}

void CloseAll() {
  for (const auto& [ip, s] : g_sockets) closesocket(s);
  g_sockets.clear();
  probe::Say("closed");
}

}  // namespace

int main() {
  WSADATA data;
  probe::SayResult("WSAStartup", WSAStartup(MAKEWORD(2, 2), &data));
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string what, ip, how;
    int number = 0;
    words >> what >> ip >> number >> how;
    const auto size = static_cast<size_t>(number);
    if (what == "ping") Ping(ip, size, how == "broken");
    if (what == "unconnected") PingUnconnected(ip, size);
    if (what == "watch") Watch(ip, size);
    if (what == "burst") Burst(ip, number);
    if (what == "close") CloseAll();
  }
  CloseAll();
  return probe::End();
}
