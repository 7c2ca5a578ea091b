// The resources of a process at one moment: threads, handles by kind, sockets, thread-local slots,
// memory. For comparison with a later moment.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include <tlhelp32.h>
#include <winternl.h>

#include <map>
#include <string>

namespace probe {

struct Belongings {
  int threads = 0;
  int sockets = 0;  // 0 while Winsock is not started
  std::map<std::string, int> handles;
  DWORD tls_index = 0;   // the lowest free one
  size_t memory_kb = 0;  // private pages and views of sections
};

inline int CountThreads() {
  const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry = {};
  entry.dwSize = sizeof(entry);
  int count = 0;
  for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
    if (entry.th32OwnerProcessID == GetCurrentProcessId()) ++count;
  }
  CloseHandle(snapshot);
  return count;
}

// Gives ending threads some time to end. Returns the final count.
inline int CountThreadsOnceAtMost(int wanted, DWORD patience_ms) {
  const DWORD begin = GetTickCount();
  int count = CountThreads();
  while (count > wanted && GetTickCount() - begin < patience_ms) {
    Sleep(10);
    count = CountThreads();
  }
  return count;
}

// Empty if the value is not a handle.
inline std::string KindOfHandle(HANDLE handle) {
  static const auto query = reinterpret_cast<decltype(&NtQueryObject)>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQueryObject")));
  alignas(8) char buffer[1024];
  ULONG size = 0;
  DWORD flags = 0;
  if (!GetHandleInformation(handle, &flags)) return "";
  if (query(handle, ObjectTypeInformation, buffer, sizeof(buffer), &size) < 0) return "other";
  const auto& name = reinterpret_cast<const UNICODE_STRING*>(buffer);
  return std::string(name->Buffer, name->Buffer + name->Length / sizeof(wchar_t));
}

inline size_t CountMemoryKb() {
  size_t bytes = 0;
  MEMORY_BASIC_INFORMATION region = {};
  for (char* at = nullptr; VirtualQuery(at, &region, sizeof(region)) != 0;
       at = static_cast<char*>(region.BaseAddress) + region.RegionSize) {
    if (region.State == MEM_COMMIT && region.Type != MEM_IMAGE) bytes += region.RegionSize;
  }
  return bytes / 1024;
}

inline Belongings Look() {
  constexpr uintptr_t kHighestHandle = 0x8000;
  Belongings all;
  all.threads = CountThreads();
  for (uintptr_t value = 4; value <= kHighestHandle; value += 4) {
    const std::string kind = KindOfHandle(reinterpret_cast<HANDLE>(value));
    if (kind.empty()) continue;
    ++all.handles[kind];
    int type = 0;
    int length = sizeof(type);
    if (getsockopt(static_cast<SOCKET>(value), SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&type),
                   &length) == 0) {
      ++all.sockets;
    }
  }
  all.tls_index = TlsAlloc();
  TlsFree(all.tls_index);
  all.memory_kb = CountMemoryKb();
  return all;
}

// One line of JSON.
inline std::string Text(const Belongings& all) {
  std::string text = "{\"threads\":" + std::to_string(all.threads) +
                     ",\"sockets\":" + std::to_string(all.sockets) +
                     ",\"tls_index\":" + std::to_string(all.tls_index) +
                     ",\"memory_kb\":" + std::to_string(all.memory_kb) + ",\"handles\":{";
  for (const auto& [kind, count] : all.handles) {
    if (text.back() != '{') text += ',';
    text += "\"" + kind + "\":" + std::to_string(count);
  }
  return text + "}}";
}

}  // namespace probe
