// What a host does with a JaCarta, with every command that the token gets: loading, login, public
// keys, signatures, certificates, random bytes. C_OpenSession, C_Login, C_GetAttributeValue,
// C_Sign, C_CreateObject, C_DestroyObject, C_GenerateRandom.
#include "tests/support/applet_host.h"

namespace velt_test {
namespace {

const Sent SELECT = command("00 A4 04 00 0C A0 00 67 61 6D 6D 61 74 65 63 68 00", 4);
const Sent INITIALISE = command("80 15 20 00 00", 4);
const Sent COUNT = command("80 12 22 00 00", 4);

Sent getName(std::uint8_t position, unsigned long capacity)
{
    return shortCommand("80 12 21 00", {0x00, position}, capacity);
}

// Loading the objects of a token whose applet stands selected.
Commands loadCommands(const sim::AppletObjects& objects)
{
    Commands commands{COUNT};
    for (std::size_t i = 0; i < objects.size(); ++i) {
        commands.push_back(getName(static_cast<std::uint8_t>(i), 1026));
        for (std::uint8_t type = 0; type < 4; ++type) {
            commands.push_back(namedCommand("80 12 24 00", objects[i].name, 258, {0x00, type}));
        }
    }
    return commands;
}

Sent extended(std::string_view header, const Bytes& data, unsigned long capacity)
{
    const Bytes length{0x00, static_cast<std::uint8_t>(data.size() >> 8),
                       static_cast<std::uint8_t>(data.size())};
    return {joined({hex(header), length, data}), capacity};
}

class JacartaHost : public AppletHost {
protected:
    void openOn(const sim::JacartaOptions& options = {})
    {
        openWith(std::make_shared<sim::Jacarta>(options));
    }
    void openAndLogin()
    {
        openOn();
        ASSERT_NO_FATAL_FAILURE(loginAs());
    }
    Bytes randomBytes(CK_ULONG length)
    {
        Bytes buffer(300, SENTINEL);
        EXPECT_RV(CKR_OK, p11.C_GenerateRandom(session, buffer.data(), length));
        return buffer;
    }
};

TEST_F(JacartaHost, OpeningSelectsTheAppletAndLoadsTheObjects)
{
    card = std::make_shared<sim::Jacarta>();
    insert(card);
    forget();
    session = open(0);
    EXPECT_EQ((Commands{SELECT, INITIALISE}) + loadCommands(card->objects()), sent());
    refresh();
    forget();
    open(0);
    EXPECT_EQ(loadCommands(card->objects()), sent()) << "the applet stands selected";
}

TEST_F(JacartaHost, ThePinIsSentAsItIs)
{
    openOn();
    EXPECT_RV(CKR_OK, login(session, PIN));
    EXPECT_EQ((Commands{command("80 10 21 00 04 31 32 33 34", 2)}), sent())
        << "with the room that the last reply took";
    EXPECT_TRUE(card->loggedIn());
}

TEST_F(JacartaHost, ALoginAfterALogoutSelectsFirst)
{
    openOn();
    loginAs();
    ASSERT_RV(CKR_OK, p11.C_Logout(session));
    forget();
    EXPECT_RV(CKR_PIN_INCORRECT, login(session, "99999"));
    EXPECT_EQ((Commands{SELECT, INITIALISE, command("80 10 21 00 05 39 39 39 39 39", 2)}), sent());
    forget();
    EXPECT_RV(CKR_OK, login(session, PIN));
    EXPECT_EQ((Commands{command("80 10 21 00 04 31 32 33 34", 2)}), sent());
}

TEST_F(JacartaHost, NamesMayHoldAnyByte)
{
    sim::JacartaOptions options;
    sim::AppletObject rsa = appletObject("");
    rsa.name = hex("00 0A 1B 00 FF 00");
    rsa.rsa = sim::RsaKey::fromTestKey(sim::TestKey::First2048);
    options.objects = {rsa};
    openOn(options);
    EXPECT_EQ((Handles{1, 2}), find({}));
    EXPECT_EQ(bytesOf("000A1B00FF00"), value(1, CKA_LABEL));
    EXPECT_EQ(rsa.rsa.modulus(), value(1, CKA_MODULUS));
    EXPECT_EQ((Commands{namedCommand("80 12 25 00", rsa.name, 512)}), sent());
    loginAs();
    ASSERT_RV(CKR_OK, signInit(2));
    ASSERT_RV(CKR_OK, sign(someDigest(), signature));
    EXPECT_EQ(someDigest(), rsa.rsa.recover(signature));
    ASSERT_RV(CKR_OK, writeByLabel(sim::authorityCertificate(), "000A1B00FF00"));
    EXPECT_EQ(sim::authorityCertificate(), card->object(rsa.name)->certificate());
}

TEST_F(JacartaHost, PublicKeysAndCertificatesComeInOneReply)
{
    openOn();
    const Bytes& rsaName = object(RSA_OBJECT).name;
    const Bytes& gostName = object(GOST_OBJECT).name;
    EXPECT_EQ(object(RSA_OBJECT).rsa.modulus(), value(RSA_PUBLIC, CKA_MODULUS));
    EXPECT_EQ((Commands{namedCommand("80 12 25 00", rsaName, 512)}), sent());
    forget();
    EXPECT_EQ(object(GOST_OBJECT).gost.publicKey(), value(GOST_PUBLIC, CKA_VALUE))
        << "as the certificate carries it";
    EXPECT_EQ((Commands{namedCommand("80 11 21 00", gostName, 66)}), sent());
    forget();
    EXPECT_EQ(object(RSA_OBJECT).certificate(), value(RSA_CERTIFICATE, CKA_VALUE));
    EXPECT_EQ((Commands{namedCommand("80 12 28 00", rsaName, 2050)}), sent());
}

TEST_F(JacartaHost, AGostValueVerifiesWhatTheKeySigned)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes point = value(GOST_PUBLIC, CKA_VALUE);
    ASSERT_RV(CKR_OK, signInit(GOST_PRIVATE, GOST_SIGN_EXTENDED));
    ASSERT_RV(CKR_OK, sign(someDigest(), signature, 64));
    EXPECT_TRUE(sim::GostKey::fromPublicKey(sim::GostAlgorithm::Gost2012_256, point)
                    .verify(someDigest(), signature));
}

TEST_F(JacartaHost, AnRsaSignatureTakesOneExtendedCommand)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes info = sha256Info("message");
    ASSERT_RV(CKR_OK, signInit(RSA_PRIVATE));
    EXPECT_TRUE(sent().empty());
    ASSERT_RV(CKR_OK, sign(info, signature));
    const Bytes data =
        joined({{0x00}, countedName(object(RSA_OBJECT).name), {0x01, 0x00}, paddedBlock(info)});
    EXPECT_EQ((Commands{extended("80 14 23 24", data, 2050)}), sent());
    EXPECT_EQ(info, object(RSA_OBJECT).rsa.recover(signature));
}

TEST_F(JacartaHost, AGostSignatureTakesTheDigestLastByteFirst)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signInit(GOST_PRIVATE, GOST_SIGN_EXTENDED));
    ASSERT_RV(CKR_OK, sign(someDigest(), signature, 64));
    EXPECT_EQ((Commands{namedCommand("80 14 20 00", object(GOST_OBJECT).name, 66,
                                     reversed(someDigest()))}),
              sent());
    const auto calls = pcsc::calls(pcsc::Function::Transmit);
    EXPECT_EQ(joined({halvesReversed(signature), hex("90 00")}), calls.back().received);
}

TEST_F(JacartaHost, AfterASignatureTheNextPinHasTheRoomOfIt)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const CK_SESSION_HANDLE second = open(0, READ_ONLY);
    forget();
    ASSERT_RV(CKR_OK, signInit(GOST_PRIVATE, GOST_SIGN_EXTENDED));
    ASSERT_RV(CKR_OK, sign(someDigest(), signature, 64));
    forget();
    ASSERT_RV(CKR_OK, login(second, PIN));
    EXPECT_EQ((Commands{command("80 10 21 00 04 31 32 33 34", 64)}), sent());
}

TEST_F(JacartaHost, ACertificateIsWrittenInOneExtendedCommand)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes der = sim::authorityCertificate();
    const Bytes& name = object(GOST_OBJECT).name;
    ASSERT_RV(CKR_OK, writeById(der, GOST_OBJECT));
    const Bytes& container = object(GOST_OBJECT).container;
    const Bytes data = joined({{static_cast<std::uint8_t>(container.size() >> 8),
                                static_cast<std::uint8_t>(container.size()), 0x00},
                               countedName(name),
                               container});
    EXPECT_EQ((Commands{getName(GOST_OBJECT, 22), extended("80 12 27 00", data, 4)}) +
                  loadCommands(card->objects()),
              sent());
    forget();
    ASSERT_RV(CKR_OK, writeByLabel(der, labelOf(name)));
    EXPECT_EQ((Commands{extended("80 12 27 00", data, 4)}) + loadCommands(card->objects()), sent())
        << "a label needs no position";
}

TEST_F(JacartaHost, ATinyCertificateIsExtendedTooAndANameOf20BytesFits)
{
    sim::JacartaOptions options;
    sim::AppletObject rsa = appletObject("twenty bytes of name");
    rsa.rsa = sim::RsaKey::fromTestKey(sim::TestKey::First2048);
    options.objects = {rsa};
    openOn(options);
    loginAs();
    ASSERT_RV(CKR_OK, writeById({}, 0));
    EXPECT_EQ(20U, object(0).container.size()) << "an empty gzip member";
    const Bytes write = sent().at(1).command;
    EXPECT_EQ(hex("80 12 27 00 00 00 2C 00 14 00 14"), Bytes(write.begin(), write.begin() + 11));
    EXPECT_EQ(Bytes{}, value(1, CKA_VALUE));
}

TEST_F(JacartaHost, ADestructionNamesTheObject)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes name = object(GOST_OBJECT).name;
    ASSERT_RV(CKR_OK, p11.C_DestroyObject(session, GOST_CERTIFICATE));
    EXPECT_EQ((Commands{namedCommand("80 12 23 00", name, 2)}) + loadCommands(card->objects()),
              sent());
    EXPECT_EQ((Handles{1, 2, 3}), find({}));
}

TEST_F(JacartaHost, TheTokenMakesRandomBytes)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    for (const std::size_t length : {1U, 16U, 32U, 255U, 256U}) {
        forget();
        const Bytes first = randomBytes(length);
        EXPECT_EQ((Commands{shortCommand(
                      "80 14 31 00",
                      {static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)},
                      length + 2)}),
                  sent());
        const Bytes received = pcsc::calls(pcsc::Function::Transmit).back().received;
        EXPECT_EQ(received,
                  joined({Bytes(first.begin(), first.begin() + static_cast<std::ptrdiff_t>(length)),
                          hex("90 00")}));
        EXPECT_EQ(Bytes(300 - length, SENTINEL),
                  Bytes(first.begin() + static_cast<std::ptrdiff_t>(length), first.end()));
    }
    EXPECT_NE(randomBytes(32), randomBytes(32));
}

TEST_F(JacartaHost, RandomBytesThatTheTokenDoesNotGiveLeaveTheBuffer)
{
    openOn();
    EXPECT_EQ(Bytes(300, SENTINEL), randomBytes(32)) << "nobody is logged in";
    EXPECT_EQ(1U, sent().size());
    EXPECT_EQ(0x1464U, sessionInfo(session).ulDeviceError);
    loginAs();
    EXPECT_EQ(Bytes(300, SENTINEL), randomBytes(257));
    EXPECT_TRUE(sent().empty());
}

TEST_F(JacartaHost, AnAppletThatIsNotThereStillGetsThePin)
{
    openOn();
    loginAs();
    ASSERT_RV(CKR_OK, p11.C_Logout(session));
    forget();
    pcsc::replyNth(1, hex("6A 82"));
    EXPECT_RV(CKR_OK, login(session, PIN));
    EXPECT_EQ((Commands{SELECT, command("80 10 21 00 04 31 32 33 34", 2)}), sent());
}

} // namespace
} // namespace velt_test
