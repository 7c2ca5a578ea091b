// Every report, byte for byte, as another client program finds it in its region.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "common/text.h"
#include "route/acc_config.h"
#include "tests/support/end_worker.h"
#include "tests/support/report_client.h"
#include "tracker/reports.h"

namespace moru_vyr::lsp {
namespace {

// The expected bytes: zero except for what is put there.
class Golden {
 public:
  explicit Golden(std::size_t size) : bytes_(size) {}
  Golden& Word(std::size_t at, u64 value, int size = 4) {
    for (int i = 0; i < size; ++i)
      bytes_.at(at + static_cast<std::size_t>(i)) = static_cast<u8>(value >> (8 * i));
    return *this;
  }
  Golden& Text(std::size_t at, const std::string& text) {
    for (const char c : text) bytes_.at(at++) = static_cast<u8>(c);
    return *this;
  }
  // Numbers that count up from `first`, one after the other.
  Golden& Words(std::size_t at, int count, u64 first) {
    for (int i = 0; i < count; ++i) Word(at + 4 * static_cast<std::size_t>(i), first++);
    return *this;
  }
  template <typename Record>
  void Expect(const Record& record) const {
    ASSERT_EQ(sizeof record, bytes_.size());
    std::vector<u8> found(sizeof record);
    std::memcpy(found.data(), &record, sizeof record);
    for (std::size_t i = 0; i < bytes_.size(); ++i)
      ASSERT_EQ(int{found[i]}, int{bytes_[i]}) << "at " << i;
  }

 private:
  std::vector<u8> bytes_;
};

constexpr u64 kGameId = 0x1122334455667788;

class ReportGolden : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    test::EndWorker();
    test::EndTheTrackerOfTheProcess();
  }

  ReportGolden() {
    AccConfigRecord config;
    config.game_id = kGameId;
    config.log_level = 6;
    ReplaceAccConfig(config);
  }
  ~ReportGolden() override { ReplaceAccConfig(AccConfigRecord{}); }

  test::ReportClient client;
};

SpeedStatsHalf Half(u32 first) {
  SpeedStatsHalf half;
  for (u32* field :
       {&half.fine.avg, &half.fine.max, &half.fine.min, &half.fine.amp, &half.fine.count,
        &half.total_send, &half.over.avg, &half.over.max, &half.over.min, &half.over.count,
        &half.all.avg, &half.all.amp, &half.all.count, &half.all_send_count}) {
    *field = first++;
  }
  return half;
}

SocketQosRecord Socket() {
  SocketQosRecord s;
  s.socket = 77;
  s.socket_type = 2;
  s.token = 5;
  s.total_sent_bytes = 101;
  s.total_sent_packets = 102;
  s.total_sent_errors = 103;
  s.first_send_error_code = 104;
  s.curr_send_error_code = 105;
  s.total_recv_bytes = 106;
  s.total_recv_packets = 107;
  s.total_recv_errors = 108;
  s.first_recv_error_code = 109;
  s.curr_recv_error_code = 110;
  s.create_tick = 111;
  s.life = 112;
  s.idle = 113;
  s.game_idc = 114;
  common::SetFieldText(s.game_ip, "198.51.100.10");
  s.game_port = 27015;
  s.proxy_idc = 116;
  common::SetFieldText(s.proxy_ip, "198.51.100.20");
  s.proxy_port = 7001;
  s.guid = "6a1d0c52-7e35-4f18-8b02-112131415161";
  s.user_isp = 117;
  s.user_ip = 0x04030201;
  s.speed_test.frontend = Half(200);
  s.speed_test.backend = Half(300);
  s.speed_test.topology_type = 2;
  s.direct_delay = 118;
  s.direct_lost = 119;
  s.section1_delay = 120;
  s.section1_lost = 121;
  s.section2_delay = 122;
  s.continuous = true;
  s.recovery_info = "1-2-3";
  return s;
}

Golden TrafficBytes() {
  return Golden(984)
      .Word(0, 1, 1)
      .Word(8, kGameId, 8)
      .Word(16, 2)
      .Words(20, 13, 101)
      .Word(72, 114)
      .Text(76, "198.51.100.10")
      .Word(336, 27015)
      .Word(340, 116)
      .Text(344, "198.51.100.20")
      .Word(604, 7001, 2)
      .Text(606, "6a1d0c52-7e35-4f18-8b02-112131415161")
      .Word(716, 117)
      .Word(720, 0x04030201)
      .Words(724, 6, 200)
      .Words(748, 6, 300)
      .Words(772, 4, 206)
      .Words(788, 4, 306)
      .Words(804, 4, 210)
      .Words(820, 4, 310)
      .Word(836, 2)
      .Words(840, 5, 118)
      .Text(861, "1-2-3");
}

TEST_F(ReportGolden, TrafficWhileASocketLives) {
  ReportCommunicationStatistic(Socket());
  TrafficBytes().Expect(client.traffic->slots[0]);
}

TEST_F(ReportGolden, TrafficOfASocketThatHasEnded) {
  SocketQosRecord socket = Socket();
  socket.continuous = false;
  ReportCommunicationStatistic(socket);
  TrafficBytes().Word(860, 1, 1).Expect(client.traffic->slots[0]);
}

TEST_F(ReportGolden, TrafficNamesStreamsDatagramsAndTheRest) {
  constexpr struct { u32 type, code; } kRows[] = {{1, 1}, {2, 2}, {0, 0}, {3, 0}, {0xffffffff, 0}};
  int slot = 0;
  for (const auto& row : kRows) {
    SocketQosRecord socket = Socket();
    socket.socket_type = row.type;
    ReportCommunicationStatistic(socket);
    EXPECT_EQ(client.traffic->slots[slot++].socket_type, row.code) << row.type;
  }
}

TEST_F(ReportGolden, TrafficCutsTextsAndEndsEach) {
  SocketQosRecord socket = Socket();
  socket.guid = std::string(80, 'g');
  socket.recovery_info = std::string(130, 'r');
  ReportCommunicationStatistic(socket);
  TrafficBytes()
      .Text(606, std::string(64, 'g'))
      .Text(861, std::string(119, 'r'))
      .Expect(client.traffic->slots[0]);
  socket.recovery_info = std::string(120, 'r');
  ReportCommunicationStatistic(socket);
  EXPECT_EQ(client.traffic->slots[1].recovery_info[118], 'r');
  EXPECT_EQ(client.traffic->slots[1].recovery_info[119], '\0');
}

// A slot may hold anything from its second byte on: the record replaces all of it.
TEST_F(ReportGolden, TrafficLeavesNothingOfWhatASlotHeld) {
  std::memset(static_cast<void*>(&client.traffic->slots[0]), 0xee, sizeof client.traffic->slots[0]);
  client.traffic->slots[0].used = 0;
  ReportCommunicationStatistic(Socket());
  TrafficBytes().Expect(client.traffic->slots[0]);
}

TEST_F(ReportGolden, Decision) {
  AccDecisionInfo decision;
  decision.used = 0;  // the slot says used all the same
  common::SetFieldText(decision.guid, "guid");
  decision.acc_reason = 11;
  decision.game_id = kGameId;
  decision.socket = 0x1234;
  decision.socket_type = 1;
  decision.game_ip = 0xc633640a;
  decision.game_port = 27015;
  decision.header3 = 33;
  decision.selected_proxy.proxy_idc = 20;
  decision.glt_word = 44;
  ReportAcceDecisionInfo(decision);
  Golden(1128)
      .Word(0, 1, 1)
      .Text(1, "guid")
      .Word(68, 11)
      .Word(72, kGameId, 8)
      .Word(96, 0x1234)
      .Word(104, 1)
      .Word(108, 0xc633640a)
      .Word(112, 27015)
      .Word(224, 33)
      .Word(720 + 44, 20)
      .Word(1124, 44)
      .Expect(client.decisions->slots[0]);
}

TEST_F(ReportGolden, LogPath) {
  LogPathRecord record;
  record.game_id = kGameId;
  common::SetFieldText(record.log_path, "C:\\logs\\x.log");
  ReportLogPath(record);
  Golden(280)
      .Word(0, 1, 1)
      .Word(8, kGameId, 8)
      .Text(16, "C:\\logs\\x.log")
      .Expect(client.log_paths->slots[0]);
}

TEST_F(ReportGolden, Loaded) {
  LspLoadedRecord record;
  record.game_id = kGameId;
  common::SetFieldText(record.process_name, "dawn.exe");
  record.is_x64 = 1;
  ReportLspLoadedInfo(record);
  Golden(280)
      .Word(0, 1, 1)
      .Word(8, kGameId, 8)
      .Text(16, "dawn.exe")
      .Word(276, 1, 1)
      .Expect(client.loaded->slots[0]);
}

TEST_F(ReportGolden, FailedNegotiation) {
  NegRetRecord record;
  record.neg_type = 1;
  record.game_id = kGameId;
  record.nego_result = 202;
  record.last_error = 10054;
  record.game_idc = 11;
  common::SetFieldText(record.game_ip, "198.51.100.10");
  record.game_port = 27015;
  record.proxy_idc = 20;
  common::SetFieldText(record.proxy_ip, "198.51.100.20");
  record.proxy_port = 7001;
  record.process_id = 4321;
  record.user_isp = 1;
  record.header3 = 33;
  record.nego_count = 2;
  record.elapsed_ms = 5010;
  record.user_ip = 0x04030201;
  common::SetFieldText(record.guid, std::string(36, 'g'));
  ReportNegRetValue(record);
  Golden(184)
      .Word(0, 1, 1)
      .Word(4, 1)
      .Word(8, kGameId, 8)
      .Word(16, 202)
      .Word(20, 10054)
      .Word(24, 11)
      .Text(28, "198.51.100.10")
      .Word(60, 27015, 2)
      .Word(64, 20)
      .Text(68, "198.51.100.20")
      .Word(100, 7001, 2)
      .Word(104, 4321)
      .Word(120, 1)
      .Word(124, 33)
      .Word(128, 2)
      .Word(132, 5010)
      .Word(136, 0x04030201)
      .Text(140, std::string(36, 'g'))
      .Expect(client.failures->slots[0]);
}

TEST_F(ReportGolden, SuccessfulNegotiation) {
  RealNegoRecord record;
  record.game_id = kGameId;
  record.user_isp = 1;
  record.user_ip = 0x04030201;
  common::SetFieldText(record.guid, "guid");
  record.proxy_id = 20;
  common::SetFieldText(record.proxy_ip, "198.51.100.20");
  record.proxy_port = 7001;
  record.last_node_id = 21;
  record.last_node_ip = 0x08070605;
  record.game_ip = 0xc633640a;
  record.game_port = 27015;
  record.stamp = 1'700'000'000;
  ReportRealNego(record);
  Golden(152)
      .Word(0, 1, 1)
      .Word(8, kGameId, 8)
      .Word(16, 1)
      .Word(20, 0x04030201)
      .Text(24, "guid")
      .Word(92, 20)
      .Text(96, "198.51.100.20")
      .Word(128, 7001)
      .Word(132, 21)
      .Word(136, 0x08070605)
      .Word(140, 0xc633640a)
      .Word(144, 27015)
      .Word(148, 1'700'000'000)
      .Expect(client.negotiations->slots[0]);
}

TEST_F(ReportGolden, LinkInTrouble) {
  RecoverySwitchRecord record;
  record.game_id = kGameId;
  record.data_link_small_section_pack = 1;
  record.data_link_small_section_lost = 2;
  record.data_link_full_section_pack = 3;
  record.data_link_full_section_lost = 4;
  record.need_switch = 5;
  record.is_switch_succ = 6;
  record.count = 7;
  record.proxy_idc = 8;
  record.elapse_time = 9;
  record.total_recv_pack = 10;
  record.total_send_pack = 11;
  record.link_type = 12;
  common::SetFieldText(record.guid, std::string(36, 'g'));
  common::SetFieldText(record.switch_condition, std::string(119, 'c'));
  common::SetFieldText(record.acc_info, "acc");
  common::SetFieldText(record.client_info, "client");
  common::SetFieldText(record.fe_be, "fe");
  ReportRecoverySwitch(record);
  Golden(584)
      .Word(0, 1, 1)
      .Word(8, kGameId, 8)
      .Words(16, 12, 1)
      .Text(64, std::string(36, 'g'))
      .Text(101, std::string(119, 'c'))
      .Text(221, "acc")
      .Text(341, "client")
      .Text(461, "fe")
      .Expect(client.switches->slots[0]);
}

}  // namespace
}  // namespace moru_vyr::lsp
