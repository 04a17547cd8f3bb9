// Signing with an ID card: what the card gets, what the host gets, and when signing is over.
// C_SignInit, C_Sign.
#include "tests/support/id_card_host.h"

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace velt_test {
namespace {

constexpr std::size_t SIGNATURE_SIZE = 256;
constexpr std::size_t LONGEST_DATA = 65543; // what a command of 65,548 bytes has room for

// DigestInfo of the SHA-256 of a message, as CKM_RSA_PKCS wants it.
Bytes digestInfo(std::string_view message)
{
    Bytes info = hex("30 31 30 0D 06 09 60 86 48 01 65 03 04 02 01 05 00 04 20");
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    EVP_Digest(message.data(), message.size(), digest.data(), &length, EVP_sha256(), nullptr);
    info.insert(info.end(), digest.begin(), digest.begin() + length);
    return info;
}

// Whether OpenSSL accepts the signature of a message with the key of a certificate.
bool verifies(const Bytes& certificate, std::string_view message, const Bytes& signature)
{
    const unsigned char* at = certificate.data();
    const std::unique_ptr<X509, decltype(&X509_free)> x509(
        d2i_X509(nullptr, &at, static_cast<long>(certificate.size())), X509_free);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          EVP_MD_CTX_free);
    return x509 != nullptr &&
           EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr,
                                X509_get0_pubkey(x509.get())) == 1 &&
           EVP_DigestVerify(context.get(), signature.data(), signature.size(),
                            reinterpret_cast<const unsigned char*>(message.data()),
                            message.size()) == 1;
}

// A response of 256 bytes is fetched in one piece.
Commands signed256(std::uint8_t keyReference, const Bytes& data)
{
    return signCommands(keyReference, data) + Commands{getResponse(0x00)};
}

class SigningTest : public IdCardHost {
protected:
    void openAndLogin(const sim::IdCardOptions& options = {})
    {
        openOn(options);
        ASSERT_NO_FATAL_FAILURE(loginAs());
    }

    // C_Sign with nothing but its code.
    CK_RV signWith(CK_SESSION_HANDLE handle, CK_ULONG length = 3)
    {
        CK_ULONG room = output.size();
        return p11.C_Sign(handle, data.data(), length, output.data(), &room);
    }

    // The n-th command from here on is refused, though the card carries it out.
    static void refuse(std::size_t n, const Bytes& status)
    {
        pcsc::Action refusal;
        refusal.alter = [status](const Bytes&) { return status; };
        pcsc::onNth(pcsc::Function::Transmit, n, refusal);
    }

    Bytes data = hex("11 22 33");
    Bytes output = Bytes(SIGNATURE_SIZE, SENTINEL);
    Bytes signature;
};

TEST_F(SigningTest, BothKeysMakeSignaturesThatVerifyWithTheirCertificates)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const std::string message = "What the holder of the card agrees to.";
    for (const auto& [key, certificate, reference] :
         {std::tuple{PRIVATE_1, CERTIFICATE_1, ID_1}, {PRIVATE_2, CERTIFICATE_2, ID_2}}) {
        SCOPED_TRACE(key);
        const Bytes der = value(certificate, CKA_VALUE);
        forget();
        ASSERT_RV(CKR_OK, signInit(key));
        EXPECT_TRUE(sent().empty());
        ASSERT_RV(CKR_OK, sign(digestInfo(message), signature));
        EXPECT_EQ(signed256(reference, digestInfo(message)), sent());
        EXPECT_EQ(SIGNATURE_SIZE, signature.size());
        EXPECT_TRUE(verifies(der, message, signature));
        EXPECT_FALSE(verifies(der, "Something else.", signature));
    }
    EXPECT_EQ(2U, card->counters().signatures);
}

TEST_F(SigningTest, ThirtyFiveBytesGoToTheCardByteByByte)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes info = hex("30 21 30 09 06 05 2B 0E 03 02 1A 05 00 04 14"
                           "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13");
    ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
    ASSERT_RV(CKR_OK, sign(info, signature));
    const Commands expected{
        command("00 A4 00 0C 02 3F 00", 2),
        command("00 A4 01 0C 02 01 01", 2),
        command("00 22 41 A4 09 95 01 40 84 01 87 80 01 02", 2),
        command("00 88 02 00 23 30 21 30 09 06 05 2B 0E 03 02 1A 05 00 04 14"
                "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13",
                258),
        command("00 C0 00 00 00", 258),
    };
    EXPECT_EQ(expected, sent());
    EXPECT_EQ(info, card->key(0).recover(signature));
}

TEST_F(SigningTest, TheDataIsNeitherHashedNorPadded)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    for (const std::size_t size : {1U, 20U, 117U, 244U, 245U}) {
        const Bytes raw(size, static_cast<std::uint8_t>(size));
        ASSERT_RV(CKR_OK, signInit(PRIVATE_2));
        ASSERT_RV(CKR_OK, sign(raw, signature));
        EXPECT_EQ(raw, card->key(1).recover(signature));
    }
}

TEST_F(SigningTest, AShorterKeyMakesAShorterSignature)
{
    sim::IdCardOptions options;
    options.positions[1].keyBits = 1024;
    ASSERT_NO_FATAL_FAILURE(openAndLogin(options));
    ASSERT_RV(CKR_OK, signInit(PRIVATE_2));
    ASSERT_RV(CKR_OK, sign(data, signature));
    EXPECT_EQ(signCommands(ID_2, data) + Commands{getResponse(0x80)}, sent());
    EXPECT_EQ(128U, signature.size());
    EXPECT_EQ(data, card->key(1).recover(signature));
}

// Asking for the size, and buffers of every size.

TEST_F(SigningTest, AskingForTheSizeCostsASignatureAndEndsTheOperation)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
    CK_ULONG length = 5;
    EXPECT_RV(CKR_OK, p11.C_Sign(session, data.data(), 3, nullptr, &length));
    EXPECT_EQ(SIGNATURE_SIZE, length);
    EXPECT_EQ(signed256(ID_1, data), sent());
    EXPECT_EQ(1U, card->counters().signatures);
    EXPECT_RV(CKR_OPERATION_NOT_INITIALIZED, signWith(session));
    EXPECT_EQ(1U, card->counters().signatures);
    ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
    EXPECT_RV(CKR_OK, signWith(session));
    EXPECT_EQ(2U, card->counters().signatures);
}

TEST_F(SigningTest, ABufferTooSmallKeepsTheOperationAndItsLength)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
    unsigned long signatures = 0;
    for (const std::size_t room : {0U, 1U, 128U, 255U}) {
        EXPECT_RV(CKR_BUFFER_TOO_SMALL, sign(data, signature, room));
        EXPECT_EQ(++signatures, card->counters().signatures) << "each attempt is a signature";
    }
    ASSERT_RV(CKR_OK, sign(data, signature, 256));
    EXPECT_EQ(data, card->key(0).recover(signature));
    EXPECT_RV(CKR_OPERATION_NOT_INITIALIZED, signWith(session));
}

TEST_F(SigningTest, MoreRoomThanNeededIsLeftAlone)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
    ASSERT_RV(CKR_OK, sign(data, signature, 512));
    EXPECT_EQ(SIGNATURE_SIZE, signature.size());
}

// The order of the checks.

TEST_F(SigningTest, SignInitChecksSessionThenLoginThenKeyThenMechanism)
{
    openOn();
    const CK_SESSION_HANDLE closed = open(0);
    ASSERT_RV(CKR_OK, p11.C_CloseSession(closed));
    forget();
    CK_MECHANISM wrong{CKM_SHA1_RSA_PKCS, nullptr, 0};
    for (const CK_SESSION_HANDLE stray : {CK_SESSION_HANDLE{0}, closed + 1, closed + 1000,
                                          CK_SESSION_HANDLE{0xFFFFFFFF}, ~CK_SESSION_HANDLE{0}}) {
        EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_SignInit(stray, &wrong, 7));
        EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_Sign(stray, nullptr, 0, nullptr, nullptr));
    }
    EXPECT_RV(CKR_SESSION_CLOSED, p11.C_SignInit(closed, &wrong, 7));
    for (const CK_OBJECT_HANDLE key :
         std::vector<CK_OBJECT_HANDLE>{7, 10, 11, 0x4B5A0000, ~CK_OBJECT_HANDLE{0}}) {
        EXPECT_RV(CKR_KEY_HANDLE_INVALID, p11.C_SignInit(session, &wrong, key));
    }
    EXPECT_RV(CKR_MECHANISM_INVALID, p11.C_SignInit(session, &wrong, PRIVATE_1));
    loginAs();
    ASSERT_RV(CKR_OK, p11.C_Logout(session));
    EXPECT_RV(CKR_USER_NOT_LOGGED_IN, p11.C_SignInit(session, &wrong, 7));
    EXPECT_RV(CKR_USER_NOT_LOGGED_IN, signWith(session));
    EXPECT_TRUE(sent().empty());
}

TEST_F(SigningTest, SignChecksDataThenState)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    EXPECT_RV(CKR_ARGUMENTS_BAD, p11.C_Sign(session, nullptr, 3, nullptr, nullptr));
    EXPECT_RV(CKR_ARGUMENTS_BAD, signWith(session, 0));
    EXPECT_RV(CKR_OPERATION_NOT_INITIALIZED, signWith(session));
    ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
    EXPECT_RV(CKR_ARGUMENTS_BAD, signWith(session, 0));
    EXPECT_TRUE(sent().empty());
    EXPECT_RV(CKR_OK, signWith(session)) << "signing was still pending";
}

TEST_F(SigningTest, OnlyOneMechanismSigns)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    for (const CK_MECHANISM_TYPE type :
         {CKM_RSA_PKCS_KEY_PAIR_GEN, CKM_RSA_X_509, CKM_SHA1_RSA_PKCS, CKM_RSA_PKCS_PSS,
          CKM_SHA256_RSA_PKCS, CKM_VELT_GOST_SIGN, CKM_VELT_GOST_KEY_PAIR_GEN}) {
        EXPECT_RV(CKR_MECHANISM_INVALID, signInit(PRIVATE_1, type));
        EXPECT_RV(CKR_OPERATION_NOT_INITIALIZED, signWith(session));
    }
    ASSERT_RV(CKR_OK, signInit(PRIVATE_2));
    EXPECT_RV(CKR_MECHANISM_INVALID, signInit(PRIVATE_1, CKM_RSA_X_509));
    ASSERT_RV(CKR_OK, sign(data, signature)) << "the refused one changed nothing";
    EXPECT_EQ(data, card->key(1).recover(signature));
}

TEST_F(SigningTest, TheLastSignInitDecidesTheKey)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
    ASSERT_RV(CKR_OK, signInit(PRIVATE_2));
    ASSERT_RV(CKR_OK, sign(data, signature));
    EXPECT_EQ(data, card->key(1).recover(signature));
}

TEST_F(SigningTest, OneSessionMayFinishWhatAnotherBegan)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const CK_SESSION_HANDLE other = open(0, READ_ONLY);
    ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
    EXPECT_RV(CKR_OK, signWith(other)) << "one that never logged in passes; the card is verified";
    EXPECT_RV(CKR_OPERATION_NOT_INITIALIZED, signWith(session));
    const auto calls = pcsc::calls(pcsc::Function::Transmit);
    ASSERT_EQ(5U, calls.size());
    for (const auto& call : calls) {
        EXPECT_EQ(calls[0].card, call.card);
    }
}

TEST_F(SigningTest, SigningIsPendingAcrossClosingAndFinalize)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signInit(PRIVATE_2));
    ASSERT_RV(CKR_OK, p11.C_CloseSession(session));
    EXPECT_RV(CKR_SESSION_CLOSED, signWith(session));
    const CK_SESSION_HANDLE old = session;
    ASSERT_RV(CKR_OK, p11.C_Finalize(nullptr));
    initialise();
    EXPECT_RV(CKR_SESSION_CLOSED, signWith(old));
    slots();
    session = open(0);
    ASSERT_NO_FATAL_FAILURE(loginAs());
    ASSERT_RV(CKR_OK, sign(data, signature));
    EXPECT_EQ(data, card->key(1).recover(signature));
    EXPECT_RV(CKR_SESSION_CLOSED, signWith(old));
}

// Keys that are no private keys.

TEST_F(SigningTest, KeyHandleZeroIsRefusedWhenSigning)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signInit(0));
    EXPECT_RV(CKR_KEY_HANDLE_INVALID, signWith(session));
    EXPECT_TRUE(sent().empty());
    Bytes tooLong(LONGEST_DATA + 1, 0x11);
    CK_ULONG room = output.size();
    EXPECT_RV(CKR_KEY_HANDLE_INVALID,
              p11.C_Sign(session, tooLong.data(), tooLong.size(), output.data(), &room))
        << "a bad key is named before data that is too long";
    ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
    EXPECT_RV(CKR_OK, signWith(session));
}

TEST_F(SigningTest, ACertificateOrPublicKeyLendsItsId)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    for (const CK_OBJECT_HANDLE key : {CERTIFICATE_2, PUBLIC_2}) {
        ASSERT_RV(CKR_OK, signInit(key));
        ASSERT_RV(CKR_OK, sign(data, signature));
        EXPECT_EQ(data, card->key(1).recover(signature));
    }
}

TEST_F(SigningTest, AnObjectThatWasNotMadeSignsWithReferenceZero)
{
    sim::IdCardOptions options;
    options.positions[0].certificate = false;
    ASSERT_NO_FATAL_FAILURE(openAndLogin(options));
    ASSERT_RV(CKR_OK, signInit(CERTIFICATE_1));
    EXPECT_RV(CKR_DEVICE_ERROR, signWith(session));
    EXPECT_EQ((Commands{SELECT_MASTER, SELECT_KEYS,
                        command("00 22 41 A4 09 95 01 40 84 01 00 80 01 02", 2)}),
              sent());
}

TEST_F(SigningTest, TheNumberOfObjectsBoundsTheKeyEvenIfItLiesBeyond)
{
    sim::IdCardOptions options;
    options.positions[0].certificate = false;
    ASSERT_NO_FATAL_FAILURE(openAndLogin(options));
    EXPECT_RV(CKR_KEY_HANDLE_INVALID, signInit(PRIVATE_2)) << "five objects, this is the sixth";
    EXPECT_RV(CKR_OK, signInit(PUBLIC_2));
    ASSERT_RV(CKR_OK, sign(data, signature));
    EXPECT_EQ(data, card->key(1).recover(signature));
}

// Data of unusual lengths.

TEST_F(SigningTest, TheLengthByteIsTheLowEightBits)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    for (const std::size_t size : {255U, 256U, 257U, 300U, 1000U}) {
        SCOPED_TRACE(size);
        const Bytes raw(size, 0x5A);
        ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
        forget();
        EXPECT_RV(CKR_FUNCTION_FAILED, sign(raw, signature)) << "the card refuses the length";
        EXPECT_EQ(signCommands(ID_1, raw), sent());
        EXPECT_EQ(static_cast<std::uint8_t>(size & 0xFF), sent().back().command[4]);
    }
}

TEST_F(SigningTest, DataBeyondTheLargestCommandIsRefusedBeforeAnythingIsSent)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
    EXPECT_RV(CKR_DATA_LEN_RANGE, sign(Bytes(LONGEST_DATA + 1, 0x11), signature));
    EXPECT_RV(CKR_DATA_LEN_RANGE, sign(Bytes(1000000, 0x11), signature));
    EXPECT_TRUE(sent().empty());
    EXPECT_RV(CKR_FUNCTION_FAILED, sign(Bytes(LONGEST_DATA, 0x11), signature));
    EXPECT_EQ(signCommands(ID_1, Bytes(LONGEST_DATA, 0x11)), sent());
    ASSERT_RV(CKR_OK, sign(data, signature)) << "signing stays pending over all of them";
}

// Cards that refuse.

TEST_F(SigningTest, WithoutALoginTheCardRefuses)
{
    openOn();
    MessageMark mark;
    ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
    EXPECT_MESSAGES(mark, "C_SignInit", "SignInit CKR_OK");
    mark.reset();
    EXPECT_RV(CKR_FUNCTION_FAILED, signWith(session));
    EXPECT_EQ(signCommands(ID_1, data), sent());
    EXPECT_MESSAGES(mark, "C_Sign", "IDCard Sign 3 APDU error 0x8269", "Sign error 0x6");
    EXPECT_EQ(0x8269U, sessionInfo(session).ulDeviceError);
    EXPECT_EQ(Bytes(SIGNATURE_SIZE, SENTINEL), output);
    ASSERT_NO_FATAL_FAILURE(loginAs());
    mark.reset();
    EXPECT_RV(CKR_OK, signWith(session)) << "signing was still pending";
    EXPECT_MESSAGES(mark, "C_Sign", "Sign CKR_OK");
}

TEST_F(SigningTest, ARefusedMasterFileIsIgnored)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
    refuse(1, hex("6A 82"));
    EXPECT_RV(CKR_OK, signWith(session));
    EXPECT_EQ(signed256(ID_1, data), sent());
}

TEST_F(SigningTest, AKeyApplicationNotFoundIsToleratedAndAnythingElseIsNot)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
    refuse(2, hex("6A 82"));
    EXPECT_RV(CKR_OK, signWith(session));
    EXPECT_EQ(signed256(ID_1, data), sent());
    for (const auto& [status, told] : {std::pair{"69 82", "0x8269"},
                                       {"82 6A", "0x6a82"},
                                       {"6A 81", "0x816a"},
                                       {"90 01", "0x190"}}) {
        ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
        forget();
        refuse(2, hex(status));
        MessageMark mark;
        EXPECT_RV(CKR_DEVICE_ERROR, signWith(session));
        EXPECT_EQ((Commands{SELECT_MASTER, SELECT_KEYS}), sent());
        EXPECT_MESSAGES(mark, "C_Sign", std::string("IDCard Sign 1 APDU error ") + told,
                        "Sign error 0x30");
    }
}

TEST_F(SigningTest, ARefusedSecurityEnvironmentIsADeviceError)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signInit(PRIVATE_2));
    refuse(3, hex("6A 88"));
    MessageMark mark;
    EXPECT_RV(CKR_DEVICE_ERROR, signWith(session));
    EXPECT_EQ(3U, sent().size());
    EXPECT_MESSAGES(mark, "C_Sign", "IDCard Sign 2 APDU error 0x886a", "Sign error 0x30");
    EXPECT_RV(CKR_OK, signWith(session));
}

TEST_F(SigningTest, AMechanismThatIsRefusedIsTold)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    MessageMark mark;
    EXPECT_RV(CKR_MECHANISM_INVALID, signInit(PRIVATE_1, CKM_SHA1_RSA_PKCS));
    EXPECT_MESSAGES(mark, "C_SignInit", "IDCard SignInit CKR_MECHANISM_INVALID",
                    "SignInit error 0x70");
}

TEST_F(SigningTest, ACardPulledOutAtEachCommandFailsTheSignature)
{
    struct Row {
        std::size_t at;
        CK_RV result;
    };
    for (const Row& row :
         {Row{1, CKR_DEVICE_ERROR}, Row{2, CKR_DEVICE_ERROR}, Row{3, CKR_DEVICE_ERROR},
          Row{4, CKR_FUNCTION_FAILED}, Row{5, CKR_FUNCTION_FAILED}}) {
        SCOPED_TRACE(row.at);
        ASSERT_NO_FATAL_FAILURE(openAndLogin());
        ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
        pcsc::Action pull;
        pull.before = [] { pcsc::removeCard(CARD_READER); };
        pcsc::onNth(pcsc::Function::Transmit, row.at, pull);
        EXPECT_RV(row.result, signWith(session));
        EXPECT_EQ(Bytes(SIGNATURE_SIZE, SENTINEL), output);
        refresh();
        EXPECT_RV(CKR_TOKEN_NOT_PRESENT, signWith(session));
        EXPECT_RV(CKR_OK, signInit(PRIVATE_1)) << "needs no card";
        IdCardHost::TearDown();
    }
}

TEST_F(SigningTest, AShortAnswerIsAShortSignature)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
    refuse(4, hex("90 00"));
    ASSERT_RV(CKR_OK, sign(data, signature, 4));
    EXPECT_TRUE(signature.empty());
    ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
    refuse(4, hex("01 02 03 90 00"));
    ASSERT_RV(CKR_OK, sign(data, signature, 4));
    EXPECT_EQ(hex("01 02 03"), signature);
}

TEST_F(SigningTest, WhatABrokenAnswerLeftIsPartOfTheNextCommandsReply)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signInit(PRIVATE_1));
    refuse(4, hex("AA BB 61 10"));
    refuse(5, hex("6F 00"));
    EXPECT_RV(CKR_FUNCTION_FAILED, signWith(session));
    forget();
    ASSERT_RV(CKR_OK, sign(data, signature));
    EXPECT_EQ(data, card->key(0).recover(signature)) << "the selection took the rest along";
    EXPECT_EQ(signed256(ID_1, data), sent());
}

} // namespace
} // namespace velt_test
