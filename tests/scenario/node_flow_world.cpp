#include "tests/scenario/node_flow_world.h"

namespace node_test {
namespace {

unsigned At8(const std::string& bytes, std::size_t at) {
  return at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0;
}

std::string Ip(unsigned ip) {
  return std::to_string(ip >> 24) + "." + std::to_string(ip >> 16 & 255) + "." +
         std::to_string(ip >> 8 & 255) + "." + std::to_string(ip & 255);
}

void PutBig(std::string* bytes, unsigned value, int size) {
  for (int i = size - 1; i >= 0; --i) *bytes += static_cast<char>(value >> 8 * i);
}

}  // namespace

std::string AddressText(const sockaddr_in& address) {
  return Ip(static_cast<unsigned>(ntohl(address.sin_addr.s_addr))) + ":" +
         std::to_string(ntohs(address.sin_port));
}

Wrapped ReceiveWrapped(SOCKET s, int ms) {
  Wrapped wrapped;
  if (!ReadableWithin(s, ms)) return wrapped;
  sockaddr_in from = {};
  std::optional<std::string> datagram = ReceivedFrom(s, &from);
  if (!datagram) {
    wrapped.from = "error " + std::to_string(WSAGetLastError());
    return wrapped;
  }
  std::string& bytes = *datagram;
  wrapped.from = AddressText(from);
  wrapped.version = At8(bytes, 0);
  wrapped.head_len = At8(bytes, 1);
  wrapped.flags = At8(bytes, 2);
  wrapped.relay_idx = At8(bytes, 3);
  wrapped.seq = Big32(bytes, 4);
  wrapped.token = Big32(bytes, 8);
  wrapped.source = Ip(Big32(bytes, 12)) + ":" + std::to_string(Big16(bytes, 16));
  wrapped.lost = At8(bytes, 19);
  if (wrapped.head_len <= bytes.size()) wrapped.payload = bytes.substr(wrapped.head_len);
  wrapped.bytes = std::move(bytes);
  return wrapped;
}

RawFlow::RawFlow(int port) : s(Udp()) { EXPECT_EQ(BindTo(s, "0.0.0.0", port), 0); }

void RawFlow::Asks(const std::string& request) {
  Sleep(5);  // the node listens by then
  SendTextTo(s, request, kNode, node::SimNode::kPort);
}

std::string RawFlow::Answer(int ms, std::string* from) {
  const Wrapped answer = ReceiveWrapped(s, ms);
  if (from != nullptr) *from = answer.from;
  if (answer.bytes.size() >= 29) {
    token = Big32(answer.bytes, 11);
    data_ip = Ip(Big32(answer.bytes, 23));
    data_port = static_cast<int>(Big16(answer.bytes, 27));
  }
  return answer.bytes;
}

bool RawFlow::Opens(const std::string& request) {
  Asks(request);
  const std::string answer = Answer();
  return answer.size() >= 29 && At8(answer, 10) == 0;
}

std::string RawFlow::Header(unsigned flags, unsigned seq, const char* ip, int port) const {
  std::string bytes;
  PutBig(&bytes, 1, 1);
  PutBig(&bytes, 20, 1);
  PutBig(&bytes, flags, 1);
  PutBig(&bytes, 0, 1);
  PutBig(&bytes, seq, 4);
  PutBig(&bytes, token, 4);
  PutBig(&bytes, static_cast<unsigned>(ntohl(At(ip, 0).sin_addr.s_addr)), 4);
  PutBig(&bytes, static_cast<unsigned>(port), 2);
  PutBig(&bytes, 0, 2);
  return bytes;
}

void RawFlow::SendsBytes(const std::string& bytes) {
  SendTextTo(s, bytes, data_ip.c_str(), data_port);
}

void RawFlow::Sends(const std::string& payload, int port, const char* ip) {
  SendsBytes(Header(0, next_seq++, ip, port) + payload);
}

void RawFlow::SendsNumbered(unsigned seq, const std::string& payload) {
  SendsBytes(Header(0, seq) + payload);
}

void RawFlow::Probes(unsigned seq) {
  std::string payload("\x8f\xbd\x3a\x25", 4);
  for (int i = 0; i < 4; ++i) payload += static_cast<char>(seq >> 8 * i);
  payload += std::string("\x7b\x68\xe5\xcf\x8b\x01\x00\x00", 8);
  SendsBytes(Header(8, seq) + payload);
}

void RawFlow::Ends() { SendsBytes(Header(4, ++next_seq)); }

std::vector<Wrapped> RawFlow::ReceivesAll(int ms) {
  std::vector<Wrapped> all;
  while (true) {
    Wrapped one = Receives(ms);
    if (!one.came()) return all;
    all.push_back(std::move(one));
  }
}

void NodeFlowWorld::StartEcho(int port) {
  world.SpawnOn(server_host, "echo" + std::to_string(port), [this, port] {
    const SOCKET s = Udp();
    EXPECT_EQ(BindTo(s, "0.0.0.0", port), 0);
    while (true) {
      sockaddr_in from = {};
      const std::optional<std::string> text = ReceivedFrom(s, &from);
      if (!text) continue;
      heard.push_back({AddressText(from), *text});
      sendto(s, text->data(), static_cast<int>(text->size()), 0, Raw(from), sizeof from);
    }
  });
}

}  // namespace node_test
