// The call tables of the next providers, one slot a protocol, and the replacement of entries in
// the table that Winsock gets.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

namespace moru_vyr::lsp {

constexpr int kProtocolTcp = 6;
constexpr int kProtocolUdp = 17;
// A catalogue entry for raw sockets says 0; a program that opens a raw socket to see all protocols
// says 255. So the slot is filled under one number and found under the other.
constexpr int kProtocolRawSave = 0;
constexpr int kProtocolRawFind = 255;

// Stores both tables under `protocol` (6, 17 or 0; any other number stores nothing). If `out` is
// given, it gets the next provider's table with our entries in it, for any protocol. Start-up only,
// under its lock; lookups may run meanwhile.
void SaveDowncallTable(int protocol, const WSPUPCALLTABLE* upcalls, const WSPPROC_TABLE* next_table,
                       LPWSPPROC_TABLE out) noexcept;

// The table that a new socket of `protocol` uses, and its type (6, 17 or 255). A number without
// a filled slot of its own gets the first filled one of TCP, UDP and raw. Null and 0 before the
// first hooked start. Any thread; `out_type` may be null.
WSPPROC_TABLE* GetDowncallTable(int protocol, short* out_type) noexcept;

// Puts the twelve replaced entries into `table` and sets the process's switches. False for a null
// table. Start-up only.
bool HookWSPAPI(LPWSPPROC_TABLE table) noexcept;

}  // namespace moru_vyr::lsp
