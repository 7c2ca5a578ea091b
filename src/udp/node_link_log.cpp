// The log lines of a link. The flow and the trial of another node have different texts.

#include "common/log.h"
#include "common/net_text.h"
#include "udp/node_link.h"

// The trial's line or the flow's, with the same arguments.
#define LOG_BY_ROLE(level, trial_format, flow_format, ...) \
  do {                                                     \
    if (on_trial_) {                                       \
      LSP_LOG(level, trial_format, __VA_ARGS__);           \
    } else {                                               \
      LSP_LOG(level, flow_format, __VA_ARGS__);            \
    }                                                      \
  } while (false)

namespace moru_vyr::lsp {
namespace {

std::string Ip(const sockaddr_in& addr) { return common::IpToString(addr.sin_addr.s_addr); }

}  // namespace

void NodeLink::LogNoSocket(int error) const noexcept {
  LOG_BY_ROLE(5, "UdpSwitchRemoteSession::Init socket error=%d, token=%u",
              "[UDP] UdpRemoteSession::Init socket error=%d, token=%u", error, flow_.token);
}

void NodeLink::LogStaysBlocking(int error) const noexcept {
  LOG_BY_ROLE(5, "[UDP] UdpSwitchRemoteSession::Init ioctlsocket , error=%d, token=%u",
              "[UDP] UdpRemoteSession::Init ioctlsocket , error=%d, token=%u", error, flow_.token);
}

void NodeLink::LogAnswerError(int result, u32 len) const noexcept {
  LOG_BY_ROLE(5, "UdpSwitchRemoteSession::HandleNegoRecv, Unpack error=%d, pack_len=%u, token=%u",
              "[UDP] UdpRemoteSession::HandleNegoRecv, Unpack error=%d, pack_len=%u, token=%u",
              result, len, flow_.token);
}

void NodeLink::LogReceived(const UdpPackage& package, SOCKET socket) const noexcept {
  if (on_trial_) {
    LSP_LOG(0,
            "[UDP] UdpSwitchRemoteSession::ReadPackage recvfrom success, addr=%s:%u, len=%u, "
            "token=%u",
            Ip(package.addr).c_str(), ntohs(package.addr.sin_port), package.valid_len, flow_.token);
  } else {
    LSP_LOG(0,
            "[UDP] UdpRemoteSession::ReadPackage recvfrom success, addr=%s:%u, len=%u, socket=%u, "
            "token=%u",
            Ip(package.addr).c_str(), ntohs(package.addr.sin_port), package.valid_len,
            static_cast<u32>(socket), flow_.token);
  }
}

void NodeLink::LogReceiveError(int error, SOCKET socket) const noexcept {
  if (on_trial_) {
    LSP_LOG(5, "UdpSwitchRemoteSession::ReadPackage recvfrom failed, error = %d, token=%u", error,
            flow_.token);
  } else {
    LSP_LOG(5, "UdpRemoteSession::ReadPackage recvfrom failed, error=%d,socket=%u, token=%u", error,
            static_cast<u32>(socket), flow_.token);
  }
}

void NodeLink::LogUnpackError(int result, const sockaddr_in& from) const noexcept {
  LOG_BY_ROLE(5,
              "[UDP] UdpSwitchRemoteSession::UnWrapUdpAcclPackage failed, unpack error, ret=%d, "
              "accl_data_addr=%s:%u, token=%u",
              "[UDP] UnWrapUdpAcclPackage failed, unpack error, ret=%d, accl_data_addr=%s:%u, "
              "token=%u",
              result, Ip(from).c_str(), ntohs(from.sin_port), flow_.token);
}

void NodeLink::LogHeadTooLong(const sockaddr_in& from) const noexcept {
  LOG_BY_ROLE(5,
              "[UDP] UdpSwitchRemoteSession::UnWrapUdpAcclPackage failed, package invalid, "
              "head_len > pack_len, accl_data_addr=%s:%u, token=%u",
              "[UDP] UnWrapUdpAcclPackage failed, package invalid, head_len > pack_len, "
              "accl_data_addr=%s:%u, token=%u",
              Ip(from).c_str(), ntohs(from.sin_port), flow_.token);
}

void NodeLink::LogProbeAnswer() const noexcept {
  LOG_BY_ROLE(0,
              "UdpSwitchRemoteSession::UnWrapUdpAcclPackage: it is a speed test result, token=%u",
              "UnWrapUdpAcclPackage: it is a speed test result, token=%u", flow_.token);
}

void NodeLink::LogSent(const sockaddr_in& to, u32 len, SOCKET socket) const noexcept {
  if (on_trial_) {
    LSP_LOG(0, "[UDP] UdpSwitchRemoteSession::SendTo success, addr=%s:%u, len=%u, token=%u",
            Ip(to).c_str(), ntohs(to.sin_port), len, flow_.token);
  } else {
    LSP_LOG(0, "[UDP] UdpRemoteSession::SendTo success, addr=%s:%u, len=%u, socket=%u, token=%u",
            Ip(to).c_str(), ntohs(to.sin_port), len, static_cast<u32>(socket), flow_.token);
  }
}

void NodeLink::LogSendError(int error, SOCKET socket) const noexcept {
  if (on_trial_) {
    LSP_LOG(5, "[UDP] UdpSwitchRemoteSession::SendTo, error=%d, token=%u", error, flow_.token);
  } else {
    LSP_LOG(5, "[UDP] UdpRemoteSession::SendTo, error=%d, socket=%u, token=%u", error,
            static_cast<u32>(socket), flow_.token);
  }
}

void NodeLink::LogFlushed(u32 count, u32 remain) const noexcept {
  LOG_BY_ROLE(0,
              "UdpSwitchRemoteSession::FlushBlockedPackages, count=%u, remain_count=%u, token=%u",
              "[UDP] UdpRemoteSession::FlushBlockedPackages, count=%u, remain_count=%u, token=%u",
              count, remain, flow_.token);
}

}  // namespace moru_vyr::lsp
