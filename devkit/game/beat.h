// The heartbeat on the wire, between the sample game and its own server. Little-endian, packed.
#pragma once

#include <cstddef>
#include <cstdint>

namespace game {

inline constexpr uint32_t kBeatMagic = 0x54414542;
inline constexpr size_t kLongestBeat = 1400;

enum class BeatKind : uint8_t { kBeat = 1, kAnswer = 2 };

#pragma pack(push, 1)
// The answer is the beat with a different kind and the server's count; the bytes after it are
// returned unchanged.
struct Beat {
  uint32_t magic = kBeatMagic;
  uint32_t session = 0;  // one for each run of the game
  uint32_t seq = 0;      // from 0, for each server of its own
  uint64_t sent_us = 0;  // the player's clock
  uint32_t arrived = 0;  // different beats of this session that the server has received so far
  uint16_t server = 0;   // which of the player's servers this is for
  uint8_t kind = 0;
  uint8_t fill = 0;  // the value of each byte after this record
};
#pragma pack(pop)
static_assert(sizeof(Beat) == 28);
static_assert(offsetof(Beat, magic) == 0);
static_assert(offsetof(Beat, session) == 4);
static_assert(offsetof(Beat, seq) == 8);
static_assert(offsetof(Beat, sent_us) == 12);
static_assert(offsetof(Beat, arrived) == 20);
static_assert(offsetof(Beat, server) == 24);
static_assert(offsetof(Beat, kind) == 26);
static_assert(offsetof(Beat, fill) == 27);

}  // namespace game
