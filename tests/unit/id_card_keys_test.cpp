// The keys of the simulated identity card: reading, choosing, signing and generating.
#include "tests/support/id_card_talk.h"

#include <openssl/x509.h>

namespace sim {
namespace {

using namespace id_card_talk;

TEST(IdCardKeys, SendsAPublicKeyBehindAHeaderOf15Bytes)
{
    IdCard card(withKeys(2048, 1024));
    walk(card, {SELECT_MASTER, SELECT_KEYS});
    EXPECT_EQ("6100", ask(card, PUBLIC_KEY_07));
    const std::string modulus = toHex(card.modulus(0));
    ASSERT_EQ(512u, modulus.size());
    EXPECT_EQ("FFA007820109"
              "7F49820104"
              "81820100" +
                  modulus.substr(0, 482) + "610F",
              ask(card, REST_OF_256));
    EXPECT_EQ(modulus.substr(482) + "9000", ask(card, "00 C0 00 00 0F"));
    EXPECT_EQ("618F", ask(card, PUBLIC_KEY_08));
    EXPECT_EQ("FFA008820089"
              "7F49820084"
              "81820080" +
                  toHex(card.modulus(1)) + "9000",
              ask(card, "00 C0 00 00 8F"));
}

TEST(IdCardKeys, AnAbsentKeyBringsTwoBytes)
{
    IdCard card(withKeys(0, 2048));
    walk(card, {SELECT_MASTER, SELECT_KEYS});
    EXPECT_EQ("6102", ask(card, PUBLIC_KEY_07));
    EXPECT_EQ("4D009000", ask(card, "00 C0 00 00 02"));
    EXPECT_EQ("6100", ask(card, PUBLIC_KEY_08));
    EXPECT_TRUE(card.modulus(0).empty());
}

TEST(IdCardKeys, RefusesOtherQuestionsForPublicKeys)
{
    IdCard card;
    walk(card, {SELECT_MASTER});
    EXPECT_EQ("6A88", ask(card, PUBLIC_KEY_07)) << "the keys are not selected";
    walk(card, {SELECT_KEYS});
    EXPECT_EQ("6A88", ask(card, "00 CB 3F FF 0B 4D 09 FF A0 06 05 7F 49 02 81 00"));
    EXPECT_EQ("6A88", ask(card, "00 CB 3F FF 0B 4D 09 FF A0 09 05 7F 49 02 81 00"));
    EXPECT_EQ("6A88", ask(card, "00 CB 3F FF 0B 4D 09 FF A0 87 05 7F 49 02 81 00"));
    EXPECT_EQ("6A80", ask(card, "00 CB 3F FF 0B 4D 09 FF A1 07 05 7F 49 02 81 00"));
    EXPECT_EQ("6A80", ask(card, "00 CB 3F FF 0B 4D 09 FF A0 07 05 7F 49 02 82 00"));
    EXPECT_EQ("6A80", ask(card, "00 CB 3F FF 02 4D 00"));
    EXPECT_EQ("6A86", ask(card, "00 CB 3F FE 0B 4D 09 FF A0 07 05 7F 49 02 81 00"));
    EXPECT_EQ("6700", ask(card, std::string(PUBLIC_KEY_07) + "00")) << "T=0 sends no Le here";
    EXPECT_EQ("6700", ask(card, "00 CB 3F FF 0C 4D 09 FF A0 07 05 7F 49 02 81 00"));
    EXPECT_EQ("6700", ask(card, "00 CB 3F FF 00"));
}

TEST(IdCardKeys, SignaturesOfBothKeysHoldTheDataUnderThePadding)
{
    IdCard card(withKeys(2048, 1024));
    prepareSigning(card, USE_KEY_87);
    EXPECT_EQ("6100", ask(card, SIGN_ABC));
    const Bytes first = answer(card, REST_OF_256);
    ASSERT_EQ(258u, first.size());
    EXPECT_EQ("616263", toHex(card.key(0).recover(withoutStatus(first))));
    walk(card, {SELECT_MASTER, SELECT_KEYS, USE_KEY_88});
    EXPECT_EQ("6180", ask(card, SIGN_ABC));
    const Bytes second = answer(card, "00 C0 00 00 80");
    ASSERT_EQ(130u, second.size());
    EXPECT_EQ("616263", toHex(card.key(1).recover(withoutStatus(second))));
    EXPECT_EQ(2u, card.counters().signatures);
}

TEST(IdCardKeys, SignaturesVerifyAgainstTheCertificate)
{
    IdCard card;
    prepareSigning(card, USE_KEY_88);
    const std::string message = "to be signed";
    Bytes digest(32);
    ASSERT_EQ(1, EVP_Digest(message.data(), message.size(), digest.data(), nullptr, EVP_sha256(),
                            nullptr));
    const std::string digestInfo = "3031300D060960864801650304020105000420" + toHex(digest);
    const Bytes signature = withoutStatus(collect(card, "00 88 02 00 33" + digestInfo));
    const Bytes der = card.certificate(1);
    const unsigned char* at = der.data();
    X509* const certificate = d2i_X509(nullptr, &at, static_cast<long>(der.size()));
    ASSERT_NE(nullptr, certificate);
    EVP_MD_CTX* const context = EVP_MD_CTX_new();
    ASSERT_EQ(1, EVP_DigestVerifyInit(context, nullptr, EVP_sha256(), nullptr,
                                      X509_get0_pubkey(certificate)));
    const Bytes text(message.begin(), message.end());
    EXPECT_EQ(
        1, EVP_DigestVerify(context, signature.data(), signature.size(), text.data(), text.size()));
    EVP_MD_CTX_free(context);
    X509_free(certificate);
}

TEST(IdCardKeys, SignsAsMuchAsTheKeyHoldsAndNoMore)
{
    IdCard card(withKeys(2048, 1024));
    prepareSigning(card, USE_KEY_87);
    EXPECT_EQ("6100", ask(card, "00 88 02 00 F5" + run(245, "AB")));
    EXPECT_EQ("6700", ask(card, "00 88 02 00 F6" + run(246, "AB")));
    walk(card, {USE_KEY_88});
    EXPECT_EQ("6180", ask(card, "00 88 02 00 75" + run(117, "AB")));
    EXPECT_EQ("6700", ask(card, "00 88 02 00 76" + run(118, "AB")));
    EXPECT_EQ(4u, card.counters().signCommands);
    EXPECT_EQ(2u, card.counters().signatures);
}

TEST(IdCardKeys, RefusesToSignWithoutThePin)
{
    IdCard card;
    walk(card, {SELECT_MASTER, SELECT_KEYS, USE_KEY_87});
    EXPECT_EQ("6982", ask(card, SIGN_ABC));
    walk(card, {SELECT_MASTER});
    EXPECT_EQ("63C2", ask(card, WRONG_PIN));
    walk(card, {SELECT_KEYS, USE_KEY_87});
    EXPECT_EQ("6982", ask(card, SIGN_ABC));
    EXPECT_EQ(2u, card.counters().signCommands);
    EXPECT_EQ(0u, card.counters().signatures);
}

TEST(IdCardKeys, RefusesToSignWithoutAKeyChosenInTheKeyDirectory)
{
    IdCard card;
    logIn(card);
    EXPECT_EQ("6985", ask(card, SIGN_ABC));
    walk(card, {SELECT_KEYS});
    EXPECT_EQ("6985", ask(card, SIGN_ABC));
    walk(card, {USE_KEY_87, SELECT_MASTER, SELECT_KEYS});
    EXPECT_EQ("6985", ask(card, SIGN_ABC)) << "selecting a directory forgets the chosen key";
}

TEST(IdCardKeys, RefusesOtherFormsOfSigning)
{
    IdCard card;
    prepareSigning(card, USE_KEY_87);
    EXPECT_EQ("6A86", ask(card, "00 88 00 00 03 61 62 63"));
    EXPECT_EQ("6A86", ask(card, "00 88 02 01 03 61 62 63"));
    EXPECT_EQ("6700", ask(card, "00 88 02 00 03 61 62 63 00"));
    EXPECT_EQ("6700", ask(card, "00 88 02 00 04 61 62 63"));
    EXPECT_EQ("6700", ask(card, "00 88 02 00 00"));
    EXPECT_EQ("6700", ask(card, "00 88 02 00 00" + run(256, "AB")));
    EXPECT_EQ("6700", ask(card, "00 88 02 00 01" + run(257, "AB")));
    EXPECT_EQ("6100", ask(card, SIGN_ABC));
}

TEST(IdCardKeys, ChoosesAKeyByTheOneTemplateAlone)
{
    IdCard card(withKeys(2048, 0));
    walk(card, {SELECT_MASTER});
    EXPECT_EQ("6985", ask(card, USE_KEY_87)) << "the keys are not selected";
    walk(card, {SELECT_KEYS});
    EXPECT_EQ("6A88", ask(card, USE_KEY_88)) << "there is no such key";
    EXPECT_EQ("6A88", ask(card, "00 22 41 A4 09 95 01 40 84 01 07 80 01 02"));
    EXPECT_EQ("6A88", ask(card, "00 22 41 A4 09 95 01 40 84 01 00 80 01 02"));
    EXPECT_EQ("6A88", ask(card, "00 22 41 A4 09 95 01 40 84 01 89 80 01 02"));
    EXPECT_EQ("6A80", ask(card, "00 22 41 A4 09 95 01 80 84 01 87 80 01 02"));
    EXPECT_EQ("6A80", ask(card, "00 22 41 A4 09 95 01 40 84 01 87 80 01 01"));
    EXPECT_EQ("6A80", ask(card, "00 22 41 A4 06 84 01 87 80 01 02"));
    EXPECT_EQ("6A86", ask(card, "00 22 41 B6 09 95 01 40 84 01 87 80 01 02"));
    EXPECT_EQ("6A86", ask(card, "00 22 81 A4 09 95 01 40 84 01 87 80 01 02"));
    EXPECT_EQ("6700", ask(card, "00 22 41 A4 09 95 01 40 84 01 87 80 01"));
    EXPECT_EQ("6700", ask(card, std::string(USE_KEY_87) + "00"));
    EXPECT_EQ("6700", ask(card, "00 22 41 A4 00"));
    EXPECT_EQ("9000", ask(card, USE_KEY_87));
}

TEST(IdCardKeys, GeneratesAKeyOfItsOwnSizeAfterThePin)
{
    IdCardOptions options = withKeys(2048, 0);
    options.generatedBits = 1024;
    IdCard card(options);
    const Bytes before = card.modulus(0);
    const Bytes certificateFile = card.file(1);
    walk(card, {SELECT_MASTER, SELECT_KEYS});
    EXPECT_EQ("6982", ask(card, GENERATE_87));
    EXPECT_EQ(before, card.modulus(0));
    logIn(card);
    walk(card, {SELECT_KEYS, GENERATE_87, GENERATE_88});
    EXPECT_EQ(1024u, card.key(0).bits());
    EXPECT_EQ(1024u, card.key(1).bits());
    EXPECT_NE(card.modulus(0), card.modulus(1));
    EXPECT_EQ(certificateFile, card.file(1));
    walk(card, {USE_KEY_88});
    EXPECT_EQ("616263", toHex(card.key(1).recover(withoutStatus(collect(card, SIGN_ABC)))));
    EXPECT_EQ(3u, card.counters().generations);
}

TEST(IdCardKeys, RefusesOtherFormsOfKeyGeneration)
{
    IdCard card;
    logIn(card);
    EXPECT_EQ("6985", ask(card, GENERATE_87)) << "the keys are not selected";
    walk(card, {SELECT_KEYS});
    const Bytes before = card.modulus(0);
    EXPECT_EQ("6A88", ask(card, "00 46 02 00 05 A4 03 84 01 86"));
    EXPECT_EQ("6A88", ask(card, "00 46 02 00 05 A4 03 84 01 89"));
    EXPECT_EQ("6A80", ask(card, "00 46 02 00 05 A5 03 84 01 87"));
    EXPECT_EQ("6A80", ask(card, "00 46 02 00 06 A4 04 84 02 87 00"));
    EXPECT_EQ("6A86", ask(card, "00 46 00 00 05 A4 03 84 01 87"));
    EXPECT_EQ("6A86", ask(card, "00 46 02 01 05 A4 03 84 01 87"));
    EXPECT_EQ("6700", ask(card, "00 46 02 00 05 A4 03 84 01 87 00"));
    EXPECT_EQ("6700", ask(card, "00 46 02 00 00"));
    EXPECT_EQ(before, card.modulus(0));
}

TEST(IdCardKeys, AFreshKeyDiffersFromTheOneThatStandsReady)
{
    IdCardOptions options = withKeys(1024, 0);
    const Bytes ready = IdCard(options).modulus(0);
    EXPECT_EQ(ready, IdCard(options).modulus(0));
    options.positions[0].freshKey = true;
    const IdCard fresh(options);
    EXPECT_EQ(128u, fresh.modulus(0).size());
    EXPECT_NE(ready, fresh.modulus(0));
}

} // namespace
} // namespace sim
