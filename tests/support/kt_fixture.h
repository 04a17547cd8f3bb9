// A session on a scripted KAZTOKEN. Exchanges are stated and compared as in the ID card's tests.
#pragma once

#include "src/tokens/kt/kt.h"
#include "src/tokens/kt/kt_files.h"
#include "tests/support/token_fixture.h"

namespace velt_test {

constexpr std::string_view KT_ATR = "3B 88 01 4B 41 5A 54 4F 4B 45 4E 82";
constexpr std::string_view SELECT_MAP = "00 A4 08 04 06 10 00 10 10 10 10";
constexpr std::string_view SELECT_MAP_FCP = "00 A4 00 04 02 10 10 FF";
constexpr std::string_view SELECT_1000 = "00 A4 08 04 02 10 00";
constexpr std::string_view CREATE_1010 =
    "00 E0 00 00 1F 62 1D 82 02 38 00 80 02 00 10 83 02 10 10 86 0F 43 02 02 00 00 00 00 FF 00 00 "
    "00 00 00 00 00";
constexpr std::string_view SELECT_1010 = "00 A4 08 04 04 10 00 10 10";
constexpr std::string_view DELETE_MAP = "00 E4 00 00 02 10 10";
constexpr std::string_view NO_FILE = "6A 82";

constexpr std::uint8_t RSA = 0x23; // kinds of key files
constexpr std::uint8_t GOST = 0x03;

// A key pair on the token.
struct Pair {
    std::uint8_t id;
    std::string label;
    std::uint8_t kind = RSA;
    bool hasCertificate = true;

    Bytes record() const { return Bytes{id} + text(label); }
};

inline Bytes mapOf(const std::vector<Pair>& pairs)
{
    Bytes map = hex("01 00 00 10");
    for (const Pair& pair : pairs) {
        map = map + pair.record() + Bytes{0x00};
    }
    return map;
}

// Control parameters of a file, with the kind of key at byte 12.
inline Bytes fcp(std::size_t size, std::uint8_t kind = 0x77)
{
    return hex("62 11 80 02") + Bytes{std::uint8_t(size >> 8), std::uint8_t(size & 0xFF)} +
           hex("82 02 10 00 85 06") + Bytes{kind} + hex("00 00 00 00 00");
}

inline Bytes selectDirectory(std::uint8_t directory)
{
    return hex("00 A4 08 04 06 10 00 10 00 60") + Bytes{directory};
}
inline Bytes selectFile(std::uint8_t directory, std::uint8_t id)
{
    return hex("00 A4 08 04 08 10 00 10 00 60") + Bytes{directory, 0x00, id};
}
inline Bytes selectForFcp(std::uint8_t directory, std::uint8_t id)
{
    return selectFile(directory, id) + Bytes{0x00};
}
inline Bytes createFile(std::size_t size, std::uint8_t idHigh, std::uint8_t idLow)
{
    return hex("00 E0 00 00 1F 62 1D 82 02 01 00 80 02") +
           Bytes{std::uint8_t(size >> 8), std::uint8_t(size & 0xFF), 0x83, 0x02, idHigh, idLow} +
           hex("86 0F 42 00 02 00 00 00 00 02 00 00 00 00 00 00 00");
}

class KtTest : public TokenTest {
protected:
    void SetUp() override
    {
        insert(KT_ATR);
        begin();
    }

    void begin()
    {
        start();
        mapFile.fill(SENTINEL);
        mapFileLen = 99;
        for (auto& slot : tmpLabel) {
            slot.fill(SENTINEL);
        }
        tmpLabelLen.fill(99);
        tmpObjCount = 77;
        lastID = 66;
        hiByte = 0x55;
        loByte = 0x55;
        pSignMechanismKT = {};
        hSignKeyKT = 0;
    }

    // Reading the selected file as the size that it claims to have demands it.
    void expectFile(const Bytes& content)
    {
        const std::size_t blocks = content.size() / 256;
        for (std::size_t i = 0; i < blocks; ++i) {
            expect(Bytes{0x00, 0xB0, std::uint8_t(i), 0x00, 0x00},
                   slice(content, i * 256, 256) + hex(OK), 258);
        }
        const std::size_t rest = content.size() % 256;
        expect(Bytes{0x00, 0xB0, std::uint8_t(blocks), 0x00, std::uint8_t(rest)},
               slice(content, blocks * 256, rest) + hex(OK), rest + 2);
    }
    void expectMapSelected(std::size_t size)
    {
        expect(hex(SELECT_MAP), hex(OK), 4);
        expect(hex(SELECT_MAP_FCP), fcp(size) + hex(OK), 258);
    }
    void expectMap(const Bytes& map)
    {
        expectMapSelected(map.size());
        expectFile(map);
    }
    void expectProbes(const Pair& pair)
    {
        expect(selectForFcp(0x02, pair.id), fcp(256, pair.kind) + hex(OK), 258);
        expect(selectForFcp(0x04, pair.id), pair.hasCertificate ? fcp(300) + hex(OK) : hex(NO_FILE),
               258);
    }
    void expectLoad(const std::vector<Pair>& pairs)
    {
        expectMap(mapOf(pairs));
        for (const Pair& pair : pairs) {
            expectProbes(pair);
        }
    }
    CK_RV loadObjects() { return fObjectsInitKT(table, session); }
    void load(const std::vector<Pair>& pairs)
    {
        expectLoad(pairs);
        ASSERT_EQ(0U, loadObjects());
        expectAllExchanged();
        mark.reset();
    }

    void expectMapRewritten(const Bytes& map)
    {
        expect(hex(SELECT_1010), hex(OK), 4);
        expect(hex(DELETE_MAP), hex(OK), 4);
        expect(createFile(map.size(), 0x10, 0x10), hex(OK), 4);
        expectUpdates(map);
    }
    void expectUpdates(const Bytes& content)
    {
        for (std::size_t done = 0; done < content.size();) {
            const std::size_t count = std::min<std::size_t>(content.size() - done, 255);
            expect(hex("00 D6") + bigEndian(done) + Bytes{std::uint8_t(count)} +
                       slice(content, done, count),
                   hex(OK));
            done += count;
        }
    }
};

} // namespace velt_test
