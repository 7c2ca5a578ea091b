// A process on a machine where this provider is installed: its name, whether the client program
// lists it, and the contents of the catalogue. The product's process-wide state is fresh, because
// each scenario runs in a process of its own.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "abi/restriction_formats.h"
#include "hooks/hook_entries.h"

namespace moru_vyr::lsp {
struct MendingRegion;
}

namespace test {

template <class T>
class ClientRegion;

// Our layered entries have a GUID of their own, as installers assign them; only the hidden entry
// has the provider's GUID.
inline constexpr GUID kLayerGuid = {
    0x6a1d0c52, 0x7e35, 0x4f18, {0x8b, 0x02, 0x11, 0x21, 0x31, 0x41, 0x51, 0x61}};
// A third-party provider.
inline constexpr GUID kForeignGuid = {
    0x0b1f6f7e, 0x53c1, 0x4f0e, {0x9a, 0x01, 0x10, 0x20, 0x30, 0x40, 0x50, 0x60}};
inline constexpr wchar_t kForeignPath[] = L"C:\\foreign\\layer.dll";

// What the third-party provider does when it is started, and what it was started with.
struct ForeignProvider {
  int result = 0;
  WSPPROC_TABLE table{};  // the base provider's, unless a test changes it
  DWORD start_takes_ms = 0;
  int starts = 0;
  WORD version = 0;
  WSAPROTOCOL_INFOW info{};
  WSPUPCALLTABLE upcalls{};
};
ForeignProvider& Foreign();

// For tests without a GameProcess: gives the library a provider that takes five seconds to start,
// for its own sockets.
void UseSlowProvider();

// A catalogue entry of our own, layered above the entries of `chain`.
WSAPROTOCOL_INFOW LayeredTcp(DWORD id, const std::vector<DWORD>& chain);

class GameProcess {
 public:
  static constexpr DWORD kPid = 4321;
  static constexpr DWORD kOwnId = 2000;  // of the hidden entry; the layered ones follow
  static constexpr DWORD kForeignId = 3000;

  // C:\Games\Dawn\dawn.exe, with a catalogue in which this provider is above the three base
  // entries.
  GameProcess();
  ~GameProcess();
  GameProcess(const GameProcess&) = delete;
  GameProcess& operator=(const GameProcess&) = delete;

  void Is(const std::wstring& path, const std::string& command_line = "");
  // The client program lists this process; its log is written to C:\logs.
  void ListAsGame(common::u32 log_level = 0, const std::string& log_path = "C:\\logs\\",
                  common::u32 net_mode = 0x18);
  // The client program requests these mendings, bits of MendingRecord. Call it before the first
  // start.
  void IsMended(common::u32 bits);
  // Changes its record in the client program's list. Call it before the first start.
  void Configures(const std::function<void(moru_vyr::lsp::AccConfigRecord*)>& change);
  // Lets Winsock start the provider, at the first socket of each protocol.
  void IsStartedBySockets();
  // Puts the third-party provider's TCP entry below ours, instead of the base provider's.
  void LayerOverForeign(const std::vector<DWORD>& foreign_chain = {});

  // The first layered entry of the catalogue for that protocol.
  WSAPROTOCOL_INFOW Layered(int protocol) const;
  // Starts the provider as Winsock does, and fills `table` and `data`.
  int Start(int protocol);
  int Start(WSAPROTOCOL_INFOW* info);

  // Whether the last start returned the hooked table.
  bool GotHookedTable() const;
  bool GotBaseTable() const;
  bool GotEmptyTable() const;

  // The traces so far, without prefix and line end.
  const std::vector<std::string>& traces() const { return traces_; }
  int TraceCount(const std::string& text) const;
  bool Traced(const std::string& text) const { return TraceCount(text) > 0; }
  // Whether a trace begins with that text.
  bool TracedStart(const std::string& text) const;
  std::string AllTraces() const;

  WSPPROC_TABLE table{};
  WSPDATA data{};
  WSPUPCALLTABLE upcalls{};

 private:
  HANDLE region_ = nullptr;
  std::unique_ptr<ClientRegion<moru_vyr::lsp::MendingRegion>> mending_;
  std::vector<std::string> traces_;
};

}  // namespace test
