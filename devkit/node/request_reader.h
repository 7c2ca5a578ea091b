// Reads one NegoRequest from a stream, byte by byte if necessary, or from a datagram. The bytes
// are untrusted.
//
// Strict where the protocol is: the magic, exactly the length of the version, a game server that
// can be reached. An unknown version (0, or above 3) is read as the newest, and its record may be
// longer, because newer forms only add fields.
#pragma once
#include <array>
#include <cstddef>
#include <span>

#include "common/types.h"
#include "node/event.h"
#include "node/socket.h"
#include "protocol/nego_request.h"

namespace node {

class RequestReader {
 public:
  enum class State { kMore, kDone, kBad };

  static constexpr std::size_t kMaxRequest = 1024;  // bytes, of a version that is not known yet

  // Where to put the next bytes, and how many: never one beyond the request, so that what follows
  // it stays in the stream.
  char* Place() { return bytes_.data() + size_; }
  std::size_t Wanted() const { return wanted_ - size_; }
  // That many bytes have been put there; at most Wanted().
  State Took(std::size_t count);
  // A datagram, which must hold one request and nothing else. Done or bad.
  State TakeDatagram(const char* bytes, std::size_t size);

  std::size_t size() const { return size_; }
  // Host order; `version` is the one that was sent. Only when done.
  const moru_vyr::lsp::NegoRequest& request() const { return request_; }
  moru_vyr::lsp::u16 version() const { return version_; }
  Address game() const { return {request_.body.game_ip, request_.body.game_port}; }
  // Adds the content of the request to an event.
  void Describe(Event* event) const;
  // What is wrong with it, when bad.
  const char* problem() const { return problem_; }

 private:
  State Refuse(const char* problem);
  State TakeHeader();
  State TakeRequest();
  std::span<const moru_vyr::lsp::u8> Bytes() const {
    return {reinterpret_cast<const moru_vyr::lsp::u8*>(bytes_.data()), size_};
  }

  std::array<char, kMaxRequest> bytes_ = {};
  std::size_t size_ = 0;
  std::size_t wanted_ = sizeof(moru_vyr::lsp::NegoHeader);
  moru_vyr::lsp::NegoRequest request_ = {};
  moru_vyr::lsp::u16 version_ = 0;
  const char* problem_ = "";
};

}  // namespace node
