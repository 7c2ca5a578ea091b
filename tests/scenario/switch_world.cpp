#include "tests/scenario/switch_world.h"
#include "tests/support/log_texts.h"

#include <cstring>

#include "common/unix_time.h"
#include "protocol/speed_test_payload.h"
#include "protocol/udp_accl_header.h"
#include "tests/support/link_judge.h"
#include "tests/support/switch_config.h"
#include "tracker/tracker.h"

namespace switch_test {
namespace {

constexpr u32 kIdc = 11, kForcedIdc = 12;
constexpr u32 kMayMeasureAndSwitch = 6;
constexpr int kDataPorts = 100;   // above the port of negotiation
constexpr int kOtherPorts = 200;  // as well

template <class Record>
std::string Bytes(Record record) {
  u8 bytes[sizeof record];
  record.Pack(bytes);
  return {reinterpret_cast<const char*>(bytes), sizeof bytes};
}

std::span<const u8> Wire(const std::string& bytes) {
  return {reinterpret_cast<const u8*>(bytes.data()), bytes.size()};
}

// Empty: nothing is there.
std::string Take(SOCKET s, sockaddr_in* from) {
  if (!ReadableWithin(s, 0)) return "";
  char bytes[4096];
  int size = sizeof *from;
  const int count = recvfrom(s, bytes, sizeof bytes, 0, Raw(*from), &size);
  return count > 0 ? std::string(bytes, static_cast<std::size_t>(count)) : "";
}

SOCKET BoundTo(int port) {
  const SOCKET s = Udp();
  EXPECT_EQ(BindTo(s, "127.0.0.1", port), 0);
  return s;
}

void AddNode(RouteTableImage& image, u32 idc) {
  ProxyRecord& proxy = test::AddProxy(image, idc, "127.0.0.1");
  proxy.surport_isps = 1;
  proxy.flag = kMayMeasureAndSwitch;
}

void AddRouteByA(RouteTableImage& image, u32 idc, u32 decision) {
  RouteEntry& entry = test::AddRoute(image.route_sets[0], idc, test::Ref(1, decision, kLastNode));
  entry.switch_groups[0].last_node = kLastNode;
  entry.switch_groups[0].candidates[0] = test::Ref(1, DECISION_ACCE, kLastNode);
  entry.switch_groups[0].candidates[1] = test::Ref(2, DECISION_ACCE, kLastNode);
}

std::string Joined(const std::string& all, const std::string& one) {
  return all.empty() ? one : all + " " + one;
}

}  // namespace

// --- the loop ---------------------------------------------------------------------------------

IRelaySocketDelegate* Loop::RemoveSocket(SOCKET socket) noexcept {
  wants_room.erase(socket);
  const auto found = delegates.find(socket);
  if (found == delegates.end()) return nullptr;
  IRelaySocketDelegate* const delegate = found->second;
  delegates.erase(found);
  return delegate;
}

void Loop::Pass() {
  const auto before = delegates;
  for (const auto& [socket, unused] : before) {
    const auto found = delegates.find(socket);
    if (found != delegates.end() && ReadableWithin(socket, 0)) found->second->OnReadable(socket);
  }
  const auto writers = std::exchange(wants_room, {});
  for (const SOCKET socket : writers) {
    const auto found = delegates.find(socket);
    if (found != delegates.end()) found->second->OnWritable(socket);
  }
}

// --- the nodes --------------------------------------------------------------------------------

ScriptedNode::ScriptedNode(int port, u32 token) : accl_token(token), port_(port) {
  WSADATA data;
  WSAStartup(MAKEWORD(2, 2), &data);
  nego_ = BoundTo(port);
  data_ = BoundTo(port + kDataPorts);
  other_ = BoundTo(port + kOtherPorts);
}

bool ScriptedNode::IsAsked() {
  const std::string bytes = Take(nego_, &asker_);
  if (bytes.empty()) return false;
  EXPECT_EQ(bytes.size(), sizeof request);
  EXPECT_GT(request.Unpack(Wire(bytes)), 0);
  peer_ = asker_;
  return true;
}

std::string ScriptedNode::AnswerBytes(const Answer& with) const {
  NegoResponse response;
  response.Init(with.version);
  response.body.result = with.result;
  response.body.accl_token = accl_token;
  response.body.client_isp = with.isp;
  response.body.client_ip = 0x7F000001;
  response.body.accl_data_ip = 0x7F000001;
  response.body.accl_data_port =
      static_cast<u16>(with.data_port != 0 ? with.data_port : port_ + kDataPorts);
  response.body.last_node.node_id = with.last_node;
  response.body.last_node.ip = 0x7F000001;
  response.body.last_node.port = static_cast<u16>(port_);
  response.body.last_node.accl_token = accl_token;
  return Bytes(response);
}

void ScriptedNode::Send(SOCKET from, const std::string& bytes, const sockaddr_in& to) {
  sendto(from, bytes.data(), static_cast<int>(bytes.size()), 0, Raw(to), sizeof to);
}

void ScriptedNode::Answers(const Answer& with) { AnswersBytes(AnswerBytes(with)); }
void ScriptedNode::AnswersBytes(const std::string& bytes) { Send(nego_, bytes, asker_); }
void ScriptedNode::AnswersFromTheWrongPort() { Send(other_, AnswerBytes({}), asker_); }

std::vector<Wrapped> ScriptedNode::Takes() {
  std::vector<Wrapped> all;
  for (std::string bytes; !(bytes = Take(data_, &peer_)).empty();) {
    UdpAcclHeader header;
    EXPECT_EQ(header.Unpack(Wire(bytes)), 20);
    all.push_back({header.flags, header.lost, header.seq, header.accl_token, "", header.game_ip,
                   header.game_port});
    if (all.back().IsData()) all.back().payload = bytes.substr(sizeof header);
    if (all.back().IsProbe()) probes_.push_back(bytes);
  }
  return all;
}

std::string ScriptedNode::TakenData() {
  std::string all;
  for (const Wrapped& one : Takes()) {
    if (one.IsData()) all = Joined(all, one.payload);
  }
  return all;
}

int ScriptedNode::TakenEnds() {
  int ends = 0;
  for (const Wrapped& one : Takes()) ends += one.IsEnd() ? 1 : 0;
  return ends;
}

void ScriptedNode::AnswersProbes(u8 relay_idx) {
  for (std::string& bytes : std::exchange(probes_, {})) {
    bytes[offsetof(UdpAcclHeader, relay_idx)] = static_cast<char>(relay_idx);
    Send(data_, bytes, peer_);
  }
}

std::string ScriptedNode::DataBytes(const std::string& text, u32 seq, u8 lost) const {
  UdpAcclHeader header;
  header.game_ip = 0xC633640A;  // the server's
  header.game_port = kServerPort;
  header.seq = seq;
  header.accl_token = accl_token;
  header.lost = lost;
  return Bytes(header) + text;
}

std::string ScriptedNode::LateProbeAnswer(u32 seq, u32 delay_ms) const {
  SpeedTestPackage package;
  package.header.flags = kUdpAcclSpeedTest;
  package.header.seq = seq;
  package.header.accl_token = accl_token;
  package.payload.seq = seq;
  package.payload.send_time = common::UnixTimeMs() - delay_ms;
  return Bytes(package);
}

void ScriptedNode::SendsData(const std::string& text, u32 seq, u8 lost) {
  SendsRaw(DataBytes(text, seq != 0 ? seq : next_seq++, lost));
}

void ScriptedNode::SendsDataFromTheWrongPort(const std::string& text) {
  Send(other_, DataBytes(text, next_seq++, 101), peer_);
}

// --- the flow ---------------------------------------------------------------------------------

SwitchWorld::SwitchWorld(const char* server_ip) : server_addr(At(server_ip, kServerPort)) {
  config.valid = 1;
  config.acc_mode = 1;
  config.game_id = 7;
  test::OpenSwitches(&config);
  config.max_link_except_rep_num = 100;
  config.max_link_switch_count = 100;
  config.max_high_freq_test_count = 100;
  config.switching_max_real_route_lost = 60;
  config.max_delay_avg = config.max_delay_amp = 10000;
  game = BoundTo(5555);
  AddNode(image, 1);
  AddNode(image, 2);
  AddRouteByA(image, kIdc, DECISION_ACCE);
  AddRouteByA(image, kForcedIdc, DECISION_FORCE_ACCE_AUTO);
}

SwitchWorld::~SwitchWorld() { session.reset(); }

void SwitchWorld::Begins() {
  ReplaceAccConfig(config);
  routes.Publish(image);
  route.route_table().LoadRoute();
  auto ips = std::make_unique<IpTableRegion>();
  ips->ip_count = 2;
  ips->records[0] = {kIdc, test::Ip(kServer)};
  ips->records[1] = {kForcedIdc, test::Ip(kForcedServer)};
  route.ip_table().LoadIpTableFromMem(*ips);
  log.reset();  // there is one log of the process
  log = std::make_unique<test::LogCapture>(0);
  ASSERT_TRUE(provider.Init(&loop, &route));
  session = std::make_unique<UdpSession>(&provider, kToken, At("127.0.0.1", 5555), server_addr,
                                         kGameBuffer, kGameBuffer);
  ASSERT_TRUE(session->Init());
  for (const auto& [socket, delegate] : loop.delegates) {
    if (auto* const found = dynamic_cast<UdpRemoteSession*>(delegate)) {
      flow = found;
      local_sock = socket;
    }
  }
  GameSends("first");
  Turn();
  ASSERT_TRUE(a.IsAsked()) << log->Text();
}

void SwitchWorld::IsCarried(const ScriptedNode::Answer& with) {
  Begins();
  a.Answers(with);
  Turn();
  ASSERT_EQ(a.TakenData(), "first") << log->Text();
}

void SwitchWorld::Turn(u32 ms) {
  Sleep(ms);
  loop.Pass();
  session->OnUpdate(ms);
}

void SwitchWorld::HealthyTurns(int count, u32 ms) {
  for (int i = 0; i < count; ++i) {
    Turn(ms);
    for (ScriptedNode* node : {&a, &b}) {
      for (const Wrapped& one : node->Takes()) {
        if (one.IsData() && node == &a) node->SendsData(one.payload);
      }
      node->AnswersProbes();
    }
  }
}

void SwitchWorld::GameSends(const std::string& text) {
  ASSERT_TRUE(session->send_queue()->Push(reinterpret_cast<const u8*>(text.data()),
                                          static_cast<u32>(text.size()), &server_addr));
  sockaddr_in relay;
  ASSERT_TRUE(session->GetRelayAddr(&relay));
  sendto(game, text.data(), static_cast<int>(text.size()), 0, Raw(relay), sizeof relay);
}

std::string SwitchWorld::GameGets() {
  std::string all, bytes;
  sockaddr_in from;
  while (!(bytes = Take(game, &from)).empty()) all = Joined(all, bytes);
  return all;
}

bool SwitchWorld::Fires() {
  RecoverySwitchRecord report;
  report.used = 1;
  report.game_id = 7;
  report.need_switch = 1;
  report.count = 3;
  return flow->FireSwitch(report);
}

UdpSwitchRemoteSession* SwitchWorld::Trial() const {
  for (const auto& [socket, delegate] : loop.delegates) {
    if (auto* const found = dynamic_cast<UdpSwitchRemoteSession*>(delegate)) return found;
  }
  return nullptr;
}

SOCKET SwitchWorld::TrialSocket() const {
  for (const auto& [socket, delegate] : loop.delegates) {
    if (dynamic_cast<UdpSwitchRemoteSession*>(delegate) != nullptr) return socket;
  }
  return INVALID_SOCKET;
}

void SwitchWorld::IsVerifying() {
  ASSERT_TRUE(Fires());
  Turn();
  ASSERT_TRUE(b.IsAsked()) << log->Text();
  b.Answers();
  Turn();
  ASSERT_TRUE(Logged(test::kTrialAgreed)) << log->Text();
}

void SwitchWorld::IsVerified() {
  IsVerifying();
  HealthyTurns(10);
  ASSERT_TRUE(Logged(test::kTrialVerified)) << log->Text();
}

void SwitchWorld::IsTakenOver() {
  IsVerified();
  b.SendsData("proof");
  Turn();
  ASSERT_EQ(Results(), Outcomes{SwitchResult::kTakenOver}) << log->Text();
}

Outcomes SwitchWorld::Results() const {
  const std::string text = log->Text();
  const std::string line = "[UdpSwitchRemoteSession::ReportSwitchResult]";
  const std::string label = "switch_result=";
  Outcomes all;
  for (std::size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) {
    const std::size_t value = text.find(label, at) + label.size();
    all.push_back(static_cast<SwitchResult>(std::stoi(text.substr(value))));
  }
  return all;
}

std::string SwitchWorld::Counted(SOCKET socket) {
  u32 sent = 0, received = 0;
  if (!GetTracker().GetPacketCounts(socket, &sent, &received)) return "nothing";
  return std::to_string(sent) + " sent, " + std::to_string(received) + " received";
}

int SwitchWorld::Count(const std::string& part) const { return test::CountOf(part, log->Text()); }

}  // namespace switch_test
