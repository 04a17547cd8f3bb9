// The files of a simulated KAZTOKEN: directories, transparent files and key files.
#pragma once

#include "sim/cards/card.h"
#include "sim/cards/gost_key.h"
#include "sim/cards/rsa_key.h"

#include <array>
#include <cstddef>
#include <map>
#include <optional>
#include <vector>

namespace sim {

// File identifiers from below the master file on.
using KazPath = std::vector<std::uint16_t>;

// The file of a pair in one of the pairs' directories: 6001, 6002 or 6004.
inline KazPath kazPairFile(std::uint16_t directory, std::uint8_t id)
{
    return {0x1000, 0x1000, directory, id};
}

struct KazKey {
    RsaKey rsa;
    GostKey gost; // one of the two at most
    explicit operator bool() const { return rsa || gost; }
};

struct KazFile {
    enum class Kind : std::uint8_t { Transparent = 0x01, Key = 0x10, Directory = 0x38 };

    // What a file says about the PIN that an act on it needs.
    enum class Act : std::size_t { Read = 1, CreateBelow = 1, Update = 2, Delete = 7 };
    enum class Need : std::uint8_t { Nothing = 0x00, Pin = 0x02, Never = 0xFF };

    Kind kind = Kind::Directory;
    std::uint16_t id = 0;
    std::uint16_t size = 0;
    std::uint8_t keyKind = 0; // of a key file: KAZ_RSA or KAZ_GOST
    std::array<std::uint8_t, 15> security{};
    Bytes content; // of a transparent file, size bytes
    KazKey key;    // of a key file, once it has been generated

    Need need(Act act) const { return static_cast<Need>(security[static_cast<std::size_t>(act)]); }
};

// Every file under its path, the master file under the empty one.
using KazFiles = std::map<KazPath, KazFile>;

inline constexpr std::uint8_t KAZ_RSA = 0x23;
inline constexpr std::uint8_t KAZ_GOST = 0x03;

KazFile kazDirectory(std::uint16_t id);
KazFile kazTransparent(std::uint16_t id, Bytes content); // at most 32,767 bytes
KazFile kazKeyFile(std::uint16_t id, std::uint8_t keyKind, KazKey key);

// Null if there is none.
KazFile* kazFind(KazFiles& files, const KazPath& path);
const KazFile* kazFind(const KazFiles& files, const KazPath& path);

// The path of a file below a directory.
KazPath kazBelow(KazPath directory, std::uint16_t id);

// Puts a file below a directory that is there; std::invalid_argument without one.
void kazAdd(KazFiles& files, const KazPath& directory, KazFile file);
// Takes a file away, with everything below it.
void kazRemove(KazFiles& files, const KazPath& path);

// The file control parameters that SELECT answers with:
//     62 L  80 02 size  82 02 kind 00  [85 06 key kind 00 00 00 00 00]  83 02 id  86 0F security
Bytes kazControlParameters(const KazFile& file);

// The file that such parameters of a CREATE FILE describe, empty; nothing unless they are exactly
//     62 L  82 02 kind 00  80 02 size  83 02 id  [85 06 key kind 00 00 00 00 00]  86 0F security
// with the security that the token gives files of this kind, a key file's size being that of its
// kind and a directory's 0010.
std::optional<KazFile> kazFileToCreate(std::span<const std::uint8_t> parameters);

// Files as bytes, and back; std::runtime_error for bytes that no files give.
Bytes packKazFiles(const KazFiles& files);
KazFiles unpackKazFiles(std::span<const std::uint8_t> packed);

} // namespace sim
