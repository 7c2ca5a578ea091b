// How a target says that something must be so. A finding names the line, in every kind of build.
#pragma once
#include <sanitizer/allocator_interface.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>

namespace fuzz {

inline void Require(bool condition, const char* what = "", const char* file = __builtin_FILE(),
                    int line = __builtin_LINE()) {
  if (condition) return;
  std::fprintf(stderr, "%s:%d: required, and not so: %s\n", file, line, what);
  std::abort();
}

// What the program has allocated since this object was made.
class Growth {
 public:
  std::size_t bytes() const {
    const std::size_t now = __sanitizer_get_current_allocated_bytes();
    return now > begin_ ? now - begin_ : 0;
  }

 private:
  const std::size_t begin_ = __sanitizer_get_current_allocated_bytes();
};

}  // namespace fuzz
