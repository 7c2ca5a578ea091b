#include "node/request_reader.h"

#include <algorithm>
#include <cstring>
#include <string>

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

}  // namespace

RequestReader::State RequestReader::Took(std::size_t count) {
  size_ += count;
  if (size_ < wanted_) return State::kMore;
  return wanted_ == sizeof(NegoHeader) ? TakeHeader() : TakeRequest();
}

RequestReader::State RequestReader::TakeDatagram(const char* bytes, std::size_t size) {
  State state = State::kMore;
  std::size_t at = 0;
  while (state == State::kMore && at < size) {
    const std::size_t count = std::min(Wanted(), size - at);
    std::memcpy(Place(), bytes + at, count);
    at += count;
    state = Took(count);
  }
  if (state == State::kMore) return Refuse("ends too early");
  if (state == State::kDone && at < size) return Refuse("has bytes behind it");
  return state;
}

RequestReader::State RequestReader::Refuse(const char* problem) {
  problem_ = problem;
  return State::kBad;
}

RequestReader::State RequestReader::TakeHeader() {
  NegoHeader header;
  if (header.Unpack(Bytes()) < 0) return Refuse("wrong magic");
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
  if (request_.Unpack(Bytes()) < 0) return Refuse("unreadable");
  if (!game().server()) return Refuse("names no game server");
  return State::kDone;
}

void RequestReader::Describe(Event* event) const {
  const NegoRequestBody& body = request_.body;
  const LastNodeInfo& last = body.last_node;
  char guid[SessionGuid::kTextSize];
  event->With("version", version_)
      .With("pkg_len", request_.header.pkg_len)
      .With("flags", body.flags)
      .With("retry", body.retry)
      .With("uin", u64{body.uin})
      .With("game_id_low", body.game_id_low)
      .With("game", game().Text())
      .With("guid", body.guid.ToString(guid, sizeof guid));
  if (request_.header.version >= 2) {
    event->With("last_node_id", last.node_id)
        .With("last_node", Address{last.ip, last.port}.Text())
        .With("last_node_token", last.accl_token)
        .With("game_idc", body.game_idc);
  }
  if (request_.header.version >= 3) event->With("game_id", u64{body.game_id});
}

}  // namespace node
