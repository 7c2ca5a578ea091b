// A client program that takes the reports away all the time, and checks what must be true of each
// report alone and of those of one socket together.
#pragma once
#include <cstring>
#include <map>
#include <set>
#include <string>

#include "common/named_mutex.h"
#include "tests/support/report_client.h"

namespace whole_test {

inline constexpr const moru_vyr::lsp::ReportChannel* kChannels[] = {
    &moru_vyr::lsp::kDecisionChannel,          &moru_vyr::lsp::kCommunicationChannel,
    &moru_vyr::lsp::kLogPathChannel,           &moru_vyr::lsp::kLoadedChannel,
    &moru_vyr::lsp::kNegotiationResultChannel, &moru_vyr::lsp::kRealNegotiationChannel,
    &moru_vyr::lsp::kRecoverySwitchChannel};

class ReportReader {
 public:
  explicit ReportReader(test::ReportClient* client) : client_(*client) {}

  // Takes what is in all channels. Any thread, which may wait for the mutexes.
  void Take() {
    using namespace moru_vyr::lsp;  // NOLINT: the records
    Drain(client_.decisions, kDecisionChannel,
          [](const AccDecisionInfo& one) { CheckDecision(one); });
    Drain(client_.traffic, kCommunicationChannel,
          [this](const CommInfoRecord& one) { CheckTraffic(one); });
    Drain(client_.log_paths, kLogPathChannel, [](const LogPathRecord& one) {
      CheckGame(one.game_id);
      CheckText(one.log_path, sizeof one.log_path);
    });
    Drain(client_.loaded, kLoadedChannel, [](const LspLoadedRecord& one) {
      CheckGame(one.game_id);
      EXPECT_STREQ(one.process_name, "dawn.exe");
    });
    Drain(client_.failures, kNegotiationResultChannel, [](const NegRetRecord& one) {
      CheckGame(one.game_id);
      CheckGuidOrNone(one.guid, sizeof one.guid);
      CheckText(one.game_ip, sizeof one.game_ip);
      CheckText(one.proxy_ip, sizeof one.proxy_ip);
      EXPECT_TRUE(one.neg_type == 0 || one.neg_type == 1) << one.neg_type;
      EXPECT_NE(one.nego_result, 0);
    });
    Drain(client_.negotiations, kRealNegotiationChannel, [](const RealNegoRecord& one) {
      CheckGame(one.game_id);
      CheckGuidOrNone(one.guid, sizeof one.guid);
      CheckNode(one.proxy_ip, sizeof one.proxy_ip);
    });
    Drain(client_.switches, kRecoverySwitchChannel, [this](const RecoverySwitchRecord& one) {
      CheckGame(one.game_id);
      CheckGuid(one.guid, sizeof one.guid);
      ++switches_[std::string(one.guid, ::strnlen(one.guid, sizeof one.guid))];
      CheckText(one.switch_condition, sizeof one.switch_condition);
      CheckText(one.acc_info, sizeof one.acc_info);
      CheckText(one.client_info, sizeof one.client_info);
      CheckText(one.fe_be, sizeof one.fe_be);
    });
  }
  size_t taken() const { return taken_; }
  // Of flows from one node to another, tried or done: all but the first of each flow.
  size_t later_switches() const {
    size_t count = 0;
    for (const auto& [guid, switches] : switches_) count += switches - 1;
    return count;
  }

 private:
  template <class Region, class Check>
  void Drain(test::ClientRegion<Region>& region, const moru_vyr::lsp::ReportChannel& channel,
             const Check& check) {
    common::NamedMutex mutex(channel.mutex_name);
    const common::NamedMutexGuard guard(&mutex, false);
    for (auto& slot : region->slots) {
      if (slot.used == 0) continue;
      EXPECT_EQ(slot.used, 1u) << channel.mapping_name;
      const auto copy = slot;
      slot.used = 0;
      ++taken_;
      SCOPED_TRACE(channel.mapping_name);
      check(copy);
    }
  }
  static void CheckGame(common::u64 game_id) { EXPECT_EQ(game_id, 7u); }
  static void CheckText(const char* text, size_t size) {
    EXPECT_NE(std::memchr(text, '\0', size), nullptr) << "not terminated";
  }
  static void CheckGuid(const char* guid, size_t size) {
    CheckText(guid, size);
    EXPECT_EQ(std::strlen(guid), 36u) << guid;
  }
  // A node on trial has no flow yet.
  static void CheckGuidOrNone(const char* guid, size_t size) {
    if (guid[0] != '\0') CheckGuid(guid, size);
  }
  static void CheckNode(const char* ip, size_t size) {
    CheckText(ip, size);
    const std::string text = ip;
    EXPECT_TRUE(text == "198.51.100.20" || text == "198.51.100.21" || text == "198.51.100.22")
        << text;
  }
  static void CheckDecision(const moru_vyr::lsp::AccDecisionInfo& one) {
    CheckGame(one.game_id);
    CheckGuid(one.guid, sizeof one.guid);
    EXPECT_TRUE(one.socket_type == 0 || one.socket_type == 1) << one.socket_type;
    EXPECT_EQ(one.game_ip >> 8, 0xc63364u) << one.game_ip;
    EXPECT_TRUE(one.game_port == 27015 || one.game_port == 27016) << one.game_port;
  }

  // Of one of the library's sockets under one node. Two attempts for one connection of the game, at
  // one node, have one GUID.
  struct Traffic {
    unsigned sent = 0, received = 0;
    bool has_ended = false;
  };
  void CheckTraffic(const moru_vyr::lsp::CommInfoRecord& one) {
    CheckGame(one.game_id);
    CheckGuid(one.guid_str, sizeof one.guid_str);
    CheckNode(one.proxy_ip, sizeof one.proxy_ip);
    EXPECT_TRUE(one.socket_type == 1 || one.socket_type == 2) << one.socket_type;
    EXPECT_LE(one.ended, 1u);
    Traffic& before = traffic_[std::string(one.guid_str) + " by " + one.proxy_ip + " since " +
                               std::to_string(one.create_tick)];
    SCOPED_TRACE(one.guid_str);
    if (before.has_ended) {
      // Kept: last reports are written before those of the open sockets, which may have been noted
      // earlier.
      EXPECT_EQ(one.ended, 0u) << "a second last report";
      EXPECT_LE(one.total_sent_bytes, before.sent);
      EXPECT_LE(one.total_recv_bytes, before.received);
      return;
    }
    EXPECT_GE(one.total_sent_bytes, before.sent);
    EXPECT_GE(one.total_recv_bytes, before.received);
    before = {one.total_sent_bytes, one.total_recv_bytes, one.ended != 0};
  }

  test::ReportClient& client_;
  std::map<std::string, Traffic> traffic_;
  size_t taken_ = 0;
  std::map<std::string, size_t> switches_;  // by flow
};

}  // namespace whole_test
