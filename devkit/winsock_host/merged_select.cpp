#include "merged_select.h"

#include <windows.h>
#include <winternl.h>

#include <atomic>
#include <cstddef>
#include <limits>
#include <new>
#include <vector>

namespace winsock_base {
namespace {

// The request to the driver of sockets that select consists of.
constexpr ULONG kPollCode = 0x12024;
constexpr ULONG kRead = 0x01, kOutOfBand = 0x02, kWrite = 0x04, kHangup = 0x08, kReset = 0x10,
                kClosed = 0x20, kAccept = 0x80, kConnectFailed = 0x100;
constexpr ULONG kReadMask = kRead | kAccept | kHangup | kReset;
constexpr ULONG kWriteMask = kWrite;
constexpr ULONG kExceptMask = kOutOfBand | kConnectFailed;
constexpr NTSTATUS kDone = 0, kTimeout = 0x102, kPending = 0x103, kNoEvent = -1;
constexpr LONGLONG kForever = std::numeric_limits<LONGLONG>::max();

struct Entry {
  SOCKET socket;
  ULONG flags;
  NTSTATUS status;
};
struct Head {
  LONGLONG timeout;
  ULONG count;
  ULONG exclusive;
};
static_assert(sizeof(Head) == 16 && sizeof(Entry) == sizeof(SOCKET) + 8);

using DeviceCall = NTSTATUS(NTAPI*)(HANDLE, HANDLE, PIO_APC_ROUTINE, void*, IO_STATUS_BLOCK*, ULONG,
                                    void*, ULONG, void*, ULONG);

// Null anywhere but on Wine.
DeviceCall WineDeviceCall() {
  const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
  if (GetProcAddress(ntdll, "wine_get_version") == nullptr) return nullptr;
  return reinterpret_cast<DeviceCall>(
      reinterpret_cast<void*>(GetProcAddress(ntdll, "NtDeviceIoControlFile")));
}

std::size_t Size(const fd_set* set) { return set != nullptr ? set->fd_count : 0; }

struct SpareEvents {
  ~SpareEvents() {
    for (std::atomic<HANDLE>& place : places) {
      if (const HANDLE event = place.exchange(nullptr)) CloseHandle(event);
    }
  }

  std::atomic<HANDLE> places[4] = {};  // null: free
};
constinit SpareEvents spares;  // closed when the module is unloaded

// An event for one call. Those that are free are kept, since making one costs as much as the call.
class SpareEvent {
 public:
  SpareEvent() {
    for (std::atomic<HANDLE>& place : spares.places) {
      handle_ = place.exchange(nullptr);
      if (handle_ != nullptr) return;
    }
    handle_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  }
  ~SpareEvent() {
    for (std::atomic<HANDLE>& place : spares.places) {
      HANDLE none = nullptr;
      if (place.compare_exchange_strong(none, handle_)) return;
    }
    CloseHandle(handle_);
  }
  SpareEvent(const SpareEvent&) = delete;
  SpareEvent& operator=(const SpareEvent&) = delete;

  HANDLE get() const { return handle_; }

 private:
  HANDLE handle_ = nullptr;
};

class Request {
 public:
  Request(const timeval* timeout, std::size_t most) {
    bytes_.reserve(sizeof(Head) + most * sizeof(Entry));
    bytes_.resize(sizeof(Head));
    head().timeout = kForever;
    if (timeout != nullptr)
      head().timeout = timeout->tv_sec * -10'000'000LL + timeout->tv_usec * -10LL;
  }

  // True if one of the sockets has had an entry.
  bool Add(const fd_set* set, ULONG flags) {
    bool shared = false;
    for (u_int i = 0; set != nullptr && i < set->fd_count; ++i) {
      if (Entry* const known = Find(set->fd_array[i], i)) {
        shared = shared || (known->flags & flags) == 0;
        known->flags |= flags;
      } else {
        bytes_.resize(bytes_.size() + sizeof(Entry));
        entries()[head().count++] = {set->fd_array[i], flags, 0};
      }
    }
    return shared;
  }

  NTSTATUS Make(DeviceCall call) {
    const SpareEvent event;
    if (event.get() == nullptr) return kNoEvent;
    IO_STATUS_BLOCK io = {};
    const auto device = reinterpret_cast<HANDLE>(entries()[head().count - 1].socket);
    const auto size = static_cast<ULONG>(bytes_.size());
    const NTSTATUS status = call(device, event.get(), nullptr, nullptr, &io, kPollCode,
                                 bytes_.data(), size, bytes_.data(), size);
    if (status != kPending) return status;
    while (WaitForSingleObjectEx(event.get(), INFINITE, TRUE) == WAIT_IO_COMPLETION) {
    }
    return io.Status;
  }

  // Leaves in the set those sockets for which one of the flags was answered. Returns how many.
  int Keep(fd_set* set, ULONG flags) {
    if (set == nullptr) return 0;
    u_int kept = 0;
    for (u_int i = 0; i < set->fd_count; ++i) {
      const SOCKET s = set->fd_array[i];
      const Entry* const said = Find(s, i);
      if (said == nullptr || (said->flags & flags) == 0 || Holds(*set, kept, s)) continue;
      set->fd_array[kept++] = s;
    }
    set->fd_count = kept;
    return static_cast<int>(kept);
  }

  // Whether a socket that is not in this set was closed meanwhile.
  bool LostOneOutside(const fd_set* set) {
    for (ULONG i = 0; i < head().count; ++i) {
      const Entry& said = entries()[i];
      if ((said.flags & kClosed) == 0) continue;
      if (set == nullptr || !Holds(*set, set->fd_count, said.socket)) return true;
    }
    return false;
  }

 private:
  Head& head() { return *reinterpret_cast<Head*>(bytes_.data()); }
  Entry* entries() { return reinterpret_cast<Entry*>(bytes_.data() + sizeof(Head)); }

  static bool Holds(const fd_set& set, u_int count, SOCKET s) {
    for (u_int i = 0; i < count; ++i) {
      if (set.fd_array[i] == s) return true;
    }
    return false;
  }

  // Mostly at the place where the socket is in its set, too.
  Entry* Find(SOCKET s, ULONG likely) {
    Entry* const all = entries();
    const ULONG count = head().count;
    if (likely < count && all[likely].socket == s) return &all[likely];
    for (ULONG i = 0; i < count; ++i) {
      if (all[i].socket == s) return &all[i];
    }
    return nullptr;
  }

  std::vector<std::byte> bytes_;
};

}  // namespace

int MergedSelect(int n, fd_set* reads, fd_set* writes, fd_set* excepts, timeval* timeout) try {
  static const DeviceCall call = WineDeviceCall();
  const bool aliased = reads == writes || reads == excepts || writes == excepts;
  if (call == nullptr || aliased) return select(n, reads, writes, excepts, timeout);
  Request request(timeout, Size(reads) + Size(writes) + Size(excepts));
  request.Add(reads, kReadMask);
  const bool also_writes = request.Add(writes, kWriteMask);
  const bool also_excepts = request.Add(excepts, kExceptMask);
  if (!also_writes && !also_excepts) return select(n, reads, writes, excepts, timeout);
  const NTSTATUS status = request.Make(call);
  if (status != kDone && status != kTimeout) return select(n, reads, writes, excepts, timeout);
  const bool lost = request.LostOneOutside(reads);
  int ready = request.Keep(reads, kReadMask | kClosed);
  ready += request.Keep(writes, kWriteMask);
  ready += request.Keep(excepts, kExceptMask);
  WSASetLastError(lost ? WSAENOTSOCK : 0);
  return lost ? SOCKET_ERROR : ready;
} catch (const std::bad_alloc&) {
  return select(n, reads, writes, excepts, timeout);
}

}  // namespace winsock_base
