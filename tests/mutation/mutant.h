// What a mutated copy of the product asks at each place: is this mutant the one that is to act?
#pragma once
#include <atomic>
#include <type_traits>

namespace mutation {

// The mutant that acts in this process, from VYR_MUTANT; 0: none.
extern unsigned active;

// Where the mutants that were reached are noted, a byte each; null: they are not.
extern std::atomic<unsigned char>* reached;

// The compiler's own computations use the original.
constexpr bool Acts(unsigned number) noexcept {
  if (std::is_constant_evaluated()) return false;
  if (reached != nullptr) reached[number].store(1, std::memory_order_relaxed);
  return active == number;
}

}  // namespace mutation

#define VYR_MUTANT(number) __builtin_expect(::mutation::Acts(number), 0)
