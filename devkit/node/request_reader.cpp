#include "node/request_reader.h"

namespace node {
namespace {

using namespace moru_vyr::lsp;

u32 SizeOf(u32 version) {
  constexpr std::size_t kBody = offsetof(NegoRequest, body);
  switch (NormaliseVersion(version, kNegoVersion)) {
    case 1:
      return kBody + offsetof(NegoRequestBody, last_node);
    case 2:
      return kBody + offsetof(NegoRequestBody, game_id);
    default:
      return sizeof(NegoRequest);
  }
}

bool IsServer(u32 ip, u16 port) {
  constexpr u32 kFirstMulticast = 0xE0000000;  // broadcast and all else that is nobody's follows
  return ip != 0 && ip < kFirstMulticast && port != 0;
}

}  // namespace

RequestReader::State RequestReader::Took(std::size_t count) {
  size_ += count;
  if (size_ < wanted_) return State::kMore;
  return wanted_ == sizeof(NegoHeader) ? TakeHeader() : TakeRequest();
}

RequestReader::State RequestReader::Refuse(const char* problem) {
  problem_ = problem;
  return State::kBad;
}

RequestReader::State RequestReader::TakeHeader() {
  NegoHeader header;
  if (header.Unpack(bytes_.data(), static_cast<u32>(size_)) < 0) return Refuse("wrong magic");
  version_ = header.version;
  const u32 size = SizeOf(version_);
  const bool known = version_ >= 1 && version_ <= kNegoVersion;
  const bool fits =
      known ? header.pkg_len == size : header.pkg_len >= size && header.pkg_len <= kMaxRequest;
  if (!fits) return Refuse("pkg_len does not fit the version");
  wanted_ = header.pkg_len;
  return State::kMore;
}

RequestReader::State RequestReader::TakeRequest() {
  if (request_.Unpack(bytes_.data(), static_cast<u32>(size_)) < 0) return Refuse("unreadable");
  const u32 game_ip = request_.body.game_ip;
  const u16 game_port = request_.body.game_port;
  if (!IsServer(game_ip, game_port)) return Refuse("names no game server");
  return State::kDone;
}

}  // namespace node
