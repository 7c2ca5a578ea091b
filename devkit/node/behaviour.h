// How a node treats its clients: well by default, and on demand in any way that a real or broken
// node could. Everything may change while the node runs, and takes effect when it is next read: a
// connection that is already past that point does not change.
#pragma once
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace node {

struct Behaviour {
  enum OnAccept : std::int64_t { kServe, kMute, kClose, kReset };
  enum OnRequest : std::int64_t { kAnswer, kSilent, kCloseThen, kResetThen, kGarbage };
  enum AnswerWhen : std::int64_t { kConnected, kAtOnce };
  enum Server : std::int64_t { kConnect, kRefuse, kHang };
  enum From : std::int64_t { kRight, kOther };
  enum Header : std::int64_t { kWellFormed, kShortHeader, kPastEnd, kCut, kEmpty, kVersion };

  // All are 64-bit integers, so that one table (behaviour.cpp) serves the command line, the
  // control port and the help; its ranges keep each to what its place in the record holds.
  std::int64_t on_accept = kServe;
  std::int64_t on_request = kAnswer;
  std::int64_t garbage_bytes = 64;

  std::int64_t answer_when = kConnected;
  std::int64_t answer_delay_ms = 0;
  std::int64_t result = 0;
  std::int64_t isp = 1;
  std::int64_t answer_version = 3;
  std::int64_t token = 0;  // 0: counting, from 1
  std::int64_t node_id = 1;
  std::int64_t last_node_ip = -1;    // -1: the node's own
  std::int64_t last_node_port = -1;  // -1: the node's own
  std::int64_t magic = 0x78DB3964;
  std::int64_t pkg_len = -1;       // -1: the right one
  std::int64_t answer_bytes = -1;  // -1: all
  std::int64_t split_bytes = 0;    // 0: in one piece
  std::int64_t split_gap_ms = 20;

  std::int64_t server = kConnect;
  std::int64_t refused_result = 1;  // 0: no answer, the connection closes

  std::int64_t delay_to_server_ms = 0;
  std::int64_t delay_to_client_ms = 0;
  std::int64_t reset_after_bytes = -1;  // -1: never
  std::int64_t freeze = 0;

  // Datagrams only.
  std::int64_t answers = 1;
  std::int64_t answer_from = kRight;
  std::int64_t data_from = kRight;
  std::int64_t head_len = 20;
  std::int64_t header = kWellFormed;
  std::int64_t data_token = -1;  // -1: the flow's
  std::int64_t lost = -1;        // -1: as measured
  std::int64_t relays = 1;
  std::int64_t relay_idx = -1;  // -1: as it is
  std::int64_t hop_delay_ms = 0;
  std::int64_t hop_loss = 0;
  std::int64_t unasked_ms = 0;  // 0: never

  // What happens to datagrams on the way from the client (up) and to it (down), in milliseconds
  // and percent.
  std::int64_t data_up_delay_ms = 0, data_up_jitter_ms = 0;
  std::int64_t data_up_loss = 0, data_up_duplicate = 0, data_up_reorder = 0;
  std::int64_t data_down_delay_ms = 0, data_down_jitter_ms = 0;
  std::int64_t data_down_loss = 0, data_down_duplicate = 0, data_down_reorder = 0;
  std::int64_t probe_up_delay_ms = 0, probe_up_jitter_ms = 0;
  std::int64_t probe_up_loss = 0, probe_up_duplicate = 0, probe_up_reorder = 0;
  std::int64_t probe_down_delay_ms = 0, probe_down_jitter_ms = 0;
  std::int64_t probe_down_loss = 0, probe_down_duplicate = 0, probe_down_reorder = 0;
  std::int64_t reorder_by_ms = 5;
  std::int64_t seed = 1;
};

struct BehaviourField {
  const char* name;
  std::int64_t Behaviour::*member;
  std::int64_t least, most;  // of a number; least > most: words only
  std::vector<std::pair<const char*, std::int64_t>> words;
  const char* help;

  // The allowed values, for help and errors: "connected, at_once" or "0 to 255".
  std::string Range() const;
  bool Allows(std::int64_t value) const;
  // A word, or a number, decimal or with 0x.
  bool Parse(const std::string& text, std::int64_t* value) const;
  // The word for the value, or empty: it is a number.
  std::string WordFor(std::int64_t value) const;
};

// In the order of the help.
const std::vector<BehaviourField>& BehaviourFields();
const BehaviourField* FindBehaviourField(const std::string& name);

}  // namespace node
