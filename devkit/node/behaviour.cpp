#include "node/behaviour.h"

#include <cstdlib>

namespace node {
namespace {

using B = Behaviour;

constexpr std::int64_t kU32 = 0xFFFFFFFF;
constexpr std::int64_t kLongestMs = 600'000;
constexpr std::int64_t kAnswerSize = 41;

std::vector<BehaviourField> CommonFields() {
  return {
      {"on_accept",
       &B::on_accept,
       1,
       0,
       {{"serve", B::kServe}, {"mute", B::kMute}, {"close", B::kClose}, {"reset", B::kReset}},
       "what happens to a new connection; mute reads it and never says a word"},
      {"on_request",
       &B::on_request,
       1,
       0,
       {{"answer", B::kAnswer},
        {"silent", B::kSilent},
        {"close", B::kCloseThen},
        {"reset", B::kResetThen},
        {"garbage", B::kGarbage}},
       "what a request is met with; garbage goes out in place of the answer"},
      {"garbage_bytes", &B::garbage_bytes, 1, 65536, {}, "how much garbage"},
      {"answer_when",
       &B::answer_when,
       1,
       0,
       {{"connected", B::kConnected}, {"at_once", B::kAtOnce}},
       "whether the answer waits for the connection to the game server"},
      {"answer_delay_ms",
       &B::answer_delay_ms,
       0,
       kLongestMs,
       {},
       "from the request to the answer, at least"},
      {"result", &B::result, 0, 255, {}, "of the answer; not 0 refuses the client"},
      {"isp", &B::isp, 0, kU32, {}, "client_isp of the answer, a mask"},
      {"answer_version", &B::answer_version, 0, 65535, {}, "of the answer, and so its form"},
      {"token", &B::token, 0, kU32, {{"counting", 0}}, "accl_token of the answer"},
      {"node_id", &B::node_id, 0, 65535, {}, "of last_node in the answer"},
      {"last_node_ip",
       &B::last_node_ip,
       0,
       kU32,
       {{"own", -1}},
       "the same; 0xC6336415 for 198.51.100.21"},
      {"last_node_port", &B::last_node_port, 0, 65535, {{"own", -1}}, "the same"},
      {"magic", &B::magic, 0, kU32, {}, "of the answer"},
      {"pkg_len", &B::pkg_len, 0, 65535, {{"right", -1}}, "that the answer claims"},
      {"answer_bytes",
       &B::answer_bytes,
       0,
       kAnswerSize,
       {{"all", -1}},
       "how much of the answer is sent; the rest never is"},
      {"split_bytes",
       &B::split_bytes,
       1,
       kAnswerSize,
       {{"whole", 0}},
       "the answer goes out in pieces of that many bytes"},
      {"split_gap_ms", &B::split_gap_ms, 0, kLongestMs, {}, "between two such pieces"},
      {"server",
       &B::server,
       1,
       0,
       {{"connect", B::kConnect}, {"refuse", B::kRefuse}, {"hang", B::kHang}},
       "the game server: really connected to, or as if it refused or never answered"},
      {"refused_result",
       &B::refused_result,
       1,
       255,
       {{"close", 0}},
       "the answer's result when the game server cannot be reached"},
      {"delay_to_server_ms",
       &B::delay_to_server_ms,
       0,
       kLongestMs,
       {},
       "added to what goes to the game server"},
      {"delay_to_client_ms",
       &B::delay_to_client_ms,
       0,
       kLongestMs,
       {},
       "added to what goes to the client"},
      {"reset_after_bytes",
       &B::reset_after_bytes,
       0,
       std::int64_t{1} << 50,
       {{"never", -1}},
       "both sides are reset when that many have been carried, both ways together"},
      {"freeze",
       &B::freeze,
       1,
       0,
       {{"no", 0}, {"yes", 1}},
       "nothing is read from or written to any connection or flow"},
  };
}

std::vector<BehaviourField> DatagramFields() {
  return {
      {"answers",
       &B::answers,
       1,
       16,
       {},
       "how often an answer is sent; datagrams only, as all below"},
      {"answer_from",
       &B::answer_from,
       1,
       0,
       {{"proxy", B::kRight}, {"other", B::kOther}},
       "the port that answers come from"},
      {"data_from",
       &B::data_from,
       1,
       0,
       {{"data", B::kRight}, {"other", B::kOther}},
       "the port that data and answered probes come from"},
      {"head_len", &B::head_len, 20, 255, {}, "of the headers towards clients"},
      {"header",
       &B::header,
       1,
       0,
       {{"right", B::kWellFormed},
        {"short", B::kShortHeader},
        {"past_end", B::kPastEnd},
        {"cut", B::kCut},
        {"empty", B::kEmpty},
        {"version", B::kVersion}},
       "how headers towards clients are made: short claims 19 bytes, past_end 255; cut leaves 10 "
       "bytes of the datagram and empty none; version claims 9"},
      {"data_token", &B::data_token, 0, kU32, {{"right", -1}}, "in headers towards clients"},
      {"lost", &B::lost, 0, 255, {{"measured", -1}}, "of data towards clients"},
      {"relays", &B::relays, 1, 2, {}, "on the node's path; with 2, a probe gets two answers"},
      {"relay_idx", &B::relay_idx, 0, 255, {{"right", -1}}, "of every answered probe"},
      {"hop_delay_ms", &B::hop_delay_ms, 0, kLongestMs, {}, "from the first relay to the second"},
      {"hop_loss", &B::hop_loss, 0, 100, {}, "percent, between the two, each way"},
      {"unasked_ms",
       &B::unasked_ms,
       1,
       kLongestMs,
       {{"never", 0}},
       "how often a client gets a datagram of a server that it never talked to"},
      {"reorder_by_ms",
       &B::reorder_by_ms,
       1,
       kLongestMs,
       {},
       "how much later what is reordered comes"},
      {"seed", &B::seed, 0, kU32, {}, "of all chance; a flow takes it when it begins"},
  };
}

#define LANE(lane, what)                                                                   \
  {#lane "_delay_ms", &B::lane##_delay_ms, 0, kLongestMs, {}, "added to " what},           \
      {#lane "_jitter_ms",                                                                 \
       &B::lane##_jitter_ms,                                                               \
       0,                                                                                  \
       kLongestMs,                                                                         \
       {},                                                                                 \
       "up to so much more, in the same order"},                                           \
      {#lane "_loss", &B::lane##_loss, 0, 100, {}, "percent of " what},                    \
      {#lane "_duplicate", &B::lane##_duplicate, 0, 100, {}, "percent that come twice"}, { \
#lane "_reorder", &B::lane##_reorder, 0, 100, {}, "percent that later ones overtake"   \
  }

std::vector<BehaviourField> LaneFields() {
  return {LANE(data_up, "data from clients"), LANE(data_down, "data to clients"),
          LANE(probe_up, "probes from clients"), LANE(probe_down, "answered probes")};
}

#undef LANE

void Append(std::vector<BehaviourField> more, std::vector<BehaviourField>* all) {
  all->insert(all->end(), more.begin(), more.end());
}

}  // namespace

const std::vector<BehaviourField>& BehaviourFields() {
  static const std::vector<BehaviourField> fields = [] {
    std::vector<BehaviourField> all = CommonFields();
    Append(DatagramFields(), &all);
    Append(LaneFields(), &all);
    return all;
  }();
  return fields;
}

const BehaviourField* FindBehaviourField(const std::string& name) {
  for (const BehaviourField& field : BehaviourFields())
    if (field.name == name) return &field;
  return nullptr;
}

std::string BehaviourField::Range() const {
  std::string range;
  for (const auto& [word, value] : words) range += (range.empty() ? "" : ", ") + std::string(word);
  if (least > most) return range;
  return range + (range.empty() ? "" : ", ") + std::to_string(least) + " to " +
         std::to_string(most);
}

bool BehaviourField::Allows(std::int64_t value) const {
  for (const auto& [word, meaning] : words)
    if (meaning == value) return true;
  return value >= least && value <= most;
}

bool BehaviourField::Parse(const std::string& text, std::int64_t* value) const {
  for (const auto& [word, meaning] : words) {
    if (text != word) continue;
    *value = meaning;
    return true;
  }
  const bool hex = text.rfind("0x", 0) == 0;
  const std::string digits = hex ? text.substr(2) : text;
  if (digits.empty() || digits.size() > 16 ||
      digits.find_first_not_of(hex ? "0123456789abcdefABCDEF" : "0123456789") != std::string::npos)
    return false;
  const unsigned long long number = std::strtoull(digits.c_str(), nullptr, hex ? 16 : 10);
  if (least > most || number > static_cast<unsigned long long>(most)) return false;
  *value = static_cast<std::int64_t>(number);
  return *value >= least;
}

std::string BehaviourField::WordFor(std::int64_t value) const {
  for (const auto& [word, meaning] : words)
    if (meaning == value) return word;
  return "";
}

}  // namespace node
