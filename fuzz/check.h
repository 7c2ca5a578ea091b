// How a target says that something must be so. A finding names the line, in every kind of build.
#pragma once
#include <cstddef>
#include <cstdio>
#include <cstdlib>

// The address sanitizer's; a build that counts coverage has none.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace fuzz {

inline void Require(bool condition, const char* what = "", const char* file = __builtin_FILE(),
                    int line = __builtin_LINE()) {
  if (condition) return;
  std::fprintf(stderr, "%s:%d: required, and not so: %s\n", file, line, what);
  std::abort();
}

// What the program has allocated since this object was made; 0 where nobody counts.
class Growth {
 public:
  std::size_t bytes() const { return Allocated() > begin_ ? Allocated() - begin_ : 0; }

 private:
  static std::size_t Allocated() {
    return __sanitizer_get_current_allocated_bytes != nullptr
               ? __sanitizer_get_current_allocated_bytes()
               : 0;
  }

  const std::size_t begin_ = Allocated();
};

}  // namespace fuzz
