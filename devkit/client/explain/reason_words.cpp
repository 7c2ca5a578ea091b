#include "client/explain/reason_words.h"

#include "route/decision.h"

namespace client {
namespace {

using namespace moru_vyr::lsp;

struct ReasonRow {
  int32_t acc_reason;
  const char* words;
};

constexpr ReasonRow kReasons[] = {
    {kReasonUnknown, "the route's verdict is a number that nobody knows"},
    {kReasonAcce, "the node is faster"},
    {kReasonDirect, "the direct way is good enough"},
    {kReasonInnerIp, "the destination is inside the player's own network"},
    {kReasonNotInIpTable, "the destination is in no table of the game's servers"},
    {kReasonExcludedPort, "the game keeps this port direct"},
    {kReasonNoRoute, "no route leads to the destination's data centre"},
    {kReasonSameIsp, "player and game server have the same internet provider"},
    {kReasonNoIpTable, "the IP table is not there"},
    {kReasonNoRouteTable, "the route table is not there"},
    {kReasonNotAcce, "this data centre is not accelerated, or acceleration is off"},
    {kReasonForceAuto, "acceleration is forced, through the node that was found best"},
    {kReasonOverMaxBoth, "every node is beyond the bounds of delay and of loss"},
    {kReasonOverMaxDelay, "every node is beyond the bound of delay"},
    {kReasonOverMaxLost, "every node is beyond the bound of loss"},
    {kReasonIsProxy, "the destination is itself a node"},
    {kReasonForceManual, "acceleration is forced, through the node that the user chose"},
};

}  // namespace

const char* ReasonWords(int32_t acc_reason) {
  for (const ReasonRow& row : kReasons) {
    if (row.acc_reason == acc_reason) return row.words;
  }
  return "no such reason";
}

}  // namespace client
