// Read before main. The notes lie in memory that the processes of the scenarios share.
#include <sys/mman.h>

#include <cstdlib>

#include "mutation/mutant.h"

namespace mutation {
namespace {

constexpr size_t kMostMutants = 1 << 20;

unsigned FromEnvironment() noexcept {
  const char* const text = std::getenv("VYR_MUTANT");
  return text != nullptr ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : 0;
}

std::atomic<unsigned char>* Notes() noexcept {
  if (std::getenv("VYR_MUTANTS_REACHED") == nullptr) return nullptr;
  void* const notes =
      ::mmap(nullptr, kMostMutants, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return notes != MAP_FAILED ? static_cast<std::atomic<unsigned char>*>(notes) : nullptr;
}

}  // namespace

unsigned active = FromEnvironment();
std::atomic<unsigned char>* reached = Notes();

}  // namespace mutation
