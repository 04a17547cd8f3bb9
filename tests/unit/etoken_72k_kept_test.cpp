// What the simulated eToken 72K keeps: certificates in three stages, new pairs, its state; and how
// it is traced.
#include "sim/cards/gzip_member.h"
#include "sim/cards/jacarta.h"
#include "tests/support/etoken_72k_talk.h"

#include <stdexcept>

namespace sim {
namespace {

using namespace etoken_72k_talk;

TEST(Etoken72kKept, WritesACertificateInThreeStages)
{
    Etoken72k card(fourObjects());
    logIn(card);
    const Bytes container = counting(70);
    const std::string text = toHex(container);
    EXPECT_EQ("6985", ask(card, append("01"))) << "nothing is announced";
    EXPECT_EQ("6985", ask(card, named(BIND, RSA_NAME)));
    walk(card, {announce(70), append(text.substr(0, 64)), append(text.substr(64, 64)),
                append(text.substr(128)), named(BIND, RSA_NAME)});
    EXPECT_EQ(container, card.object(RSA_NAME)->container);
    EXPECT_EQ("6985", ask(card, named(BIND, GOST_NAME))) << "bound once";
    walk(card, {announce(2), append("AA BB"), named(BIND, RSA_NAME)});
    EXPECT_EQ("AABB", toHex(card.object(RSA_NAME)->container)) << "replaced whole";
}

TEST(Etoken72kKept, ALastByteThatNeverComesIsZero)
{
    Etoken72k card(fourObjects());
    logIn(card);
    walk(card, {announce(65), append(run(32, "AA")), append(run(32, "BB")), named(BIND, RSA_NAME)});
    EXPECT_EQ(run(32, "AA") + run(32, "BB") + "00", toHex(card.object(RSA_NAME)->container));
    walk(card, {announce(1), named(BIND, RSA_NAME)});
    EXPECT_EQ("00", toHex(card.object(RSA_NAME)->container));
    walk(card, {announce(34), append(run(32, "AA"))});
    EXPECT_EQ("6985", ask(card, named(BIND, RSA_NAME))) << "two bytes are missing";
    walk(card, {append("CC"), named(BIND, RSA_NAME)});
    EXPECT_EQ(run(32, "AA") + "CC00", toHex(card.object(RSA_NAME)->container));
}

TEST(Etoken72kKept, AGzipMemberWithoutItsLastByteIsReadBackWhole)
{
    Etoken72k card(fourObjects());
    logIn(card);
    std::size_t size = 30;
    while (gzipMember(counting(size)).size() % 32 != 1) {
        ++size;
    }
    const Bytes member = gzipMember(counting(size));
    walk(card, {announce(member.size())});
    for (std::size_t offset = 0; offset + 1 < member.size(); offset += 32) {
        walk(card, {append(toHex(std::span(member).subspan(offset, 32)))});
    }
    walk(card, {named(BIND, RSA_NAME), named(CHOOSE, RSA_NAME)});
    EXPECT_EQ(counting(size), gzipContent(collectPieces(card, certificatePiece)));
}

TEST(Etoken72kKept, RefusesCertificatesThatDoNotFit)
{
    Etoken72k card(fourObjects());
    logIn(card);
    const Bytes before = card.state();
    EXPECT_EQ("6A80", ask(card, announce(0)));
    EXPECT_EQ("6A84", ask(card, announce(2049)));
    walk(card, {announce(33), append(run(32, "AA"))});
    EXPECT_EQ("6A84", ask(card, append("BB CC")));
    EXPECT_EQ("6A80", ask(card, append(run(33, "AA"))));
    EXPECT_EQ("6A80", ask(card, "80 12 40 00 03 00 02 AA"));
    EXPECT_EQ("6A80", ask(card, "80 12 40 00 03 01 01 AA"));
    EXPECT_EQ("6A80", ask(card, "80 12 40 00 02 00 00"));
    EXPECT_EQ("6428", ask(card, named(BIND, ABSENT_NAME)));
    EXPECT_EQ("6A80", ask(card, named(BIND, RSA_NAME, "00")));
    EXPECT_EQ(before, card.state());
    walk(card, {named(BIND, RSA_NAME)});
    walk(card, {announce(2048)});
    for (int i = 0; i < 64; ++i) {
        walk(card, {append(run(32, "5A"))});
    }
    walk(card, {named(BIND, RSA_NAME)});
    EXPECT_EQ(Bytes(2048, 0x5A), card.object(RSA_NAME)->container);
}

TEST(Etoken72kKept, ALoginThatEndsDropsWhatWasUnderWay)
{
    for (const char* const ending : {INITIALISE, SELECT, WRONG_PIN}) {
        Etoken72k card(fourObjects());
        logIn(card);
        walk(card, {announce(2), append("AA BB")});
        upload(card, block("61"));
        answer(card, ending);
        logIn(card);
        EXPECT_EQ("6985", ask(card, named(BIND, RSA_NAME))) << ending;
        EXPECT_EQ("6985", ask(card, signRsa(RSA_NAME))) << ending;
    }
}

TEST(Etoken72kKept, GeneratesAndDeletesPairs)
{
    Etoken72k card(fourObjects());
    logIn(card);
    EXPECT_EQ("9000", ask(card, shortCommand(GENERATE_RSA, "08 00 08 00 02 4E 31")));
    EXPECT_EQ("9000", ask(card, shortCommand(GENERATE_GOST, "01 00 02 4E 32")));
    EXPECT_EQ("6A89", ask(card, shortCommand(GENERATE_GOST, "01 00 02 4E 32")));
    EXPECT_EQ("4E31009000", ask(card, "80 12 21 00 02 00 04"));
    EXPECT_EQ("0800000100019000", ask(card, keySize(hex("4E 31"))));
    EXPECT_EQ(34u, answer(card, named(GOST_FIRST, hex("4E 32"))).size());
    EXPECT_EQ("9000", ask(card, named(DESTROY, RSA_NAME)));
    EXPECT_EQ("6428", ask(card, named(DESTROY, RSA_NAME)));
    EXPECT_EQ("00059000", ask(card, COUNT_OBJECTS));
    EXPECT_EQ("4F4C44009000", ask(card, "80 12 21 00 02 00 00"));
}

TEST(Etoken72kKept, BringsThreePairsUnderNamesOfDifferentLengths)
{
    const Etoken72k card;
    ASSERT_EQ(3u, card.objects().size());
    EXPECT_EQ(12u, card.objects()[0].name.size());
    EXPECT_EQ(9u, card.objects()[1].name.size());
    EXPECT_EQ(5u, card.objects()[2].name.size());
    EXPECT_EQ(2048u, card.objects()[0].rsa.bits());
    EXPECT_EQ(1024u, card.objects()[2].rsa.bits());
    EXPECT_THAT(toHex(card.objects()[0].certificate()),
                ::testing::HasSubstr(toHex(card.objects()[0].rsa.modulus())));
    EXPECT_THAT(toHex(card.objects()[1].certificate()),
                ::testing::HasSubstr(toHex(card.objects()[1].gost.publicKey())));
    EXPECT_TRUE(card.objects()[2].container.empty());
}

TEST(Etoken72kKept, RefusesSerialNumbersThatNoTokenCanHave)
{
    Etoken72kOptions options;
    options.serial = "";
    EXPECT_THROW(Etoken72k{options}, std::invalid_argument);
    options.serial = "1234567890123456789012";
    EXPECT_THROW(Etoken72k{options}, std::invalid_argument);
}

TEST(Etoken72kKept, KeepsSerialNumberAndKindOfNamesWithoutPower)
{
    Etoken72kOptions options = fourObjects();
    options.serial = "77";
    options.terminatedNames = false;
    const Etoken72k card(options);
    Etoken72k other;
    other.restore(card.state());
    EXPECT_EQ(card.state(), other.state());
    start(other);
    EXPECT_EQ("3737" + run(19, "00") + "9000", ask(other, "80 15 10 00 00"));
    EXPECT_EQ("676F73749000", ask(other, "80 12 21 00 02 00 02"));
}

TEST(Etoken72kKept, RefusesStatesThatNoTokenCanHave)
{
    Etoken72k card(fourObjects());
    const Bytes good = card.state();
    const StateRecords records = unpackState("VELTE721", good);
    const std::vector<std::pair<std::uint8_t, Bytes>> wrong = {
        {0x01, {0}}, {0x04, {0x00}}, {0x81, {}}, {0x81, Bytes(22, 0x31)}, {0x82, {2}}, {0x82, {}}};
    for (const auto& [tag, value] : wrong) {
        StateRecords changed = records;
        changed[tag] = value;
        EXPECT_THROW(card.restore(packState("VELTE721", changed)), StateError) << int{tag};
    }
    EXPECT_THROW(card.restore(Jacarta().state()), StateError) << "its sibling's";
    EXPECT_EQ(good, card.state());
}

TEST(Etoken72kKept, TellsItsCommandsInPlainWords)
{
    const Etoken72k card;
    const std::vector<std::pair<std::string, std::string>> told = {
        {SELECT, "select applet 00000000000001020300"},
        {"80 15 10 00 00", "read the serial number"},
        {RIGHT_PIN, "verify the PIN"},
        {named(PROBE, RSA_NAME, "00 03"), "look for a part of 525341"},
        {keySize(RSA_NAME), "read size of RSA key 525341"},
        {modulusPiece(RSA_NAME, 32), "read piece of RSA key 525341"},
        {named(GOST_FIRST, GOST_NAME), "read half of GOST key 676F7374"},
        {named(GOST_SECOND, GOST_NAME), "read rest of GOST key 676F7374"},
        {named(CHOOSE, BARE_NAME), "choose certificate 43"},
        {GET_SIZE, "read the certificate or its size"},
        {announce(70), "write a certificate or its size"},
        {named(BIND, BARE_NAME), "bind the certificate to 43"},
        {uploadPiece(0, run(32, "00")), "upload a piece to sign"},
        {signRsa(RSA_NAME), "sign with RSA key 525341"},
        {signaturePiece(0), "read the signature"},
        {named(SIGN_GOST, GOST_NAME, reversedDigest()), "sign with GOST key 676F7374"},
        {REST_OF_SIGNATURE, "read the rest of the signature"},
        {shortCommand(GENERATE_RSA, "08 00 08 00 01 4E"), "generate RSA key pair 4E"},
        {shortCommand(GENERATE_GOST, "01 00 01 4E"), "generate GOST key pair 4E"},
        {named(DESTROY, RSA_NAME), "delete object 525341"},
        {"80 10 21 00 04 31 32 33 34", "unknown command"}};
    for (const auto& [command, words] : told) {
        EXPECT_EQ(words, card.words(hex(command))) << command;
    }
    EXPECT_EQ(4u, Etoken72k::secretLength(hex(RIGHT_PIN)));
}

} // namespace
} // namespace sim
