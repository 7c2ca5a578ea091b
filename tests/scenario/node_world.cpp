#include "tests/scenario/node_world.h"

namespace node_test {
namespace {

// The golden example of docs/wire.md, version 3.
constexpr unsigned char kRequest[] = {
    0x78, 0xdb, 0x39, 0x64, 0x00, 0x49, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x27, 0x11, 0x00, 0x00, 0x00, 0x07, 0xcb, 0x00, 0x71,
    0x09, 0x69, 0x87, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb,
    0xcc, 0xdd, 0xee, 0xff, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x2a, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00, 0x07};
static_assert(sizeof kRequest == 73);

unsigned Byte(const std::string& bytes, std::size_t at) {
  return at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0;
}

void EchoOne(SOCKET s) {
  while (true) {
    const std::string text = Received(s, 64 * 1024);
    if (text.empty() || text.rfind("error", 0) == 0) break;
    SendText(s, text);
  }
  closesocket(s);
}

}  // namespace

std::string RequestBytes(int version) {
  std::string bytes(reinterpret_cast<const char*>(kRequest), sizeof kRequest);
  constexpr std::size_t kSizes[] = {49, 65, 73};
  if (version < 1 || version > 3) return bytes;
  bytes.resize(kSizes[version - 1]);
  bytes[5] = static_cast<char>(bytes.size());
  bytes[7] = static_cast<char>(version);
  return bytes;
}

std::string RequestFor(const char* ip, int port) {
  std::string bytes = RequestBytes();
  const unsigned long address = inet_addr(ip);
  for (std::size_t i = 0; i < 4; ++i) bytes[27 + i] = static_cast<char>(address >> 8 * i);
  bytes[31] = static_cast<char>(port >> 8);
  bytes[32] = static_cast<char>(port);
  return bytes;
}

unsigned Big16(const std::string& bytes, std::size_t at) {
  return Byte(bytes, at) << 8 | Byte(bytes, at + 1);
}
unsigned Big32(const std::string& bytes, std::size_t at) {
  return Big16(bytes, at) << 16 | Big16(bytes, at + 2);
}

std::string Summary(const std::string& answer) {
  std::string text = "result " + std::to_string(Byte(answer, 10)) + ", version " +
                     std::to_string(Big16(answer, 6)) + ", " + std::to_string(answer.size()) +
                     " bytes";
  if (Big32(answer, 0) != 0x78DB3964) text += ", wrong magic";
  if (Big16(answer, 4) != answer.size()) text += ", pkg_len " + std::to_string(Big16(answer, 4));
  return text;
}

std::string ReceivedExactly(SOCKET s, std::size_t size) {
  std::string all;
  while (all.size() < size) {
    const std::string more = Received(s, static_cast<int>(size - all.size()));
    all += more;
    if (more.empty() || more.rfind("error", 0) == 0) break;
  }
  return all;
}

void NodeWorld::SetUp() {
  sim::LinkOptions link;
  link.delay = 10ms;
  world.SetLink(client_host, node_host, link);
  world.SetLink(node_host, server_host, link);
}

void NodeWorld::Spawn(sim::Host& host, const char* name, std::function<void()> body) {
  ++running_;
  world.SpawnOn(host, name, [this, body = std::move(body)] {
    body();
    --running_;
  });
}

void NodeWorld::StartEchoServer() {
  sim::Process& process = world.AddProcess(server_host, "echo");
  world.Spawn(process, "listener", [this, &process] {
    const SOCKET listener = ListenAt(kServerPort, 200);
    while (true) {
      const SOCKET s = AcceptFrom(listener);
      if (s == INVALID_SOCKET) return;
      world.Spawn(process, "", [s] { EchoOne(s); });
    }
  });
}

SOCKET NodeWorld::Joins() {
  Sleep(5);  // the node and the server listen by then
  const SOCKET s = Tcp();
  EXPECT_EQ(ConnectTo(s, kNode, node::SimNode::kPort), 0);
  return s;
}

SOCKET NodeWorld::Asks(int version) {
  const SOCKET s = Joins();
  SendText(s, RequestBytes(version));
  return s;
}

std::string NodeWorld::Fetches(const std::string& text, std::string* answer) {
  const SOCKET s = Asks();
  const std::string bytes = ReceivedExactly(s, kAnswerSize);
  if (answer != nullptr) *answer = bytes;
  SendText(s, text);
  shutdown(s, SD_SEND);
  const std::string all = ReceivedAll(s);
  closesocket(s);
  return all;
}

}  // namespace node_test
