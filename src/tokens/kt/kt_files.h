// The KAZTOKEN's files: the map file with its records, and reading and writing the selected file.
#pragma once

#include "src/core/bytes.h"
#include "src/front/debug.h"
#include "src/front/pkcs11.h"

#include <cstddef>
#include <cstdint>

// Takes the size of the selected file from the reply's control parameters into hiByte and loByte.
// 0, or 2 when the reply has none.
std::uint64_t TLVParser() noexcept;

// Reads the whole selected file (hiByte, loByte); *pLength becomes the number of bytes read. 0; 2
// the token refused; 3 more came than the buffer holds.
std::uint64_t readBinary(CK_SESSION_HANDLE hSession, velt::ByteRoom buffer,
                         std::uint64_t* pLength) noexcept;

// Takes the records of a map file image into tmpLabel, tmpLabelLen, tmpObjCount and lastID. Always
// 0. Records that have no room there, in size or in number, are left out.
std::uint64_t mapFileParser(const std::uint8_t* map, std::uint64_t length) noexcept;

inline constexpr std::uint8_t MAP_APPEND = 0;
inline constexpr std::uint8_t MAP_REMOVE = 1;

// Replaces the map file by `map` with `record` appended (with its zero byte), or removed (without
// it) when `mode` is MAP_REMOVE. 0; 1 no such record; 2 the token refused; 6 the image has no room
// for it, or it could not be written.
std::uint64_t updateMapFile(CK_SESSION_HANDLE hSession, std::uint8_t mode, const std::uint8_t* map,
                            std::uint64_t mapLength, const std::uint8_t* record,
                            std::uint64_t recordLength) noexcept;

// Writes to the selected file from `offset` on: 0, or 10 after a refused chunk.
std::uint64_t VELT_WriteBinaryKT(CK_SESSION_HANDLE hSession, const std::uint8_t* data,
                                 std::int16_t offset, std::int16_t length) noexcept;

namespace velt {

// Loads the map file, or creates its directory when there is none. 0, or what ends the load; the
// image is then empty.
std::uint64_t openMapFile(CK_SESSION_HANDLE hSession) noexcept;

// What reading a file passes when the token refuses a block, or the rest behind the blocks.
struct ReadRefusals {
    Message block;
    Message rest;
};

// How reading the selected file ended.
struct FileReading {
    enum class End { Done, Refused, BlockTooLarge, RestTooLarge } end = End::Done;
    std::uint64_t total = 0; // bytes that the token sent
    bool fits = true;        // all of them are in the buffer
};

// Reads the selected file's blocks and the rest behind them. What has no room ends the reading, or
// is dropped when `readsOn`.
FileReading readSelectedFile(CK_SESSION_HANDLE hSession, ByteRoom buffer, bool readsOn,
                             const ReadRefusals& refusals) noexcept;

} // namespace velt
