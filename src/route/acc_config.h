// The configuration of this process: the record of its game, if the client program lists it.
//
// One global record, zero at load. It is replaced while the provider starts, under the start-up
// lock, and every thread reads it without a lock afterwards. The library never watches the region:
// a later change by the client reaches only processes that start later.
#pragma once
#include "abi/acc_config_formats.h"

namespace moru_vyr::lsp {

// The game id of the network probe's configuration, which the library makes itself.
inline constexpr u64 kNetProbeGameId = 99999;

// A game's record and the paths that all games share. Every text in it is terminated and every
// count is within its array.
struct AccConfig : AccConfigRecord {
  char route_binary_file_path[260] = {};
  char second_path[260] = {};
};

const AccConfig* GetAccConfig() noexcept;

// The only ways to change it: they also set the level below which log statements stay silent.
// The first replaces the game's record and keeps the two paths.
void ReplaceAccConfig(const AccConfigRecord& record) noexcept;
void ReplaceAccConfig(const AccConfig& config) noexcept;

// Fills in the judge's settings that the client has left unset, so that a bad link is left soon and
// a good one stays in use: docs/switching.md has the figures. Settings that allow switching stay
// unset.
void FillUnsetSettings(AccConfigRecord* record) noexcept;

// Looks for the record that lists this process's path (ProcessInfo must be filled) and installs it.
// True if there is one and it says that the game is accelerated. A record that says otherwise stays
// installed all the same. Writes what it finds to the debugger output. Waits for the region's mutex
// without limit; any failure means that the process is not served.
bool ReadAccConfig() noexcept;

}  // namespace moru_vyr::lsp
