// Calls that go pending. At stake: from then on the call's arguments belong to its completion,
// which may run on another thread and free them before this one returns. None of them may be
// touched; the address sanitizer watches.
#include <gtest/gtest.h>

#include <memory>

#include "hooks/hook_entries.h"
#include "sockets/socket_map.h"
#include "tests/support/log_capture.h"
#include "tests/unit/scripted_provider.h"

namespace moru_vyr::lsp {
namespace {

using test::Address;
using test::Generic;

constexpr DWORD kPartial = 0x8000;  // of a message, more to come

// What a game keeps together for one call, and frees when the call completes.
struct Operation {
  char data[8] = {};
  WSABUF buffer{sizeof data, data};
  sockaddr_in address = Address("198.51.100.40", 27040);
  INT address_size = sizeof address;
  DWORD bytes = 77;
  DWORD flags = 5;
  WSAOVERLAPPED overlapped{};
};

struct PendingCalls : testing::Test {
  PendingCalls() {
    WSPSocket(AF_INET, 2, 17, nullptr, 0, 1, &error);
    next.calls.clear();
    next.result = SOCKET_ERROR;
    next.error = WSA_IO_PENDING;
    next.meanwhile = [this] { operation.reset(); };
  }
  void ExpectPending(int result) {
    EXPECT_EQ(result, SOCKET_ERROR);
    EXPECT_EQ(error, WSA_IO_PENDING);
    EXPECT_EQ(operation, nullptr) << "the completion has run";
    EXPECT_EQ(next.calls.size(), 1u);
  }

  test::ScriptedProvider next;
  std::unique_ptr<Operation> operation = std::make_unique<Operation>();
  Operation& its = *operation;
  INT error = 0;
  WSATHREADID thread{};
  test::LogCapture log{0};
};

TEST_F(PendingCalls, AReceiveWithASourceIsLoggedAsItBegan) {
  ExpectPending(WSPRecvFrom(next.socket, &its.buffer, 1, &its.bytes, &its.flags,
                            reinterpret_cast<sockaddr*>(&its.address), &its.address_size,
                            &its.overlapped, nullptr, &thread, &error));
  EXPECT_TRUE(
      log.Contains("[4][lsp]WSPRecvFrom end: ret=-1, err=997, from=198.51.100.40:27040, pbuf="))
      << log.Text();
  EXPECT_TRUE(log.Contains(", buf_cnt=1, recv_bytes=77, flag=5, ol=0x")) << log.Text();
}

TEST_F(PendingCalls, AReceive) {
  ExpectPending(WSPRecv(next.socket, &its.buffer, 1, &its.bytes, &its.flags, &its.overlapped,
                        nullptr, &thread, &error));
  EXPECT_FALSE(log.Contains("WSPRecv: ret=")) << log.Text();
}

TEST_F(PendingCalls, ASend) {
  ExpectPending(WSPSend(next.socket, &its.buffer, 1, &its.bytes, 5, &its.overlapped, nullptr,
                        &thread, &error));
  EXPECT_TRUE(log.Contains("[4][lsp]WSPSend: ret=-1, err=997, pbuf=")) << log.Text();
  EXPECT_TRUE(log.Contains(", buf_cnt=1, sent_bytes=0, flag=5, ol=0x")) << log.Text();
}

TEST_F(PendingCalls, ASendWithADestination) {
  ExpectPending(WSPSendTo(next.socket, &its.buffer, 1, &its.bytes, 5, Generic(its.address),
                          sizeof its.address, &its.overlapped, nullptr, &thread, &error));
  EXPECT_FALSE(log.Contains("WSPSendTo: ret=")) << log.Text();
}

// The address that is asked for, too, and a connect that goes pending ends as one that succeeds.
TEST_F(PendingCalls, AConnectWithAnOverlappedResult) {
  next.result = 0;  // of the question for the function
  next.meanwhile = [this] {
    if (next.Last().name == "ConnectEx") operation.reset();
  };
  EXPECT_EQ(WSPConnectEx(next.socket, Generic(its.address), sizeof its.address, its.data, 8,
                         &its.bytes, &its.overlapped),
            TRUE);
  EXPECT_EQ(operation, nullptr) << "the completion has run";
  EXPECT_TRUE(log.Contains("[5][lsp]WSPConnectEx: ret=0, err=997, dest=198.51.100.40:27040, "))
      << log.Text();
}

// Without a place for the error it cannot be seen that the call is pending.
TEST_F(PendingCalls, ACallThatHasNoPlaceForItsError) {
  EXPECT_EQ(WSPRecvFrom(next.socket, &its.buffer, 1, &its.bytes, &its.flags,
                        reinterpret_cast<sockaddr*>(&its.address), &its.address_size,
                        &its.overlapped, nullptr, &thread, nullptr),
            SOCKET_ERROR);
  EXPECT_TRUE(log.Contains("err=0, from=198.51.100.40:27040, ")) << log.Text();
  operation = std::make_unique<Operation>();
  EXPECT_EQ(WSPRecv(next.socket, &operation->buffer, 1, &operation->bytes, &operation->flags,
                    &operation->overlapped, nullptr, &thread, nullptr),
            SOCKET_ERROR);
  operation = std::make_unique<Operation>();
  EXPECT_EQ(WSPSendTo(next.socket, &operation->buffer, 1, &operation->bytes, 5,
                      Generic(operation->address), sizeof(sockaddr_in), &operation->overlapped,
                      nullptr, &thread, nullptr),
            SOCKET_ERROR);
  EXPECT_TRUE(log.Contains("err=0, dst=198.51.100.40:27040, ")) << log.Text();
  operation = std::make_unique<Operation>();
  EXPECT_EQ(WSPSend(next.socket, &operation->buffer, 1, &operation->bytes, 5,
                    &operation->overlapped, nullptr, &thread, nullptr),
            SOCKET_ERROR);
}

// A call that has failed is over, and its log line has the values that the provider left.
TEST_F(PendingCalls, AReceiveThatHasFailedIsLoggedAsItEnded) {
  next.error = WSAEMSGSIZE;
  next.meanwhile = [this] { its.flags = kPartial; };
  next.bytes = 8;
  next.address = Address("198.51.100.30", 27016);
  EXPECT_EQ(WSPRecvFrom(next.socket, &its.buffer, 1, &its.bytes, &its.flags,
                        reinterpret_cast<sockaddr*>(&its.address), &its.address_size,
                        &its.overlapped, nullptr, &thread, &error),
            SOCKET_ERROR);
  EXPECT_TRUE(log.Contains("err=10040, from=198.51.100.30:27016, ")) << log.Text();
  EXPECT_TRUE(log.Contains(", recv_bytes=8, flag=" + std::to_string(kPartial) + ", "))
      << log.Text();
}

}  // namespace
}  // namespace moru_vyr::lsp
