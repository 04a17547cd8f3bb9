// Conversion between a certificate and its stored form, a gzip member (RFC 1952).
#pragma once

#include <cstdint>

// Expands a gzip member. On entry the low 32 bits of *outLen are the room at `out`, on return
// *outLen is the number of bytes produced. Returns zlib's code: 1 (Z_STREAM_END) is success.
std::int32_t ungzip(const std::uint8_t* in, std::uint32_t inLen, std::uint8_t* out,
                    std::uint64_t* outLen) noexcept;

// Compresses to a gzip member. On entry *outLen is the room at `out`, on return the bytes produced
// (unchanged when zlib cannot start). Returns zlib's code: 1 (Z_STREAM_END) is success.
std::int32_t gzip(const std::uint8_t* in, std::uint32_t inLen, std::uint8_t* out,
                  std::uint32_t* outLen) noexcept;
