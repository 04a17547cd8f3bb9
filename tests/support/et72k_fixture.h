// A session on a scripted eToken 72K.
#pragma once

#include "src/tokens/et72k/et72k.h"
#include "tests/support/applet_fixture.h"

namespace velt_test {

constexpr std::size_t ET72K_PIECE = 32; // what one of its commands moves

inline Bytes readPieceET72K(std::size_t offset)
{
    return hex("80 12 41 00 04 00 20") + bigEndian(offset);
}

// The last piece answers with no more than is stored.
inline std::vector<ExchangeStep> readingET72K(const Bytes& name, const Bytes& stored)
{
    std::vector<ExchangeStep> steps{{hex("80 12 43 00") + counted(name),
                                     hex(OK),
                                     4,
                                     {"EToken72K GetCertificate 1 APDU error #"}},
                                    {hex("80 12 41 00 02 00 00"),
                                     bigEndian(stored.size()) + hex(OK),
                                     4,
                                     {"EToken72K GetCertificate 2 APDU error #"}}};
    for (std::size_t done = 0; done < stored.size(); done += ET72K_PIECE) {
        const std::size_t count = std::min(stored.size() - done, ET72K_PIECE);
        steps.push_back({readPieceET72K(done),
                         slice(stored, done, count) + hex(OK),
                         34,
                         {"EToken72K GetCertificate 3 APDU error #"}});
    }
    return steps;
}

// The last byte stays behind where it would be a piece of its own.
inline std::vector<ExchangeStep> writingET72K(const Bytes& name, const Bytes& stored)
{
    std::vector<ExchangeStep> steps{
        {hex("80 12 40 00 04 00 00") + bigEndian(stored.size()),
         hex(OK),
         4,
         {"EToken72K CreateObject APDU write certificate size error #"}}};
    for (std::size_t done = 0; done + 1 < stored.size(); done += ET72K_PIECE) {
        const std::size_t count = std::min(stored.size() - done, ET72K_PIECE);
        steps.push_back({hex("80 12 40 00") +
                             Bytes{std::uint8_t(count + 2), 0x00, std::uint8_t(count)} +
                             slice(stored, done, count),
                         hex(OK),
                         2, // what the reply before left
                         {"EToken72K CreateObject APDU write certificate error #"}});
    }
    steps.push_back({hex("80 12 42 00") + counted(name),
                     hex(OK),
                     2,
                     {"EToken72K CreateObject APDU set certificate error #"}});
    return steps;
}

const Applet ETOKEN{
    .name = "EToken72K",
    .atr = "3B D5 18 00 81 31 FE 7D 80 73 C8 21 10 F4",
    .operations = driverET72K,
    .selectApplet = fSelectAppletET72K,
    .selected = ET72KAppletSelected,
    .signMechanism = pSignMechanismET72K,
    .signKey = hSignKeyET72K,
    .selection = {{hex("00 A4 04 00 0A 00 00 00 00 00 00 01 02 03 00"),
                   hex(OK),
                   4,
                   {"EToken72K select applet APDU error#"}},
                  {hex("80 15 20 00 00"), hex(OK), 4, {"EToken72K init vars APDU error#"}},
                  {hex("80 15 10 00 00"), hex("31 32 33 34 00 00 90 00"), 23}},
    .pinReference = 0x20,
    .nameCapacity = 258,
    .nameEnd = {0x00},
    .probe = 0x44,
    .deletion = 0x30,
    .gostSign = 0x84B5A002,
    .noObjects = "ObjectsInit objects count = 0",
    .labelTooLong = "CreateObject CKA_LABEL len > 40 bytes",
    .idLength = "CreateObject CKA_ID len > 1 byte",
    .unknownType = "CreateObject CreateObject unknown type: ",
    .reading = readingET72K,
    .writing = writingET72K,
};

class Et72kTest : public AppletTest {
protected:
    static constexpr std::string_view SELECT = "00 A4 04 00 0A 00 00 00 00 00 00 01 02 03 00";
    static constexpr std::string_view INIT_VARS = "80 15 20 00 00";
    static constexpr std::string_view READ_SERIAL = "80 15 10 00 00";

    Et72kTest() : AppletTest(ETOKEN) {}

    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(AppletTest::SetUp());
        begin();
    }
    void begin()
    {
        expectAllExchanged();
        AppletTest::begin();
        tokenSN.fill(SENTINEL);
        tokenSNLen = 21;
    }

    static Bytes getModulusSize(const Bytes& name)
    {
        return hex("80 12 47 00") +
               Bytes{std::uint8_t(name.size() + 4), 0x00, 0x00, 0x00, std::uint8_t(name.size())} +
               name;
    }
    static Bytes getModulusPiece(const Bytes& name, std::size_t offset)
    {
        return hex("80 12 47 01") + Bytes{std::uint8_t(name.size() + 4)} + bigEndian(offset) +
               Bytes{0x00, std::uint8_t(name.size())} + name;
    }
    void expectModulusSize(const Bytes& name, std::size_t bits)
    {
        expect(getModulusSize(name), bigEndian(bits) + hex(OK), 8);
    }
    void expectModulusPieces(const Bytes& name, const Bytes& modulus)
    {
        for (std::size_t done = 0; done < modulus.size(); done += ET72K_PIECE) {
            const std::size_t count = std::min(modulus.size() - done, ET72K_PIECE);
            expect(getModulusPiece(name, done), slice(modulus, done, count) + hex(OK), 34);
        }
    }
    void expectModulus(const Bytes& name, const Bytes& modulus)
    {
        expectModulusSize(name, modulus.size() * 8);
        expectModulusPieces(name, modulus);
    }

    // Known content in the reply buffer.
    static void putOutput(std::size_t position, const Bytes& bytes)
    {
        std::ranges::copy(bytes, pbyOutput.begin() + static_cast<std::ptrdiff_t>(position));
    }
    template <std::size_t Size>
    static Bytes field(const std::uint8_t (&from)[Size])
    {
        return {from, from + Size};
    }
};

} // namespace velt_test
