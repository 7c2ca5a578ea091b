// What a datagram socket sends to the relay's control port, over a scripted next provider. At
// stake: the relay accepts nothing but the exact message, from the socket itself, and whatever the
// outcome is, the game's call goes on.
#include "hooks/udp_relay_request.h"

#include <gtest/gtest.h>

#include <cstring>

#include "engine/relay_mgr.h"
#include "hooks/udp_relay.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "tests/unit/scripted_provider.h"
#include "udp/relay_messages.h"

namespace moru_vyr::lsp {
namespace {

using test::Address;
using test::Word;

struct ControlMessages : testing::Test {
  ControlMessages() {
    record.socket = next.socket;
    record.type = kSocketTypeDatagram;
    record.token = 4711;
    record.next_proc_table = &table;
  }
  void IsRelayed() {
    record.relay_state = kRelayRunning;
    record.relay_addr = Address("127.0.0.1", 4000);
  }
  bool Request(const sockaddr_in* to) {
    return RequestUdpRelay(record, to, &thread, &relay, nullptr, nullptr);
  }
  // The last call sent one buffer of that many bytes to the control port, and nothing beside it.
  void ExpectSentToTheControlPort(size_t size) {
    ASSERT_EQ(next.calls.size(), 1u);
    const test::Words& arguments = next.Last().arguments;
    EXPECT_EQ(next.Last().name, "WSPSendTo");
    EXPECT_EQ(arguments[0], Word(record.socket));
    EXPECT_EQ(arguments[2], 1u);
    EXPECT_EQ(arguments[4], 0u) << "flags";
    EXPECT_EQ(arguments[6], 16u);
    EXPECT_EQ(arguments[7], 0u) << "not overlapped";
    EXPECT_EQ(arguments[8], 0u);
    EXPECT_EQ(next.sent.bytes.size(), size);
    sockaddr_in control;
    GetRelayMgr().GetUdpLocalAddr(&control);
    EXPECT_EQ(std::memcmp(&next.sent.to, &control, sizeof control), 0);
  }
  template <class Message>
  Message SentMessage() {
    Message message;
    EXPECT_EQ(next.sent.bytes.size(), sizeof message);
    std::memcpy(static_cast<void*>(&message), next.sent.bytes.data(), sizeof message);
    return message;
  }

  test::ScriptedProvider next;
  WSPPROC_TABLE table = test::ScriptedProvider::Table();
  SocketRecord record;
  const sockaddr_in server = Address("198.51.100.20", 27015);
  WSATHREADID thread{};
  sockaddr_in relay{};
};

// --- asking -----------------------------------------------------------------------------------

TEST_F(ControlMessages, ARequestNamesTheSocketItsDestinationAndAnEvent) {
  next.result = -1;
  next.error = 10055;
  test::LogCapture log(5);
  EXPECT_FALSE(Request(&server));
  ExpectSentToTheControlPort(sizeof(ProtoRelayOpen));
  EXPECT_EQ(next.Last().arguments[9], Word(&thread)) << "the caller's own";
  const auto message = SentMessage<ProtoRelayOpen>();
  EXPECT_EQ(u32{message.magic}, 0xC13F0253u);
  EXPECT_EQ(message.type, kProtoRelayTypeOpen);
  EXPECT_EQ(u32{message.token}, 4711u);
  const sockaddr_in destination = message.address();
  EXPECT_EQ(std::memcmp(&destination, &server, sizeof server), 0);
  EXPECT_EQ(message.send_queue(), nullptr) << "no size can be read of what is no socket";
  EXPECT_EQ(message.recv_queue(), nullptr);
  ASSERT_NE(message.event(), nullptr);
  EXPECT_FALSE(SetEvent(message.event())) << "it is closed again";
  EXPECT_TRUE(
      log.Contains("ProtoRelayOpen, sock_send_buf_size=0, sock_recv_buf_size=0, socket=4660, "
                   "token=4711\n"));
  EXPECT_TRUE(log.Contains("[UDP] " + test::kUdpRelayFailed +
                           ": sendto, error=10055, socket=4660, token=4711\n"));
}

TEST_F(ControlMessages, ATruncatedRequestIsNotAwaited) {
  next.bytes = sizeof(ProtoRelayOpen) - 1;
  test::LogCapture log(5);
  EXPECT_FALSE(Request(&server));
  EXPECT_TRUE(log.Contains("bytes(" + std::to_string(sizeof(ProtoRelayOpen) - 1) + ")!=" +
                           std::to_string(sizeof(ProtoRelayOpen)) + ", socket=4660, token=4711\n"))
      << log.Text();
  EXPECT_FALSE(SetEvent(SentMessage<ProtoRelayOpen>().event())) << "it is closed again";
}

TEST_F(ControlMessages, NothingIsRequestedWithoutADestinationOrACallThatItNeeds) {
  test::LogCapture log(0);
  EXPECT_FALSE(Request(nullptr));
  table.lpWSPRecvFrom = nullptr;
  EXPECT_FALSE(Request(&server));
  table = test::ScriptedProvider::Table();
  table.lpWSPSelect = nullptr;
  EXPECT_FALSE(Request(&server));
  table = test::ScriptedProvider::Table();
  table.lpWSPSendTo = nullptr;
  EXPECT_FALSE(Request(&server));
  record.next_proc_table = nullptr;
  EXPECT_FALSE(Request(&server));
  EXPECT_TRUE(next.calls.empty());
  EXPECT_FALSE(log.Contains("failed")) << log.Text();
}

// --- the end ----------------------------------------------------------------------------------

TEST_F(ControlMessages, TheEndMessageHasThirteenBytesAndComesFromTheSocketItself) {
  IsRelayed();
  next.bytes = 13;
  test::LogCapture log(0);
  EXPECT_TRUE(CloseUdpRelay(record));
  ExpectSentToTheControlPort(13);
  const auto message = SentMessage<ProtoRelayClose>();
  EXPECT_EQ(u32{message.magic}, 0xC13F0253u);
  EXPECT_EQ(message.type, kProtoRelayTypeClose);
  EXPECT_EQ(u32{message.token}, 4711u);
  EXPECT_EQ(next.sent.thread.ThreadHandle, GetCurrentThread());
  EXPECT_EQ(next.sent.thread.Reserved, 0u);
  EXPECT_TRUE(log.Contains(
      "[0][lsp][UDP] CloseUdpRelay: sendto success, bytes=13, socket=4660, token=4711\n"))
      << log.Text();
}

TEST_F(ControlMessages, AnEndMessageThatCannotBeSentIsOnlyLogged) {
  IsRelayed();
  next.bytes = 12;
  test::LogCapture log(5);
  EXPECT_FALSE(CloseUdpRelay(record));
  EXPECT_TRUE(log.Contains("[5][lsp]" + test::CloseSentShort(12) + "4660, token=4711\n"))
      << log.Text();
  next.result = -1;
  next.error = 10035;
  EXPECT_FALSE(CloseUdpRelay(record));
  EXPECT_TRUE(
      log.Contains("[5][lsp]" + test::CloseSendFailed(WSAEWOULDBLOCK) + "4660, token=4711\n"));
  EXPECT_EQ(next.calls.size(), 2u) << "nothing is tried again";
}

TEST_F(ControlMessages, OnlyRelayedSocketsSendAnEndMessage) {
  EXPECT_FALSE(CloseUdpRelay(record));
  IsRelayed();
  record.relay_state = kRelayRefused;
  EXPECT_FALSE(CloseUdpRelay(record));
  IsRelayed();
  record.relay_addr.sin_port = 0;
  EXPECT_FALSE(CloseUdpRelay(record));
  IsRelayed();
  record.relay_addr.sin_addr.s_addr = 0;
  EXPECT_FALSE(CloseUdpRelay(record));
  IsRelayed();
  table.lpWSPSendTo = nullptr;
  EXPECT_FALSE(CloseUdpRelay(record));
  record.next_proc_table = nullptr;
  EXPECT_FALSE(CloseUdpRelay(record));
  EXPECT_TRUE(next.calls.empty());
}

// --- how a datagram uses the answer -----------------------------------------------------------

TEST_F(ControlMessages, ADatagramGoesToTheRelayOnlyWhileAWorkerServes) {
  char data[4] = {};
  WSABUF buffer{sizeof data, data};
  IsRelayed();
  EXPECT_EQ(PrepareUdpRelaySend(record, &buffer, 1, &server, &relay, &thread),
            GetRelayMgr().Serves());  // another test may have started it
  EXPECT_FALSE(PrepareUdpRelaySend(record, &buffer, 1, &server, nullptr, &thread));
  record.relay_state = kRelayRefused;
  EXPECT_FALSE(PrepareUdpRelaySend(record, &buffer, 1, &server, &relay, &thread));
  EXPECT_TRUE(next.calls.empty());
}

}  // namespace
}  // namespace moru_vyr::lsp
