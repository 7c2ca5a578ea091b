// Log lines that several tests wait for or count, up to the part that varies.
#pragma once

namespace test {

inline constexpr char kUdpSessionClosed[] = "[UDP] session closed, token=";
inline constexpr char kUdpSessionClosing[] = "[UDP] session enter closing state, token=";
inline constexpr char kTrialAgreed[] = "UdpSwitchRemoteSession::OnNegotiationSuccess";
inline constexpr char kSwitchReported[] = "[RecoverySwitch::Report]";
inline constexpr char kTrialVerified[] = "NotifyVerifyResult, Verifying result=succeeded";
inline constexpr char kNoGameServer[] = "begin direct mode. ChangeToGameSrv result=false, token=";
inline constexpr char kObsoleteClosed[] = "[TCP]CloseObsoleteSession, remove session, ";
inline constexpr char kNoRelayAnswer[] = "RequestUdpRelay failed: resp not found, socket=";

}  // namespace test
