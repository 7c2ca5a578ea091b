#include "patch.h"

#include <algorithm>
#include <cstdint>
#include <unordered_map>
#include <vector>

namespace winsock_host {
namespace {

struct PatchState {
  PatchState() { InitializeCriticalSection(&lock); }

  std::unordered_map<void*, void*> replacements;  // constant once patching has begun
  std::vector<HMODULE> untouched;
  CRITICAL_SECTION lock;  // one thread at a time changes page protections; taken inside the
                          // loader's lock, never around it
};
PatchState& ThePatchState() {
  static PatchState& state =
      *new PatchState;  // never destroyed: threads outlive static destructors
  return state;
}

// A loaded image, with every offset checked against its size: packers produce odd headers.
class Image {
 public:
  explicit Image(HMODULE module) : base_(reinterpret_cast<uint8_t*>(module)) {
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base_);
    if (dos->e_magic != IMAGE_DOS_SIGNATURE) return;
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base_ + dos->e_lfanew);
    if (nt->Signature != IMAGE_NT_SIGNATURE) return;
    if (nt->OptionalHeader.Magic != IMAGE_NT_OPTIONAL_HDR_MAGIC) return;
    nt_ = nt;
  }
  DWORD size() const { return nt_ != nullptr ? nt_->OptionalHeader.SizeOfImage : 0; }

  template <typename Record>
  Record* At(DWORD rva) const {
    if (rva == 0 || rva >= size() || size() - rva < sizeof(Record)) return nullptr;
    return reinterpret_cast<Record*>(base_ + rva);
  }
  DWORD Directory(unsigned index) const {
    if (nt_ == nullptr || index >= nt_->OptionalHeader.NumberOfRvaAndSizes) return 0;
    return nt_->OptionalHeader.DataDirectory[index].VirtualAddress;
  }

 private:
  uint8_t* base_;
  const IMAGE_NT_HEADERS* nt_ = nullptr;
};

void ReplaceSlot(void** slot) {
  const auto& replacements = ThePatchState().replacements;
  const auto found = replacements.find(*slot);
  if (found == replacements.end()) return;
  DWORD protection = 0;
  if (!VirtualProtect(slot, sizeof(*slot), PAGE_READWRITE, &protection)) return;
  InterlockedExchangePointer(slot, found->second);
  VirtualProtect(slot, sizeof(*slot), protection, &protection);
}

// The slots end with a zero. A delay-loaded table's length shows in its name table instead: the
// slots may hold stubs to the end.
void ReplaceSlots(const Image& image, DWORD slots, DWORD names) {
  for (DWORD at = 0;; at += sizeof(void*)) {
    void** slot = image.At<void*>(slots + at);
    if (slot == nullptr || *slot == nullptr) return;
    if (names != 0) {
      const auto* name = image.At<uintptr_t>(names + at);
      if (name == nullptr || *name == 0) return;
    }
    ReplaceSlot(slot);
  }
}

void PatchImports(const Image& image) {
  DWORD at = image.Directory(IMAGE_DIRECTORY_ENTRY_IMPORT);
  if (at == 0) return;
  for (;; at += sizeof(IMAGE_IMPORT_DESCRIPTOR)) {
    const auto* imports = image.At<IMAGE_IMPORT_DESCRIPTOR>(at);
    if (imports == nullptr || imports->Name == 0 || imports->FirstThunk == 0) return;
    ReplaceSlots(image, imports->FirstThunk, 0);
  }
}

void PatchDelayedImports(const Image& image) {
  constexpr DWORD kOffsetsAreRelative = 1;
  DWORD at = image.Directory(IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT);
  if (at == 0) return;
  for (;; at += sizeof(IMAGE_DELAYLOAD_DESCRIPTOR)) {
    const auto* imports = image.At<IMAGE_DELAYLOAD_DESCRIPTOR>(at);
    if (imports == nullptr || imports->DllNameRVA == 0) return;
    if ((imports->Attributes.AllAttributes & kOffsetsAreRelative) == 0) return;
    if (imports->ImportNameTableRVA == 0) continue;
    ReplaceSlots(image, imports->ImportAddressTableRVA, imports->ImportNameTableRVA);
  }
}

// The loader's own walk of its list, under its lock. Known to the platform's headers only in part.
struct LoaderEntry {
  LIST_ENTRY in_load_order;
  LIST_ENTRY in_memory_order;
  LIST_ENTRY in_initialisation_order;
  HMODULE base;
};
using Visitor = void(NTAPI*)(LoaderEntry* entry, void* context, BOOLEAN* stop);
using EnumerateModules = LONG(NTAPI*)(void* reserved, Visitor visit, void* context);

void NTAPI PatchVisited(LoaderEntry* entry, void*, BOOLEAN* stop) {
  PatchModule(entry->base);
  *stop = FALSE;
}

}  // namespace

void AddReplacement(void* platform_function, void* replacement) {
  if (platform_function != nullptr) ThePatchState().replacements[platform_function] = replacement;
}

void NeverPatch(HMODULE module) {
  if (module != nullptr) ThePatchState().untouched.push_back(module);
}

void* ReplacementFor(void* function) {
  const auto& replacements = ThePatchState().replacements;
  const auto found = replacements.find(function);
  return found == replacements.end() ? function : found->second;
}

void PatchModule(HMODULE module) {
  PatchState& state = ThePatchState();
  const auto& untouched = state.untouched;
  if (std::find(untouched.begin(), untouched.end(), module) != untouched.end()) return;
  const Image image(module);
  if (image.size() == 0) return;
  EnterCriticalSection(&state.lock);
  PatchImports(image);
  PatchDelayedImports(image);
  LeaveCriticalSection(&state.lock);
}

void PatchNewModules() {
  static const auto enumerate = reinterpret_cast<EnumerateModules>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "LdrEnumerateLoadedModules")));
  const DWORD last_error = GetLastError();
  if (enumerate != nullptr) enumerate(nullptr, PatchVisited, nullptr);
  SetLastError(last_error);
}

bool IsInModule(HMODULE module, const void* address) {
  const auto base = reinterpret_cast<uintptr_t>(module);
  const auto at = reinterpret_cast<uintptr_t>(address);
  return at >= base && at - base < Image(module).size();
}

}  // namespace winsock_host
