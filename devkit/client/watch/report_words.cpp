#include "client/watch/report_words.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "abi/report_records.h"
#include "client/explain/reason_words.h"
#include "client/fields/mending_text.h"
#include "client/fields/text_rules.h"
#include "common/text.h"
#include "route/decision.h"

namespace client {
namespace {

using namespace moru_vyr::lsp;

__attribute__((format(printf, 1, 2))) std::string Format(const char* format, ...) {
  char buffer[1024];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);
  return buffer;
}

std::string Number(int64_t number) { return std::to_string(number); }

const char* Protocol(int64_t type, int64_t stream, int64_t datagram) {
  return type == stream ? "TCP" : type == datagram ? "UDP" : "other";
}

bool IsAccelerated(int32_t acc_reason) {
  return acc_reason == kReasonAcce || acc_reason == kReasonForceAuto ||
         acc_reason == kReasonForceManual;
}

std::string NodeOf(const RouteProxyInfo& proxy) {
  const std::string name = Text(proxy.proxy_name);
  const std::string where = Endpoint(Text(proxy.proxy_addr), proxy.proxy_port);
  return name.empty() ? where : name + " (" + where + ")";
}

std::string Words(const AccDecisionInfo& info) {
  const RouteProxyInfo& node = info.selected_proxy;
  std::string text = std::string(Protocol(info.socket_type, 0, 1)) + " to " +
                     Endpoint(HostAddressText(info.game_ip), info.game_port);
  if (info.game_idc != 0) text += ", data centre " + Number(info.game_idc) + ",";
  const bool relayed = IsAccelerated(info.acc_reason);
  text += relayed ? " goes through " + NodeOf(node) : std::string(" goes direct");
  text += std::string(": ") + ReasonWords(info.acc_reason);
  if (info.game_idc == 0) return text;
  text += " [direct " + DelayWords(info.direct_delay) + ", lost " + LossWords(info.direct_lost);
  if (node.proxy_idc != 0) {
    text += "; to the node " + DelayWords(node.section1_delay) + ", lost " +
            LossWords(node.section1_lost) + "; from there " + DelayWords(node.section2_delay) +
            ", lost " + LossWords(node.section2_lost);
  }
  return text + "]";
}

std::string Words(const RealNegoRecord& record) {
  std::string text = "node " + Number(record.proxy_id) + " at " +
                     Endpoint(Text(record.proxy_ip), record.proxy_port) + " carries " +
                     Endpoint(HostAddressText(record.game_ip), record.game_port) +
                     "; it sees the player as " + AddressText(record.user_ip) +
                     Format(", provider 0x%x", record.user_isp);
  if (record.last_node_id != 0) {
    text +=
        "; last node " + Number(record.last_node_id) + " at " + AddressText(record.last_node_ip);
  }
  return text;
}

std::string Words(const NegRetRecord& record) {
  return std::string(Protocol(record.neg_type, 0, 1)) + " negotiation with node " +
         Number(record.proxy_idc) + " at " + Endpoint(Text(record.proxy_ip), record.proxy_port) +
         " for " + Endpoint(Text(record.game_ip), record.game_port) + " failed after " +
         Number(record.elapsed_ms) + " ms, try " + Number(record.nego_count) + ": " +
         NegotiationFailureWords(record.nego_result) + " (" + Number(record.nego_result) + ")";
}

std::string SectionWords(const char* name, const FineStats& fine) {
  std::string text = std::string("; ") + name + " ";
  text += fine.total_recv == 0 ? std::string("without an answer")
                               : DelayWords(fine.delay_avg) + " (±" + Number(fine.delay_amp) + ")";
  const double lost = fine.total_send > fine.total_recv
                          ? (fine.total_send - fine.total_recv) * 100.0 / fine.total_send
                          : 0;
  return text + Format(", %.1f %% of %u probes lost", lost, fine.total_send);
}

std::string Words(const CommInfoRecord& record) {
  std::string text = std::string(Protocol(record.socket_type, 1, 2)) + " to " +
                     Endpoint(Text(record.game_ip), record.game_port) + " through " +
                     Endpoint(Text(record.proxy_ip), record.proxy_port);
  text += (record.ended != 0 ? ", ended after " : ", for ") + SpanWords(record.life);
  text += ": sent " + BytesWords(record.total_sent_bytes) + " in " +
          Number(record.total_sent_packets) + ", received " + BytesWords(record.total_recv_bytes) +
          " in " + Number(record.total_recv_packets);
  if (record.frontend_fine.total_send != 0) text += SectionWords("frontend", record.frontend_fine);
  if (record.topology_type == 2) text += SectionWords("backend", record.backend_fine);
  const uint32_t errors = record.total_sent_errors + record.total_recv_errors;
  if (errors != 0) {
    const uint32_t last = record.curr_recv_error_code != 0 ? record.curr_recv_error_code
                                                           : record.curr_send_error_code;
    text += "; " + Number(errors) + " errors, at last " + Number(last);
  }
  return text;
}

// 0 has two meanings: the move, and trouble that came while another trial still ran.
const char* SwitchOutcome(const RecoverySwitchRecord& record) {
  if (record.need_switch == 0) return "no move is allowed now";
  switch (record.is_switch_succ) {
    case 0:
      return "moved to another node, unless a trial was running already";
    case 1:
      return "not moved: there is no other node";
    case 2:
      return "not moved: the request to the other node could not be sent";
    case 3:
      return "not moved: the other node refused or did not answer";
    case 4:
      return "not moved: the other node did no better";
    case 5:
      return "not moved: the other node did well, but moving is switched off";
    default:
      return "with an outcome that nobody knows";
  }
}

std::string Words(const RecoverySwitchRecord& record) {
  return "link through node " + Number(record.proxy_idc) + " in trouble after " +
         SpanWords(record.elapse_time) + " (" + Text(record.switch_condition) + "), report " +
         Number(record.count) + ": " + SwitchOutcome(record) + "; data lost: short " +
         LossWords(record.data_link_small_section_lost) + " of " +
         Number(record.data_link_small_section_pack) + " packets, long " +
         LossWords(record.data_link_full_section_lost) + " of " +
         Number(record.data_link_full_section_pack) + "; probes " + Text(record.fe_be);
}

std::string Words(const LspLoadedRecord& record) {
  return Text(record.process_name) + " has the library, game " + std::to_string(record.game_id) +
         (record.is_x64 != 0 ? ", 64 bits" : ", 32 bits");
}

std::string Words(const LogPathRecord& record) {
  return "game " + std::to_string(record.game_id) + " logs to " + Text(record.log_path);
}

}  // namespace

std::string Endpoint(const std::string& address, uint32_t port) {
  return (address.empty() ? "?" : address) + ":" + std::to_string(port);
}

std::string HostAddressText(uint32_t ip) { return AddressText(__builtin_bswap32(ip)); }

const char* NegotiationFailureWords(int32_t nego_result) {
  switch (nego_result) {
    case 201:
      return "the request could not be sent";
    case 202:
      return "no answer in time";
    case 203:
      return "the answer is none that this library knows";
    case 204:
      return "the answer's body is broken";
    case 205:
      return "the connection broke while the answer was awaited";
    case 207:
      return "the node does not serve the player's internet provider";
    default:
      return nego_result > 0 && nego_result <= 255 ? "the node refused" : "for no known reason";
  }
}

const char* TrialOutcomeWords(int32_t is_switch_succ) {
  switch (is_switch_succ) {
    case 2:
      return "the request could not be sent";
    case 3:
      return "refused or did not answer";
    case 4:
      return "did no better";
    case 5:
      return "did well, but moving is switched off";
    default:
      return "with an outcome that is not known";
  }
}

std::string DelayWords(uint32_t delay) {
  return delay == 9999 ? "not measured" : std::to_string(delay) + " ms";
}

std::string LossWords(int64_t lost) {
  switch (lost) {
    case 101:
      return "unknown";
    case 102:
      return "unknown, no range yet,";
    case 103:
      return "unknown, never computed,";
    case 201:
      return "unknown, the range runs backwards,";
    default:
      return std::to_string(lost) + " %";
  }
}

std::string BytesWords(double bytes) {
  if (bytes < 1000) return Format("%.0f B", bytes);
  if (bytes < 1e6) return Format("%.1f kB", bytes / 1e3);
  return bytes < 1e9 ? Format("%.1f MB", bytes / 1e6) : Format("%.2f GB", bytes / 1e9);
}

std::string SpanWords(uint32_t ms) {
  const uint32_t s = ms / 1000;
  if (s < 60) return Format("%u.%u s", s, ms % 1000 / 100);
  if (s < 3600) return Format("%u min %u s", s / 60, s % 60);
  return Format("%u h %u min", s / 3600, s % 3600 / 60);
}

std::string ClockText(uint64_t time_ms) {
  const std::time_t seconds = static_cast<std::time_t>(time_ms / 1000);
  const std::tm* const local = std::localtime(&seconds);
  if (local == nullptr) return "--:--:--.---";
  return Format("%02d:%02d:%02d.%03u", local->tm_hour, local->tm_min, local->tm_sec,
                static_cast<unsigned>(time_ms % 1000));
}

std::string Printable(std::string text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char byte = static_cast<unsigned char>(text[i]);
    if (byte < ' ' || byte == 0x7f) text[i] = '?';
    // Behind C2 stand the control characters from 80 on, 9B among them, which opens a sequence.
    if (byte >= 0x80 && byte < 0xa0 && i > 0 && text[i - 1] == '\xc2') text[i - 1] = text[i] = '?';
  }
  return text;
}

std::string ReportWords(const Report& report) {
  switch (report.kind) {
    case kLoadedReport:
      return Printable(Words(report.As<LspLoadedRecord>()) +
                       (report.mended ? ", mended: " + MendingText(*report.mended) : ""));
    case kLogPathReport:
      return Printable(Words(report.As<LogPathRecord>()));
    case kDecisionReport:
      return Printable(Words(report.As<AccDecisionInfo>()));
    case kRealNegotiationReport:
      return Printable(Words(report.As<RealNegoRecord>()));
    case kNegotiationResultReport:
      return Printable(Words(report.As<NegRetRecord>()));
    case kRecoverySwitchReport:
      return Printable(Words(report.As<RecoverySwitchRecord>()));
    default:
      return Printable(Words(report.As<CommInfoRecord>()));
  }
}

std::string ReportMark(const Report& report) {
  switch (report.kind) {
    case kDecisionReport: {
      const auto info = report.As<AccDecisionInfo>();
      return Printable((IsAccelerated(info.acc_reason) ? "through a node: " : "direct: ") +
                       std::string(ReasonWords(info.acc_reason)));
    }
    case kRealNegotiationReport: {
      const auto record = report.As<RealNegoRecord>();
      return Printable("node " + Number(record.proxy_id) + " agreed");
    }
    case kNegotiationResultReport: {
      const auto record = report.As<NegRetRecord>();
      return Printable("node " + Number(record.proxy_idc) +
                       " failed: " + NegotiationFailureWords(record.nego_result));
    }
    case kRecoverySwitchReport: {
      const auto record = report.As<RecoverySwitchRecord>();
      return Printable("link in trouble: " + std::string(SwitchOutcome(record)));
    }
    default:
      return ReportWords(report);
  }
}

}  // namespace client
