// A session on a scripted JaCarta.
#pragma once

#include "src/tokens/jc/jc.h"
#include "tests/support/applet_fixture.h"

namespace velt_test {

inline std::vector<ExchangeStep> readingJaCarta(const Bytes& name, const Bytes& stored)
{
    return {{hex("80 12 28 00") + counted(name),
             stored + hex(OK),
             2050,
             {"JaCarta GetCertificate APDU error #"}}};
}

inline std::vector<ExchangeStep> writingJaCarta(const Bytes& name, const Bytes& stored)
{
    const Bytes size = bigEndian(stored.size());
    return {{hex("80 12 27 00 00") + bigEndian(name.size() + stored.size() + 4) + size +
                 Bytes{0x00, std::uint8_t(name.size())} + name + stored,
             hex(OK),
             4,
             {"JaCarta CreateObject APDU write certificate error #"}}};
}

const Applet JACARTA{
    .name = "JaCarta",
    .atr = "3B DC 18 FF 81 91 FE 1F C3 80 73 C8 21 13 66 01 06 11 59 00 01 28",
    .operations = driverJC,
    .selectApplet = fSelectAppletJC,
    .selected = JCAppletSelected,
    .signMechanism = pSignMechanismJC,
    .signKey = hSignKeyJC,
    .selection = {{hex("00 A4 04 00 0C A0 00 67 61 6D 6D 61 74 65 63 68 00"),
                   hex(OK),
                   4,
                   {"JaCarta select applet APDU error#"}},
                  {hex("80 15 20 00 00"), hex(OK), 4, {"JaCarta init vars APDU error#"}}},
    .pinReference = 0x21,
    .nameCapacity = 1026,
    .nameEnd = {},
    .probe = 0x24,
    .deletion = 0x23,
    .gostSign = 0xFFFFFFFF84B5A002,
    .noObjects = "",
    .labelTooLong = "",
    .idLength = "",
    .unknownType = "CreateObject unknown type: ",
    .reading = readingJaCarta,
    .writing = writingJaCarta,
};

class JcTest : public AppletTest {
protected:
    JcTest() : AppletTest(JACARTA) {}
};

} // namespace velt_test
