// A game that plays for hours with the library in its process, beside a client program in the same
// process: without Windows, processes share no objects. scripts/soak.py starts it and watches it
// from outside; it says once a second what only the inside can know.
//
// play.h says what it plays. The client takes the reports, writes other tables, and dies again and
// again while it holds a mutex. Ends with the end of its input.
#include <winsock2.h>
//
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

#include "abi/mending_formats.h"
#include "abi/report_records.h"
#include "abi/route_table_formats.h"
#include "bench/game_library.h"
#include "common/named_mutex.h"
#include "common/text.h"
#include "port/shared/objects.h"
#include "quality/link_identity.h"
#include "route/decision.h"
#include "tests/soak/play.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT: the records
using common::u32;

constexpr const char* kNodes[] = {"198.51.100.20", "198.51.100.21"};
constexpr int kNodePort = 9000;

struct Figures {
  std::atomic<unsigned long> tables{0}, killed{0}, reports{0};
};
Figures figures;

// --- the client program -------------------------------------------------------------------------

template <class Region>
Region* Open(const char* name, u32 size = sizeof(Region)) {
  const HANDLE mapping =
      CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, size, name);
  return static_cast<Region*>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, size));
}

template <class Region>
Region* MakeChannel(const ReportChannel& channel) {
  auto* const region = Open<Region>(channel.mapping_name, channel.region_size);
  region->header = {sizeof(Region), common::kSharedMemMajorVersion, common::kSharedMemMinorVersion};
  return region;
}

struct Channels {
  DecisionRegion* decisions = MakeChannel<DecisionRegion>(kDecisionChannel);
  CommunicationRegion* traffic = MakeChannel<CommunicationRegion>(kCommunicationChannel);
  LogPathRegion* log_paths = MakeChannel<LogPathRegion>(kLogPathChannel);
  LoadedRegion* loaded = MakeChannel<LoadedRegion>(kLoadedChannel);
  NegotiationResultRegion* failures =
      MakeChannel<NegotiationResultRegion>(kNegotiationResultChannel);
  RealNegotiationRegion* negotiations = MakeChannel<RealNegotiationRegion>(kRealNegotiationChannel);
  RecoverySwitchRegion* switches = MakeChannel<RecoverySwitchRegion>(kRecoverySwitchChannel);
};
Channels* channels = nullptr;

template <class Region, class Note>
void Drain(Region* region, const ReportChannel& channel, const Note& note) {
  common::NamedMutex mutex(channel.mutex_name);
  const common::NamedMutexGuard guard(&mutex, false);
  for (auto& slot : region->slots) {
    if (slot.used == 0) continue;
    note(slot);
    slot.used = 0;
    ++figures.reports;
  }
}

// The reports of traffic that were taken and not yet said, as JSON: one array for each, which
// soak_flows.py reads. A socket is told by its flow and by when it was made, since a second attempt
// for a connection has the same GUID.
std::mutex said_lock;
std::string traffic;  // guarded by said_lock

void NoteTraffic(const CommInfoRecord& one) {
  char text[192];
  std::snprintf(text, sizeof text, "%s[\"%.64s %u\", %u, %lu, %u, %u, %u, %u]",
                traffic.empty() ? "" : ", ", one.guid_str, one.create_tick, one.ended,
                static_cast<unsigned long>(GetTickCount()), one.life, one.socket_type,
                one.proxy_idc, one.total_sent_packets);
  traffic += text;
}

DWORD WINAPI TakeReports(LPVOID) {
  const auto nothing = [](const auto&) {};
  for (;; Sleep(100)) {
    Drain(channels->decisions, kDecisionChannel, nothing);
    Drain(channels->traffic, kCommunicationChannel, [](const CommInfoRecord& one) {
      const std::lock_guard hold(said_lock);
      NoteTraffic(one);
    });
    Drain(channels->log_paths, kLogPathChannel, nothing);
    Drain(channels->loaded, kLoadedChannel, nothing);
    Drain(channels->failures, kNegotiationResultChannel, nothing);
    Drain(channels->negotiations, kRealNegotiationChannel, nothing);
    Drain(channels->switches, kRecoverySwitchChannel, nothing);
  }
}

struct RouteBuffers {
  u32 selector;
  RouteRegion buffer[2];
};

// The game's server through node A, through node B, and through none, in turn.
void WriteRoute(RouteBuffers* region, unsigned turn) {
  constexpr u32 kLastNode = 1;
  auto image = std::make_unique<RouteTableImage>();
  image->proxy_count = 2;
  for (u32 i = 0; i < 2; ++i) {
    ProxyRecord& proxy = image->proxies[i];
    proxy.proxy_idc = i + 1;
    common::SetFieldText(proxy.proxy_addr, kNodes[i]);
    proxy.proxy_port = kNodePort;
    proxy.surport_isps = 1;
    proxy.flag = kLinkMayBeMeasured;
  }
  const auto ref = [](u32 node, u32 decision = DECISION_ACCE) {
    ProxyRef it;
    it.proxy_idc = node;
    it.decision = decision;
    it.last_node = kLastNode;
    return it;
  };
  RouteEntry& entry = image->route_sets[0].routes[0];
  image->route_sets[0].route_count = 1;
  entry.game_idc = 1001;
  const u32 first = turn % 2 == 0 ? 1 : 2;
  entry.ref_default = ref(first, turn % 5 == 4 ? DECISION_DIRECT : DECISION_ACCE);
  entry.top_refs[0] = ref(first);
  entry.top_refs[1] = ref(3 - first);
  entry.switch_groups[0].last_node = kLastNode;
  entry.switch_groups[0].candidates[0] = ref(1);
  entry.switch_groups[0].candidates[1] = ref(2);
  common::NamedMutex mutex(kRouteMutexName);
  const common::NamedMutexGuard guard(&mutex, false);
  const u32 other = region->selector == 0 ? 1 : 0;
  region->buffer[other].image = *image;
  region->selector = other;
}

DWORD WINAPI WriteTables(LPVOID) {
  auto* const region = Open<RouteBuffers>(kRouteRegionName);
  for (unsigned turn = 0;; ++turn, Sleep(1500)) {
    WriteRoute(region, turn);
    ++figures.tables;
  }
}

constexpr const char* kMutexes[] = {
    kDecisionChannel.mutex_name,          kCommunicationChannel.mutex_name,
    kLogPathChannel.mutex_name,           kLoadedChannel.mutex_name,
    kNegotiationResultChannel.mutex_name, kRealNegotiationChannel.mutex_name,
    kRecoverySwitchChannel.mutex_name,    kRouteMutexName};

// Ends with the mutex, which abandons it, as the end of a client's process does. Not terminated:
// the port keeps the system's thread of one that is, because its stack may still be in use.
DWORD WINAPI DieWithAMutex(LPVOID mutex) {
  WaitForSingleObject(mutex, INFINITE);
  Sleep(300);
  return 0;
}

DWORD WINAPI KillClients(LPVOID) {
  for (unsigned turn = 0;; ++turn, Sleep(400)) {
    const HANDLE mutex = CreateMutexA(nullptr, FALSE, kMutexes[turn % std::size(kMutexes)]);
    const HANDLE thread = CreateThread(nullptr, 0, DieWithAMutex, mutex, 0, nullptr);
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
    CloseHandle(mutex);
    ++figures.killed;
  }
}

// --- what it says -------------------------------------------------------------------------------

DWORD WINAPI Say(LPVOID) {
  for (;; Sleep(1000)) {
    std::string taken;
    {
      const std::lock_guard hold(said_lock);
      taken.swap(traffic);
    }
    std::printf(
        "{\"handles\": %zu, \"views\": %zu, \"blocks\": %zu, %s, \"tables\": %lu, "
        "\"killed\": %lu, \"reports\": %lu, \"traffic\": [%s]}\n",
        port::OpenHandles(), port::OpenViews(), port::OpenAllocations(), soak::PlayedJson().c_str(),
        figures.tables.load(), figures.killed.load(), figures.reports.load(), taken.c_str());
    std::fflush(stdout);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: soak_game FOLDER MENDED   (scripts/soak.py starts it)\n");
    return 2;
  }
  bench::LibrarySetup setup;
  setup.server = soak::kServer;
  setup.node = kNodes[0];
  setup.node_port = kNodePort;
  setup.folder = argv[1];
  setup.log_level = 5;  // at 4 the log reaches its limit in half an hour, and then grows in memory
  setup.mended = std::string(argv[2]) == "all" ? kMendAll : 0;
  bench::InstallLibrary(setup);
  channels = new Channels;
  soak::StartPlaying();
  for (const LPTHREAD_START_ROUTINE body : {TakeReports, WriteTables, KillClients, Say})
    soak::Start(body);
  for (std::string line; std::getline(std::cin, line);) continue;
  std::_Exit(0);
}
