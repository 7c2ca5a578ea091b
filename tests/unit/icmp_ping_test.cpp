// A game's raw pings, answered with forged replies. At stake: the game's ping display depends on
// the bytes and the time of a reply alone, and the buffers belong to the game.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "icmp/icmp_checksum.h"
#include "icmp/icmp_vm.h"
#include "icmp/ping_reply.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "tests/support/threads.h"
#include "tests/support/wire_bytes.h"
#include "tests/unit/out_of_memory.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace moru_vyr::lsp {
namespace {

constexpr SOCKET kRawSocket = 0x4321;
const u32 kIp = static_cast<u32>(inet_addr("198.51.100.10"));
constexpr u32 kUnknownServerLag = 50;
constexpr char kOld = '\xEE';  // the previous content of the game's buffer

// An echo request of that size, with payload bytes 3, 10, 17, …
std::vector<char> Message(u32 size, u16 checksum) {
  std::vector<char> message = {8, 0, 0, 0, 0x12, 0x34, 0, 7};
  for (u32 i = 0; i + 8 < size; ++i) message.push_back(static_cast<char>(7 * i + 3));
  std::memcpy(&message[2], &checksum, sizeof checksum);
  return message;
}
constexpr u16 kChecksumOf64 = 0xf4d9;

// Computed apart from this code, over the wire's rules: a request's checksum as a host word, and
// the reply in a buffer of exactly its size that was full of EE.
const struct {
  u32 size;
  u16 checksum;
  const char* reply;
} kGolden[] = {
    {8, 0xc4e5, "4500001c000000003601a45ac633640a000000000000edc412340007"},
    {9, 0xc4e2, "4500001d000000003601a35ac633640a000000000000ffc312340007ee"},
    {28, 0xe84e,
     "45000030000000003601905ac633640a000000000000ea90123400073b424950575e656c737a8188eeeeeeee"
     "eeeeeeee"},
    {64, 0xf4d9,
     "450000540000000036016c5ac633640a000000000000759d123400073b424950575e656c737a81888f969da4"
     "abb2b9c0c7ced5dce3eaf1f8ff060d141b222930373e454c535a61686f767d84eeeeeeeeeeeeeeee"},
    {255, 0x682a,
     "45000113000000003601ad59c633640a000000000000c610123400073b424950575e656c737a81888f969da4"
     "abb2b9c0c7ced5dce3eaf1f8ff060d141b222930373e454c535a61686f767d848b9299a0a7aeb5bcc3cad1d8"
     "dfe6edf4fb020910171e252c333a41484f565d646b727980878e959ca3aab1b8bfc6cdd4dbe2e9f0f7fe050c"
     "131a21282f363d444b525960676e757c838a91989fa6adb4bbc2c9d0d7dee5ecf3fa01080f161d242b323940"
     "474e555c636a71787f868d949ba2a9b0b7bec5ccd3dae1e8eff6fd040b121920272e353c434a51585f666d74"
     "7b828990979ea5acb3bac1c8cfd6dde4ebf2f900070e151c232a31383f464d545b626970777e858c939aa1a8"
     "afb6bdeeeeeeeeeeeeeeee"},
    {256, 0xa429,
     "45000114000000003601ac59c633640a000000000000c54c123400073b424950575e656c737a81888f969da4"
     "abb2b9c0c7ced5dce3eaf1f8ff060d141b222930373e454c535a61686f767d848b9299a0a7aeb5bcc3cad1d8"
     "dfe6edf4fb020910171e252c333a41484f565d646b727980878e959ca3aab1b8bfc6cdd4dbe2e9f0f7fe050c"
     "131a21282f363d444b525960676e757c838a91989fa6adb4bbc2c9d0d7dee5ecf3fa01080f161d242b323940"
     "474e555c636a71787f868d949ba2a9b0b7bec5ccd3dae1e8eff6fd040b121920272e353c434a51585f666d74"
     "7b828990979ea5acb3bac1c8cfd6dde4ebf2f900070e151c232a31383f464d545b626970777e858c939aa1a8"
     "afb6bdc4eeeeeeeeeeeeeeee"},
};

// Kept: what a closed socket leaves in its queue is lost. What this thread allocates while one of
// these lives is no leak.
struct LostByRule {
#ifdef __SANITIZE_ADDRESS__
  LostByRule() { __lsan_disable(); }
  ~LostByRule() { __lsan_enable(); }
#else
  LostByRule() {}
#endif
  LostByRule(const LostByRule&) = delete;
  LostByRule& operator=(const LostByRule&) = delete;
};

struct IcmpPing : testing::Test {
  IcmpPing() { vm.AddRawSocket(kRawSocket, kIp); }
  ~IcmpPing() override { Drain(); }

  bool Checkin(const std::vector<char>& message) {
    return vm.CheckinConnectionPingRequest(kRawSocket, message.data(),
                                           static_cast<u32>(message.size()));
  }
  bool Checkin() { return Checkin(Message(64, kChecksumOf64)); }
  // The reply that is due, or empty.
  std::vector<char> Checkout(u32 room = 300) {
    std::vector<char> buffer(room, kOld);
    u32 length = room;
    if (!vm.CheckoutPingResponse(kRawSocket, buffer.data(), &length, &from_ip)) return {};
    buffer.resize(std::min(length, room));
    reply_length = length;
    return buffer;
  }
  static void WaitUntilDue() {
    const u32 begin = GetTickCount();
    while (GetTickCount() - begin < kUnknownServerLag - 5) Sleep(1);
  }
  void Drain() {
    WaitUntilDue();
    while (!Checkout().empty()) continue;
  }

  CIcmpVM vm;
  u32 from_ip = 0;
  u32 reply_length = 0;
};

// --- checksums -------------------------------------------------------------------------------

TEST(IcmpSums, TheTwoReadTheirWordsInDifferentOrders) {
  const u8 words[] = {0x12, 0x34, 0x00, 0x01};
  EXPECT_EQ(IcmpChecksum(words, 4), 0xcaed);      // ~(0x3412 + 0x0100)
  EXPECT_EQ(IpHeaderChecksum(words, 4), 0xedca);  // ~(0x1234 + 0x0001)
}

TEST(IcmpSums, AnOddByteCountsInOneAndMakesTheOtherZero) {
  const u8 bytes[] = {0x12, 0x34, 0x05};
  EXPECT_EQ(IcmpChecksum(bytes, 3), 0xcbe8);  // ~(0x3412 + 0x05)
  EXPECT_EQ(IpHeaderChecksum(bytes, 3), 0);
  EXPECT_EQ(IpHeaderChecksum(bytes, 1), 0);
}

TEST(IcmpSums, CarriesAreAddedBack) {
  const u8 full[] = {0xff, 0xff, 0xff, 0xff, 0x01, 0x00};
  EXPECT_EQ(IcmpChecksum(full, 6), 0xfffe);      // ~1
  EXPECT_EQ(IpHeaderChecksum(full, 6), 0xfeff);  // ~0x0100
  EXPECT_EQ(IcmpChecksum(full, 0), 0xffff);
  EXPECT_EQ(IpHeaderChecksum(full, 2), 0) << "nothing to add back";
}

// --- replies, byte for byte ------------------------------------------------------------------

TEST_F(IcmpPing, RepliesAreForgedByteForByte) {
  for (const auto& golden : kGolden) {
    ASSERT_TRUE(Checkin(Message(golden.size, golden.checksum))) << golden.size;
    WaitUntilDue();
    const std::vector<char> reply = Checkout(golden.size + 20);
    EXPECT_EQ(reply_length, golden.size + 20);
    EXPECT_EQ(test::ToHex(reply.data(), reply.size()), test::ToHex(test::Hex(golden.reply)))
        << golden.size;
    EXPECT_EQ(from_ip, kIp);
  }
}

// The game's old bytes behind the payload are part of the sum, and stay.
TEST_F(IcmpPing, WhatStoodInTheBufferCountsInTheChecksum) {
  ping_request_t request;
  request.size = 16;
  u8 first[36], second[36];
  std::memset(first, 0, sizeof first);
  std::memset(second, 0, sizeof second);
  second[28] = 1;
  EXPECT_EQ(ForgePingReply(request, first, sizeof first), 36u);
  EXPECT_EQ(ForgePingReply(request, second, sizeof second), 36u);
  EXPECT_EQ(first[22], 0xff);
  EXPECT_EQ(second[22], 0xfe);
  EXPECT_EQ(second[28], 1);
}

// A buffer may be shorter than the reply: what fits is written, nothing behind it, and the count
// is the reply's own.
TEST_F(IcmpPing, AShortBufferGetsWhatFits) {
  for (const u32 room : {28u, 29u, 83u}) {
    ASSERT_TRUE(Checkin());
    WaitUntilDue();
    std::vector<char> buffer(room + 300, kOld);
    u32 length = room;
    ASSERT_TRUE(vm.CheckoutPingResponse(kRawSocket, buffer.data(), &length, nullptr));
    EXPECT_EQ(length, 84u);
    EXPECT_EQ(buffer[0], 0x45);
    for (u32 i = room; i < buffer.size(); ++i) ASSERT_EQ(buffer[i], kOld) << room << " at " << i;
  }
}

// Some games pass a length beyond their buffer; a reply that fits must not fault.
TEST_F(IcmpPing, NothingBehindTheReplyIsTouched) {
  ping_request_t request;
  request.size = 8;
  const auto buffer = std::make_unique<u8[]>(28);  // so that the sanitizer sees its end
  EXPECT_EQ(ForgePingReply(request, buffer.get(), 65535), 28u);
  EXPECT_EQ(buffer[0], 0x45);
}

// --- which requests are held
// -----------------------------------------------------------------------

TEST_F(IcmpPing, OnlyCompleteEchoRequestsAreHeld) {
  std::vector<char> good = Message(64, kChecksumOf64);
  std::vector<char> wrong_sum = good, timestamp = good;
  wrong_sum[2] = static_cast<char>(wrong_sum[2] + 1);
  timestamp[0] = 13;
  timestamp[2] = static_cast<char>(timestamp[2] - 5);  // a sum that fits the type
  {
    const test::LogCapture log(0);
    EXPECT_FALSE(Checkin(wrong_sum));
    EXPECT_TRUE(log.Contains(test::kPingLag)) << "the route comes first";
  }
  EXPECT_FALSE(Checkin(timestamp));
  EXPECT_FALSE(vm.CheckinConnectionPingRequest(kRawSocket, nullptr, 64));
  for (const u32 size : {0u, 1u, 7u, 257u, 0xFFFFFFFFu}) {
    const std::vector<char> zeros(300);
    EXPECT_FALSE(vm.CheckinConnectionPingRequest(kRawSocket, zeros.data(), size)) << size;
  }
  EXPECT_FALSE(vm.CheckinConnectionPingRequest(kRawSocket + 1, good.data(), 64));
  WaitUntilDue();
  EXPECT_TRUE(Checkout().empty());
  EXPECT_TRUE(Checkin(good));
}

// Another thread may be sending from the same bytes at that moment.
TEST_F(IcmpPing, TheGamesBufferIsNotWrittenTo) {
  alignas(4) static constexpr char kEmptyPing[8] = {8, 0, '\xf7', '\xff', 0, 0, 0, 0};  // read only
  EXPECT_TRUE(vm.CheckinConnectionPingRequest(kRawSocket, kEmptyPing, sizeof kEmptyPing));
}

TEST_F(IcmpPing, BuffersThatCannotHoldAReplyAreRefused) {
  ASSERT_TRUE(Checkin());
  WaitUntilDue();
  test::LogCapture log(0);
  char buffer[300];
  u32 length = 27;
  EXPECT_FALSE(vm.CheckoutPingResponse(kRawSocket, buffer, &length, nullptr));
  EXPECT_EQ(length, 27u);
  length = 0;
  EXPECT_FALSE(vm.CheckoutPingResponse(kRawSocket, buffer, &length, nullptr));
  length = 28;
  EXPECT_FALSE(vm.CheckoutPingResponse(kRawSocket, nullptr, &length, nullptr));
  EXPECT_FALSE(vm.CheckoutPingResponse(kRawSocket, buffer, nullptr, nullptr));
  EXPECT_TRUE(log.Contains("[0][lsp][RAW] CheckoutPingResponse: Invalid Param\n"));
  EXPECT_TRUE(vm.CheckoutPingResponse(kRawSocket, buffer, &length, nullptr)) << "it waited";
}

// --- when ------------------------------------------------------------------------------------

TEST_F(IcmpPing, TheReplyIsAtMostFiveMillisecondsEarly) {
  const u32 before = GetTickCount();
  ASSERT_TRUE(Checkin());
  u32 length = 28;
  char buffer[28];
  while (!vm.CheckoutPingResponse(kRawSocket, buffer, &length, nullptr)) {
    ASSERT_LT(GetTickCount() - before, 10'000u);
    Sleep(1);
  }
  EXPECT_GE(GetTickCount() - before, 45u);
}

TEST_F(IcmpPing, RepliesComeInTheOrderOfTheirRequests) {
  constexpr int kRequests = 20;
  for (int i = 0; i < kRequests; ++i) {
    const u16 sequence = htons(static_cast<u16>(i));
    std::vector<char> message = {8, 0, 0, 0, 0, 0, 0, 0};
    std::memcpy(&message[6], &sequence, sizeof sequence);
    const u16 sum = IcmpChecksum(reinterpret_cast<const u8*>(message.data()), 8);
    std::memcpy(&message[2], &sum, sizeof sum);
    ASSERT_TRUE(Checkin(message));
  }
  WaitUntilDue();
  for (int i = 0; i < kRequests; ++i) {
    const std::vector<char> reply = Checkout();
    ASSERT_EQ(reply.size(), 28u);
    EXPECT_EQ(reply[27], i);
  }
  EXPECT_TRUE(Checkout().empty());
}

TEST_F(IcmpPing, LogsWhatItDoes) {
  test::LogCapture log(0);
  const std::string tail = "socket=" + std::to_string(kRawSocket) + "\n";
  const std::string other = "socket=" + std::to_string(kRawSocket + 1) + "\n";
  EXPECT_TRUE(Checkout().empty());
  EXPECT_TRUE(log.Contains("[0][lsp][RAW] CheckoutPingResponse: No Request in Queue, " + tail));
  ASSERT_TRUE(Checkin());
  EXPECT_TRUE(log.Contains("[0][lsp][RAW]CheckinConnectionPingRequest, " + tail));
  EXPECT_TRUE(log.Contains("[0][lsp]" + test::kPingLag + tail));
  vm.AddRawSocket(kRawSocket, 16909060);
  EXPECT_TRUE(log.Contains("[0][lsp][RAW]AddRawSocket, repeated. ip=16909060, " + tail));
  EXPECT_TRUE(Checkout().empty());
  EXPECT_TRUE(log.Contains("[0][lsp][RAW] CheckoutPingResponse:not ready, req_time="));
  EXPECT_TRUE(log.Contains(", lag=50, " + tail));
  WaitUntilDue();
  EXPECT_FALSE(Checkout().empty());
  EXPECT_EQ(from_ip, kIp) << "the first address stays";
  EXPECT_TRUE(log.Contains("[0][lsp]" + test::PingsStored(512)));
  char buffer[28];
  u32 length = 28;
  EXPECT_FALSE(vm.CheckoutPingResponse(kRawSocket + 1, buffer, &length, nullptr));
  EXPECT_TRUE(log.Contains("[0][lsp][RAW]CheckoutPingResponse, no request for " + other));
  EXPECT_FALSE(vm.CheckinConnectionPingRequest(kRawSocket + 1, buffer, 28));
  EXPECT_TRUE(log.Contains("[0][lsp][RAW]CheckinConnectionPingRequest, no request for " + other));
  vm.RemoveRawSocket(kRawSocket + 1);
  EXPECT_TRUE(log.Contains("[0][lsp]RemoveRawSocket:  " + other));
}

TEST_F(IcmpPing, ARemovedSocketIsForgottenWithItsRequests) {
  ASSERT_TRUE(Checkin());
  vm.RemoveRawSocket(kRawSocket);
  WaitUntilDue();
  EXPECT_TRUE(Checkout().empty());
  EXPECT_FALSE(Checkin());
  vm.AddRawSocket(kRawSocket, kIp + 1);
  EXPECT_TRUE(Checkout().empty()) << "the requests of its earlier life are lost";
  ASSERT_TRUE(Checkin());
  WaitUntilDue();
  EXPECT_FALSE(Checkout().empty());
  EXPECT_EQ(from_ip, kIp + 1);
}

// --- the pool --------------------------------------------------------------------------------

TEST(PingPool, HandsOutItsSlotsAndThenTheHeap) {
  PingPool pool;
  std::vector<ping_request_t*> requests;
  for (u32 i = 0; i < PingPool::kSlots; ++i) {
    requests.push_back(pool.AllocPingRequest());
    ASSERT_EQ(requests[i], requests[0] + i) << "first slot first";
    EXPECT_EQ(requests[i]->from_heap, 0u);
  }
  ping_request_t* const extra = pool.AllocPingRequest();
  EXPECT_EQ(extra->from_heap, 1u);
  EXPECT_EQ(extra->size + extra->lag, 0u) << "cleared";
  test::LogCapture log(0);
  pool.FreePingRequestCache(extra);
  EXPECT_TRUE(log.Contains(test::PingsStored(0)));
  requests[7]->size = 99;
  pool.FreePingRequestCache(requests[7]);
  pool.FreePingRequestCache(requests[3]);
  EXPECT_TRUE(log.Contains(test::PingsStored(2)));
  pool.FreePingRequestCache(nullptr);
  EXPECT_EQ(pool.AllocPingRequest(), requests[7]) << "what came free first goes first";
  EXPECT_EQ(requests[7]->size, 0u) << "cleared";
  EXPECT_EQ(pool.AllocPingRequest(), requests[3]);
}

TEST(PingPool, ReturnsHeapRecordsToTheHeap) {
  PingPool pool;
  for (u32 i = 0; i < PingPool::kSlots; ++i) pool.AllocPingRequest();
  std::vector<ping_request_t*> requests(100);
  const long before = test::AllocationsAlive();
  for (ping_request_t*& request : requests) request = pool.AllocPingRequest();
  EXPECT_GE(test::AllocationsAlive() - before, 100);
  for (ping_request_t* request : requests) {
    ASSERT_EQ(request->from_heap, 1u);
    pool.FreePingRequestCache(request);
  }
  EXPECT_LT(test::AllocationsAlive() - before, 10);
}

// A game may still hold requests when it cleans Winsock up.
TEST(PingPool, FreedUnderLiveRequestsItKeepsThemAlive) {
  PingPool pool;
  ping_request_t* const first = pool.AllocPingRequest();
  ping_request_t* const second = pool.AllocPingRequest();
  pool.FreePool();
  ping_request_t* const other = pool.AllocPingRequest();
  EXPECT_NE(other, first);
  first->size = 8;  // still there
  test::LogCapture log(0);
  pool.FreePingRequestCache(first);
  EXPECT_TRUE(log.Contains(test::PingsStored(511))) << "it went back to where it came from";
  for (u32 i = 1; i < PingPool::kSlots; ++i) {
    ping_request_t* const slot = pool.AllocPingRequest();
    ASSERT_EQ(slot->from_heap, 0u);
    ASSERT_NE(slot, first);
  }
  pool.FreePingRequestCache(second);
  pool.FreePool();
  pool.FreePool();
}

TEST(PingPool, ForgottenUnderLiveRequestsItFreesNothing) {
  PingPool pool;
  ping_request_t* const request = pool.AllocPingRequest();
  pool.ResetPool();
  request->size = 8;  // still there
  ping_request_t* const other = pool.AllocPingRequest();
  EXPECT_NE(other, request);
  EXPECT_NE(other, request + 1) << "of a new block";
  test::LogCapture log(0);
  pool.FreePingRequestCache(request);
  EXPECT_TRUE(log.Contains(test::PingsStored(511))) << "the new block's";
}

TEST(PingPool, WithoutABlockNoSlotIsFree) {
  PingPool pool;
  ping_request_t* const request = pool.AllocPingRequest();
  pool.FreePool();
  test::LogCapture log(0);
  pool.FreePingRequestCache(request);
  EXPECT_TRUE(log.Contains(test::PingsStored(0)));
}

// A new block often lies where the one before lay, in whose ring the slots had another order.
TEST(PingPool, ABlockBeginsWithItsFirstSlotWhateverItsMemoryHeld) {
  PingPool pool;
  for (int i = 0; i < 4; ++i) {
    ping_request_t* const first = pool.AllocPingRequest();
    ping_request_t* const second = pool.AllocPingRequest();
    ping_request_t* const third = pool.AllocPingRequest();
    EXPECT_EQ(second, first + 1);
    EXPECT_EQ(third, first + 2);
    for (ping_request_t* const one : {third, second, first}) pool.FreePingRequestCache(one);
    pool.FreePool();
  }
}

TEST(PingPool, WhenEmptyItIsFreedAndCreatedAgain) {
  PingPool pool;
  pool.FreePool();
  pool.ResetPool();
  for (int i = 0; i < 3; ++i) {
    ping_request_t* const request = pool.AllocPingRequest();
    ASSERT_NE(request, nullptr);
    pool.FreePingRequestCache(request);
    pool.FreePool();
  }
  pool.ResetPool();
}

TEST_F(IcmpPing, MoreThanFiveHundredAndTwelveInFlightAreAnswered) {
  for (int i = 0; i < 520; ++i) ASSERT_TRUE(Checkin());
  WaitUntilDue();
  for (int i = 0; i < 520; ++i) ASSERT_EQ(Checkout().size(), 84u) << i;
  EXPECT_TRUE(Checkout().empty());
}

TEST_F(IcmpPing, RepliesSurviveTheFreeingOfThePool) {
  ASSERT_TRUE(Checkin());
  vm.FreePool();
  ASSERT_TRUE(Checkin());
  WaitUntilDue();
  EXPECT_EQ(Checkout().size(), 84u);
  EXPECT_EQ(Checkout().size(), 84u);
}

// --- out of memory ---------------------------------------------------------------------------

// A ping that cannot be held goes to the network, and the next one is held again.
TEST_F(IcmpPing, WithoutMemoryARequestIsNotHeld) {
  const auto checkin_without_memory = [this] {
    const std::vector<char> message = Message(64, kChecksumOf64);
    const test::OutOfMemory none(1, test::OutOfMemory::kOfTheProduct);
    return Checkin(message);
  };
  EXPECT_FALSE(checkin_without_memory()) << "no block";
  int held = 0;
  for (bool taken = Checkin(); taken; taken = checkin_without_memory()) ASSERT_LE(++held, 512);
  EXPECT_TRUE(test::OutOfMemory::WasFelt()) << "no room in the queue";
  EXPECT_TRUE(Checkin());
  WaitUntilDue();
  const test::LogCapture log(0);
  for (int i = 0; i <= held; ++i) EXPECT_EQ(Checkout().size(), 84u);
  EXPECT_TRUE(Checkout().empty());
  EXPECT_TRUE(log.Contains(test::PingsStored(512))) << "no slot is lost";
}

TEST_F(IcmpPing, WithoutMemoryForSlotsAPingGoesToTheNetwork) {
  const std::vector<char> message = Message(64, kChecksumOf64);
  {
    const test::OutOfMemory none(1, sizeof(ping_request_t));
    EXPECT_FALSE(Checkin(message));
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
  EXPECT_TRUE(Checkin(message));
}

TEST_F(IcmpPing, WithoutMemoryASocketIsNotRecorded) {
  const std::vector<char> message = Message(64, kChecksumOf64);
  const test::LogCapture log(0);
  {
    const test::OutOfMemory none(1, test::OutOfMemory::kOfTheProduct);
    vm.AddRawSocket(kRawSocket + 1, kIp);
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
  EXPECT_FALSE(log.Contains("repeated")) << "nor has it been before";
  EXPECT_FALSE(vm.CheckinConnectionPingRequest(kRawSocket + 1, message.data(), 64));
}

TEST(PingPool, WithoutMemoryThereIsNoRecord) {
  PingPool pool;
  const auto alloc_without_memory = [&pool] {
    const test::OutOfMemory none(1, test::OutOfMemory::kOfTheProduct);
    return pool.AllocPingRequest();
  };
  EXPECT_EQ(alloc_without_memory(), nullptr) << "no block";
  std::vector<ping_request_t*> requests;
  for (u32 i = 0; i < PingPool::kSlots; ++i) requests.push_back(pool.AllocPingRequest());
  EXPECT_EQ(alloc_without_memory(), nullptr) << "the block is used up";
  pool.FreePingRequestCache(requests.back());
  EXPECT_EQ(alloc_without_memory(), requests.back());
}

// A game may clean Winsock up and start it again all day long.
TEST(PingPool, KeepsNoUnusedBlock) {
  const auto growth = [](bool freed_under_a_request) {
    PingPool pool;
    const long before = test::AllocationsAlive();
    for (int i = 0; i < 50; ++i) {
      ping_request_t* const request = pool.AllocPingRequest();
      if (freed_under_a_request) pool.FreePool();
      pool.FreePingRequestCache(request);
      if (!freed_under_a_request) pool.FreePool();
    }
    return test::AllocationsAlive() - before;
  };
  EXPECT_LT(growth(false), 10);
  EXPECT_LT(growth(true), 10);
}

// --- many threads ----------------------------------------------------------------------------

// Four threads share each socket, while others are connected and closed and the pool is freed.
TEST(IcmpPings, ThirtyTwoThreadsPingAtOnce) {
  CIcmpVM vm;
  for (SOCKET s = 0; s < 8; ++s) vm.AddRawSocket(s, kIp);
  std::atomic<int> replies = 0;
  test::RunThreads(32, [&](int index) {
    const SOCKET s = static_cast<SOCKET>(index % 8);
    const SOCKET own = static_cast<SOCKET>(100 + index);
    const std::vector<char> message = Message(64, kChecksumOf64);
    for (int i = 0; i < 40; ++i) {
      EXPECT_TRUE(vm.CheckinConnectionPingRequest(s, message.data(), 64));
      vm.AddRawSocket(own, kIp);
      {
        const LostByRule lost;
        vm.CheckinConnectionPingRequest(own, message.data(), 64);
      }
      if (i % 8 == 0) vm.FreePool();
      vm.RemoveRawSocket(own);
    }
    const u32 begin = GetTickCount();
    for (int got = 0; got < 40 && GetTickCount() - begin < 60'000;) {
      char buffer[84];
      u32 length = sizeof buffer;
      if (!vm.CheckoutPingResponse(s, buffer, &length, nullptr)) {
        Sleep(1);
        continue;
      }
      EXPECT_EQ(length, 84u);
      ++got;
      ++replies;
    }
  });
  EXPECT_EQ(replies, 32 * 40);
}

}  // namespace
}  // namespace moru_vyr::lsp
