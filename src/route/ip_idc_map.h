// Maps an address to the number of its data centre. Built once, then only looked up.
//
// Addresses are mixed by a bijection and sorted by the result; an index on the top bits of the
// mixed value leads to a run that holds one record on average. So a lookup touches two places for
// any number of records, and records made to collide cost no more than a binary search. (A plain
// hash table is as fast, but a hostile table could make building it quadratic; a sorted array and a
// tree are several times slower at full size.)
#pragma once
#include <cstddef>
#include <utility>
#include <vector>

#include "common/types.h"

namespace moru_vyr::lsp {

class IpIdcMap {
 public:
  struct Record {
    u32 ip = 0;  // network byte order
    u32 idc = 0;
  };

  IpIdcMap() = default;

  // The later of two records with the same address wins. May throw std::bad_alloc.
  explicit IpIdcMap(const std::vector<Record>& records);

  // Null if the address is unknown. Valid as long as the map is unchanged.
  const u32* Find(u32 ip) const noexcept;

  std::size_t size() const noexcept { return slots_.size(); }
  bool empty() const noexcept { return slots_.empty(); }

  // Takes the same short time for any sizes.
  void swap(IpIdcMap& other) noexcept;

 private:
  struct Slot {
    u32 key;  // the mixed address: equal keys mean equal addresses
    u32 idc;
  };

  void BuildIndex();

  std::vector<Slot> slots_;      // by key
  std::vector<u32> run_begins_;  // per value of the key's top bits, and one past the last
  int shift_ = 0;                // shifts a key to its top bits
};

}  // namespace moru_vyr::lsp
