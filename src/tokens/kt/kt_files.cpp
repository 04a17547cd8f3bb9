#include "src/tokens/kt/kt_files.h"

#include "src/core/file_write.h"
#include "src/front/debug.h"
#include "src/objects/object_table.h"
#include "src/tokens/kt/kt.h"
#include "src/tokens/kt/kt_apdu.h"

#include <algorithm>

using velt::ByteRoom;
using velt::ByteView;
using velt::exchange;
using velt::report;

std::array<std::uint8_t, KT_MAP_SIZE> mapFile{};
std::uint64_t mapFileLen = 0;
std::array<std::array<std::uint8_t, KT_RECORD_ROOM>, KT_MAX_RECORDS> tmpLabel{};
std::array<std::uint64_t, KT_MAX_RECORDS> tmpLabelLen{};
std::uint64_t lastID = 0;
std::uint8_t hiByte = 0;
std::uint8_t loByte = 0;

namespace {

constexpr std::array<std::uint8_t, 4> MAPFILE_HEADER{0x01, 0x00, 0x00, 0x10};

// Results of the helpers.
constexpr std::uint64_t DONE = 0;
constexpr std::uint64_t NO_RECORD = 1;
constexpr std::uint64_t TOKEN_REFUSED = 2;
constexpr std::uint64_t TOO_LARGE = 3;
constexpr std::uint64_t NOT_WRITTEN = 6;
constexpr std::uint64_t CHUNK_REFUSED = 10;

// Stores the last reply's data as far as it has its place, and counts all of it. Whether it fits.
bool storeReply(ByteRoom buffer, std::size_t place, velt::FileReading& reading) noexcept
{
    const ByteView data = velt::replyData();
    reading.total += data.size();
    const ByteRoom room = buffer.subspan(std::min(place, buffer.size()));
    velt::copyBounded(room, data);
    const bool fits = data.size() <= room.size() && reading.total <= buffer.size();
    reading.fits = reading.fits && fits;
    return fits;
}

void takeRecord(ByteView record) noexcept
{
    if (record.size() >= KT_RECORD_ROOM || tmpObjCount == KT_MAX_RECORDS) {
        return;
    }
    tmpLabel[tmpObjCount].fill(0);
    tmpLabelLen[tmpObjCount] = velt::copyBounded(tmpLabel[tmpObjCount], record);
    ++tmpObjCount;
}

// Position of a whole record, or `length` when the image has none such. A record of ID 0 ends at
// its first byte and cannot be told from the terminators.
std::size_t findRecord(ByteView image, ByteView record) noexcept
{
    std::size_t position = MAPFILE_HEADER.size();
    while (position < image.size() && record.front() != 0) {
        const ByteView rest = image.subspan(position);
        const std::size_t length = velt::textLength(rest);
        if (std::ranges::equal(rest.first(length), record)) {
            return position;
        }
        position += length + 1;
    }
    return image.size();
}

struct MapImage {
    std::array<std::uint8_t, KT_MAP_SIZE> bytes{};
    std::size_t length = 0;
};

bool appendRecord(ByteView old, ByteView record, MapImage& image) noexcept
{
    if (old.size() > image.bytes.size() || record.size() > image.bytes.size() - old.size()) {
        return false;
    }
    velt::copyBounded(image.bytes, old);
    velt::copyBounded(ByteRoom{image.bytes}.subspan(old.size()), record);
    image.length = old.size() + record.size();
    return true;
}

bool removeRecord(ByteView old, ByteView record, MapImage& image) noexcept
{
    if (old.size() > image.bytes.size() || record.empty()) {
        return false;
    }
    const std::size_t position = findRecord(old, record);
    if (position == old.size()) {
        return false;
    }
    const std::size_t behind = std::min(position + record.size() + 1, old.size());
    velt::copyBounded(image.bytes, old.first(position));
    velt::copyBounded(ByteRoom{image.bytes}.subspan(position), old.subspan(behind));
    image.length = old.size() - record.size() - 1;
    return true;
}

std::uint64_t writeMapFile(CK_SESSION_HANDLE hSession, const MapImage& image) noexcept
{
    std::uint64_t result = exchange(hSession, KT_SELECT_MAP_DIRECTORY, KT_REPLY_SHORT);
    if (result != 0) {
        return report("KAZTOKEN updateMapFile 1 APDU read file error ", result, TOKEN_REFUSED);
    }
    result = exchange(hSession, KT_DELETE_MAP_FILE, KT_REPLY_SHORT);
    if (result != 0 && result != KT_SW_FILE_NOT_FOUND) {
        return report("KAZTOKEN updateMapFile 2 APDU read file error ", result, TOKEN_REFUSED);
    }
    result = exchange(hSession, ktCreateFile(KT_MAP_FILE_ID, image.length), KT_REPLY_SHORT);
    if (result != 0) {
        return report("KAZTOKEN updateMapFile 3 APDU read file error ", result, TOKEN_REFUSED);
    }
    result = VELT_WriteBinaryKT(hSession, image.bytes.data(), 0,
                                static_cast<std::int16_t>(image.length));
    if (result != 0) {
        return report("KAZTOKEN updateMapFile write binary error ", result, NOT_WRITTEN);
    }
    return DONE;
}

std::uint64_t readMapFile(CK_SESSION_HANDLE hSession) noexcept
{
    std::uint64_t result = exchange(hSession, KT_SELECT_MAP_FILE_FCP, KT_REPLY_BLOCK);
    if (result != 0) {
        return report("KAZTOKEN ObjectsInit 2 APDU select map file error ", result, TOKEN_REFUSED);
    }
    result = TLVParser();
    if (result != DONE) {
        return result;
    }
    mapFileLen = mapFile.size();
    result = readBinary(hSession, mapFile, &mapFileLen);
    if (result != DONE) {
        return result;
    }
    return mapFileParser(mapFile.data(), mapFileLen);
}

// The map file itself is made by the first key pair.
std::uint64_t createMapDirectory(CK_SESSION_HANDLE hSession) noexcept
{
    std::uint64_t result = exchange(hSession, KT_SELECT_DIRECTORY, KT_REPLY_SHORT);
    if (result != 0) {
        return report("KAZTOKEN ObjectsInit APDU select dir for create map file error ", result,
                      TOKEN_REFUSED);
    }
    result = exchange(hSession, KT_CREATE_MAP_DIRECTORY, KT_REPLY_SHORT);
    if (result != 0 && result != KT_SW_FILE_EXISTS && result != KT_SW_NOT_PERMITTED) {
        return report("KAZTOKEN ObjectsInit APDU create map file error ", result, TOKEN_REFUSED);
    }
    tmpObjCount = 0; // Kept: the last ID stays what it was.
    return DONE;
}

void clearMapFile() noexcept
{
    mapFile.fill(0);
    mapFileLen = 0;
}

} // namespace

std::uint64_t TLVParser() noexcept
{
    hiByte = 0;
    loByte = 0;
    if (dwReplyLen <= velt::STATUS_SIZE || pbyOutput[0] != KT_FCP_TAG) {
        return report("KAZTOKEN Parse TLV error ", TOKEN_REFUSED);
    }
    hiByte = pbyOutput[KT_FCP_SIZE_POSITION];
    loByte = pbyOutput[KT_FCP_SIZE_POSITION + 1];
    return DONE;
}

std::uint64_t readBinary(CK_SESSION_HANDLE hSession, ByteRoom buffer,
                         std::uint64_t* pLength) noexcept
{
    const velt::FileReading reading =
        velt::readSelectedFile(hSession, buffer, false,
                               {.block = "KAZTOKEN readBinary APDU read file error ",
                                .rest = "KAZTOKEN readBinary APDU select map file error "});
    switch (reading.end) {
    case velt::FileReading::End::Refused:
        return TOKEN_REFUSED;
    case velt::FileReading::End::BlockTooLarge:
        return report("KAZTOKEN readBinary APDU buffer too small error", TOO_LARGE);
    case velt::FileReading::End::RestTooLarge:
        return report("KAZTOKEN readBinary 2 buffer too small error", TOO_LARGE);
    case velt::FileReading::End::Done:
        break;
    }
    *pLength = reading.total;
    return DONE;
}

std::uint64_t mapFileParser(const std::uint8_t* map, std::uint64_t length) noexcept
{
    tmpObjCount = 0;
    lastID = 0;
    const ByteView image{map, length};
    std::size_t position = MAPFILE_HEADER.size();
    while (position < image.size()) {
        const ByteView rest = image.subspan(position);
        const ByteView record = rest.first(velt::textLength(rest));
        takeRecord(record);
        // Also of a record that was left out: the next key pair must not take its ID.
        lastID = record.empty() ? 0 : record.front();
        position += record.size() + 1;
    }
    return DONE;
}

std::uint64_t updateMapFile(CK_SESSION_HANDLE hSession, std::uint8_t mode, const std::uint8_t* map,
                            std::uint64_t mapLength, const std::uint8_t* record,
                            std::uint64_t recordLength) noexcept
{
    MapImage image;
    if (mode == MAP_REMOVE) {
        if (!removeRecord({map, mapLength}, {record, recordLength}, image)) {
            return report("KAZTOKEN updateMapFile Label not found in map file ", NO_RECORD);
        }
    } else if (!appendRecord({map, mapLength}, {record, recordLength}, image)) {
        return NOT_WRITTEN;
    }
    return writeMapFile(hSession, image);
}

std::uint64_t VELT_WriteBinaryKT(CK_SESSION_HANDLE hSession, const std::uint8_t* data,
                                 std::int16_t offset, std::int16_t length) noexcept
{
    const std::uint64_t result = velt::writeChunks(hSession, data, offset, length);
    return result == 0 ? DONE : report("KAZTOKEN WriteBinary error ", result, CHUNK_REFUSED);
}

namespace velt {

std::uint64_t openMapFile(CK_SESSION_HANDLE hSession) noexcept
{
    clearMapFile();
    fill(ByteRoom{pbyOutput}.first(KT_REPLY_BLOCK), 0);
    const std::uint64_t selected = exchange(hSession, KT_SELECT_MAP_FILE, KT_REPLY_SHORT);
    if (selected != 0 && selected != KT_SW_FILE_NOT_FOUND) {
        return report("KAZTOKEN ObjectsInit 1 APDU select map file error ", selected,
                      TOKEN_REFUSED);
    }
    const std::uint64_t opened =
        selected == 0 ? readMapFile(hSession) : createMapDirectory(hSession);
    if (opened != DONE) {
        clearMapFile(); // what was half read must not be written back
        return opened;
    }
    if (mapFileLen == 0) {
        mapFileLen = copyBounded(mapFile, MAPFILE_HEADER);
    }
    return DONE;
}

FileReading readSelectedFile(CK_SESSION_HANDLE hSession, ByteRoom buffer, bool readsOn,
                             const ReadRefusals& refusals) noexcept
{
    FileReading reading;
    for (std::uint8_t block = 0; block < hiByte; ++block) {
        const std::uint64_t result = exchange(hSession, ktReadBinary(block, 0x00), KT_REPLY_BLOCK);
        if (result != 0) {
            note(refusals.block, result);
            reading.end = FileReading::End::Refused;
            return reading;
        }
        if (!storeReply(buffer, block * KT_BLOCK_SIZE, reading) && !readsOn) {
            reading.end = FileReading::End::BlockTooLarge;
            return reading;
        }
    }
    // Kept: asked for also when nothing is left, with Le 00 and room for the status alone.
    const std::uint64_t result =
        exchange(hSession, ktReadBinary(hiByte, loByte), loByte + STATUS_SIZE);
    if (result != 0) {
        note(refusals.rest, result);
        reading.end = FileReading::End::Refused;
        return reading;
    }
    if (!storeReply(buffer, hiByte * KT_BLOCK_SIZE, reading) && !readsOn) {
        reading.end = FileReading::End::RestTooLarge;
    }
    return reading;
}

} // namespace velt
