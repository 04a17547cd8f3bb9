// Templates for the ID card, and what writing sends.
#pragma once

#include "tests/support/certificate_templates.h"

namespace velt_test {

class IdcWriting : public IdcTest {
protected:
    static Attribute id(std::uint8_t keyId) { return {CKA_ID, {keyId}}; }
    static Attribute der(const Bytes& content) { return {CKA_VALUE, content}; }

    CK_RV create(std::vector<CK_ATTRIBUTE> rows)
    {
        handle = 4711;
        return fCreateObjectIDC(table, session, rows.data(), rows.size(), &handle);
    }
    CK_RV create(std::vector<Attribute> attributes)
    {
        const auto rows = asTemplate(attributes);
        handle = 4711;
        return create(rows);
    }
    CK_RV createCertificate(std::uint8_t keyId, const Bytes& content)
    {
        return create(std::vector{classIs(CKO_CERTIFICATE), onToken(1), der(content), id(keyId)});
    }

    CK_RV generate(std::vector<Attribute> publicKey, std::vector<Attribute> privateKey,
                   CK_MECHANISM* mechanism = nullptr)
    {
        auto publicRows = asTemplate(publicKey);
        auto privateRows = asTemplate(privateKey);
        CK_OBJECT_HANDLE publicHandle = 4711;
        CK_OBJECT_HANDLE privateHandle = 4712;
        const CK_RV result = fGenerateKeyPairIDC(table, session, mechanism, publicRows.data(),
                                                 publicRows.size(), privateRows.data(),
                                                 privateRows.size(), &publicHandle, &privateHandle);
        EXPECT_EQ(4711U, publicHandle); // never told
        EXPECT_EQ(4712U, privateHandle);
        return result;
    }

    // UPDATE BINARY of `count` bytes, starting at `start` of what is written from `offset` on.
    static Bytes update(const Bytes& all, std::size_t offset, std::size_t start, std::size_t count)
    {
        return hex("00 D6") + bigEndian(offset + start) +
               Bytes{static_cast<std::uint8_t>(count & 0xFF)} + slice(all, start, count);
    }

    // 255 bytes a chunk as long as the whole length reaches the end of the chunk in the file; the
    // rest in one.
    static std::vector<std::size_t> chunkSizes(std::size_t offset, std::size_t length)
    {
        const std::size_t full = length < offset ? 0 : (length - offset) / 255;
        std::vector<std::size_t> sizes(full, 255);
        if (length > full * 255) {
            sizes.push_back(length - full * 255);
        }
        return sizes;
    }

    void expectWritten(const Bytes& all, std::size_t offset)
    {
        std::size_t start = 0;
        for (const std::size_t count : chunkSizes(offset, all.size())) {
            expect(update(all, offset, start, count), hex(OK));
            start += count;
        }
    }

    void expectLabelWritten(std::size_t keyPair)
    {
        expectCertificateFile(keyPair);
        expect(CLEAR_LENGTH, OK);
        expect(hex("00 D6 00 02 16") + text(keyPair == 1 ? ALIAS_1 : ALIAS_2), hex(OK));
    }

    void setLabels()
    {
        expectAliases();
        ASSERT_EQ(0U, VELT_SetAliasesIDC(session));
    }

    void expectCertificateWritten(std::size_t keyPair, const Bytes& member)
    {
        expectCertificateFile(keyPair);
        expect(hex("00 D6 00 00 02") + bigEndian(member.size()), hex(OK));
        expectWritten(member, 2);
    }

    CK_OBJECT_HANDLE handle = 0;
};

} // namespace velt_test
