// Attribute identifiers and the texts kept from names.
#include "src/certdata/der_walker.h"

#include <gtest/gtest.h>

#include "tests/support/der.h"

namespace {

using namespace velt_test;

const Bytes END{0x05, 0x00, 0x00};

void walkAll(const std::vector<Bytes>& parts)
{
    ASSERT_EQ(walk(join({join(parts), END})), 0);
}

std::string oidText()
{
    return lastOID.data();
}

// How much an identifier adds to a counter of 1.
std::int32_t added(const Bytes& oid)
{
    walkAll({VERSION_AND_SERIAL, identifier(oid)});
    return cIndex - 1;
}

TEST(DerIdentifier, IsKeptAsDottedText)
{
    struct Case {
        Bytes content;
        const char* shown;
    };
    const std::vector<Case> cases{
        {{}, ""},
        {{0x00}, "0.0"},
        {{0x27}, "0.39"},
        {{0x28}, "1.0"},
        {{0x4F}, "1.39"},
        {{0x50}, "2.0"},
        {{0x7F}, "2.47"},
        {{0x88, 0x37}, "2.999"},
        {{0x88, 0x37, 0x03}, "2.999.3"},
        {COMMON_NAME, "2.5.4.3"},
        {EMAIL, "1.2.840.113549.1.9.1"},
        {RSA_SHA256, "1.2.840.113549.1.1.11"},
        {{0x2A, 0x80, 0x01}, "1.2.1"}, // needless leading octet
        {{0x2A, 0x86}, "1.2"},         // the last arc is not finished
        {{0x86}, ""},                  // nor is the first
        {{0x2A, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}, "1.2.34359738367"},
        {{0x2A, 0x81, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F},
         "1.2.18446744073709551615"},
    };
    for (const Case& one : cases) {
        walkAll({identifier(one.content)});
        EXPECT_EQ(oidText(), one.shown);
    }
}

TEST(DerIdentifier, OfTheLongestTextIsCutToItsField)
{
    walkAll({identifier(Bytes(32, 0x7F))});
    std::string whole = "2.47";
    for (int i = 0; i < 31; ++i) {
        whole += ".127";
    }
    ASSERT_EQ(whole.size(), 128U);
    EXPECT_EQ(oidText(), whole.substr(0, 127));
    EXPECT_EQ(lastOID[127], '\0');
}

TEST(DerIdentifier, OfEveryLengthUpTo32IsTaken)
{
    for (std::size_t length = 1; length <= 32; ++length) {
        walkAll({identifier(Bytes(length, 0x01))});
        std::string expected = "0.1";
        for (std::size_t i = 1; i < length; ++i) {
            expected += ".1";
        }
        EXPECT_EQ(oidText(), expected);
    }
}

TEST(DerIdentifier, LeavesWhatStoodBehindItsTerminator)
{
    walkAll({identifier(EMAIL), identifier(COMMON_NAME)});
    EXPECT_EQ(oidText(), "2.5.4.3");
    EXPECT_STREQ(lastOID.data() + 8, "113549.1.9.1");
    walkAll({identifier(EMAIL), identifier({})});
    EXPECT_EQ(oidText(), "");
    EXPECT_STREQ(lastOID.data() + 1, ".2.840.113549.1.9.1");
}

TEST(DerIdentifier, CutByTheBuffersEndIsTakenAsFarAsItGoes)
{
    EXPECT_EQ(walkWithoutSlack({0x06, 0x03, 0x55, 0x04}), 0);
    EXPECT_EQ(oidText(), "2.5.4");
    EXPECT_EQ(walk({0x06, 0x04, 0x55, 0x04}), 0);
    EXPECT_EQ(oidText(), "2.5.4.0.0");
}

TEST(DerAttribute, OfANameAdvancesTheCounter)
{
    for (std::uint8_t last = 0; last < 0x80; ++last) {
        const bool counts = (last >= 3 && last <= 8) || last == 10 || last == 11 || last == 42 ||
                            (last >= 100 && last <= 119);
        EXPECT_EQ(added({0x55, 0x04, last}), counts ? 1 : 0) << unsigned{last};
    }
}

TEST(DerAttribute, IsKnownByTheCharactersAtItsPlaces)
{
    EXPECT_EQ(added({0x55, 0x04, 0x82, 0x0F}), 0); // 2.5.4.271
    EXPECT_EQ(added({0x55, 0x04, 0x83, 0x24}), 1); // 2.5.4.420
    EXPECT_EQ(added({0x55, 0x04, 0x87, 0x68}), 1); // 2.5.4.1000
    EXPECT_EQ(added({0x55, 0x04, 0x03, 0x01}), 0); // 2.5.4.3.1
    EXPECT_EQ(added({0x55, 0x04, 0x0A, 0x01}), 1); // 2.5.4.10.1
    EXPECT_EQ(added({0x55, 0xA1, 0x56}), 1);       // 2.5.4310
    EXPECT_EQ(added({0x55, 0x1D, 0x03}), 0);       // 2.5.29.3
    EXPECT_EQ(added({0x55, 0x05, 0x03}), 0);       // 2.5.5.3
    EXPECT_EQ(added({0x56, 0x04, 0x03}), 0);       // 2.6.4.3
    EXPECT_EQ(added({0x2D, 0x04, 0x03}), 0);       // 1.5.4.3
    EXPECT_EQ(added(EMAIL), 0);
}

TEST(DerAttribute, MayBeCompletedByAnEarlierIdentifier)
{
    // "2.5" ends before the places that are looked at, where 2.5.4.3 still stands.
    walkAll({VERSION_AND_SERIAL, identifier(COMMON_NAME), identifier({0x55})});
    EXPECT_EQ(cIndex, 3);
    walkAll({VERSION_AND_SERIAL, identifier(RSA_SHA256), identifier({0x55})});
    EXPECT_EQ(cIndex, 1);
}

TEST(DerAttribute, DoesNotCountBeforeTheVersion)
{
    walkAll({countUp(10), identifier(ORGANISATION), identifier(GIVEN_NAME)});
    EXPECT_EQ(cIndex, 0);
}

TEST(DerEmail, IsTheIa5StringAfterTheEmailAddressAttribute)
{
    walkAll({identifier(EMAIL), item(0x16, text("holder@velt.example"))});
    EXPECT_EQ(slot(sSubject, 770, 128), zeroPadded(text("holder@velt.example"), 128));
    EXPECT_EQ(slot(sSubject, 0, 770), Bytes(770));
    EXPECT_EQ(isEmail, 0);
}

TEST(DerEmail, IsKeptOnceForEachAttribute)
{
    walkAll({identifier(EMAIL), item(0x16, text("first")), item(0x16, text("other!"))});
    EXPECT_EQ(slot(sSubject, 770, 128), zeroPadded(text("first"), 128));
    walkAll(
        {identifier(EMAIL), item(0x16, text("first")), identifier(EMAIL), item(0x16, text("2"))});
    EXPECT_EQ(slot(sSubject, 770, 128), zeroPadded(text("2irst"), 128));
}

TEST(DerEmail, WaitsForItsStringAcrossOtherItems)
{
    walkAll({identifier(EMAIL), item(0x0C, text("no")), item(0x13, text("no")),
             identifier(COMMON_NAME), item(0x86, text("no")), item(0x16, text("yes"))});
    EXPECT_EQ(slot(sSubject, 770, 128), zeroPadded(text("yes"), 128));
}

TEST(DerEmail, IsNotKeptWithoutItsAttribute)
{
    walkAll({item(0x16, text("no")), identifier(COMMON_NAME), item(0x16, text("no"))});
    EXPECT_EQ(slot(sSubject, 0, 898), Bytes(898));
}

TEST(DerEmail, OfAnyLengthStaysInItsSlot)
{
    for (std::size_t length = 0; length <= 300; ++length) {
        walkAll({identifier(EMAIL), item(0x16, filler(length))});
        EXPECT_EQ(slot(sSubject, 770, 128), zeroPadded(filler(length), 128)) << length;
    }
}

TEST(DerEmail, IsKnownByTheCharactersAtItsPlaces)
{
    const auto isKnown = [](const Bytes& oid) {
        walkAll({identifier(oid)});
        return isEmail;
    };
    const auto pkcs9 = [](std::uint8_t last) {
        return Bytes{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, last};
    };
    for (std::uint8_t last = 0; last < 0x80; ++last) {
        const bool known = last == 1 || (last >= 10 && last <= 19) || last >= 100;
        EXPECT_EQ(isKnown(pkcs9(last)), known ? 1 : 0) << unsigned{last};
    }
    EXPECT_EQ(isKnown({0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x01, 0x07}), 1);
    EXPECT_EQ(isKnown({0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09}), 0);
    EXPECT_EQ(isKnown({0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x08, 0x01}), 0);
    EXPECT_EQ(isKnown({0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x09, 0x01}), 0);
    EXPECT_EQ(isKnown({0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0E, 0x01, 0x09, 0x01}), 0);
    EXPECT_EQ(isKnown({0x2A, 0x86, 0x49, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x01}), 0);
    EXPECT_EQ(isKnown({0x2B, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x01}), 0);
    EXPECT_EQ(isKnown(COMMON_NAME), 0);
}

// Where the text of an attribute goes when it follows its identifier; -1: nowhere.
struct Slots {
    const char* attribute;
    Bytes oid;
    int issuer;
    int subject;
};

const std::vector<Slots> SLOTS{
    {"country", COUNTRY, 0, 0},
    {"state", STATE, 2, 2},
    {"locality", LOCALITY, 130, 130},
    {"organisation", ORGANISATION, 258, -1},
    {"unit", UNIT, 386, -1},
    {"common name", COMMON_NAME, 514, 258},
    {"given name", GIVEN_NAME, -1, 386},
    {"surname", SURNAME, -1, 514},
    {"serial number", SERIAL_NUMBER, -1, 642},
    {"pseudonym, as country", {0x55, 0x04, 0x41}, 0, 0},
    {"2.5.4.52, as serial number", {0x55, 0x04, 0x34}, -1, 642},
    {"2.5.4.9", {0x55, 0x04, 0x09}, -1, -1},
    {"title", {0x55, 0x04, 0x0C}, -1, -1},
    {"2.5.4.41", {0x55, 0x04, 0x29}, -1, -1},
    {"2.5.4.20", {0x55, 0x04, 0x14}, -1, -1},
    {"2.5.4.100, as organisation", {0x55, 0x04, 0x64}, 258, -1},
    {"1.2.643.100.1, as common name", {0x2A, 0x85, 0x03, 0x64, 0x01}, 514, 258},
    {"rsaEncryption", RSA_SHA256, -1, -1},
};

Bytes expectedField(std::size_t size, int position, const Bytes& value)
{
    Bytes field(size);
    if (position >= 0) {
        std::copy(value.begin(), value.end(), field.begin() + position);
    }
    return field;
}

TEST(DerText, GoesToTheSlotOfItsAttributeWhileTheCounterAllows)
{
    const Bytes value = text("velt");
    for (const Slots& slots : SLOTS) {
        const std::int32_t own = added(slots.oid);
        for (std::int32_t counter = 2; counter <= 20; ++counter) {
            const auto before = static_cast<std::size_t>(counter - 1 - own);
            walkAll(
                {VERSION_AND_SERIAL, countUp(before), identifier(slots.oid), item(0x0C, value)});
            ASSERT_EQ(cIndex, counter);
            const int issuer = counter <= 7 ? slots.issuer : -1;
            const int subject = counter >= 10 && counter <= 17 ? slots.subject : -1;
            EXPECT_EQ(slot(sIssuer, 0, 642), expectedField(642, issuer, value))
                << slots.attribute << " at " << counter;
            EXPECT_EQ(slot(sSubject, 0, 898), expectedField(898, subject, value))
                << slots.attribute << " at " << counter;
        }
    }
}

TEST(DerText, IsNotKeptAtCountersBelow2)
{
    walkAll({VERSION_AND_SERIAL, identifier({0x55, 0x04, 0x41}), item(0x0C, text("velt"))});
    EXPECT_EQ(cIndex, 1);
    EXPECT_EQ(slot(sIssuer, 0, 642), Bytes(642));
    walkAll({identifier(COMMON_NAME), item(0x0C, text("velt"))});
    EXPECT_EQ(slot(sIssuer, 0, 642), Bytes(642));
}

TEST(DerText, ComesFromTheseStringTypesOnly)
{
    const Bytes value = text("velt");
    for (std::uint8_t tag = 0; tag < 0x1F; ++tag) {
        const bool kept = tag == 7 || tag == 12 || tag == 18 || tag == 19 || tag == 21 ||
                          (tag >= 25 && tag <= 28);
        const Bytes string = tag == 6 ? Bytes{} : item(tag, value); // 6 is no string
        walkAll({VERSION_AND_SERIAL, countUp(1), string});
        EXPECT_EQ(slot(sIssuer, 514, 4), kept ? value : Bytes(4)) << unsigned{tag};
        walkAll(
            {VERSION_AND_SERIAL, countUp(1), item(static_cast<std::uint8_t>(0x80 | tag), value)});
        EXPECT_EQ(slot(sIssuer, 0, 642), Bytes(642)) << unsigned{tag};
    }
}

TEST(DerText, IsCutAt128Bytes)
{
    for (std::size_t length = 0; length <= 300; ++length) {
        const Bytes value = filler(length);
        const Bytes kept(value.begin(), value.begin() + static_cast<std::ptrdiff_t>(
                                                            std::min<std::size_t>(length, 128)));
        for (const Slots& slots : SLOTS) {
            walkAll({VERSION_AND_SERIAL, countUp(2), identifier(slots.oid), item(0x13, value)});
            EXPECT_EQ(slot(sIssuer, 0, 642), expectedField(642, slots.issuer, kept))
                << slots.attribute << ' ' << length;
            walkAll({VERSION_AND_SERIAL, countUp(12), identifier(slots.oid), item(0x13, value)});
            EXPECT_EQ(slot(sSubject, 0, 898), expectedField(898, slots.subject, kept))
                << slots.attribute << ' ' << length;
        }
    }
}

TEST(DerText, OfALongCountryRunsIntoTheStateUntilAStateComes)
{
    walkAll({VERSION_AND_SERIAL, identifier(COUNTRY), item(0x13, text("KAZAKHSTAN"))});
    EXPECT_EQ(slot(sIssuer, 0, 11), zeroPadded(text("KAZAKHSTAN"), 11));
    walkAll({VERSION_AND_SERIAL, identifier(COUNTRY), item(0x13, text("KAZAKHSTAN")),
             identifier(STATE), item(0x0C, text("ABAI"))});
    EXPECT_EQ(slot(sIssuer, 0, 11), zeroPadded(text("KAABAISTAN"), 11));
    walkAll({VERSION_AND_SERIAL, identifier(STATE), item(0x0C, text("ABAI")), identifier(COUNTRY),
             item(0x13, text("KZ"))});
    EXPECT_EQ(slot(sIssuer, 0, 11), zeroPadded(text("KZABAI"), 11));
}

TEST(DerText, FollowsTheLastIdentifierEvenIfThatOneIsShorter)
{
    // "2.5.29" leaves the 3 of 2.5.4.3 overwritten by its terminator, "2.5" leaves it standing.
    walkAll({VERSION_AND_SERIAL, identifier(COMMON_NAME), identifier({0x55, 0x1D}),
             item(0x0C, text("velt"))});
    EXPECT_EQ(slot(sIssuer, 0, 642), Bytes(642));
    walkAll({VERSION_AND_SERIAL, identifier(COMMON_NAME), identifier({0x55}),
             item(0x0C, text("velt"))});
    EXPECT_EQ(slot(sIssuer, 514, 4), text("velt"));
}

TEST(DerText, CutByTheBuffersEndIsKeptAsFarAsItGoes)
{
    const Bytes cut = join({VERSION_AND_SERIAL, identifier(COMMON_NAME), {0x0C, 0x40, 'v', 'e'}});
    EXPECT_EQ(walkWithoutSlack(cut), 0);
    EXPECT_EQ(slot(sIssuer, 514, 128), zeroPadded(text("ve"), 128));
}

} // namespace
