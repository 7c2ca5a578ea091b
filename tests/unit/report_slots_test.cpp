// How a report gets into its channel: into the lowest free slot, or not at all. Whatever prevents a
// report loses that report and leaves everything else unchanged.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "common/named_mutex.h"
#include "common/shared_mem_obj.h"
#include "common/text.h"
#include "route/acc_config.h"
#include "tests/support/end_worker.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "tests/support/report_client.h"
#include "tests/support/threads.h"
#include "tests/unit/out_of_memory.h"
#include "tests/unit/single_step.h"
#include "tracker/reports.h"

namespace moru_vyr::lsp {
namespace {

struct Report {
  const char* name;
  const ReportChannel* channel;
  std::function<void(u32 mark)> make;  // a report with that number in it
  std::size_t mark_at;                 // the offset of the number in a slot
  std::string no_region;               // what the log says, and at which level
  std::string full;
  std::string success;
  int success_level;
};

SocketQosRecord MarkedSocket(u32 mark) {
  SocketQosRecord socket;
  socket.socket = 77;
  socket.token = 5;
  socket.create_tick = mark;
  socket.continuous = true;
  return socket;
}

std::vector<Report> Reports() {
  return {
      {"Decision", &kDecisionChannel,
       [](u32 mark) {
         AccDecisionInfo record;
         record.glt_word = mark;
         record.process_id = 4321;
         record.socket = 77;
         ReportAcceDecisionInfo(record);
       },
       1124, "[Tracker] ReportAcceDecisionInfo failed, mem_addr=null\n",
       "[Tracker] ReportAcceDecisionInfo failed,  can't find free position, array_size=108\n",
       "[Tracker] ReportAcceDecisionInfo success,  idx=0, array_size=108, pid=4321, sock=77\n", 0},
      {"Traffic", &kCommunicationChannel,
       [](u32 mark) { ReportCommunicationStatistic(MarkedSocket(mark)); }, 60,
       "[Tracker] ReportCommunicationStatistic failed, mem_addr=null,socket=77, token=5\n",
       "[Tracker] ReportCommunicationStatistic failed. can't find free position., socket=77, "
       "token=5\n",
       "[Tracker] ReportCommunicationStatistic continuous data success. series_code=,", 0},
      {"LogPath", &kLogPathChannel,
       [](u32 mark) {
         LogPathRecord record;
         record.game_id = mark;
         common::SetFieldText(record.log_path, "C:\\x.log");
         ReportLogPath(record);
       },
       8, "[Tracker] ReportLogPath failed, mem_addr=null\n",
       "[Tracker] ReportLogPath failed.can't find free position.\n",
       "[Tracker] ReportLogPath success, game_id=1,  log_path=C:\\x.log\n", 0},
      {"Loaded", &kLoadedChannel,
       [](u32 mark) {
         LspLoadedRecord record;
         record.game_id = mark;
         common::SetFieldText(record.process_name, "dawn.exe");
         ReportLspLoadedInfo(record);
       },
       8, "[Tracker] ReportLogPath failed, mem_addr=null\n",
       "[Tracker] ReportLogPath failed.can't find free position.\n",
       "[Tracker] ReportLspLoadedInfo success, game_id=1,  process_name=dawn.exe, is_x64=false\n",
       0},
      {"FailedNegotiation", &kNegotiationResultChannel,
       [](u32 mark) {
         NegRetRecord record;
         record.elapsed_ms = mark;
         ReportNegRetValue(record);
       },
       132, "[Tracker] ReportNegRetValue failed, mem_addr=null\n",
       "[Tracker] ReportNegRetValue failed. can't find free position.\n",
       "[Tracker] ReportNegRetValue success.\n", 4},
      {"Negotiation", &kRealNegotiationChannel,
       [](u32 mark) {
         RealNegoRecord record;
         record.stamp = mark;
         record.game_id = 7;
         record.user_isp = 3;
         record.user_ip = htonl(0xc0000201);
         common::SetFieldText(record.guid, "g");
         record.proxy_id = 20;
         common::SetFieldText(record.proxy_ip, "198.51.100.20");
         record.proxy_port = 7001;
         record.last_node_id = 21;
         record.last_node_ip = htonl(0xc6336415);
         record.game_ip = 0xc633640a;
         record.game_port = 27015;
         ReportRealNego(record);
       },
       148, "[SocketQosHelper] ReportRealNego failed, mem_addr=null\n",
       "[SocketQosHelper]ReportRealNego failed.can't find free position.\n",
       "[SocketQosHelper] ReportRealNego success, stamp=1,game_id=7, user_ip=192.0.2.1, "
       "user_isp=3, guid=g, proxy_id=20, proxy_ip=198.51.100.20,proxy_port=7001, last_node_id=21, "
       "last_node_ip=198.51.100.21, game_ip=198.51.100.10,game_port=27015\n",
       0},
      {"Switch", &kRecoverySwitchChannel,
       [](u32 mark) {
         RecoverySwitchRecord record;
         record.elapse_time = mark;
         record.game_id = 7;
         common::SetFieldText(record.guid, "g");
         common::SetFieldText(record.switch_condition, "c");
         common::SetFieldText(record.acc_info, "a");
         common::SetFieldText(record.client_info, "i");
         common::SetFieldText(record.fe_be, "f");
         ReportRecoverySwitch(record);
       },
       48, "[SocketQosHelper] ReportRecoverySwitch failed, mem_addr=null\n",
       "[SocketQosHelper]ReportRecoverySwitch failed.can't find free position.\n",
       "[SocketQosHelper] ReportRecoverySwitch success, game_id=7, "
       "data_link_small_section_pack=0, data_link_small_section_lost=0, "
       "data_link_full_section_pack=0, data_link_full_section_lost=0, need_switch=0, "
       "is_switch_succ=0, count=0, proxy_idc=0, elapse_time=1, total_recv_pack=0, "
       "total_send_pack=0, link_type=0, guid=g, switch_condition=c, acc_info=a, client_info=i, "
       "fe_be=f\n",
       0},
  };
}

// A region of that channel as the client makes it, looked at as bytes.
class Region {
 public:
  explicit Region(const ReportChannel& channel, u32 minor_ver = 36, u32 declared_size = 0)
      : channel_(channel),
        mapping_(CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                    channel.region_size, channel.mapping_name)),
        view_(static_cast<u8*>(
            MapViewOfFile(mapping_, FILE_MAP_ALL_ACCESS, 0, 0, channel.region_size))) {
    const u32 header[] = {declared_size != 0 ? declared_size : channel.region_size, 1, minor_ver};
    std::memcpy(view_, header, sizeof header);
  }
  ~Region() {
    UnmapViewOfFile(view_);
    CloseHandle(mapping_);
  }
  Region(const Region&) = delete;
  Region& operator=(const Region&) = delete;

  u8* Slot(u32 index) { return view_ + 16 + index * channel_.slot_size; }
  u32 Mark(u32 index, std::size_t at) {
    u32 mark = 0;
    std::memcpy(&mark, Slot(index) + at, sizeof mark);
    return mark;
  }
  std::vector<u8> Bytes() const { return {view_, view_ + channel_.region_size}; }

 private:
  const ReportChannel& channel_;
  HANDLE mapping_;
  u8* view_;
};

class ReportSlots : public testing::TestWithParam<Report> {
 protected:
  static void SetUpTestSuite() {
    test::EndWorker();
    test::EndTheTrackerOfTheProcess();
  }

  const Report& report() const { return GetParam(); }
  const ReportChannel& channel() const { return *report().channel; }
};

TEST_P(ReportSlots, FillTheChannelFromItsFirstSlotToItsLast) {
  Region region(channel());
  for (u32 i = 0; i < channel().slot_count; ++i) report().make(i + 1);
  for (u32 i = 0; i < channel().slot_count; ++i) {
    EXPECT_EQ(*region.Slot(i), 1);
    EXPECT_EQ(region.Mark(i, report().mark_at), i + 1);
  }
}

TEST_P(ReportSlots, SayWhatWasWritten) {
  Region region(channel());
  {
    const test::LogCapture log(report().success_level);
    report().make(1);
    EXPECT_TRUE(log.Contains(report().success)) << log.Text();
  }
  *region.Slot(0) = 0;
  const test::LogCapture log(report().success_level + 1);
  report().make(1);
  EXPECT_FALSE(log.Contains(report().success)) << log.Text();
}

TEST_P(ReportSlots, LoseTheReportWhereAllAreTakenAndChangeNothing) {
  Region region(channel());
  for (u32 i = 0; i < channel().slot_count; ++i) report().make(i + 1);
  const std::vector<u8> before = region.Bytes();
  {
    const test::LogCapture log(4);
    report().make(1000);
    EXPECT_TRUE(log.Contains(report().full)) << log.Text();
  }
  EXPECT_EQ(region.Bytes(), before);
  {
    const test::LogCapture log(0);
    report().make(1000);
    EXPECT_FALSE(log.Contains("success")) << log.Text();
  }
  const test::LogCapture log(5);
  report().make(1000);
  EXPECT_EQ(log.Text(), "");
}

TEST_P(ReportSlots, AreUsedAgainFromTheLowestThatTheClientFrees) {
  Region region(channel());
  for (u32 i = 0; i < channel().slot_count; ++i) report().make(i + 1);
  *region.Slot(9) = 0;
  *region.Slot(5) = 0;
  report().make(501);
  report().make(502);
  EXPECT_EQ(region.Mark(5, report().mark_at), 501u);
  EXPECT_EQ(region.Mark(9, report().mark_at), 502u);
}

// Any value but zero means that the client has not read it yet.
TEST_P(ReportSlots, AreTakenForAnyNonzeroFirstByte) {
  Region region(channel());
  *region.Slot(0) = 0xff;
  *region.Slot(1) = 2;
  report().make(7);
  EXPECT_EQ(*region.Slot(0), 0xff);
  EXPECT_EQ(region.Mark(2, report().mark_at), 7u);
}

// A process may be ended between any two writes, and the mutex goes to the next all the same.
TEST_P(ReportSlots, AreFreeOrCompleteAfterEachWrite) {
  if (!test::CanStep()) GTEST_SKIP() << "no steps here";
  common::SetLogThreshold(6);
  Region region(channel());
  u8* const slot = region.Slot(0);
  const std::size_t size = channel().slot_size;
  report().make(1);
  const std::vector<u8> whole(slot, slot + size);
  std::memset(slot, 0xee, size);  // what an earlier report left
  *slot = 0;
  std::vector<u8> seen(slot, slot + size);
  int writes = 0, torn = 0;
  test::StepThrough([&] { report().make(1); },
                    [&] {
                      if (std::memcmp(seen.data(), slot, size) == 0) return;
                      std::memcpy(seen.data(), slot, size);
                      ++writes;
                      if (*slot != 0 && std::memcmp(whole.data(), slot, size) != 0) ++torn;
                    });
  common::SetLogThreshold(0);
  EXPECT_EQ(std::vector<u8>(slot, slot + size), whole);
  EXPECT_GT(writes, 2) << "the steps are not seen";
  EXPECT_EQ(torn, 0) << "of " << writes << " writes";
}

TEST_P(ReportSlots, AreNotMadeWhereTheClientHasMadeNone) {
  const test::LogCapture log(4);
  report().make(1);
  EXPECT_TRUE(log.Contains(report().no_region)) << log.Text();
  EXPECT_FALSE(log.Contains(report().full)) << "one reason is enough: " << log.Text();
  EXPECT_FALSE(common::Shared_mem_obj::Exists(channel().mapping_name));
}

TEST_P(ReportSlots, ThatCannotBeAskedForWithoutMemoryCountAsNone) {
  Region region(channel());
  const std::vector<u8> before = region.Bytes();
  {
    const test::OutOfMemory none;
    report().make(1);
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
  EXPECT_EQ(region.Bytes(), before);
  report().make(2);
  EXPECT_EQ(region.Mark(0, report().mark_at), 2u);
}

TEST_P(ReportSlots, OfAnotherVersionCountAsMissing) {
  Region region(channel(), 37);
  const std::vector<u8> before = region.Bytes();
  const test::LogCapture log(4);
  report().make(1);
  EXPECT_TRUE(log.Contains(report().no_region)) << log.Text();
  EXPECT_TRUE(log.Contains(test::kRegionMismatch)) << log.Text();
  EXPECT_EQ(region.Bytes(), before);
}

TEST_P(ReportSlots, OfAnotherSizeCountAsMissing) {
  Region region(channel(), 36, channel().region_size - channel().slot_size);
  const std::vector<u8> before = region.Bytes();
  const test::LogCapture log(4);
  report().make(1);
  EXPECT_TRUE(log.Contains(report().no_region)) << log.Text();
  EXPECT_EQ(region.Bytes(), before);
}

// Every return releases the mutex: the client program would hang otherwise.
TEST_P(ReportSlots, LeaveTheChannelsMutexFree) {
  common::NamedMutex mutex(channel().mutex_name);
  const auto is_free = [&] {
    bool got = false;
    test::RunThread([&] {
      common::NamedMutex other(channel().mutex_name);
      got = other.try_lock();
      if (got) other.unlock();
    });
    return got;
  };
  report().make(1);
  EXPECT_TRUE(is_free());
  {
    Region region(channel(), 37);
    report().make(1);
    EXPECT_TRUE(is_free());
  }
  Region region(channel());
  for (u32 i = 0; i <= channel().slot_count; ++i) report().make(i);
  EXPECT_TRUE(is_free());
}

INSTANTIATE_TEST_SUITE_P(All, ReportSlots, testing::ValuesIn(Reports()),
                         [](const auto& test) { return std::string(test.param.name); });

// --- differences between channels -------------------------------------------------------------

void SetGameId(u64 id) {
  AccConfigRecord config;
  config.game_id = id;
  ReplaceAccConfig(config);
}

TEST(ReportDecision, SaysInWhichSlotItIs) {
  Region region(kDecisionChannel);
  const test::LogCapture log(0);
  for (int i = 0; i < 2; ++i) ReportAcceDecisionInfo(AccDecisionInfo{});
  EXPECT_TRUE(log.Contains("ReportAcceDecisionInfo success,  idx=0, array_size=108")) << log.Text();
  EXPECT_TRUE(log.Contains("ReportAcceDecisionInfo success,  idx=1, array_size=108")) << log.Text();
}

TEST(ReportDecision, IsNotMadeForTheNetworkProbe) {
  Region decisions(kDecisionChannel);
  Region traffic(kCommunicationChannel);
  for (const u64 id : {u64{99999}, u64{99998}, u64{99999} + (u64{1} << 32)}) {
    SetGameId(id);
    ReportAcceDecisionInfo(AccDecisionInfo{});
    ReportCommunicationStatistic(MarkedSocket(1));
  }
  SetGameId(0);
  EXPECT_EQ(*decisions.Slot(1), 1);
  EXPECT_EQ(*decisions.Slot(2), 0);
  EXPECT_EQ(*traffic.Slot(2), 1);
}

TEST(ReportDecision, IsNotEvenTriedForTheNetworkProbe) {
  SetGameId(99999);
  const test::LogCapture log(0);
  ReportAcceDecisionInfo(AccDecisionInfo{});
  SetGameId(0);
  EXPECT_EQ(log.Text(), "");
}

TEST(ReportTraffic, SaysEveryFigure) {
  Region region(kCommunicationChannel);
  SocketQosRecord s = MarkedSocket(1);
  std::strcpy(s.series_code, "code");
  s.guid = "guid";
  s.socket_type = 1;
  common::SetFieldText(s.proxy_ip, "1.2.3.4");
  s.proxy_port = 2;
  s.proxy_idc = 3;
  common::SetFieldText(s.game_ip, "5.6.7.8");
  s.game_port = 4;
  s.game_idc = 5;
  s.total_recv_bytes = 6;
  s.total_recv_packets = 7;
  s.total_sent_bytes = 8;
  s.total_sent_packets = 9;
  s.total_recv_errors = 10;
  s.total_sent_errors = 11;
  s.first_recv_error_code = 12;
  s.first_send_error_code = 13;
  s.curr_recv_error_code = 14;
  s.curr_send_error_code = 15;
  s.life = 16;
  s.recovery_info = "info";
  SpeedStatsHalf* const halves[] = {&s.speed_test.frontend, &s.speed_test.backend};
  u32 n = 100;
  for (SpeedStatsHalf* half : halves) {
    half->fine.avg = n++;
    half->fine.max = n++;
    half->fine.min = n++;
    half->fine.amp = n++;
    half->total_send = n++;
    half->fine.count = n++;
    half->lost_avg = n++ / 10.0;
    half->over.avg = n++;
    half->over.max = n++;
    half->over.min = n++;
    half->over.count = n++;
    half->all.avg = n++;
    half->all.amp = n++;
    half->all.count = n++;
    half->all_send_count = n++;
  }
  s.speed_test.topology_type = 2;
  const std::string traffic =
      " data success. series_code=code,guid_str=guid,socket_type=1,proxy_ip=1.2.3.4,proxy_port=2,"
      "proxy_idc=3,game_ip=5.6.7.8,game_port=4,game_idc=5,total_recv_bytes=6,total_recv_packets=7,"
      "total_sent_bytes=8,total_sent_packets=9,total_recv_errors=10,total_sent_errors=11,"
      "first_recv_error_code=12,first_send_error_code=13,curr_recv_error_code=14,"
      "curr_send_error_code=15,life=16 ms,socket=77, token=5\n";
  const std::string speed =
      " data,frontend_fine: delay_avg=100, delay_max=101, delay_min=102, delay_amp=103,"
      "total_send=104,total_recv=105,lost_avg=10.6,backend_fine: delay_avg=115, delay_max=116, "
      "delay_min=117, delay_amp=118,total_send=119,total_recv=120,lost_avg=12.1, "
      "-----------------------------------------frontend_over: delay_avg=107, delay_max=108, "
      "delay_min=109, count=110backend_over: delay_avg=122, delay_max=123, delay_min=124, "
      "count=125-----------------------------------------frontend_all: delay_avg=111, "
      "delay_amp=112, recv_count=113, send_count=114frontend_all: delay_avg=126, delay_amp=127, "
      "recv_count=128, send_count=129-----------------------------------------topology_type=2, "
      "socket=77, token=5\n";
  {
    const test::LogCapture log(0);
    ReportCommunicationStatistic(s);
    EXPECT_TRUE(log.Contains(
        "[Tracker] Report recovery switch info=info, guid=guid, socket=77, token=5\n"));
    EXPECT_TRUE(log.Contains("[Tracker] ReportCommunicationStatistic continuous" + traffic));
    EXPECT_TRUE(log.Contains("[Tracker] ReportSpeedTestguid=guid, continuous" + speed))
        << log.Text();
  }
  {
    const test::LogCapture log(1);
    ReportCommunicationStatistic(s);
    EXPECT_EQ(log.Text(), "");
  }
  s.continuous = false;
  const test::LogCapture log(5);  // the last report stays in every log
  ReportCommunicationStatistic(s);
  EXPECT_TRUE(log.Contains("[Tracker] ReportCommunicationStatistic ended" + traffic));
  EXPECT_TRUE(log.Contains("[Tracker] ReportSpeedTestguid=guid, ended" + speed)) << log.Text();
  EXPECT_FALSE(log.Contains("Report recovery switch info"));
}

}  // namespace
}  // namespace moru_vyr::lsp
