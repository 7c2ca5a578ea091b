// What differs between the library for 32-bit games and the one for 64-bit games: the width of
// handles and pointers, and what follows from it. Everything else is the same in both, byte for
// byte: a client program of either kind serves games of either kind.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include <cstddef>
#include <cstdint>

namespace common {

inline constexpr bool kIsX64 = sizeof(void*) == 8;

constexpr std::size_t SizeByKind(std::size_t x86, std::size_t x64) { return kIsX64 ? x64 : x86; }

static_assert(sizeof(void*) == SizeByKind(4, 8));
static_assert(sizeof(HANDLE) == sizeof(void*) && sizeof(std::uintptr_t) == sizeof(void*));
static_assert(sizeof(SOCKET) <= sizeof(void*));
static_assert(sizeof(WSPUPCALLTABLE) == SizeByKind(60, 120));
static_assert(sizeof(WSPPROC_TABLE) == SizeByKind(120, 240));

}  // namespace common
