#include "tests/scenario/whole_world.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "engine/relay_mgr.h"
#include "port/shared/faults.h"
#include "port/shared/objects.h"
#include "port/shared/winsock.h"
#include "port/sim/scheduler.h"
#include "port/sim/threads.h"
#include "tests/support/mended.h"

namespace whole_test {
namespace {

using moru_vyr::lsp::AccConfigRecord;
using moru_vyr::lsp::RouteTableImage;
using node::Behaviour;
using sim::Random;

constexpr char kWorker[] = "home/thread1";
constexpr char kReporter[] = "home/thread2";
constexpr size_t kHelloSize = 5;
constexpr size_t kIdSize = 6;
constexpr size_t kServerHost = kNodes;  // among the hosts of a link
constexpr moru_vyr::lsp::u32 kLastNode = 1;
constexpr int kPingBytes = 64;

const char* const kServers[] = {kServer, kServer, kServer, kDirect, kForced, kUnlisted, kAlone};

// With leading zeros, that many digits.
std::string Numbered(size_t number, size_t digits) {
  const std::string text = std::to_string(number);
  return std::string(digits - std::min(digits, text.size()), '0') + text;
}
size_t NumberIn(const std::string& text, size_t at, size_t size) {
  return static_cast<size_t>(std::strtoul(text.substr(at, size).c_str(), nullptr, 10));
}

// The server's answer to a datagram, which contains the server's name.
std::string AnswerTo(const std::string& text, const std::string& server) {
  const size_t id = NumberIn(text, 0, kIdSize);
  return Noise("R" + text.substr(0, kIdSize) + "@" + server + "|", id,
               id % 7 == 0 ? text.size() : 30 + id % 90);
}

std::string EchoRequest(int sequence) {
  std::string message(kPingBytes, '\0');
  message[0] = 8;
  message[7] = static_cast<char>(sequence);
  const unsigned sum = 0xffffu - (0x0800u + static_cast<unsigned>(sequence));
  message[2] = static_cast<char>(sum >> 8);
  message[3] = static_cast<char>(sum);
  return message;
}

std::int64_t Less(Random* random, uint64_t n) {
  return static_cast<std::int64_t>(random->Below(n));
}

// The handles that are open, each with its kind and name. Values are multiples of four.
std::map<uintptr_t, std::string> OpenObjects() {
  std::map<uintptr_t, std::string> open;
  const size_t count = port::OpenHandles();
  for (uintptr_t value = 4; open.size() < count && value < 400'000; value += 4) {
    if (const auto object = port::Lookup(reinterpret_cast<HANDLE>(value)))
      open[value] = std::string(object->kind()) + " " + object->name();
  }
  return open;
}

Behaviour AnyBehaviour(uint64_t variant) {
  Random random(variant);
  Behaviour it;
  switch (random.Below(22)) {
    case 0:
      it.on_request = Behaviour::kSilent;
      break;
    case 1:
      it.on_request = Behaviour::kCloseThen;
      break;
    case 2:
      it.on_request = Behaviour::kResetThen;
      break;
    case 3:
      it.on_request = Behaviour::kGarbage;
      it.garbage_bytes = 1 + Less(&random, 100);
      break;
    case 4:
      it.result = 1 + Less(&random, 255);
      break;
    case 5:
      it.isp = Less(&random, 4);
      break;
    case 6:
      // Not 11 to 40: the rest of such an answer would be the stream's first bytes.
      it.pkg_len = random.Below(2) == 0 ? Less(&random, 11) : 42 + Less(&random, 100);
      break;
    case 7:
      it.split_bytes = 1 + Less(&random, 40);
      it.split_gap_ms = Less(&random, 50);
      break;
    case 8:
      it.server = random.Below(2) == 0 ? Behaviour::kRefuse : Behaviour::kHang;
      break;
    case 9:
      it.answer_version = 1 + Less(&random, 3);
      break;
    case 10:
      it.on_accept = Behaviour::kMute;
      break;
    case 11:
      it.on_accept = Behaviour::kClose;
      break;
    case 12:
      it.on_accept = Behaviour::kReset;
      break;
    case 13:
      it.reset_after_bytes = Less(&random, 100'000);
      break;
    case 14:
      it.freeze = 1;
      break;
    case 15:
      it.header = Less(&random, 6);
      break;
    case 16:
      it.data_from = Behaviour::kOther;
      break;
    case 17:
      it.data_token = Less(&random, 10);
      break;
    case 18:
      it.data_up_loss = it.data_down_loss = it.probe_up_loss = it.probe_down_loss =
          Less(&random, 80);
      break;
    case 19:
      it.answer_from = Behaviour::kOther;
      break;
    case 20:
      it.head_len = 20 + Less(&random, 100);
      break;
    default:
      break;
  }
  if (random.Below(100) < 30) it.answer_delay_ms = Less(&random, 7000);
  if (random.Below(100) < 20) it.answers = 2;
  if (it.server == Behaviour::kConnect && random.Below(100) < 20)
    it.answer_when = Behaviour::kAtOnce;
  if (random.Below(100) < 20) it.delay_to_server_ms = Less(&random, 200);
  if (random.Below(100) < 20) it.delay_to_client_ms = Less(&random, 200);
  if (random.Below(100) < 30) it.data_down_jitter_ms = it.data_up_jitter_ms = Less(&random, 40);
  if (random.Below(100) < 20) it.data_up_reorder = 20;
  return it;
}

sim::LinkOptions AnyLink(uint64_t variant) {
  Random random(variant);
  sim::LinkOptions link;
  link.delay = std::chrono::milliseconds(random.Below(80));
  if (random.Below(2) == 0) link.jitter = std::chrono::milliseconds(random.Below(30));
  if (random.Below(100) < 20) link.reorder = 0.1;
  if (random.Below(100) < 20) link.bytes_per_second = 200'000 + random.Below(2'000'000);
  switch (random.Below(5)) {
    case 0:
      link.loss = 0.02;
      break;
    case 1:
      link.loss = 0.3;
      break;
    case 2:
      link.partitioned = true;
      break;
    default:
      break;
  }
  return link;
}

// Half of all worlds have everything mended, unless the environment says what is.
moru_vyr::lsp::u32 MendedIn(uint64_t seed) {
  if (std::getenv("VYR_MENDED") != nullptr) return test::MendedInAllWorlds();
  return seed % 2 == 0 ? moru_vyr::lsp::kMendKnown : 0;
}

// What lets flows move to other nodes, with limits of this world's own.
void SetLimits(AccConfigRecord* config) {
  Random random(sim::TheWorld().seed() ^ 0x636f6e66);
  config->link_switch_mask = 3;
  common::SetFieldText(config->list_text, "7");
  config->switch_open = 1;
  config->game_link_switch_open = 1;
  config->max_link_except_rep_num = 20;
  config->max_link_switch_count = 5;
  config->ignore_high_freq_test_time = 1;
  config->max_high_freq_test_count = 100;
  config->watching_time_span = 30;
  config->switching_max_real_route_lost = 60;
  config->switching_max_delay_avg = 1000;
  config->switching_max_delay_amp = 1000;
  config->lost_calc_unit_size = 100 + static_cast<common::u32>(random.Below(200));
  config->high_freq_test_interval = 100;
  config->max_delay_avg = config->max_delay_amp = static_cast<common::u16>(100 + random.Below(900));
}

}  // namespace

ConfiguredWorld::ConfiguredWorld() : TcpWorld(L"", SetLimits, MendedIn(sim::TheWorld().seed())) {}

WholeWorld::WholeWorld(const FaultList& faults, const test::Kept& kept)
    : faults_(faults), kept_(kept), mended_(MendedIn(world.seed())) {
  if (Chance(50)) common::SetLogThreshold(9);
  serve = [this](SOCKET s, Call* call) { Serve(s, call); };
  for (const char* ip : {kServer, kDirect, kForced, kUnlisted, kAlone}) {
    StartEcho(ip, kPort);
    StartEcho(ip, kOtherPort);
  }
  node_processes_ = {&a.process(), &b.process(), nullptr};
  StartNode(2);
  WriteTables(0);
  PlanAll();
}

// --- plans --------------------------------------------------------------------------------------

void WholeWorld::PlanAll() {
  for (size_t n = 2 + Below(8); n > 0; --n) PlanStream();
  for (size_t n = 1 + Below(6); n > 0; --n) PlanTalker();
  for (size_t n = Below(3); n > 0; --n) PlanPinger();
  for (size_t i = 0; i < kNodes; ++i) {
    if (Chance(30)) NodeBehaves(i, world.random().Next());
  }
  world.ReuseSocketHandles(Chance(50));
}

size_t WholeWorld::AnySize() {
  const size_t bounds[] = {0, 1, 100, 8192, 70'000, 250'000};
  return static_cast<size_t>(Below(Any(bounds) + 1));
}

Manner WholeWorld::AnyManner(size_t size) {
  Manner manner;
  manner.piece = static_cast<size_t>(1 + Below(Chance(20) ? 100 : 20'000));
  manner.piece = std::max(manner.piece, size / 200);  // a world has an end
  if (Chance(40)) manner.pause_ms = static_cast<DWORD>(Below(Chance(30) ? 400 : 50));
  if (Chance(20)) manner.read_pause_ms = static_cast<DWORD>(Below(50));
  manner.leaving = static_cast<Manner::Leaving>(Below(5));
  manner.stays_ms = static_cast<DWORD>(Below(8000));
  return manner;
}

void WholeWorld::PlanStream() {
  Stream& stream = streams_.emplace_back();
  stream.id = streams_.size() - 1;
  stream.server = Any(kServers);
  stream.starts_ms = static_cast<DWORD>(Below(kPlayMs));
  stream.up = Noise(Numbered(stream.id, kHelloSize - 1) + "\n", world.seed() * 1000 + stream.id * 2,
                    kHelloSize + AnySize());
  stream.down = Noise("", world.seed() * 1000 + stream.id * 2 + 1, AnySize());
  stream.game = AnyManner(stream.up.size());
  stream.host = AnyManner(stream.down.size());
  stream.style = static_cast<Style>(Below(4));
}

void WholeWorld::PlanTalker() {
  Talker& talker = talkers_.emplace_back();
  talker.starts_ms = static_cast<DWORD>(Below(kPlayMs / 2));
  const DWORD pauses[] = {3, 40, 300, 300};
  talker.pause_ms = Any(pauses);
  talker.stays_ms = static_cast<DWORD>(Below(Chance(70) ? 3000 : 15'000));
  talker.reads = Chance(85);
  talker.style = static_cast<Style>(Below(4));
  const size_t servers = 1 + static_cast<size_t>(Below(std::size(kServers)));
  for (size_t n = 1 + Below(Chance(50) ? 40 : 150); n > 0; --n) {
    const size_t id = said_.size();
    Said& one = said_.emplace_back();
    one.ip = kServers[Below(servers)];
    one.port = Chance(80) ? kPort : kOtherPort;
    const size_t size = Chance(2) ? 2020 + Below(60) : kIdSize + Below(Chance(50) ? 4 : 200);
    one.text = Noise(Numbered(id, kIdSize), world.seed() * 100'000 + id, size);
    talker.says.push_back(id);
  }
}

void WholeWorld::PlanPinger() {
  Pinger& pinger = pingers_.emplace_back();
  pinger.server = Any(kServers);
  pinger.starts_ms = static_cast<DWORD>(Below(kPlayMs / 2));
  pinger.pings = 1 + static_cast<int>(Below(20));
}

// --- the game -----------------------------------------------------------------------------------

void WholeWorld::Player(std::function<void()> body) {
  const std::string name = "player" + std::to_string(players_.size());
  players_.push_back(world.Spawn(world.home(), name, std::move(body)));
}

void WholeWorld::StartGame() {
  for (Stream& stream : streams_) Player([this, &stream] { PlayStream(&stream); });
  for (Talker& talker : talkers_) Player([this, &talker] { Talk(&talker); });
  for (Pinger& pinger : pingers_) Player([this, &pinger] { PingAll(&pinger); });
}

void WholeWorld::PlayStream(Stream* stream) {
  Sleep(stream->starts_ms);
  const SOCKET s = Tcp();
  if (s == INVALID_SOCKET) return;
  stream->caller = std::make_unique<Caller>(s, stream->style);
  if (stream->caller->Connect(stream->server, kPort) == 0) {
    stream->game_end = LiveOn(stream->caller.get(), stream->game, stream->up, stream->down.size(),
                              &stream->up_sent, &stream->down_got);
  }
  stream->caller->Close();
}

std::string WholeWorld::LiveOn(Caller* caller, const Manner& manner, const std::string& says,
                               size_t expects, size_t* sent, std::string* got) {
  const auto stop = std::make_shared<bool>(false);
  const auto send_all = [caller, manner, &says, sent, stop] {
    while (*sent < says.size() && !*stop) {
      const size_t size = std::min(manner.piece, says.size() - *sent);
      const int n = caller->Send(says.data() + *sent, static_cast<int>(size));
      if (n <= 0) break;
      *sent += static_cast<size_t>(n);
      if (manner.pause_ms > 0) Sleep(manner.pause_ms);
    }
  };
  // Receives until that many bytes are there. The end of the stream, or nothing if they are.
  const auto receive = [caller, manner, got](size_t target, const bool& over) -> std::string {
    std::string bytes(16'384, '\0');
    while (got->size() < target && !over) {
      if (manner.read_pause_ms > 0) Sleep(manner.read_pause_ms);
      const size_t most = std::min(bytes.size(), target - got->size());
      const int n = caller->Receive(bytes.data(), static_cast<int>(most));
      if (n == 0) return "closed";
      if (n < 0) return "error " + std::to_string(-n);
      got->append(bytes, 0, static_cast<size_t>(n));
    }
    return "";
  };
  if (manner.leaving == Manner::kAfterSending) {
    send_all();
    return "left";
  }
  const size_t target = got->size() + expects;
  const auto running = std::make_shared<std::vector<DWORD>>();
  const auto in_a_thread = [this, running](std::function<void()> body) {
    const DWORD id = world.Spawn(*sim::Self().process(), "side" + std::to_string(players_.size()),
                                 std::move(body));
    players_.push_back(id);
    running->push_back(id);
  };
  const auto all_end = [this, running] {
    for (const DWORD id : *running)
      while (world.IsRunning(id)) Sleep(5);
  };
  in_a_thread(send_all);
  if (manner.leaving == Manner::kByReset) {
    in_a_thread([receive, target, stop] { receive(target, *stop); });
    Sleep(manner.stays_ms);
    *stop = true;
    shutdown(caller->socket(), SD_BOTH);
    all_end();
    const uint16_t linger_now[2] = {1, 0};
    setsockopt(caller->socket(), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(linger_now),
               sizeof linger_now);
    return "reset";
  }
  const bool never = false;
  std::string end = receive(target, never);
  all_end();
  if (!end.empty()) return end;
  if (manner.leaving == Manner::kShutsFirst) shutdown(caller->socket(), SD_SEND);
  if (manner.leaving != Manner::kWhenAllIsDone) {
    end = receive(target + 1, never);
    EXPECT_EQ(got->size(), target) << "bytes that nobody sent";
  }
  return "done";
}

void WholeWorld::Talk(Talker* talker) {
  Sleep(talker->starts_ms);
  const SOCKET s = Udp();
  if (s == INVALID_SOCKET) return;
  const int room = 1 << 20;
  setsockopt(s, SOL_SOCKET, SO_RCVBUF, reinterpret_cast<const char*>(&room), sizeof room);
  talker->caller = std::make_unique<Caller>(s, talker->style);
  const auto over = std::make_shared<bool>(false);
  // An unbound socket receives nothing before it has sent, and Windows refuses to try.
  Random random(world.seed() * 31 + talker->says.front());
  Send(talker, talker->says.front());
  DWORD reader = 0;
  if (talker->reads) {
    reader =
        world.Spawn(world.home(), "side" + std::to_string(players_.size()), [this, talker, over] {
          while (!*over) Read(talker);
        });
    players_.push_back(reader);
  }
  for (size_t i = 1; i < talker->says.size(); ++i) {
    Sleep(static_cast<DWORD>(random.Below(talker->pause_ms + 1)));
    Send(talker, talker->says[i]);
  }
  Sleep(talker->stays_ms);
  *over = true;
  while (world.IsRunning(reader)) Sleep(5);
  talker->caller->Close();
}

void WholeWorld::Send(Talker* talker, size_t id) {
  Said& one = said_[id];
  one.tried = true;
  one.sent = talker->caller->SendTo(one.text, one.ip, one.port) == 0;
}

void WholeWorld::Read(Talker* talker) {
  std::string text;
  sockaddr_in source = {};
  const int error = talker->caller->ReceiveFrom(&text, &source, 100);
  if (error != 0) {
    if (error != WSAETIMEDOUT) Sleep(5);
    return;
  }
  const std::string ip = inet_ntoa(source.sin_addr);
  const std::string from = ip + ":" + std::to_string(ntohs(source.sin_port));
  // Kept: a direct flow passes on datagrams of any sender, even of a node that answers too late.
  if (ip == kNodeA || ip == kNodeB || ip == kNodeC) return;
  if (text.empty() || text[0] != 'R' || NumberIn(text, 1, kIdSize) >= said_.size()) {
    ADD_FAILURE() << "was never sent: " << text.substr(0, 60) << " from " << from;
    return;
  }
  Said& one = said_[NumberIn(text, 1, kIdSize)];
  ++one.answered;
  const std::string head = text.substr(0, text.find('|'));
  const std::string named = head.substr(std::min(head.size(), kIdSize + 2));
  EXPECT_TRUE(text == AnswerTo(one.text, named)) << "changed: " << text.substr(0, 60);
  // Kept: a datagram that is alone of its length gets the address that waits, also where that is
  // another's; and a receive that completes late names the relay.
  if (!IsMended()) return;
  EXPECT_EQ(named, one.to()) << "misled: " << text.substr(0, 60);
  EXPECT_EQ(from, one.to()) << text.substr(0, 60);
}

void WholeWorld::PingAll(Pinger* pinger) {
  Sleep(pinger->starts_ms);
  const SOCKET s = pinger->s = Ping();
  if (s == INVALID_SOCKET) return;
  u_long on = 1;
  ioctlsocket(s, static_cast<long>(FIONBIO), &on);
  if (ConnectTo(s, pinger->server, 0) == 0) {
    for (int sequence = 1; sequence <= pinger->pings; ++sequence) {
      SendText(s, EchoRequest(sequence));
      for (int ms = 0; ms < 1000; ms += 20, Sleep(20)) {
        const std::string reply = Received(s);
        if (reply.rfind("error", 0) == 0) continue;
        EXPECT_EQ(reply.size(), 20u + kPingBytes);
        EXPECT_LE(reply.size() > 27 ? reply[27] : 127, sequence) << "answers what nobody asked";
        ++pinger->answered;
        break;
      }
    }
  }
  closesocket(s);
  pinger->s = INVALID_SOCKET;
}

// --- the rest of the world ----------------------------------------------------------------------

void WholeWorld::Serve(SOCKET s, Call* call) {
  Caller caller(s, Style::kBlocks);
  std::string hello;
  while (hello.size() < kHelloSize) {
    char bytes[kHelloSize];
    const int n = caller.Receive(bytes, static_cast<int>(kHelloSize - hello.size()));
    if (n <= 0) {
      call->end = "closed";
      return;
    }
    hello.append(bytes, static_cast<size_t>(n));
  }
  const size_t id = NumberIn(hello, 0, kHelloSize);
  ASSERT_LT(id, streams_.size()) << hello;
  Stream& stream = streams_[id];
  ASSERT_FALSE(stream.answered) << "stream " << id << " has reached the server twice";
  stream.answered = true;
  stream.up_got = hello;
  stream.host_end = LiveOn(&caller, stream.host, stream.down, stream.up.size() - kHelloSize,
                           &stream.down_sent, &stream.up_got);
  call->end = stream.host_end;
}

void WholeWorld::StartEcho(const char* ip, int port) {
  const std::string name = std::string(ip) + ":" + std::to_string(port);
  world.SpawnOn(server_host, "echo " + name, [this, ip, port, name] {
    const SOCKET s = Udp();
    EXPECT_EQ(BindTo(s, ip, port), 0);
    SetIntOption(s, SO_RCVBUF, 1 << 20);
    std::string bytes(65'536, '\0');
    while (true) {
      sockaddr_in from = {};
      int size = sizeof from;
      const int n = recvfrom(s, bytes.data(), static_cast<int>(bytes.size()), 0, Raw(from), &size);
      if (n == SOCKET_ERROR) continue;
      const std::string text = bytes.substr(0, static_cast<size_t>(n));
      heard_.push_back({text, name});
      if (text.size() < kIdSize) continue;
      const std::string answer = AnswerTo(text, name);
      sendto(s, answer.data(), static_cast<int>(answer.size()), 0, Raw(from), size);
    }
  });
}

void WholeWorld::StartReader() {
  world.SpawnOn(world.home().host, "client", [this] {
    while (!is_over_) {
      reports_.Take();
      Sleep(300);
    }
  });
}

sim::Host& WholeWorld::HostOf(size_t which) {
  sim::Host* const hosts[] = {&a_host, &b_host, &c_host_, &server_host};
  return *hosts[which];
}

Behaviour& WholeWorld::BehaviourOf(size_t which) {
  return which == 0 ? a.behaviour() : which == 1 ? b.behaviour() : c_behaviour_;
}

// A node of our own, since a SimNode cannot be started again.
void WholeWorld::StartNode(size_t which) {
  sim::Host& host = HostOf(which);
  node::NodeOptions options;
  options.listen = {host.addresses().front(), static_cast<common::u16>(7001 + which)};
  Behaviour* const behaviour = &BehaviourOf(which);
  node_processes_[which] = &world.SpawnOn(host, "node-" + host.name(), [options, behaviour] {
    for (;; Sleep(100)) {
      node::Node node(
          options, [](const node::Event&) {}, behaviour);
      std::string problem;
      if (!node.Start(&problem)) continue;  // a fault
      for (;;) node.Step(node::SimNode::kStepMs);
    }
  });
}

void WholeWorld::WriteTables(uint64_t variant) {
  Random random(variant);
  const bool usual = variant == 0;
  auto image = std::make_unique<RouteTableImage>();
  const char* const nodes[] = {kNodeA, kNodeB, kNodeC};
  for (size_t i = 0; i < kNodes; ++i) {
    auto& proxy = test::AddProxy(*image, static_cast<common::u32>(i + 1), nodes[i]);
    proxy.surport_isps = usual ? 1u : static_cast<common::u32>(random.Below(4));
    proxy.flag = 6;
  }
  using moru_vyr::lsp::DECISION_ACCE;
  using moru_vyr::lsp::DECISION_DIRECT;
  using moru_vyr::lsp::DECISION_FORCE_ACCE_AUTO;
  const auto usual_ref = [](common::u32 node, common::u32 decision = DECISION_ACCE) {
    return test::Ref(node, decision, kLastNode, 20);
  };
  const auto any_ref = [&random, usual_ref](common::u32 node, common::u32 decision) {
    if (random.Below(2) == 0) return usual_ref(node, decision);
    return usual_ref(static_cast<common::u32>(random.Below(5)),
                     random.Below(3) == 0 ? static_cast<common::u32>(random.Below(9)) : decision);
  };
  const common::u32 decisions[] = {DECISION_ACCE, DECISION_DIRECT, DECISION_FORCE_ACCE_AUTO,
                                   DECISION_ACCE};
  for (common::u32 i = 0; i < 4; ++i) {
    if (!usual && random.Below(6) == 0) continue;
    const auto ref = [&](common::u32 node) {
      return usual ? usual_ref(node, decisions[i]) : any_ref(node, decisions[i]);
    };
    auto& entry = test::AddRoute(image->route_sets[0], 11 + i, ref(1));
    for (common::u32 n = 0; n < 3; ++n) entry.top_refs[n] = usual ? usual_ref(n + 1) : ref(n + 1);
    entry.switch_groups[0].last_node = kLastNode;
    entry.switch_groups[0].candidates[0] = usual_ref(1 + static_cast<common::u32>(random.Below(3)));
    entry.switch_groups[0].candidates[1] = usual_ref(2);
    if (usual) entry.switch_groups[0].candidates[0] = usual_ref(1);
  }
  common::NamedMutex mutex(moru_vyr::lsp::kRouteMutexName);
  const common::NamedMutexGuard guard(&mutex, false);
  routes.Publish(*image);
}

// --- faults -------------------------------------------------------------------------------------

void WholeWorld::StartFaults() {
  world.SpawnOn(world.home().host, "faults", [this] {
    for (const size_t at : kept_) {
      const Fault& fault = faults_[at];
      const auto moment = play_begins_ + std::chrono::milliseconds(fault.at_ms);
      if (moment > world.now())
        Sleep(static_cast<DWORD>((moment - world.now()) / std::chrono::milliseconds(1)));
      world.Trace("fault " + std::to_string(at) + ", " + fault.Text());
      Apply(fault);
    }
  });
}

void WholeWorld::Apply(const Fault& fault) {
  const auto ms = [](uint64_t n) { return std::chrono::milliseconds(n); };
  switch (fault.kind) {
    case FaultKind::kFailCall:
      return port::FailCall(CallOf(fault), static_cast<unsigned>(fault.b), ErrorOfCall(fault));
    case FaultKind::kShortSend:
      return world.ShortSend(static_cast<unsigned>(fault.a), fault.b);
    case FaultKind::kLoseEvent:
      return world.LoseSetEvent(static_cast<unsigned>(fault.a));
    case FaultKind::kFailThread:
      return world.FailThreadStart(1);
    case FaultKind::kStallWorker:
      if (const DWORD id = world.ThreadNamed(kWorker)) world.Stall(id, ms(fault.a));
      return;
    case FaultKind::kStallReporter:
      if (const DWORD id = world.ThreadNamed(kReporter)) world.Stall(id, ms(fault.a));
      return;
    case FaultKind::kNodeBehaves:
      return NodeBehaves(fault.a, fault.b);
    case FaultKind::kNodeDies:
      return NodeDies(fault.a, ms(fault.b));
    case FaultKind::kLink:
      return ChangeLink(fault.a, fault.b);
    case FaultKind::kTables:
      return WriteTables(fault.a);
    case FaultKind::kClientHolds:
      return ClientHolds(fault.a, ms(fault.b));
    case FaultKind::kClientDies:
      return ClientHolds(fault.a, ms(0));
    case FaultKind::kGameThread:
      return EndGameThread(fault);
    case FaultKind::kWorkerEnds:
      worker_is_ended_ = true;
      return EndOneOfOurs(kWorker, static_cast<unsigned>(fault.a));
    case FaultKind::kReporterEnds:
      reporter_is_ended_ = true;
      return EndOneOfOurs(kReporter, static_cast<unsigned>(fault.a));
    case FaultKind::kTickWraps:  // has been set since the world began
      timers_may_rest_ = true;
      return;
  }
}

void WholeWorld::NodeBehaves(size_t which, uint64_t variant) {
  BehaviourOf(which) = AnyBehaviour(variant);
}

void WholeWorld::NodeDies(size_t which, sim::Duration time) {
  world.Kill(*node_processes_[which]);
  world.After(time, [this, which] {
    if (!node_processes_[which]->alive) StartNode(which);
  });
}

void WholeWorld::ChangeLink(size_t which, uint64_t variant) {
  sim::LinkOptions link = AnyLink(variant);
  if (which == kServerHost) {
    world.SetLink(world.home().host, server_host, link);
    return;
  }
  world.SetLink(variant % 3 == 0 ? server_host : world.home().host, HostOf(which), link);
}

// No time: it dies while it holds the mutex.
void WholeWorld::ClientHolds(size_t which, sim::Duration time) {
  const char* const mutex = kChannels[which]->mutex_name;
  sim::Process& process = world.SpawnOn(world.home().host, "other client", [mutex, time] {
    common::NamedMutex held(mutex);
    held.lock();
    Sleep(static_cast<DWORD>(time / std::chrono::milliseconds(1)));
    held.unlock();
  });
  if (time == sim::Duration(0)) world.KillWhenItHolds(process, mutex);
}

// At the next call outside the dispatch: a thread that ended there would keep the dispatch's lock
// for ever.
void WholeWorld::EndOneOfOurs(const char* thread, unsigned nth) {
  world.AtCall(thread, nth, [this, thread] {
    if (port::IsInsideDispatch()) return EndOneOfOurs(thread, 1);
    world.Terminate(world.ThreadNamed(thread));
  });
}

void WholeWorld::EndGameThread(const Fault& fault) {
  for (size_t i = 0; i < players_.size(); ++i) {
    const size_t which = (fault.a + i) % players_.size();
    const DWORD id = players_[which];
    const std::string name = "home/player" + std::to_string(which);
    if (!world.IsRunning(id) || world.ThreadNamed(name) != id) continue;
    EndOneOfOurs(players_names_.emplace_back(name).c_str(), static_cast<unsigned>(fault.b));
    game_thread_is_ended_ = true;
    return;
  }
}

void WholeWorld::Heal() {
  port::ClearFaults();
  world.ShortSend(0, 0);
  world.LoseSetEvent(0);
  world.FailThreadStart(0);
  sim::Host& home = world.home().host;
  for (size_t i = 0; i <= kServerHost; ++i) {
    world.SetLink(home, HostOf(i), {});
    if (i != kServerHost) world.SetLink(HostOf(i), server_host, {});
  }
  for (size_t i = 0; i < kNodes; ++i) {
    BehaviourOf(i) = {};
    if (!node_processes_[i]->alive) StartNode(i);
  }
  WriteTables(0);
}

// --- the whole life -----------------------------------------------------------------------------

void WholeWorld::Live() {
  WSADATA data = {};
  EXPECT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  closesocket(Udp());
  RunFor(100ms);
  late_.emplace();
  ExpectPlaysOn();  // also whatever is made once and stays
  RunFor(35s);      // the worker makes its event for changed lists
  base_sockets_ = HomeSockets();
  base_objects_ = OpenObjects();
  base_views_ = port::OpenViews();
  for (Stream& stream : streams_) stream.answered = false;
  heard_.clear();
  serve = [this](SOCKET s, Call* call) { Serve(s, call); };

  play_begins_ = world.now();
  StartReader();
  StartGame();
  StartFaults();
  RunFor(std::chrono::milliseconds(kPlayMs));
  Heal();
  const auto all_end = [this] {
    return std::none_of(players_.begin(), players_.end(),
                        [this](DWORD id) { return world.IsRunning(id); });
  };
  EXPECT_TRUE(RunUntil(all_end, 10min)) << world.Report();
  Heal();  // what the last faults have left
  Release();
  RunUntil(
      [this] {
        return std::all_of(calls.begin(), calls.end(),
                           [](const Call& call) { return call.over(); });
      },
      2min);
  ExpectStreams();
  ExpectDatagrams();
  is_over_ = true;  // the client takes no more reports
  RunFor(1s);
  ExpectNothingIsLeft();
  ExpectPlaysOn();
  const DWORD begin = GetTickCount();
  EXPECT_EQ(WSACleanup(), 0);
  EXPECT_LE(GetTickCount() - begin, IsMended() ? 5500u : 410u);
  std::printf("simulated %lld ms, %zu reports\n",
              static_cast<long long>(world.now() / std::chrono::milliseconds(1)), reports_.taken());
}

// Sockets of threads that were ended.
void WholeWorld::Release() {
  for (Stream& stream : streams_)
    if (stream.caller != nullptr) stream.caller->Close();
  for (Talker& talker : talkers_)
    if (talker.caller != nullptr) talker.caller->Close();
  for (Pinger& pinger : pingers_)
    if (pinger.s != INVALID_SOCKET) closesocket(pinger.s);
}

// --- verdicts -----------------------------------------------------------------------------------

void WholeWorld::ExpectStreams() {
  for (const Stream& stream : streams_) {
    SCOPED_TRACE("stream " + std::to_string(stream.id) + " to " + stream.server + ", " +
                 kStyleNames[static_cast<size_t>(stream.style)] + ", " + stream.game_end + " and " +
                 stream.host_end);
    EXPECT_TRUE(stream.up_got == stream.up.substr(0, stream.up_got.size()))
        << stream.up_got.size() << " bytes";
    EXPECT_TRUE(stream.down_got == stream.down.substr(0, stream.down_got.size()))
        << stream.down_got.size() << " bytes";
  }
}

void WholeWorld::ExpectDatagrams() {
  for (const Heard& came : heard_) {
    const size_t id = came.text.size() < kIdSize ? said_.size() : NumberIn(came.text, 0, kIdSize);
    if (id >= said_.size()) {
      ADD_FAILURE() << "the server has received what was never sent: " << came.text.substr(0, 60);
      continue;
    }
    Said& one = said_[id];
    ++one.arrived;
    EXPECT_TRUE(came.text == one.text) << "changed: " << came.text.substr(0, 60);
    if (IsMended()) {
      EXPECT_EQ(came.to, one.to()) << "misled: " << one.text.substr(0, 60);
    }
  }
  for (const Said& one : said_) {
    // A thread that was ended may have been in the middle of its call.
    EXPECT_LE(one.arrived, one.sent || (one.tried && game_thread_is_ended_) ? 1u : 0u)
        << one.text.substr(0, 30) << " to " << one.to();
    EXPECT_LE(one.answered, one.arrived) << one.text.substr(0, 30);
  }
}

void WholeWorld::ExpectNothingIsLeft() {
  // Once the worker is gone, the reporting thread closes its sockets, or else the cleanup. Where
  // its timers rest, what waits for them stays open.
  if (!worker_is_ended_ && !timers_may_rest_) {
    RunUntil([this] { return HomeSockets() == base_sockets_; }, 6min);
    EXPECT_EQ(HomeSockets(), base_sockets_);
  }
  RunFor(3s);
  if (worker_is_ended_ || reporter_is_ended_ || game_thread_is_ended_) return;
  EXPECT_EQ(port::OpenHandles(), base_objects_.size()) << NewObjects();
  EXPECT_EQ(port::OpenViews(), base_views_);
}

std::string WholeWorld::NewObjects() const {
  std::string text;
  for (const auto& [value, object] : OpenObjects())
    if (base_objects_.count(value) == 0) text += object + "\n";
  return text;
}

void WholeWorld::ExpectPlaysOn() {
  serve = Echo;
  const SOCKET ping = Ping();
  NonBlocking(ping);
  EXPECT_EQ(ConnectTo(ping, kServer, 0), 0);
  SendText(ping, EchoRequest(1));
  for (int ms = 0; ms < 1000 && Received(ping) == "error 10035"; ms += 10) RunFor(10ms);
  closesocket(ping);
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "still there"), "still there");
  closesocket(s);
  closesocket(Joins(kUnlisted));  // asks for the list of added addresses, too
  const SOCKET u = Udp();
  const std::string text = "000000 still there";
  std::string answer;
  for (int tries = 0; tries < 3 && answer.empty(); ++tries) {
    SendTextTo(u, text, kServer, kPort);
    if (ReadableWithin(u, 12'000)) answer = Received(u);
  }
  EXPECT_EQ(answer, AnswerTo(text, std::string(kServer) + ":" + std::to_string(kPort)));
  closesocket(u);
  RunFor(1s);
}

}  // namespace whole_test
