#include "route/ip_idc_map.h"

#include <algorithm>
#include <bit>

namespace moru_vyr::lsp {
namespace {

constexpr int kKeyBits = 32;

// Both steps are reversible, so no two addresses share a key. The first mixes the host part of an
// address downwards and the second mixes everything upwards, so that neighbours are separated.
u32 Mix(u32 ip) noexcept { return (ip ^ (ip >> 16)) * 0x9E3779B1u; }

}  // namespace

IpIdcMap::IpIdcMap(const std::vector<Record>& records) {
  slots_.reserve(records.size());
  for (const Record& record : records) slots_.push_back({Mix(record.ip), record.idc});
  const auto by_key = [](const Slot& a, const Slot& b) { return a.key < b.key; };
  std::stable_sort(slots_.begin(), slots_.end(), by_key);
  const auto same_key = [](const Slot& a, const Slot& b) { return a.key == b.key; };
  // From the back, because unique keeps the first one it meets and the last one counts.
  const auto kept = std::unique(slots_.rbegin(), slots_.rend(), same_key);
  slots_.erase(slots_.begin(), kept.base());
  slots_.shrink_to_fit();
  if (!slots_.empty()) BuildIndex();
}

void IpIdcMap::BuildIndex() {
  const int index_bits = std::max(1, static_cast<int>(std::bit_width(slots_.size() - 1)));
  shift_ = kKeyBits - index_bits;
  run_begins_.assign((std::size_t{1} << index_bits) + 1, 0);
  for (const Slot& slot : slots_) ++run_begins_[(slot.key >> shift_) + 1];
  for (std::size_t i = 1; i < run_begins_.size(); ++i) run_begins_[i] += run_begins_[i - 1];
}

const u32* IpIdcMap::Find(u32 ip) const noexcept {
  if (slots_.empty()) return nullptr;
  const u32 key = Mix(ip);
  const u32* const run = &run_begins_[key >> shift_];
  const Slot* const end = slots_.data() + run[1];
  const Slot* const slot =
      std::lower_bound(slots_.data() + run[0], end, key,
                       [](const Slot& candidate, u32 wanted) { return candidate.key < wanted; });
  return slot != end && slot->key == key ? &slot->idc : nullptr;
}

void IpIdcMap::swap(IpIdcMap& other) noexcept {
  slots_.swap(other.slots_);
  run_begins_.swap(other.run_begins_);
  std::swap(shift_, other.shift_);
}

}  // namespace moru_vyr::lsp
