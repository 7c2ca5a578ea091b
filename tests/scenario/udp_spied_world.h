// The datagram fixture with a spy between this library and the next provider. It sees each datagram
// that the game or the relay sends, and can make any of these calls fail. It does not see the nodes
// and the server.
#pragma once
#include "tests/scenario/udp_world.h"
//
#include "sockets/socket_map.h"

namespace udp_test {

struct SentDatagram {
  SOCKET socket = INVALID_SOCKET;
  bool by_relay = false;  // false: by the game, including messages to the control port
  std::string text;
  std::string to;  // with the port; empty: the call named no destination
};

class UdpSpiedWorld : public UdpWorld {
 protected:
  explicit UdpSpiedWorld(moru_vyr::lsp::u32 mended = 0);
  ~UdpSpiedWorld() override;

  // Starts the provider, then installs the spy.
  void Starts(common::u32 log_level = 4);

  // What was sent, including failed calls. The game's datagrams have short forms: "open", "close",
  // "relay:TEXT" or "ADDRESS:TEXT".
  std::vector<SentDatagram> sent;
  std::vector<std::string> GameSent() const;
  std::vector<std::string> RelaySent() const;  // the texts; wrapped ones include their header

  // The error with which a call fails; 0: it succeeds.
  std::function<int(const SentDatagram&)> fails = [](const SentDatagram&) { return 0; };
  // How many bytes a successful call reports as sent; by default all of them.
  std::function<size_t(const SentDatagram&)> says = [](const SentDatagram& one) {
    return one.text.size();
  };

  static moru_vyr::lsp::SocketRecord RecordOf(SOCKET s);
  static std::string ControlAddress();
  // Takes the only entry out of one of the socket's queues. Returns its address, or "none".
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
