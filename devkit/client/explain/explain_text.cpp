#include <nlohmann/json.hpp>

#include "client/explain/explain.h"
#include "client/fields/mending_text.h"

namespace client {
namespace {

std::string NameOf(const Way& way) {
  return way.name.empty() ? "node " + std::to_string(way.proxy_idc) : way.name;
}

std::string Section(uint32_t delay, uint32_t lost) {
  return std::to_string(delay) + " ms, " + std::to_string(lost) + " % lost";
}

std::string NodeText(const Explanation& explanation) {
  const Way& node = *explanation.node;
  const uint32_t whole = node.section1_delay + node.section2_delay;
  return std::string("\n  ") + (explanation.accelerated ? "node" : "node that was judged") + ": " +
         NameOf(node) + " (" + std::to_string(node.proxy_idc) + ") at " + node.address + "\n" +
         "    player to node         " + Section(node.section1_delay, node.section1_lost) + "\n" +
         "    node to game server    " + Section(node.section2_delay, node.section2_lost) + "\n" +
         "    the whole way          " + std::to_string(whole) + " ms; the direct way " +
         Section(explanation.direct_delay, explanation.direct_lost) + "\n";
}

std::string SwitchingText(const Explanation& explanation) {
  std::string text = "\n  if its link degrades: " + explanation.switching + "\n";
  for (const Way& way : explanation.candidates) {
    text += "    " + NameOf(way) + " (" + std::to_string(way.proxy_idc) + ") at " + way.address +
            ", " + std::to_string(way.section1_delay + way.section2_delay) + " ms" +
            (way.would_be_taken ? "   <- would be taken" : "") + "\n";
  }
  const std::string source = explanation.source.empty() ? "tables in force" : explanation.source;
  for (const Problem& warning : explanation.warnings) {
    text += "    " + ToText(source, warning) + "\n";
  }
  return text;
}

std::string ReasonText(const Explanation& explanation) {
  if (!explanation.acc_reason) {
    return "  acc_reason: none, no decision is asked for and none would say this\n";
  }
  std::string text =
      "  acc_reason: " + std::to_string(*explanation.acc_reason) + ", " + explanation.reason + "\n";
  if (!explanation.is_reported) {
    text += "    (what a decision would report; here none is asked for)\n";
  }
  return text;
}

nlohmann::ordered_json ToJson(const Way& way) {
  return {{"name", way.name},
          {"proxy_idc", way.proxy_idc},
          {"address", way.address},
          {"section1_delay", way.section1_delay},
          {"section1_lost", way.section1_lost},
          {"section2_delay", way.section2_delay},
          {"section2_lost", way.section2_lost},
          {"decision", way.decision}};
}

}  // namespace

std::string ExplanationText(const Explanation& explanation) {
  std::string text = explanation.destination + " " + explanation.protocol +
                     (explanation.accelerated ? " is accelerated: " : " is NOT accelerated: ") +
                     explanation.conclusion + ".\n\n  asked as " + explanation.game_path +
                     " (game " + std::to_string(explanation.game_id) + "), VIP level " +
                     std::to_string(explanation.vip_level) +
                     ", mended: " + MendingText(explanation.mended) + "\n";
  int number = 0;
  for (const Step& step : explanation.steps) {
    const std::string shown = std::to_string(++number);
    text += std::string(4 - shown.size(), ' ') + shown + (step.passed ? ". ok   " : ". NO   ") +
            step.finding + "\n";
  }
  if (explanation.node) text += NodeText(explanation);
  if (!explanation.switching.empty()) text += SwitchingText(explanation);
  return text + "\n" + ReasonText(explanation);
}

std::string ExplanationJson(const Explanation& explanation) {
  nlohmann::ordered_json json = {{"event", "explanation"},
                                 {"destination", explanation.destination},
                                 {"protocol", explanation.protocol},
                                 {"game", explanation.game_path},
                                 {"game_id", explanation.game_id},
                                 {"vip_level", explanation.vip_level},
                                 {"mended", MendingNames(explanation.mended)},
                                 {"accelerated", explanation.accelerated},
                                 {"conclusion", explanation.conclusion}};
  json["steps"] = nlohmann::ordered_json::array();
  for (const Step& step : explanation.steps) {
    json["steps"].push_back({{"passed", step.passed}, {"finding", step.finding}});
  }
  if (explanation.acc_reason) {
    json["acc_reason"] = *explanation.acc_reason;
    json["reported"] = explanation.is_reported;
    json["reason"] = explanation.reason;
  }
  if (explanation.node) {
    json["node"] = ToJson(*explanation.node);
    json["direct_delay"] = explanation.direct_delay;
    json["direct_lost"] = explanation.direct_lost;
  }
  json["candidates"] = nlohmann::ordered_json::array();
  for (const Way& way : explanation.candidates) {
    json["candidates"].push_back(ToJson(way));
    json["candidates"].back()["would_be_taken"] = way.would_be_taken;
  }
  if (!explanation.switching.empty()) json["switching"] = explanation.switching;
  json["warnings"] = nlohmann::ordered_json::array();
  for (const Problem& warning : explanation.warnings) {
    json["warnings"].push_back({{"file", explanation.source},
                                {"line", warning.line},
                                {"key", warning.key},
                                {"reason", warning.reason}});
  }
  return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace client
