// The fields of a certificate's block, filled from its DER encoding.
#include "src/objects/cert_block.h"

#include "src/certdata/der_walker.h"
#include "tests/support/object_world.h"

#include <cstring>
#include <initializer_list>
#include <memory>

namespace {

using velt_test::objects::Bytes;
using velt_test::objects::bytesOf;

Bytes join(std::initializer_list<Bytes> parts)
{
    Bytes whole;
    for (const Bytes& part : parts) {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole;
}

// A DER item with a definite length of at most 65,535.
Bytes item(std::uint8_t identifier, const Bytes& content)
{
    const auto size = static_cast<unsigned>(content.size());
    const auto low = static_cast<std::uint8_t>(size & 0xFF);
    const auto high = static_cast<std::uint8_t>(size >> 8);
    Bytes header{identifier};
    if (size < 0x80) {
        header.push_back(low);
    } else if (size < 0x100) {
        header.insert(header.end(), {0x81, low});
    } else {
        header.insert(header.end(), {0x82, high, low});
    }
    return join({header, content});
}

Bytes sequence(std::initializer_list<Bytes> parts)
{
    return item(0x30, join(parts));
}

// One attribute of a Name, of the arc 2.5.4.
Bytes nameAttribute(std::uint8_t arc, const Bytes& text)
{
    return item(0x31, sequence({item(0x06, {0x55, 0x04, arc}), item(0x0C, text)}));
}

// C, ST, L, O, OU, CN: the number of attributes that a whole certificate needs in its issuer.
Bytes issuer()
{
    return sequence({nameAttribute(6, bytesOf("KZ")), nameAttribute(8, bytesOf("State")),
                     nameAttribute(7, bytesOf("Town")), nameAttribute(10, bytesOf("Maker")),
                     nameAttribute(11, bytesOf("Unit")), nameAttribute(3, bytesOf("Issuer"))});
}

Bytes subject()
{
    return sequence({nameAttribute(6, bytesOf("KZ")), nameAttribute(3, bytesOf("Subject"))});
}

struct Parts {
    Bytes version = item(0xA0, item(0x02, {2}));
    Bytes serial = item(0x02, {0x12, 0x34, 0x56, 0x78, 0x9A});
    Bytes issuerName = issuer();
    Bytes notBefore = item(0x17, bytesOf("250131120000Z"));
    Bytes notAfter = item(0x17, bytesOf("270228235959Z"));
    Bytes subjectName = subject();
};

Bytes certificate(const Parts& parts = {})
{
    const Bytes algorithm =
        sequence({item(0x06, {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 1, 1, 11}), item(0x05, {})});
    const Bytes key = sequence({algorithm, item(0x03, {0x00, 0x01, 0x02})});
    return sequence(
        {sequence({parts.version, parts.serial, algorithm, parts.issuerName,
                   sequence({parts.notBefore, parts.notAfter}), parts.subjectName, key}),
         algorithm, item(0x03, {0x00, 0xAA, 0xBB})});
}

class CertBlock : public ::testing::Test {
protected:
    static constexpr std::uint64_t SENTINEL = 0xA5A5A5A5;

    // Fills the block as a driver does: zeroed, then the certificate.
    void store(const Bytes& der)
    {
        *attr_ = {};
        attr_->certType = SENTINEL;
        attr_->category = SENTINEL;
        velt_test::objects::put(attr_->value, der);
        attr_->valueLen = der.size();
        velt::storeCertificateFields(*attr_);
        EXPECT_EQ(SENTINEL, attr_->certType);
        EXPECT_EQ(SENTINEL, attr_->category);
        EXPECT_EQ(der.size(), attr_->valueLen);
        EXPECT_EQ(der, Bytes(attr_->value, attr_->value + der.size()));
    }

    // A field's stored bytes; those behind them must be zero.
    template <std::size_t Size>
    static Bytes stored(const std::uint8_t (&field)[Size], std::uint64_t length)
    {
        EXPECT_LE(length, Size);
        EXPECT_TRUE(
            std::all_of(field + length, field + Size, [](std::uint8_t byte) { return byte == 0; }));
        return {field, field + length};
    }

    Bytes serial() const { return stored(attr_->serial, attr_->serialLen); }
    Bytes issuerName() const { return stored(attr_->issuer, attr_->issuerLen); }
    Bytes subjectName() const { return stored(attr_->subject, attr_->subjectLen); }
    Bytes startDate() const { return stored(attr_->startDate, DATE_SIZE); }
    Bytes endDate() const { return stored(attr_->endDate, DATE_SIZE); }

private:
    std::unique_ptr<CertAttr> attr_ = std::make_unique<CertAttr>();
};

const Bytes NO_DATE{'2', 0, 0, 0, 0, 0, 0, 0};

TEST_F(CertBlock, AWholeCertificateFillsEveryField)
{
    store(certificate());
    EXPECT_EQ(Parts{}.serial, serial()) << "with its identifier and length";
    EXPECT_EQ(issuer(), issuerName());
    EXPECT_EQ(subject(), subjectName());
    EXPECT_EQ((Bytes{'2', '1', '2', '5', '0', '1', '3', 0}), startDate());
    EXPECT_EQ((Bytes{'2', '8', '2', '7', '0', '2', '2', 0}), endDate());
}

TEST_F(CertBlock, EachDigitOfADateHasItsPlace)
{
    Parts parts;
    parts.notBefore = item(0x17, bytesOf("ABCDEFGHIJKLM"));
    parts.notAfter = item(0x17, bytesOf("150320000000Z"));
    store(certificate(parts));
    EXPECT_EQ((Bytes{'2', 'F', 'A', 'B', 'C', 'D', 'E', 0}), startDate());
    EXPECT_EQ((Bytes{'2', '0', '1', '5', '0', '3', '2', 0}), endDate());
}

TEST_F(CertBlock, AShortTimeLeavesZerosInItsPlaces)
{
    Parts parts;
    parts.notBefore = item(0x17, bytesOf("15"));
    store(certificate(parts));
    EXPECT_EQ((Bytes{'2', 0, '1', '5', 0, 0, 0, 0}), startDate());
}

TEST_F(CertBlock, ACertificateWithoutVersionFillsNothing)
{
    Parts parts;
    parts.version = {};
    store(certificate(parts));
    EXPECT_EQ(Bytes{}, serial());
    EXPECT_EQ(Bytes{}, issuerName());
    EXPECT_EQ(Bytes{}, subjectName());
    EXPECT_EQ(NO_DATE, startDate());
    EXPECT_EQ(NO_DATE, endDate());
}

TEST_F(CertBlock, AShortIssuerGivesSerialAndIssuerOnly)
{
    Parts parts;
    parts.issuerName = sequence({nameAttribute(6, bytesOf("KZ")), nameAttribute(3, bytesOf("I"))});
    store(certificate(parts));
    EXPECT_EQ(parts.serial, serial());
    EXPECT_EQ(parts.issuerName, issuerName());
    EXPECT_EQ(Bytes{}, subjectName());
    EXPECT_EQ(NO_DATE, startDate());
    EXPECT_EQ(NO_DATE, endDate());
}

TEST_F(CertBlock, TooLongFieldsAreCutAtTheirBuffers)
{
    Parts parts;
    parts.serial = item(0x02, Bytes(80, 0x11));
    parts.subjectName = sequence({nameAttribute(3, Bytes(1100, 's'))});
    store(certificate(parts));
    EXPECT_EQ(64U, serial().size());
    EXPECT_EQ(Bytes(parts.serial.begin(), parts.serial.begin() + 64), serial());
    EXPECT_EQ(1024U, subjectName().size());
    EXPECT_EQ(Bytes(parts.subjectName.begin(), parts.subjectName.begin() + 1024), subjectName());
}

TEST_F(CertBlock, NothingOfTheCertificateBeforeIsLeft)
{
    store(certificate());
    store(bytesOf("no certificate"));
    EXPECT_EQ(Bytes{}, serial());
    EXPECT_EQ(Bytes{}, issuerName());
    EXPECT_EQ(Bytes{}, subjectName());
    EXPECT_EQ(NO_DATE, startDate());
}

TEST_F(CertBlock, AnEmptyValueGivesEmptyFields)
{
    store({});
    EXPECT_EQ(Bytes{}, serial());
    EXPECT_EQ(Bytes{}, issuerName());
    EXPECT_EQ(Bytes{}, subjectName());
    EXPECT_EQ(NO_DATE, startDate());
    EXPECT_EQ(NO_DATE, endDate());
}

TEST_F(CertBlock, AValueThatFillsItsBufferIsWalkedToItsEnd)
{
    Bytes der = certificate();
    der.resize(CERT_VALUE_SIZE, 0);
    store(der);
    EXPECT_EQ(issuer(), issuerName());
    EXPECT_EQ(subject(), subjectName());
}

TEST_F(CertBlock, ACertificateThatEndsEarlyReadsOnAsZeros)
{
    Bytes der = certificate();
    const Bytes name = subject();
    const auto found = std::search(der.begin(), der.end(), name.begin(), name.end());
    ASSERT_NE(der.end(), found);
    der.erase(found + 10, der.end()); // in the middle of the subject
    store(der);
    EXPECT_EQ(issuer(), issuerName());
    Bytes expected(name.begin(), name.begin() + 10);
    expected.resize(name.size(), 0);
    EXPECT_EQ(expected, subjectName());
}

} // namespace
