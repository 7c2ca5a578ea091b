#include "tests/scenario/census.h"

#include <cxxabi.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tests/unit/out_of_memory.h"

namespace test {
namespace {

constexpr std::string_view kProduct = "moru_vyr::";
constexpr std::string_view kUnnamed = "(anonymous namespace)";

// What the census itself allocates must not be counted.
template <class T>
struct Plain {
  using value_type = T;
  Plain() = default;
  template <class U>
  Plain(const Plain<U>&) noexcept {}  // NOLINT: as the containers convert it
  T* allocate(std::size_t n) {
    void* const memory = std::malloc(n * sizeof(T));
    if (memory == nullptr) std::abort();
    return static_cast<T*>(memory);
  }
  void deallocate(T* memory, std::size_t) noexcept { std::free(memory); }
  bool operator==(const Plain&) const { return true; }
};
template <class Key, class Value>
using Map = std::unordered_map<Key, Value, std::hash<Key>, std::equal_to<Key>,
                               Plain<std::pair<const Key, Value>>>;

struct Function {
  std::uintptr_t begin = 0;
  const char* name = nullptr;
};

// The functions of this program, by their addresses.
class Symbols {
 public:
  Symbols() {
    const int file = ::open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    struct stat size = {};
    if (file < 0 || ::fstat(file, &size) != 0) std::abort();
    void* const view =
        ::mmap(nullptr, static_cast<std::size_t>(size.st_size), PROT_READ, MAP_PRIVATE, file, 0);
    if (view == MAP_FAILED) std::abort();
    bytes_ = static_cast<const char*>(view);
    ::close(file);
    const auto& header = At<ElfW(Ehdr)>(0);
    for (unsigned i = 0; i < header.e_shnum; ++i) {
      const auto& section = At<ElfW(Shdr)>(header.e_shoff + i * sizeof(ElfW(Shdr)));
      if (section.sh_type == SHT_SYMTAB)
        Read(section, At<ElfW(Shdr)>(header.e_shoff + section.sh_link * sizeof(ElfW(Shdr))));
    }
    std::sort(functions_.begin(), functions_.end(),
              [](const Function& a, const Function& b) { return a.begin < b.begin; });
  }
  // "" where it is no function of this program.
  const char* NameAt(std::uintptr_t address) const {
    const auto next =
        std::upper_bound(functions_.begin(), functions_.end(), address,
                         [](std::uintptr_t at, const Function& one) { return at < one.begin; });
    return next == functions_.begin() || next == functions_.end() ? "" : std::prev(next)->name;
  }

 private:
  template <class T>
  const T& At(std::size_t offset) const {
    return *reinterpret_cast<const T*>(bytes_ + offset);
  }
  void Read(const ElfW(Shdr) & symbols, const ElfW(Shdr) & names) {
    std::uintptr_t bias = 0;
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* out) {
          *static_cast<std::uintptr_t*>(out) = info->dlpi_addr;
          return 1;  // the first is the program
        },
        &bias);
    for (std::size_t at = 0; at < symbols.sh_size; at += sizeof(ElfW(Sym))) {
      const auto& one = At<ElfW(Sym)>(symbols.sh_offset + at);
      if ((one.st_info & 0xf) != STT_FUNC || one.st_value == 0) continue;
      functions_.push_back({bias + one.st_value, bytes_ + names.sh_offset + one.st_name});
    }
  }

  const char* bytes_ = nullptr;  // for as long as the program runs
  std::vector<Function> functions_;
};

// Without a lock: all simulated threads share one thread of the host.
struct State {
  Symbols symbols;
  Map<std::uintptr_t, bool> is_product;  // by caller
  Map<void*, std::uintptr_t> blocks;     // with their callers
};
State* the_state = nullptr;  // never freed

// Its name up to its parameters.
std::string_view WithoutParameters(std::string_view readable) {
  int depth = 0;  // of template arguments
  for (std::size_t at = 0; at < readable.size(); ++at) {
    if (readable.substr(at, kUnnamed.size()) == kUnnamed) {
      at += kUnnamed.size() - 1;
    } else if (readable[at] == '<') {
      ++depth;
    } else if (readable[at] == '>') {
      --depth;
    } else if (readable[at] == '(' && depth == 0 && at > 0) {
      return readable.substr(0, at);
    }
  }
  return readable;
}

void Note(void* memory, void* caller) noexcept {
  State& state = *the_state;
  const auto from = reinterpret_cast<std::uintptr_t>(caller);
  const auto [known, is_new] = state.is_product.try_emplace(from);
  if (is_new) known->second = IsOfProduct(state.symbols.NameAt(from));
  if (known->second) state.blocks[memory] = from;
}

void Forget(void* memory) noexcept { the_state->blocks.erase(memory); }

std::string Readable(const char* name) {
  char* const text = abi::__cxa_demangle(name, nullptr, nullptr, nullptr);
  const std::string readable = text != nullptr ? text : name;
  std::free(text);
  return readable;
}

}  // namespace

bool IsOfProduct(const char* symbol) {
  // Takes its memory from malloc, which nobody counts.
  char* const text = abi::__cxa_demangle(symbol, nullptr, nullptr, nullptr);
  const std::string_view readable = text != nullptr ? text : symbol;
  const bool is = WithoutParameters(readable).find(kProduct) != std::string_view::npos;
  std::free(text);
  return is;
}

void PrepareCensus() {
  if (the_state == nullptr) the_state = new State;
}

void StartCensus() {
  PrepareCensus();
  WatchAllocations(Note, Forget);
}

std::map<std::string, long> Census() {
  State& state = *the_state;
  Map<std::uintptr_t, long> by_caller;
  for (const auto& [memory, caller] : state.blocks) ++by_caller[caller];
  std::map<std::string, long> by_name;
  for (const auto& [caller, count] : by_caller)
    by_name[Readable(state.symbols.NameAt(caller))] += count;
  return by_name;
}

}  // namespace test
