// What a host does with an eToken 72K, with every command that the token gets: names, loading,
// pieces of keys and certificates, signatures. C_OpenSession, C_Login, C_GetAttributeValue, C_Sign,
// C_CreateObject, C_DestroyObject, C_GenerateRandom.
#include "sim/cards/gzip_member.h"
#include "tests/support/applet_host.h"

namespace velt_test {
namespace {

const Sent SELECT = command("00 A4 04 00 0A 00 00 00 00 00 00 01 02 03 00", 4);
const Sent INITIALISE = command("80 15 20 00 00", 4);
const Sent READ_SERIAL = command("80 15 10 00 00", 23);
const Sent COUNT = command("80 12 22 00 00", 4);

Sent getName(std::uint8_t position, unsigned long capacity)
{
    return shortCommand("80 12 21 00", {0x00, position}, capacity);
}

Bytes two(std::size_t number)
{
    return {static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number)};
}

// Loading the objects of a token whose applet stands selected.
Commands loadCommands(const sim::AppletObjects& objects, const Bytes& counted = {})
{
    Commands commands{COUNT};
    for (std::size_t i = 0; i < objects.size(); ++i) {
        commands.push_back(getName(static_cast<std::uint8_t>(i), 258));
        for (std::uint8_t type = 0; type < 4; ++type) {
            commands.push_back(
                namedCommand("80 12 44 00", joined({objects[i].name, counted}), 258, {0x00, type}));
        }
    }
    return commands;
}

// Reading the public key of an RSA pair.
Commands modulusCommands(const Bytes& name, std::size_t size)
{
    const Bytes named = joined({{0x00}, countedName(name)});
    Commands commands{shortCommand("80 12 47 00", joined({two(0), named}), 8)};
    for (std::size_t offset = 0; offset < size; offset += 32) {
        commands.push_back(shortCommand("80 12 47 01", joined({two(offset), named}), 34));
    }
    return commands;
}

Commands readCertificate(const Bytes& name, std::size_t size)
{
    Commands commands{namedCommand("80 12 43 00", name, 4), command("80 12 41 00 02 00 00", 4)};
    for (std::size_t offset = 0; offset < size; offset += 32) {
        commands.push_back(shortCommand("80 12 41 00", joined({{0x00, 0x20}, two(offset)}), 34));
    }
    return commands;
}

Commands signCommands(const Bytes& name, const Bytes& data, std::size_t size)
{
    const Bytes block = paddedBlock(data);
    Commands commands;
    for (std::size_t offset = 0; offset < block.size(); offset += 32) {
        const auto from = block.begin() + static_cast<std::ptrdiff_t>(offset);
        commands.push_back(shortCommand(
            "80 12 49 00", joined({{0x00, static_cast<std::uint8_t>(offset)}, {from, from + 32}}),
            4));
    }
    commands.push_back(
        shortCommand("80 14 52 77", joined({{0x01, 0x00, 0x00}, countedName(name)}), 4));
    for (std::size_t offset = 0; offset < size; offset += 32) {
        commands.push_back(shortCommand("80 12 48 00", two(offset), 34));
    }
    return commands;
}

// The pieces stop before the last byte, so that a single byte left over is never sent.
Commands writeCommands(const Bytes& name, const Bytes& container)
{
    Commands commands{
        shortCommand("80 12 40 00", joined({{0x00, 0x00}, two(container.size())}), 4)};
    for (std::size_t offset = 0; offset + 1 < container.size(); offset += 32) {
        const std::size_t size = std::min<std::size_t>(32, container.size() - offset);
        const auto from = container.begin() + static_cast<std::ptrdiff_t>(offset);
        commands.push_back(
            shortCommand("80 12 40 00",
                         joined({two(size), {from, from + static_cast<std::ptrdiff_t>(size)}}), 2));
    }
    commands.push_back(namedCommand("80 12 42 00", name, 2));
    return commands;
}

class EtokenHost : public AppletHost {
protected:
    void openOn(const sim::Etoken72kOptions& options = {})
    {
        openWith(std::make_shared<sim::Etoken72k>(options));
    }
    void openAndLogin(const sim::Etoken72kOptions& options = {})
    {
        openOn(options);
        ASSERT_NO_FATAL_FAILURE(loginAs());
    }
    std::string serial()
    {
        CK_TOKEN_INFO info{};
        EXPECT_RV(CKR_OK, p11.C_GetTokenInfo(0, &info));
        return text(info.serialNumber);
    }
    static sim::Etoken72kOptions unterminated()
    {
        sim::Etoken72kOptions options;
        options.terminatedNames = false;
        return options;
    }
};

TEST_F(EtokenHost, OpeningSelectsTheAppletReadsTheSerialNumberAndLoadsTheObjects)
{
    card = std::make_shared<sim::Etoken72k>();
    insert(card);
    forget();
    session = open(0);
    EXPECT_EQ((Commands{SELECT, INITIALISE, READ_SERIAL}) + loadCommands(card->objects()), sent());
    EXPECT_EQ(std::string("ET72K-00421\0\0\0\0\0", 16), serial());
    refresh();
    forget();
    open(0);
    EXPECT_EQ(loadCommands(card->objects()), sent()) << "the applet stands selected";
}

TEST_F(EtokenHost, SerialNumbersOfEveryLengthAreToldAsFarAsTheFieldGoes)
{
    for (const std::string number :
         {"1", "123456789012345", "1234567890123456", "1234567890123456789"}) {
        sim::Etoken72kOptions options;
        options.serial = number;
        ASSERT_NO_FATAL_FAILURE(openAndLogin(options));
        std::string expected = number;
        expected.resize(16, '\0');
        EXPECT_EQ(expected, serial());
        ASSERT_RV(CKR_OK, p11.C_Logout(session)) << "so that the next token is selected";
        CardHost::TearDown();
    }
    sim::Etoken72kOptions options;
    options.serial = "12345678901234567890";
    openOn(options);
    EXPECT_EQ(std::string(16, '\0'), serial()) << "20 bytes leave no pair of zero bytes";
}

TEST_F(EtokenHost, ATokenPutIntoItsPlaceIsNotSelectedWhileTheFlagStands)
{
    openOn();
    pcsc::removeCard(CARD_READER);
    pcsc::insertCard(CARD_READER, std::make_shared<sim::Etoken72k>());
    refresh();
    CK_SESSION_HANDLE second = NO_HANDLE;
    forget();
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_OpenSession(0, READ_WRITE, nullptr, nullptr, &second));
    EXPECT_EQ((Commands{COUNT}), sent());
    ASSERT_RV(CKR_OK, login(second, PIN)) << "which the token refuses";
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_Logout(second)) << "and so does this not help";
}

TEST_F(EtokenHost, ThePinIsSentAsItIs)
{
    openOn();
    EXPECT_RV(CKR_OK, login(session, PIN));
    EXPECT_EQ((Commands{command("80 10 20 00 04 31 32 33 34", 2)}), sent());
    EXPECT_TRUE(card->loggedIn());
}

TEST_F(EtokenHost, NamesWithoutAZeroByteBehindThemTakeTheStatusAlong)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin(unterminated()));
    ASSERT_NO_FATAL_FAILURE(startAgain());
    const Bytes counted{0x90};
    const std::vector<CK_OBJECT_HANDLE> handles = find({});
    ASSERT_EQ(8U, handles.size());
    for (const CK_OBJECT_HANDLE handle : handles) {
        EXPECT_EQ(bytesOf(labelOf(joined({object((handle - 1) / 3).name, counted}))),
                  value(handle, CKA_LABEL));
    }
    loginAs();
    ASSERT_RV(CKR_OK, signInit(RSA_PRIVATE));
    ASSERT_RV(CKR_OK, sign(sha256Info("text"), signature));
    EXPECT_TRUE(verifiesWith(value(RSA_CERTIFICATE, CKA_VALUE), "text", signature));
    ASSERT_RV(CKR_OK, writeById(sim::authorityCertificate(), GOST_OBJECT));
    EXPECT_EQ(sim::authorityCertificate(), value(GOST_CERTIFICATE, CKA_VALUE));
    forget();
    ASSERT_RV(CKR_OK, p11.C_DestroyObject(session, OLD_PUBLIC));
    EXPECT_EQ(namedCommand("80 12 30 00", hex("73 68 6F 72 74 90"), 2), sent().front());
    EXPECT_EQ(6U, find({}).size());
}

TEST_F(EtokenHost, OpeningAsksForTheNamesAsTheyWereCounted)
{
    openOn(unterminated());
    refresh();
    forget();
    open(0);
    EXPECT_EQ(loadCommands(card->objects(), {0x90}), sent());
}

TEST_F(EtokenHost, ANameEndsAtItsFirstZeroByte)
{
    sim::Etoken72kOptions options;
    sim::AppletObject rsa = appletObject("");
    rsa.name = hex("41 42 00 43");
    rsa.rsa = sim::RsaKey::fromTestKey(sim::TestKey::First2048);
    sim::AppletObject cut = appletObject("AB");
    cut.container = {1};
    options.objects = {rsa, cut};
    openOn(options);
    EXPECT_EQ((Handles{1, 2}), find({})) << "the first name is taken for the second";
    EXPECT_EQ(CKO_CERTIFICATE, classOf(1));
    EXPECT_EQ(Bytes{0}, value(1, CKA_ID));
    EXPECT_EQ(Bytes{1}, value(2, CKA_ID));
    EXPECT_EQ(bytesOf("4142"), value(1, CKA_LABEL));
}

TEST_F(EtokenHost, RsaKeysOfBothSizesAreReadInPieces)
{
    openOn();
    for (const auto& [handle, position] :
         {std::pair{RSA_PUBLIC, RSA_OBJECT}, {OLD_PUBLIC, OLD_OBJECT}}) {
        forget();
        const Bytes modulus = object(position).rsa.modulus();
        EXPECT_EQ(modulus, value(handle, CKA_MODULUS));
        EXPECT_EQ(modulusCommands(object(position).name, modulus.size()), sent());
        EXPECT_EQ(8 * modulus.size(), number(handle, CKA_MODULUS_BITS));
    }
}

TEST_F(EtokenHost, CertificatesAreReadInPieces)
{
    openOn();
    for (const auto& [handle, position] :
         {std::pair{RSA_CERTIFICATE, RSA_OBJECT}, {GOST_CERTIFICATE, GOST_OBJECT}}) {
        forget();
        EXPECT_EQ(object(position).certificate(), value(handle, CKA_VALUE));
        EXPECT_EQ(readCertificate(object(position).name, object(position).container.size()),
                  sent());
    }
}

// The second half comes from where an earlier, longer reply left its bytes: 33 to 64 of it.
TEST_F(EtokenHost, TheSecondHalfOfAGostValueIsWhatTheReplyBufferHoldsThere)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes name = object(GOST_OBJECT).name;
    const Bytes point = object(GOST_OBJECT).gost.publicKey();
    const Bytes value64 = value(GOST_PUBLIC, CKA_VALUE);
    EXPECT_EQ(
        (Commands{namedCommand("80 11 21 00", name, 34), namedCommand("80 11 24 00", name, 34)}),
        sent());
    ASSERT_EQ(64U, value64.size());
    EXPECT_EQ(Bytes(point.begin(), point.begin() + 32),
              Bytes(value64.begin(), value64.begin() + 32));
    const auto calls = pcsc::calls(pcsc::Function::Transmit);
    Bytes buffer(64); // no reply so far was longer than 34 bytes
    std::copy(calls[0].received.begin(), calls[0].received.end(), buffer.begin());
    std::copy(calls[1].received.begin(), calls[1].received.end(), buffer.begin());
    EXPECT_EQ(reversed(Bytes(buffer.begin() + 32, buffer.end())),
              Bytes(value64.begin() + 32, value64.end()));
    EXPECT_EQ(hex("00 90"), Bytes(value64.end() - 2, value64.end()))
        << "the status of the reply, turned round";
}

TEST_F(EtokenHost, AnRsaSignatureUploadsABlockAndReadsBack)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes info = sha256Info("message");
    for (const auto& [key, position, size] : {std::tuple{RSA_PRIVATE, RSA_OBJECT, std::size_t{256}},
                                              {OLD_PRIVATE, OLD_OBJECT, std::size_t{128}}}) {
        const Bytes& name = object(position).name;
        forget();
        ASSERT_RV(CKR_OK, signInit(key));
        ASSERT_RV(CKR_OK, sign(info, signature));
        EXPECT_EQ(modulusCommands(name, size) + signCommands(name, info, size), sent())
            << "the modulus is read first, for its size";
        EXPECT_EQ(size, signature.size());
        EXPECT_EQ(info, object(position).rsa.recover(signature));
        forget();
        ASSERT_RV(CKR_OK, signInit(key));
        ASSERT_RV(CKR_OK, sign(info, signature));
        EXPECT_EQ(signCommands(name, info, size), sent());
    }
}

TEST_F(EtokenHost, DataThatAShorterKeyCannotTakeIsTheTokensToRefuse)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signInit(OLD_PRIVATE));
    EXPECT_RV(CKR_FUNCTION_FAILED, sign(Bytes(118, 0x33), signature));
    EXPECT_EQ(0x806AU, sessionInfo(session).ulDeviceError);
    EXPECT_RV(CKR_OK, sign(Bytes(117, 0x33), signature));
}

TEST_F(EtokenHost, AGostSignatureComesInTwoHalves)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    ASSERT_RV(CKR_OK, signInit(GOST_PRIVATE, GOST_SIGN));
    ASSERT_RV(CKR_OK, sign(someDigest(), signature, 64));
    EXPECT_EQ(
        (Commands{namedCommand("80 14 10 00", object(GOST_OBJECT).name, 34, reversed(someDigest())),
                  command("80 11 25 00 00", 34)}),
        sent());
    const auto calls = pcsc::calls(pcsc::Function::Transmit);
    EXPECT_EQ(joined({reversed(Bytes(signature.begin(), signature.begin() + 32)), hex("90 00")}),
              calls[0].received);
    EXPECT_EQ(joined({reversed(Bytes(signature.begin() + 32, signature.end())), hex("90 00")}),
              calls[1].received);
    EXPECT_TRUE(object(GOST_OBJECT).gost.verify(someDigest(), signature));
}

TEST_F(EtokenHost, OnlyThePrivateKeyOfAnRsaPairSigns)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    for (const CK_OBJECT_HANDLE key :
         {RSA_CERTIFICATE, RSA_PUBLIC, GOST_PRIVATE, GOST_PUBLIC, GOST_CERTIFICATE, OLD_PUBLIC}) {
        forget();
        ASSERT_RV(CKR_OK, signInit(key));
        EXPECT_RV(CKR_KEY_HANDLE_INVALID, sign(someDigest(), signature)) << key;
        EXPECT_TRUE(sent().empty());
    }
}

TEST_F(EtokenHost, EveryLengthOfContainerIsSentInPiecesButForAByteLeftOver)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes name = object(OLD_OBJECT).name;
    std::size_t leftOver = 0;
    for (std::size_t size = 1; size < 150; ++size) {
        Bytes plain(size);
        for (std::size_t i = 0; i < size; ++i) {
            plain[i] = static_cast<std::uint8_t>(i * i * 31 + i * 7 + size);
        }
        forget();
        ASSERT_RV(CKR_OK, writeById(plain, OLD_OBJECT));
        const Bytes& container = object(OLD_OBJECT).container;
        EXPECT_EQ((Commands{getName(OLD_OBJECT, 22)}) + writeCommands(name, container) +
                      loadCommands(card->objects()),
                  sent())
            << container.size();
        EXPECT_EQ(plain, object(OLD_OBJECT).certificate());
        leftOver += container.size() % 32 == 1 ? 1U : 0U;
    }
    EXPECT_LE(2U, leftOver);
}

TEST_F(EtokenHost, ALabelNeedsNoPosition)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes name = object(GOST_OBJECT).name;
    ASSERT_RV(CKR_OK, writeByLabel(sim::authorityCertificate(), labelOf(name)));
    EXPECT_EQ(writeCommands(name, object(GOST_OBJECT).container) + loadCommands(card->objects()),
              sent());
}

TEST_F(EtokenHost, ANameOf20BytesIsFoundByLabelAlone)
{
    sim::Etoken72kOptions options;
    sim::AppletObject rsa = appletObject("twenty bytes of name");
    rsa.rsa = sim::RsaKey::fromTestKey(sim::TestKey::First2048);
    options.objects = {rsa};
    ASSERT_NO_FATAL_FAILURE(openAndLogin(options));
    EXPECT_RV(CKR_FUNCTION_FAILED, writeById(sim::authorityCertificate(), 0))
        << "with its zero byte and status it has 23, and there is room for 22";
    EXPECT_EQ((Commands{getName(0, 22)}), sent());
    EXPECT_EQ(Bytes{}, object(0).container);
    ASSERT_RV(CKR_OK, writeByLabel(sim::authorityCertificate(), labelOf(rsa.name)));
    EXPECT_EQ(sim::authorityCertificate(), object(0).certificate());
}

TEST_F(EtokenHost, AWriteThatStopsPartWayLeavesTheOldCertificate)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes before = card->state();
    const std::size_t pieces = 2 + sim::gzipMember(sim::authorityCertificate()).size() / 32;
    for (std::size_t at = 2; at < pieces; ++at) {
        pcsc::replyNth(at, hex("6A 84"));
        EXPECT_RV(CKR_FUNCTION_FAILED, writeById(sim::authorityCertificate(), GOST_OBJECT));
        EXPECT_EQ(before, card->state()) << at;
    }
    EXPECT_RV(CKR_OK, writeById(sim::authorityCertificate(), GOST_OBJECT));
}

TEST_F(EtokenHost, ADestructionNamesTheObject)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    const Bytes name = object(GOST_OBJECT).name;
    ASSERT_RV(CKR_OK, p11.C_DestroyObject(session, GOST_CERTIFICATE));
    EXPECT_EQ((Commands{namedCommand("80 12 30 00", name, 2)}) + loadCommands(card->objects()),
              sent());
    EXPECT_EQ((Handles{1, 2, 3, 4, 5}), find({}));
}

TEST_F(EtokenHost, ThereAreNoRandomBytes)
{
    ASSERT_NO_FATAL_FAILURE(openAndLogin());
    Bytes buffer(40, SENTINEL);
    const MessageMark mark;
    EXPECT_RV(CKR_OK, p11.C_GenerateRandom(session, buffer.data(), 32));
    EXPECT_MESSAGES(mark, "C_GenerateRandom", "EToken72K GenerateRandom CKR_FUNCTION_NOT_SUPPORTED",
                    "GenerateRandom CKR_OK");
    EXPECT_EQ(Bytes(40, SENTINEL), buffer);
    EXPECT_EQ(0U, pcsc::callCount());
}

} // namespace
} // namespace velt_test
