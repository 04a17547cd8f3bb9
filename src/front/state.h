// Module-wide state that the front owns and the core uses under the lock.
#pragma once

#include "src/front/pkcs11.h"

#include <array>
#include <cstddef>
#include <cstdint>

// PC/SC context; 0 means none yet. Established by the first slot listing, or handed in by the host.
extern SCARDCONTEXT hSC;

// Bit 0 set: the objects must be loaded from the token before the table is next used.
inline constexpr std::uint64_t RELOAD_OBJECTS = 1;
extern std::uint64_t oiFlags;

// The function list that C_GetFunctionList hands out: version 2.30, 69 entries.
extern VeltFunctionList functions;

// The last time stamp, 20 characters ("2026.01.31 23:59:59 "), with room for the terminator.
inline constexpr std::size_t TIME_STAMP_LENGTH = 20;
extern std::array<char, TIME_STAMP_LENGTH + 1> str_t;

// Writes the local time to str_t; returns the number of characters, 0 if it does not fit.
std::size_t getTime() noexcept;
