// What the entries of a loaded ID card hold.
#pragma once

#include "tests/support/idc_certificates.h"
#include "tests/support/idc_fixture.h"

#include <iterator>
#include <stdexcept>

namespace velt_test {

class IdcObjects : public IdcTest {
protected:
    CK_RV load() { return fObjectsInitIDC(table, session); }

    static const ObjectEntry& entry(std::size_t position)
    {
        const ObjectEntry* found = velt::entryAt(position);
        if (found == nullptr) {
            throw std::logic_error("no such entry");
        }
        return *found;
    }

    static const CertAttr& certificate(std::size_t position)
    {
        return *static_cast<const CertAttr*>(entry(position).attrs);
    }
    static const PubKeyAttr& publicKey(std::size_t position)
    {
        return *static_cast<const PubKeyAttr*>(entry(position).attrs);
    }
    static const PrivKeyAttr& privateKey(std::size_t position)
    {
        return *static_cast<const PrivKeyAttr*>(entry(position).attrs);
    }

    static void expectCommonFields(std::size_t position)
    {
        SCOPED_TRACE(position);
        const ObjectEntry& made = entry(position);
        Bytes label = text(position < 3 ? ALIAS_1 : ALIAS_2);
        label.resize(50);
        Bytes id(64);
        id[0] = position < 3 ? 0x87 : 0x88;
        EXPECT_EQ(1U, made.familyCode);
        EXPECT_EQ(position % 3 + 1, made.objClass);
        EXPECT_EQ(0, made.isPrivate);
        EXPECT_EQ(label, Bytes(std::begin(made.label), std::end(made.label)));
        EXPECT_EQ(Bytes(50), Bytes(std::begin(made.cardName), std::end(made.cardName)));
        EXPECT_EQ(0U, made.cardNameLen);
        EXPECT_EQ(1, made.isToken);
        EXPECT_EQ(0, made.isModifiable);
        EXPECT_EQ(id, Bytes(std::begin(made.id), std::end(made.id)));
    }

    // Whether a field holds exactly these bytes and zeros behind them.
    template <std::size_t Size>
    static void expectField(const Bytes& content, const std::uint8_t (&field)[Size],
                            std::uint64_t length)
    {
        Bytes filled = content;
        filled.resize(Size);
        EXPECT_EQ(content.size(), length);
        EXPECT_EQ(filled, Bytes(std::begin(field), std::end(field)));
    }

    static void expectCertificateBlock(const CertAttr& block, const Bytes& encoded,
                                       const Certificate& shown)
    {
        EXPECT_EQ(0U, block.certType);
        EXPECT_EQ(1, block.initialised);
        EXPECT_EQ(0, block.trusted);
        EXPECT_EQ(1U, block.category);
        EXPECT_EQ(Bytes(128, ' '), Bytes(std::begin(block.blankText), std::end(block.blankText)));
        expectField(encoded, block.value, block.valueLen);
        expectField(shown.issuer, block.issuer, block.issuerLen);
        expectField(shown.serial, block.serial, block.serialLen);
        expectField(shown.subject, block.subject, block.subjectLen);
    }

    static void expectPublicKeyBlock(const PubKeyAttr& block, const Bytes& modulus)
    {
        EXPECT_EQ(0U, block.keyType);
        EXPECT_EQ(Bytes(8), Bytes(std::begin(block.startDate), std::end(block.startDate)));
        EXPECT_EQ(Bytes(8), Bytes(std::begin(block.endDate), std::end(block.endDate)));
        EXPECT_EQ(0, block.derive);
        EXPECT_EQ(1, block.local);
        EXPECT_EQ(1, block.encrypt);
        EXPECT_EQ(1, block.verify);
        EXPECT_EQ(0, block.verifyRecover);
        EXPECT_EQ(0, block.wrap);
        EXPECT_EQ(0, block.trusted);
        expectField(modulus, block.modulus, block.modulusBits / 8);
        EXPECT_EQ(modulus.size() * 8, block.modulusBits);
        EXPECT_EQ(hex("01 00 01 00 00"),
                  Bytes(std::begin(block.publicExponent), std::end(block.publicExponent)));
        EXPECT_EQ(3U, block.publicExponentLen);
        EXPECT_EQ(Bytes(64), Bytes(std::begin(block.value), std::end(block.value)));
        EXPECT_EQ(0U, block.valueLen);
    }

    static void expectPrivateKeyBlock(const PrivKeyAttr& block)
    {
        EXPECT_EQ(0U, block.keyType);
        EXPECT_EQ(0, block.derive);
        EXPECT_EQ(1, block.local);
        EXPECT_EQ(1, block.sensitive);
        EXPECT_EQ(1, block.decrypt);
        EXPECT_EQ(1, block.sign);
        EXPECT_EQ(0, block.signRecover);
        EXPECT_EQ(0, block.unwrap);
        EXPECT_EQ(0, block.extractable);
        EXPECT_EQ(1, block.alwaysSensitive);
        EXPECT_EQ(1, block.neverExtractable);
        EXPECT_EQ(0, block.wrapWithTrusted);
        EXPECT_EQ(0, block.alwaysAuthenticate);
    }

    // A load in which only the first certificate file is of interest.
    void loadFirstCertificate(const Bytes& content)
    {
        expectAliases();
        expectCertificate(1, content);
        expectRestEmpty();
        EXPECT_EQ(0U, load());
        expectAllExchanged();
    }

    // What a load asks for behind the first certificate, all of it absent.
    void expectRestEmpty()
    {
        expectNoKey(1);
        expectNoCertificate(2);
        expectNoKey(2);
    }
};

} // namespace velt_test
