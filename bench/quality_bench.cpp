// The cost of watching a link: for each datagram of a game, for each probe, and for each step of
// the timer. Compares a judge that is switched off with one that is on, and loss over short windows
// with loss over long ones.
//
//   build/posix/bench/quality_bench
#include <benchmark/benchmark.h>
#include <winsock2.h>
//
#include <windows.h>

#include "common/text.h"
#include "common/unix_time.h"
#include "protocol/speed_test_payload.h"
#include "quality/real_route_speed_test.h"
#include "quality/recovery_switch.h"
#include "route/acc_config.h"
#include "tracker/tracker.h"

namespace moru_vyr::lsp {
namespace {

AccConfig Settings() {
  AccConfig config;
  config.game_id = 7;
  config.log_level = 6;  // as in production: nothing of this is written
  config.link_switch_mask = 3;
  common::SetFieldText(config.list_text, "7");
  config.max_link_except_rep_num = 1000;
  config.max_real_route_lost = 100;
  return config;
}

void Judge(RecoverySwitch* judge, SOCKET socket, bool enabled) {
  AccConfig config = Settings();
  if (!enabled) config.link_switch_mask = 0;
  ReplaceAccConfig(config);
  AccInfo acc;
  acc.flag = kLinkMayBeMeasured;
  const ClientInfo client;
  judge->Init(socket, 1, "guid", acc, client, false);
}

// A session's work for one datagram from the node and one to it.
void PerDatagram(benchmark::State& state) {
  RecoverySwitch judge;
  Judge(&judge, 1, state.range(0) != 0);
  u32 seq = 0;
  for (auto _ : state) {
    judge.SetUploadLost(0);
    judge.DataLinkAddOneRecvPkg(++seq);
    benchmark::DoNotOptimize(judge.DataLinkGetDefCurLost(false));
  }
}
BENCHMARK(PerDatagram)->ArgName("on")->Arg(0)->Arg(1);

void LostCalcAddOneRecv(benchmark::State& state) {
  LostCalc calc;
  calc.Init(0, 1000, 5, 200, 20, false);
  u32 seq = 0;
  for (auto _ : state) {
    calc.AddOneRecv(++seq);
    benchmark::DoNotOptimize(calc);
  }
}
BENCHMARK(LostCalcAddOneRecv);

// A slot opens and closes in every round, which is the worst case of a timer step.
void LostCalcUpdateThatCloses(benchmark::State& state) {
  LostCalc calc;
  calc.Init(0, 1000, static_cast<u16>(state.range(0)), 200, 20, false);
  u32 now = 0, seq = 0;
  for (auto _ : state) {
    calc.AddOneRecv(seq += 3);
    now += 1000;
    calc.Update(now);
    benchmark::DoNotOptimize(calc.Update(now + 200));
  }
}
BENCHMARK(LostCalcUpdateThatCloses)->ArgName("slots")->Arg(5)->Arg(60);

void LostCalcGetCurLost(benchmark::State& state) {
  LostCalc calc;
  calc.Init(0, 1000, 60, 200, 20, false);
  for (u32 now = 0, seq = 0; now < 200'000; now += 1000) {
    calc.AddOneRecv(++seq);
    calc.Update(now);
    calc.Update(now + 200);
  }
  u32 need = 0, real = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        calc.GetCurLost(static_cast<u16>(state.range(0)), &need, &real, false));
  }
}
BENCHMARK(LostCalcGetCurLost)->ArgName("slots")->Arg(2)->Arg(5)->Arg(60);

// A timer step at which nothing is due. There is one every 30 ms.
void TimerStep(benchmark::State& state) {
  RecoverySwitch judge;
  Judge(&judge, 1, state.range(0) != 0);
  for (auto _ : state) benchmark::DoNotOptimize(judge.OnUpdate());
}
BENCHMARK(TimerStep)->ArgName("on")->Arg(0)->Arg(1);

// The answer to a probe, from its bytes to the judgement, with a given number of watched sockets.
// No probe is sent, because that would measure the system's sendto.
void AnsweredProbe(benchmark::State& state) {
  constexpr SOCKET kFirst = 100;
  const auto sockets = static_cast<SOCKET>(state.range(0));
  for (SOCKET s = kFirst; s < kFirst + sockets; ++s) GetTracker().AddToWatchList(s, kTrackUdp, 1);
  RecoverySwitch judge;
  Judge(&judge, kFirst, true);
  RealRouteSpeedTest probes(&judge);
  SpeedTestParam param;
  param.socket = kFirst;
  probes.Start(param, false);
  SpeedTestPackage answer;
  answer.header.flags = kUdpAcclSpeedTest;
  answer.payload.send_time = common::UnixTimeMs() - 10;
  for (auto _ : state) {
    ++answer.payload.seq;
    judge.RealRouteAddOneSendPkg(answer.payload.seq);
    u8 wire[sizeof answer];
    answer.Pack(wire);
    ProbeReply reply;
    probes.ReadReply(wire, sizeof wire, &reply);
    benchmark::DoNotOptimize(probes.ProcessTestRecv(&reply));
    probes.CountReply(reply);
  }
  for (SOCKET s = kFirst; s < kFirst + sockets; ++s) GetTracker().RemoveFromWatchList(s);
}
BENCHMARK(AnsweredProbe)->ArgName("sockets")->Arg(1)->Arg(60);

}  // namespace
}  // namespace moru_vyr::lsp
