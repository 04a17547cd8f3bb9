// Signing with the ID card, and the two operations that it refuses.
#include "tests/support/idc_certificates.h"
#include "tests/support/idc_fixture.h"

#include <algorithm>

using namespace velt_test;

namespace {

class IdcSigning : public IdcTest {
protected:
    // Both key pairs with their certificates: handles 1 to 6.
    void loadCard()
    {
        expectAliases();
        for (const std::size_t keyPair : {1U, 2U}) {
            expectCertificate(keyPair, gzipMember(Certificate{}.encode()));
            expectKey(keyPair, pattern(256));
        }
        ASSERT_EQ(0U, fObjectsInitIDC(table, session));
        mark.reset();
    }

    void choose(CK_OBJECT_HANDLE key)
    {
        CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
        ASSERT_EQ(CKR_OK, fSignInitIDC(table, session, &mechanism, key));
    }

    static Bytes setSigningKey(std::uint8_t reference)
    {
        return hex("00 22 41 A4 09 95 01 40 84 01") + Bytes{reference} + hex("80 01 02");
    }

    static Bytes internalAuthenticate(const Bytes& data)
    {
        return Bytes{0x00, 0x88, 0x02, 0x00, static_cast<std::uint8_t>(data.size() & 0xFF)} + data;
    }

    // Up to the command that makes the signature.
    void expectPreparation(std::uint8_t reference)
    {
        expect(SELECT_MF, OK);
        expect(SELECT_DF_0101, OK);
        expect(setSigningKey(reference), hex(OK));
    }
    void expectSignature(std::uint8_t reference, const Bytes& data, const Bytes& signature)
    {
        expectPreparation(reference);
        expectFetched(internalAuthenticate(data), signature, 258);
    }

    CK_RV sign(const Bytes& data, CK_BYTE* signature, CK_ULONG* length)
    {
        Bytes exact = data;
        exact.reserve(1); // not NULL
        return fSignIDC(table, session, exact.data(), exact.size(), signature, length);
    }

    // Signs into a buffer with room; returns the signature.
    CK_RV sign(const Bytes& data, Bytes& signature)
    {
        CK_ULONG length = 600;
        signature.assign(length, SENTINEL);
        const CK_RV result = sign(data, signature.data(), &length);
        signature.resize(result == CKR_OK ? length : 0);
        return result;
    }
};

TEST_F(IdcSigning, OnlyOneMechanismSigns)
{
    for (const CK_MECHANISM_TYPE type :
         {CK_MECHANISM_TYPE{CKM_RSA_PKCS_KEY_PAIR_GEN}, CK_MECHANISM_TYPE{CKM_RSA_X_509},
          CK_MECHANISM_TYPE{CKM_SHA1_RSA_PKCS}, CK_MECHANISM_TYPE{CKM_SHA256_RSA_PKCS},
          CKM_VELT_GOST_SIGN, ~0UL}) {
        choose(3);
        mark.reset();
        CK_MECHANISM mechanism{type, nullptr, 0};
        EXPECT_EQ(CKR_MECHANISM_INVALID, fSignInitIDC(table, session, &mechanism, 6));
        EXPECT_MESSAGES(mark, "IDCard SignInit CKR_MECHANISM_INVALID");
        EXPECT_EQ(3U, hSignKeyIDC); // the one before stands
        EXPECT_EQ(CKM_RSA_PKCS, pSignMechanismIDC.mechanism);
    }
}

TEST_F(IdcSigning, TheWholeMechanismAndAnyHandleAreKept)
{
    std::array<std::uint8_t, 3> parameter{};
    for (const CK_OBJECT_HANDLE key : {0UL, 1UL, 3UL, 11UL, ~0UL}) {
        CK_MECHANISM mechanism{CKM_RSA_PKCS, parameter.data(), parameter.size()};
        EXPECT_EQ(CKR_OK, fSignInitIDC(table, session, &mechanism, key));
        EXPECT_EQ(CKM_RSA_PKCS, pSignMechanismIDC.mechanism);
        EXPECT_EQ(parameter.data(), pSignMechanismIDC.pParameter);
        EXPECT_EQ(3U, pSignMechanismIDC.ulParameterLen);
        EXPECT_EQ(key, hSignKeyIDC);
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcSigning, TheDataGoesToTheKeyOfTheHandle)
{
    loadCard();
    const Bytes data = pattern(35);
    const Bytes signature = pattern(256, 9);
    choose(3);
    expect("00 A4 00 0C 02 3F 00", OK);
    expect("00 A4 01 0C 02 01 01", OK);
    expect("00 22 41 A4 09 95 01 40 84 01 87 80 01 02", OK);
    expect(hex("00 88 02 00 23") + data, hex("61 00"), 258);
    expect(hex("00 C0 00 00 00"), signature + hex(OK), 258);
    Bytes made;
    EXPECT_EQ(CKR_OK, sign(data, made));
    EXPECT_EQ(signature, made);
    EXPECT_MESSAGES(mark);
    EXPECT_EQ(3U, hSignKeyIDC); // kept for another signature

    choose(6);
    expect("00 A4 00 0C 02 3F 00", OK);
    expect("00 A4 01 0C 02 01 01", OK);
    expect("00 22 41 A4 09 95 01 40 84 01 88 80 01 02", OK);
    expect(hex("00 88 02 00 23") + data, hex("61 80"), 258);
    expect(hex("00 C0 00 00 80"), slice(signature, 0, 128) + hex(OK), 130);
    EXPECT_EQ(CKR_OK, sign(data, made));
    EXPECT_EQ(slice(signature, 0, 128), made);
}

TEST_F(IdcSigning, AnyEntryOfTheTableSignsWithItsId)
{
    loadCard();
    const Bytes data = pattern(20);
    for (CK_OBJECT_HANDLE handle = 1; handle <= 10; ++handle) {
        SCOPED_TRACE(handle);
        const std::uint8_t reference = handle <= 3 ? 0x87 : handle <= 6 ? 0x88 : 0x00;
        choose(handle);
        expectSignature(reference, data, pattern(128));
        Bytes made;
        EXPECT_EQ(CKR_OK, sign(data, made));
    }
}

TEST_F(IdcSigning, AHandleOutsideTheTableIsRefusedBeforeAnythingIsSent)
{
    loadCard();
    for (const CK_OBJECT_HANDLE handle : {0UL, 11UL, 12UL, 0x4B5A0000UL, ~0UL}) {
        choose(handle);
        std::array<CK_BYTE, 8> signature{};
        signature.fill(SENTINEL);
        CK_ULONG length = signature.size();
        EXPECT_EQ(CKR_KEY_HANDLE_INVALID, sign(pattern(8), signature.data(), &length));
        EXPECT_EQ(signature.size(), length);
        EXPECT_EQ(SENTINEL, signature[0]);
        // and named before data that is too long
        EXPECT_EQ(CKR_KEY_HANDLE_INVALID, sign(Bytes(65544), signature.data(), &length));
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcSigning, WithoutATableEveryHandleIsRefused)
{
    for (const CK_OBJECT_HANDLE handle : {1UL, 3UL, 6UL}) {
        choose(handle);
        CK_ULONG length = 0;
        EXPECT_EQ(CKR_KEY_HANDLE_INVALID, sign(pattern(8), nullptr, &length));
    }
}

TEST_F(IdcSigning, DataOfEveryLengthGoesAsItIs)
{
    loadCard();
    choose(3);
    for (const std::size_t size :
         {0U, 1U, 117U, 245U, 254U, 255U, 256U, 257U, 511U, 512U, 65543U}) {
        SCOPED_TRACE(size);
        const Bytes data = pattern(size);
        expectSignature(0x87, data, pattern(128));
        Bytes made;
        EXPECT_EQ(CKR_OK, sign(data, made));
        EXPECT_EQ(pattern(128), made);
    }
}

TEST_F(IdcSigning, DataThatExceedsTheCommandBufferIsRefused)
{
    loadCard();
    choose(3);
    for (const std::size_t size : {65544U, 65545U, 100000U}) {
        CK_ULONG length = 77;
        std::array<CK_BYTE, 4> signature{};
        EXPECT_EQ(CKR_DATA_LEN_RANGE, sign(Bytes(size), signature.data(), &length));
        EXPECT_EQ(77U, length);
    }
    CK_ULONG length = 77;
    std::array<CK_BYTE, 4> data{};
    EXPECT_EQ(CKR_DATA_LEN_RANGE, fSignIDC(table, session, data.data(), ~0UL, nullptr, &length));
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcSigning, ALengthQueryMakesAWholeSignature)
{
    loadCard();
    choose(3);
    const Bytes data = pattern(35);
    CK_ULONG length = 0;
    expectSignature(0x87, data, pattern(256));
    EXPECT_EQ(CKR_OK, sign(data, nullptr, &length));
    EXPECT_EQ(256U, length);
    expectAllExchanged();
    expectSignature(0x87, data, pattern(256, 2)); // and the second call another
    Bytes made(length);
    EXPECT_EQ(CKR_OK, sign(data, made.data(), &length));
    EXPECT_EQ(256U, length);
    EXPECT_EQ(pattern(256, 2), made);
}

TEST_F(IdcSigning, AShortBufferIsRefusedWithoutTheLength)
{
    loadCard();
    choose(3);
    const Bytes data = pattern(35);
    for (const CK_ULONG room : {0UL, 1UL, 128UL, 255UL}) {
        std::array<CK_BYTE, 300> signature{};
        signature.fill(SENTINEL);
        CK_ULONG length = room;
        expectSignature(0x87, data, pattern(256));
        EXPECT_EQ(CKR_BUFFER_TOO_SMALL, sign(data, signature.data(), &length));
        EXPECT_EQ(room, length);
        EXPECT_TRUE(std::ranges::all_of(signature, [](auto byte) { return byte == SENTINEL; }));
    }
    EXPECT_MESSAGES(mark);
}

TEST_F(IdcSigning, NothingIsWrittenBehindTheSignature)
{
    loadCard();
    choose(3);
    const Bytes data = pattern(35);
    for (const std::size_t size : {0U, 1U, 128U, 255U, 256U, 257U, 300U}) {
        for (const std::size_t spare : {0U, 1U, 44U}) {
            const Bytes signature = pattern(size);
            std::array<CK_BYTE, 400> room{};
            room.fill(SENTINEL);
            CK_ULONG length = size + spare;
            expectSignature(0x87, data, signature);
            EXPECT_EQ(CKR_OK, sign(data, room.data(), &length));
            EXPECT_EQ(size, length);
            EXPECT_EQ(signature + Bytes(room.size() - size, SENTINEL),
                      Bytes(room.begin(), room.end()));
        }
    }
}

TEST_F(IdcSigning, ASignatureThatComesAtOnceIsTakenToo)
{
    loadCard();
    choose(3);
    const Bytes data = pattern(35);
    expectPreparation(0x87);
    expect(internalAuthenticate(data), pattern(256) + hex(OK), 258);
    Bytes made;
    EXPECT_EQ(CKR_OK, sign(data, made));
    EXPECT_EQ(pattern(256), made);
}

TEST_F(IdcSigning, AMissingKeyDirectoryIsToleratedInTheCardsOrderOnly)
{
    loadCard();
    choose(3);
    const Bytes data = pattern(35);
    expect(SELECT_MF, OK);
    expect(SELECT_DF_0101, "6A 82");
    expect(setSigningKey(0x87), hex(OK));
    expectFetched(internalAuthenticate(data), pattern(256), 258);
    Bytes made;
    EXPECT_EQ(CKR_OK, sign(data, made));

    expect(SELECT_MF, OK);
    expect(SELECT_DF_0101, "82 6A");
    EXPECT_EQ(CKR_DEVICE_ERROR, sign(data, made));
    EXPECT_MESSAGES(mark, numbered("IDCard Sign 1 APDU error ", 0x6A82));
}

TEST_F(IdcSigning, TheCoreKeepsTheOperationAfterARefusalAndEndsItAfterALengthQuery)
{
    loadCard();
    oiFlags = 0;
    CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(CKR_OK, VELT_SignInit(session, &mechanism, 3));
    Bytes data = pattern(35);
    CK_ULONG length = 0;
    expectPreparation(0x87);
    expect(internalAuthenticate(data), hex("69 82"), 258);
    EXPECT_EQ(CKR_FUNCTION_FAILED, VELT_Sign(session, data.data(), data.size(), nullptr, &length));
    EXPECT_EQ(0U, length);
    expectSignature(0x87, data, pattern(256));
    EXPECT_EQ(CKR_OK, VELT_Sign(session, data.data(), data.size(), nullptr, &length));
    EXPECT_EQ(256U, length);
    EXPECT_EQ(CKR_OPERATION_NOT_INITIALIZED,
              VELT_Sign(session, data.data(), data.size(), nullptr, &length));
    EXPECT_MESSAGES(mark, "SignInit CKR_OK", numbered("IDCard Sign 3 APDU error ", 0x8269),
                    numbered("Sign error ", CKR_FUNCTION_FAILED), "Sign CKR_OK",
                    "Sign CKR_OPERATION_NOT_INITIALIZED");
}

TEST_F(IdcSigning, NoObjectIsDestroyed)
{
    for (const CK_OBJECT_HANDLE object : {0UL, 1UL, 6UL, 11UL}) {
        mark.reset();
        EXPECT_EQ(CKR_FUNCTION_NOT_SUPPORTED, fDestroyObjectIDC(table, session, object));
        EXPECT_MESSAGES(mark, "IDCard DestroyObject CKR_FUNCTION_NOT_SUPPORTED");
    }
}

TEST_F(IdcSigning, NoRandomBytesAreMade)
{
    std::array<CK_BYTE, 16> bytes{};
    bytes.fill(SENTINEL);
    EXPECT_EQ(CKR_FUNCTION_NOT_SUPPORTED,
              fGenerateRandomIDC(table, session, bytes.data(), bytes.size()));
    EXPECT_TRUE(std::ranges::all_of(bytes, [](auto byte) { return byte == SENTINEL; }));
    EXPECT_MESSAGES(mark, "IDCard GenerateRandom CKR_FUNCTION_NOT_SUPPORTED");
}

} // namespace
