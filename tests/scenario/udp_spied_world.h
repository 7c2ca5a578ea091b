// The datagram fixture with a spy between this library and the next provider: it sees each datagram
// that the game or the relay sends, and can make any of them fail. It does not see the nodes and
// the server.
#pragma once
#include "tests/scenario/udp_world.h"
//
#include "sockets/socket_map.h"

namespace udp_test {

struct SentDatagram {
  SOCKET socket = INVALID_SOCKET;
  bool by_relay = false;  // otherwise by the game, including messages to the control port
  std::string text;
  std::string to;  // with the port; empty: the call named no destination
};

class UdpSpiedWorld : public UdpWorld {
 protected:
  explicit UdpSpiedWorld(moru_vyr::lsp::u32 mended = 0);
  ~UdpSpiedWorld() override;

  // Starts the provider, then puts the spy in.
  void Starts(common::u32 log_level = 4);

  // What was sent, including failed calls. Those of the game in short form: "open", "close",
  // "relay:TEXT" or "ADDRESS:TEXT".
  std::vector<SentDatagram> sent;
  std::vector<std::string> GameSent() const;
  std::vector<std::string> RelaySent() const;  // texts; wrapped ones with their header

  // The error that a call is to fail with; 0: it goes through.
  std::function<int(const SentDatagram&)> fails = [](const SentDatagram&) { return 0; };
  // How many bytes a successful call reports as sent, if not all.
  std::function<size_t(const SentDatagram&)> says = [](const SentDatagram& one) {
    return one.text.size();
  };

  static moru_vyr::lsp::SocketRecord RecordOf(SOCKET s);
  static std::string ControlAddress();
  // Takes the only entry of one of the socket's queues; its address, or "none".
  static std::string TakeLoneEntry(SOCKET s, const moru_vyr::lsp::UdpPackageQueue* queue);
  static WSPPROC_TABLE& NextProvider();

 private:
  static int WSPAPI SpySendTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent_bytes,
                              DWORD flags, const struct sockaddr* to, int to_size,
                              LPWSAOVERLAPPED overlapped,
                              LPWSAOVERLAPPED_COMPLETION_ROUTINE completion, LPWSATHREADID thread,
                              LPINT error);

  static UdpSpiedWorld* spy_;
  LPWSPSENDTO real_ = nullptr;
  std::string address_bytes_;
};

}  // namespace udp_test
