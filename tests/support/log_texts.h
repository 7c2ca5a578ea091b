// Texts of the product's log lines: each text that tests assert in more than one place, up to the
// part that varies, or as a function of that part. A text that only one test asserts is in that
// test.
#pragma once
#include <string>

#include "relay/nego_common.h"

namespace test {

// --- start-up and admission ----------------------------------------------------------------------
inline const std::string kLogPath = "log path=";
inline const std::string kUdpIgnored = "ignore udp relay";
inline const std::string kAdmissionFailed =
    "[0][lsp]IsAllowedRelay is false, CheckAndInit failed, set flag, s=";
inline const std::string kWorkerEnded = "[0][lsp]RelayMgr::WorkerProc Quit\n";
inline std::string RelayInitialized(long result) {
  return "RelayMgr::CheckAndInit, initialization is " + std::to_string(result) + "\n";
}
inline std::string BlockRead(const std::string& tcp, const std::string& udp) {
  return "update block success, tcp=" + tcp + ", udp=" + udp + "\n";
}

// --- tables --------------------------------------------------------------------------------------
inline const std::string kFileShared = "CreateFileW failed(error=32)\n";
inline const std::string kNoRouteFile =
    "[5][lsp][Route][LoadRoute] load route table from file failed!\n";
inline const std::string kRouteFileUnread =
    "[5][lsp][Route][LoadRouteFromBinFile] load_mem_binary_from_file failed:file(";
inline const std::string kNoIpTable =
    "[Route][LoadIpTable] read route table from shared memory failed, mem_addr=null\n";
inline const std::string kSpurListChanged = "[OnUpdate] Spur iplist content has changed";
inline const std::string kRegionFailed = "[4][Shared_mem_obj]Shared_mem_obj(";
inline const std::string kRegionMismatch = "structure not match";
inline std::string SpurEntries(int count) {
  return "spur iptable entries count(" + std::to_string(count) + ")!";
}
inline std::string BlacklistEntries(int count) {
  return "blacklist entries count(" + std::to_string(count) + ")!";
}

// --- replaced entries ----------------------------------------------------------------------------
inline const std::string kConnectCalled = "WSPConnect:protocol=";
inline const std::string kConnectRelayed = "WSPConnect: RequestTcpRelaySession is relayed. relay=";
inline const std::string kConnectExCalled = "WSPConnectEx: protocol=";
inline const std::string kNoConnectEx = "WSPConnectEx: WSPIoctl get function pointer failure, ";
inline std::string NoNextProvider(const std::string& entry) {
  return entry + ": next_proc_table invalid, socket=";
}
inline std::string UdpConnectMode(bool on) {
  return std::string("local port=0, udp_connect_mode=") + (on ? "true" : "false") + ", ";
}
inline const std::string kBindRefused = "CheckAndBind return false, socket=";
inline const std::string kBindFailed = "CheckAndBind failed";
inline std::string RandomBindFailed(int error) {
  return "BindRandomPort bind , err=" + std::to_string(error) + ", ";
}

// --- asking for a relay --------------------------------------------------------------------------
inline const std::string kTcpRelaySession = "RequestTcpRelaySession";
inline const std::string kTcpRelayAsked = "[TCP]RequestTcpRelaySession: port=";
inline const std::string kUdpRelayFailed = "RequestUdpRelay failed";
inline const std::string kNoRelayAnswer = "RequestUdpRelay failed: resp not found, socket=";
inline const std::string kUdpRelayAnswered = "[UDP] UdpProvider::ResponseCreateSessionResult";
inline const std::string kUdpRelayAnswerInvalid =
    "[UDP] UdpProvider::ResponseCreateSessionResult invalid";
inline std::string CloseSendFailed(int error) {
  return "[UDP] CloseUdpRelay: sendto, error=" + std::to_string(error) + ", socket=";
}
inline std::string CloseSentShort(int bytes) {
  return "[UDP] CloseUdpRelay: sendto, bytes(" + std::to_string(bytes) + ")!=13, socket=";
}

// --- listeners -----------------------------------------------------------------------------------
inline const std::string kTcpListen = "[TCP] OnCreateLocalServer listen return=";
inline const std::string kTcpListenerClosed = "[TCP] TcpProvider::OnCloseLocalServer. socket=";
inline const std::string kUdpListening = "[UDP] UdpProvider::OnCreateLocalServer success, port=";
inline const std::string kUdpListenerClosed = "[UDP] UdpProvider::OnCloseLocalServer";

// --- connections ---------------------------------------------------------------------------------
inline const std::string kStrangerAccepted =
    "[TCP]OnLocalServerAcceptable, session not registered for port=";
inline const std::string kRemoteUrgent = "[TCP]TcpProvider::OnRemoteExcpetion. socket=";
inline const std::string kConnectFailed = "[TCP]HandleConnectFailure. Connection Failed, ";
inline const std::string kConnectFailureLate =
    "[TCP]HandleConnectFailure. state mismatched, cur state=";
inline const std::string kNoRemoteSocket = "[TCP]ConnectToRemoteServer failed. ";
inline const std::string kRequestNotSent = "[TCP]Failed to send negotiation, error=";
inline const std::string kMarkedObsolete = "buffer is empty. Marking session obsolete, token=";
inline const std::string kFoundObsolete = "found obsolete session, token=";
inline const std::string kObsoleteClosed = "[TCP]CloseObsoleteSession, remove session, ";
inline std::string GameAccepted(int port) {
  return "[TCP]OnLocalServerAcceptable. peer_port=" + std::to_string(port) + ", ";
}

// --- negotiation ---------------------------------------------------------------------------------
inline const std::string kNegotiationFailed = "OnNegotiationFailed";
inline const std::string kNegotiationRetry = "[TCP]TcpSession::OnNegotiationFailed. retry=";
inline const std::string kDirectBegins = "begin direct mode";
inline const std::string kNoGameServer = "begin direct mode. ChangeToGameSrv result=false, token=";
inline const std::string kForcedPastIsp =
    "CheckNegotiation isp not support, but force accl, client_isp=2, ";
inline const std::string kNoLastNode = "last_node:(node_id=0, ip=0.0.0.0, port=0, accl_token=0)";
// `reason` is a NegoFailure, or the node's own reason.
inline std::string NegotiationFailed(common::u32 reason) {
  return "OnNegotiationFailed, reason=" + std::to_string(reason) + ", ";
}

// --- flows ---------------------------------------------------------------------------------------
inline const std::string kUdpSessionClosed = "[UDP] session closed, token=";
inline const std::string kUdpSessionClosing = "[UDP] session enter closing state, token=";
inline const std::string kFlowWithoutServer =
    "[UDP] UdpSession CreateRemoteSession game_server=0.0.0.0:0, token=";
inline const std::string kCopyTooLong = "WARNING: clone not enough room, k=2049, size=2048";
inline const std::string kQueueEmpty =
    "[UDP] WARNING: UdpPackageQueue::FindAddrThenRemove queue size=0";
inline const std::string kSocketReplaced = "UdpRemoteSession::ReplaceSock, new socket=";
inline std::string Flushed(int count, int remaining) {
  return "FlushBlockedPackages, count=" + std::to_string(count) +
         ", remain_count=" + std::to_string(remaining);
}

// --- trials --------------------------------------------------------------------------------------
inline const std::string kTrialStarted = "[UDP] UdpSwitchRemoteSession::Init success";
inline const std::string kTrialSendFailed = "[UDP] UdpSwitchRemoteSession::SendTo, error=";
inline const std::string kTrialAgreed = "UdpSwitchRemoteSession::OnNegotiationSuccess";
inline const std::string kTrialVerdict = "NotifyVerifyResult";
inline const std::string kTrialVerified = "NotifyVerifyResult, Verifying result=succeeded";
inline std::string TrialLoss(int lost, int need, int real) {
  return "test link lost=" + std::to_string(lost) + ", max=100, need=" + std::to_string(need) +
         ",real=" + std::to_string(real) + ", socket=";
}

// --- the judge of a link -------------------------------------------------------------------------
inline const std::string kRealRouteLoss = "[GetCurLost]real_route";
inline const std::string kRealRouteUpdate = "[RecoverySwitch::Update]real_route, time_delta=";
inline const std::string kBurstRefused = "watch period time, refuse high freq test";
inline const std::string kSwitchReported = "[RecoverySwitch::Report]";
inline const std::string kSwitchFires = "[RecoverySwitch]switching is firing: count=";
inline const std::string kSwitchSubmitted = " recovery switch qos submitted, game_id=";
inline const std::string kSwitchFigures = "socket record recovery switch info=";
inline std::string SwitchWanted(bool wanted) {
  return wanted ? "need_switch=1, switch_result=0" : "need_switch=0, switch_result=0";
}
inline std::string SwitchTooSoon(int node) {
  return "[RecoverySwitch]switching could not happen within 30000ms, proxy_idc=" +
         std::to_string(node) + " ,";
}
inline std::string SwitchLimitReached(int limit, int node) {
  return "[RecoverySwitch]switching count reaches top limit " + std::to_string(limit) +
         ", proxy_idc=" + std::to_string(node) + " ,";
}
inline std::string MeasuringBarred(int flag) {
  return "[RecoverySwitch][IsAllowCalc], flag not allow calc, flag=" + std::to_string(flag) +
         ", proxy_idc=";
}

// --- pings ---------------------------------------------------------------------------------------
inline const std::string kPingForRelayed = "[RAW]CheckinConnectionPingRequest: buffer_len=";
inline const std::string kPingLag = "[RAW]CheckinPingRequest, lag value=50, ";
inline std::string PingsStored(int count) {
  return "[RAW] FreePingRequestCache: cursize=" + std::to_string(count) + "\n";
}

// --- reports -------------------------------------------------------------------------------------
inline const std::string kSyncEnded = "[Tracker] Sync Thread Ended\n";
inline const std::string kReportSubmitted = "submitted";

}  // namespace test
