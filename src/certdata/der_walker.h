// Walks a DER certificate (X.690) and keeps its serial number, names and validity.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

// Results of the last walk. Lengths are the lengths stored.
extern std::array<std::uint8_t, 64> ucSN; // the serial number as a DER INTEGER
extern std::int32_t snLen;
extern std::array<std::uint8_t, 1024> ucIssuer; // DER Name
extern std::int32_t isLen;
extern std::array<std::uint8_t, 1024> ucSubject; // DER Name
extern std::int32_t sjLen;
extern std::array<std::uint8_t, 13> notBefore; // content of the time: YYMMDDHHMMSSZ
extern std::array<std::uint8_t, 13> notAfter;
extern std::array<std::uint8_t, 642> sIssuer; // text of name attributes in fixed slots
extern std::array<std::uint8_t, 898> sSubject;

// State of the walk.
extern std::uint64_t bufIndex;  // octets read or skipped of the input
extern std::uint64_t bufLength; // length of the input
extern std::int32_t fPos;       // position told by the fatal messages; never reset
extern std::int32_t cIndex;     // advances on recognised items; decides what is kept
extern std::int32_t atribInd;   // names kept, 0 to 3
extern std::array<char, 128> lastOID;
extern std::uint8_t isEmail;

// Walks the first `length` octets of `buffer`. Content that runs past `length` is read on from the
// rest of `buffer` and never beyond it. Always 0. Three kinds of malformed data write a message to
// standard error, free the module's lock and end the process with status 1.
std::int32_t parseASN1(std::span<const std::uint8_t> buffer, std::uint64_t length) noexcept;
