#include "tests/scenario/whole_faults.h"

#include <winsock2.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <sstream>

#include "port/sim/random.h"
#include "port/sim/seeds.h"
#include "port/sim/trace.h"

namespace whole_test {
namespace {

using sim::Format;

constexpr unsigned kMostFaults = 24;
constexpr unsigned kMostFaultsOfMany = 8;  // of a busy stretch among others
constexpr unsigned kMostQuietFaults = 2;
constexpr uint64_t kLongestAbsenceMs = 600'000;
constexpr const char* kNodeNames[] = {"A", "B", "C"};
constexpr const char* kHostNames[] = {"A", "B", "C", "the server"};

// closesocket is not among them: what is left could then not be checked. Nor is WSPIoctl: a socket
// of the game that stays blocking would wait for a lost datagram for ever.
constexpr const char* kCalls[] = {
    "send",       "recv",    "connect",   "socket",    "accept",       "getsockname",
    "getsockopt", "select",  "WSPSendTo", "WSPSendTo", "WSPRecvFrom",  "WSPSocket",
    "WSPSelect",  "WSPBind", "WSPSend",   "WSPRecv",   "CreateEventA", "WSPSendTo"};
constexpr uint32_t kErrors[] = {WSAECONNRESET,  WSAECONNABORTED, WSAENETRESET,  WSAENOBUFS,
                                WSAEWOULDBLOCK, WSAETIMEDOUT,    WSAENETUNREACH};

// How often each kind is drawn, in the order of FaultKind. Those that end our threads come at most
// once in a world, and in few worlds: most of what is worth testing is over then.
constexpr unsigned kShares[kFaultKinds] = {30, 6, 4, 2, 6, 3, 16, 5, 14, 12, 5, 3, 3, 0, 0, 0};

FaultKind AnyKind(sim::Random* random) {
  unsigned all = 0;
  for (const unsigned share : kShares) all += share;
  auto at = static_cast<unsigned>(random->Below(all));
  for (int kind = 0; kind < kFaultKinds; ++kind) {
    if (at < kShares[kind]) return static_cast<FaultKind>(kind);
    at -= kShares[kind];
  }
  return FaultKind::kFailCall;
}

// Small numbers are as likely as large ones.
uint64_t AnyCount(sim::Random* random, unsigned bits) {
  return 1 + random->Below(uint64_t{1} << random->Below(bits));
}

Fault Draw(FaultKind kind, uint32_t begin_ms, uint32_t length_ms, sim::Random* random) {
  Fault one;
  one.kind = kind;
  one.at_ms = begin_ms + static_cast<uint32_t>(random->Below(length_ms));
  one.a = random->Next() >> 16;
  one.b = random->Next() >> 16;
  one.c = random->Next() >> 16;
  switch (kind) {
    case FaultKind::kFailCall:
      one.a %= std::size(kCalls);
      one.b = AnyCount(random, 7);
      one.c %= std::size(kErrors);
      break;
    case FaultKind::kShortSend:
      one.a = 1 + one.a % 20;
      one.b %= 200;
      break;
    case FaultKind::kLoseEvent:
      one.a = 1 + one.a % 3;
      break;
    case FaultKind::kStallWorker:
    case FaultKind::kStallReporter:
      one.a %= 3000;
      break;
    case FaultKind::kNodeBehaves:
      one.a %= kNodes;
      break;
    case FaultKind::kNodeDies:
      one.a %= kNodes;
      one.b %= 10'000;
      break;
    case FaultKind::kLink:
      one.a %= kNodes + 1;
      break;
    case FaultKind::kClientHolds:
      one.a %= kMutexes;
      one.b %= 2000;
      break;
    case FaultKind::kClientDies:
      one.a %= kMutexes;
      break;
    case FaultKind::kGameThread:
      one.b = AnyCount(random, 8);
      break;
    case FaultKind::kWorkerEnds:
    case FaultKind::kReporterEnds:
      one.a = AnyCount(random, 12);
      break;
    case FaultKind::kFailThread:
    case FaultKind::kTables:
    case FaultKind::kTickWraps:
      break;
  }
  return one;
}

void DrawFaultsOf(const Stretch& stretch, bool is_one_of_many, sim::Random* random,
                  FaultList* all) {
  if (stretch.kind == Stretch::kSilent) return;
  if (stretch.kind == Stretch::kQuiet) {
    for (uint64_t n = random->Below(kMostQuietFaults + 1); n > 0; --n) {
      all->push_back(Draw(FaultKind::kNodeDies, stretch.begin_ms, stretch.length_ms, random));
      all->back().b = random->Below(kLongestAbsenceMs);
    }
    return;
  }
  for (uint64_t n = random->Below(is_one_of_many ? kMostFaultsOfMany : kMostFaults); n > 0; --n) {
    FaultKind kind = AnyKind(random);
    // After it, what is left cannot be checked: that is for few worlds.
    if (is_one_of_many && kind == FaultKind::kGameThread) kind = FaultKind::kTables;
    all->push_back(Draw(kind, stretch.begin_ms, stretch.length_ms, random));
  }
}

}  // namespace

const char* CallOf(const Fault& fault) { return kCalls[fault.a]; }

// A connect that claims to be under way and is not, which no system does, would be waited for.
uint32_t ErrorOfCall(const Fault& fault) {
  const uint32_t error = kErrors[fault.c];
  const bool connects = std::string(CallOf(fault)) == "connect";
  return connects && error == WSAEWOULDBLOCK ? uint32_t{WSAECONNREFUSED} : error;
}

std::string Fault::Text() const {
  const std::string when = Format("%u.%03u s: ", at_ms / 1000, at_ms % 1000);
  const auto ua = static_cast<unsigned>(a), ub = static_cast<unsigned>(b);
  switch (kind) {
    case FaultKind::kFailCall:
      return when + Format("%s number %u fails with %u", CallOf(*this), ub, ErrorOfCall(*this));
    case FaultKind::kShortSend:
      return when + Format("send number %u takes %u bytes", ua, ub);
    case FaultKind::kLoseEvent:
      return when + Format("SetEvent number %u is lost", ua);
    case FaultKind::kFailThread:
      return when + "the next thread cannot be created";
    case FaultKind::kStallWorker:
      return when + Format("the worker stands still for %u ms", ua);
    case FaultKind::kStallReporter:
      return when + Format("the reporting thread stands still for %u ms", ua);
    case FaultKind::kNodeBehaves:
      return when + Format("node %s behaves as %llu says", kNodeNames[a],
                           static_cast<unsigned long long>(b));
    case FaultKind::kNodeDies:
      return when + Format("node %s dies, for %u ms", kNodeNames[a], ub);
    case FaultKind::kLink:
      return when + Format("the link to %s is as %llu says", kHostNames[a],
                           static_cast<unsigned long long>(b));
    case FaultKind::kTables:
      return when + Format("the client writes the tables %llu", static_cast<unsigned long long>(a));
    case FaultKind::kClientHolds:
      return when + Format("the client holds mutex %u for %u ms", ua, ub);
    case FaultKind::kClientDies:
      return when + Format("a client dies with mutex %u", ua);
    case FaultKind::kGameThread:
      return when + Format("a thread of the game is ended at its call number %u", ub);
    case FaultKind::kWorkerEnds:
      return when + Format("the worker is ended at its call number %u", ua);
    case FaultKind::kReporterEnds:
      return when + Format("the reporting thread is ended at its call number %u", ua);
    case FaultKind::kTickWraps:
      return when + "GetTickCount begins again";
  }
  return when;
}

FaultList DrawFaults(uint64_t seed, const Course& course) {
  sim::Random random(sim::Scattered(seed ^ 0x6661756c74));
  FaultList all;
  for (const Stretch& stretch : course.stretches)
    DrawFaultsOf(stretch, course.IsLong(), &random, &all);
  const auto some_time = [&](unsigned percent, FaultKind kind) {
    if (random.Below(100) < percent) all.push_back(Draw(kind, 0, course.length_ms(), &random));
  };
  some_time(40, FaultKind::kTickWraps);
  some_time(6, FaultKind::kWorkerEnds);
  some_time(4, FaultKind::kReporterEnds);
  if (course.IsLong()) some_time(5, FaultKind::kGameThread);
  std::stable_sort(all.begin(), all.end(),
                   [](const Fault& x, const Fault& y) { return x.at_ms < y.at_ms; });
  return all;
}

test::Kept KeptFaults(const FaultList& all) {
  test::Kept kept;
  const char* const named = std::getenv("VYR_SWARM_FAULTS");
  if (named == nullptr) {
    for (size_t i = 0; i < all.size(); ++i) kept.push_back(i);
    return kept;
  }
  std::istringstream numbers(named);
  for (std::string number; std::getline(numbers, number, ',');) {
    const size_t at = std::strtoul(number.c_str(), nullptr, 10);
    if (number != "none" && at < all.size()) kept.push_back(at);
  }
  std::sort(kept.begin(), kept.end());
  return kept;
}

std::string TextOf(const test::Kept& kept) {
  std::string text;
  for (const size_t at : kept) text += (text.empty() ? "" : ",") + std::to_string(at);
  return text.empty() ? "none" : text;
}

}  // namespace whole_test
