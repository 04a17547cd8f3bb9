// What a host finds the same on a JaCarta and on an eToken 72K: the token's description, login,
// objects and their attributes. C_GetTokenInfo, C_GetMechanismList, C_OpenSession, C_Login,
// C_Logout, C_FindObjects, C_GetAttributeValue, C_DestroyObject.
#include "tests/support/applet_host.h"

namespace velt_test {
namespace {

struct AppletFamily {
    const char* name;
    std::shared_ptr<sim::AppletCard> (*make)(const sim::AppletOptions&);
    const char* label; // 32 bytes in hexadecimal
    const char* model;
    std::string_view serial; // once the applet has been selected
    std::size_t selection;   // commands that selecting it takes
};

void PrintTo(const AppletFamily& family, std::ostream* out)
{
    *out << family.name;
}

const AppletFamily JACARTA_FAMILY{
    "JaCarta",
    [](const sim::AppletOptions& options) -> std::shared_ptr<sim::AppletCard> {
        return std::make_shared<sim::Jacarta>(sim::JacartaOptions{options});
    },
    "4A614361727461 202020202020202020202020202020 00000000 416C61646469",
    "JaCarta PKI",
    "",
    2};

const AppletFamily ETOKEN_FAMILY{
    "eToken72K",
    [](const sim::AppletOptions& options) -> std::shared_ptr<sim::AppletCard> {
        sim::Etoken72kOptions own;
        static_cast<sim::AppletOptions&>(own) = options;
        own.serial = "0123456789";
        return std::make_shared<sim::Etoken72k>(own);
    },
    "45546F6B656E 20202020202020202020202020202020 000000 416C616464696E",
    "EToken 72K",
    "0123456789",
    3};

class AppletTokens : public AppletHost, public ::testing::WithParamInterface<AppletFamily> {
protected:
    void openOn(const sim::AppletOptions& options = {}) { openWith(GetParam().make(options)); }
    void openOnObjects(const sim::AppletObjects& objects)
    {
        sim::AppletOptions options;
        options.objects = objects;
        openOn(options);
    }

    CK_TOKEN_INFO tokenInfo()
    {
        Guarded<CK_TOKEN_INFO> info;
        EXPECT_RV(CKR_OK, p11.C_GetTokenInfo(0, info.get()));
        EXPECT_TRUE(info.endIsUntouched());
        return *info.get();
    }
};

INSTANTIATE_TEST_SUITE_P(Families, AppletTokens, ::testing::Values(JACARTA_FAMILY, ETOKEN_FAMILY),
                         [](const auto& instance) { return instance.param.name; });

TEST_P(AppletTokens, TheTokenIsDescribedWithoutAskingIt)
{
    openOn();
    const CK_TOKEN_INFO info = tokenInfo();
    EXPECT_EQ(hex(GetParam().label), Bytes(info.label, info.label + 32));
    EXPECT_EQ(paddedTo(32, "Aladdin"), text(info.manufacturerID));
    EXPECT_EQ(paddedTo(16, GetParam().model), text(info.model));
    std::string serial(GetParam().serial);
    serial.resize(16, '\0');
    EXPECT_EQ(serial, text(info.serialNumber));
    EXPECT_EQ(0x40CU, info.flags);
    EXPECT_EQ(10U, info.ulMaxSessionCount);
    EXPECT_EQ(1U, info.ulSessionCount);
    EXPECT_EQ(1U, info.ulMaxRwSessionCount);
    EXPECT_EQ(0U, info.ulRwSessionCount);
    EXPECT_EQ(10U, info.ulMaxPinLen);
    EXPECT_EQ(4U, info.ulMinPinLen);
    EXPECT_EQ(std::string(16, '\0'), text(info.utcTime));
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_P(AppletTokens, BeforeTheFirstSessionThereIsNoSerialNumber)
{
    card = GetParam().make({});
    insert(card);
    EXPECT_EQ(std::string(16, '\0'), text(tokenInfo().serialNumber));
}

TEST_P(AppletTokens, FourMechanismsAreListedIfThereIsRoomForAll)
{
    openOn();
    CK_ULONG count = 0;
    EXPECT_RV(CKR_OK, p11.C_GetMechanismList(0, nullptr, &count));
    EXPECT_EQ(4U, count);
    std::array<CK_MECHANISM_TYPE, 5> types{77, 77, 77, 77, 77};
    const auto untouched = types;
    count = 3;
    EXPECT_RV(CKR_OK, p11.C_GetMechanismList(0, types.data(), &count));
    EXPECT_EQ(4U, count);
    EXPECT_EQ(untouched, types);
    count = 5;
    EXPECT_RV(CKR_OK, p11.C_GetMechanismList(0, types.data(), &count));
    EXPECT_EQ(5U, count);
    EXPECT_EQ((std::array<CK_MECHANISM_TYPE, 5>{0x0, 0x1, 0x84B5A001, 0x84B5A002, 77}), types);
    EXPECT_EQ(0U, pcsc::callCount());
}

TEST_P(AppletTokens, TheSlotHoldsARemovableToken)
{
    openOn();
    EXPECT_EQ(CKF_TOKEN_PRESENT | CKF_REMOVABLE_DEVICE | CKF_HW_SLOT, slotInfo(0).flags);
}

// Login and logout.

TEST_P(AppletTokens, TheRightPinLogsIn)
{
    openOn();
    EXPECT_RV(CKR_OK, login(session, PIN));
    EXPECT_EQ(1U, sent().size()) << "the applet stands selected";
    EXPECT_TRUE(card->loggedIn());
    EXPECT_EQ(CKS_RW_USER_FUNCTIONS, sessionInfo(session).state);
    EXPECT_RV(CKR_USER_ALREADY_LOGGED_IN, login(session, PIN));
}

TEST_P(AppletTokens, AWrongPinLeavesTheSessionPublic)
{
    openOn();
    EXPECT_RV(CKR_PIN_INCORRECT, login(session, "4321"));
    EXPECT_EQ(2U, card->retriesLeft());
    const CK_SESSION_INFO info = sessionInfo(session);
    EXPECT_EQ(CKS_RW_PUBLIC_SESSION, info.state);
    EXPECT_EQ(0x1364U, info.ulDeviceError);
    EXPECT_RV(CKR_OK, login(session, PIN));
    EXPECT_EQ(3U, card->retriesLeft());
}

TEST_P(AppletTokens, ABlockedPinIsTakenForALogin)
{
    openOn();
    for (unsigned left = 3; left-- > 0;) {
        EXPECT_RV(CKR_PIN_INCORRECT, login(session, "4321"));
        EXPECT_EQ(left, card->retriesLeft());
    }
    EXPECT_RV(CKR_OK, login(session, PIN)) << "64 13 alone is a failure";
    EXPECT_FALSE(card->loggedIn());
    const CK_SESSION_INFO info = sessionInfo(session);
    EXPECT_EQ(CKS_RW_USER_FUNCTIONS, info.state);
    EXPECT_EQ(0x1564U, info.ulDeviceError);
}

TEST_P(AppletTokens, PinsOfAnyLengthGoToTheToken)
{
    sim::AppletOptions options;
    options.pin = "0123456789";
    options.retryLimit = 9;
    openOn(options);
    unsigned left = options.retryLimit;
    for (const std::string pin : {"1", "123", "12345678901234567890"}) {
        EXPECT_RV(CKR_PIN_INCORRECT, login(session, pin));
        EXPECT_EQ(--left, card->retriesLeft());
    }
    EXPECT_RV(CKR_OK, login(session, options.pin));
    EXPECT_TRUE(card->loggedIn());
}

TEST_P(AppletTokens, AnEmptyPinIsTakenForALoginToo)
{
    openOn();
    EXPECT_RV(CKR_OK, login(session, ""));
    EXPECT_FALSE(card->loggedIn());
    EXPECT_EQ(3U, card->retriesLeft()) << "the token refused the length";
}

TEST_P(AppletTokens, LoggingOutReachesTheTokenAndTheNextLoginSelectsAgain)
{
    openOn();
    loginAs();
    EXPECT_RV(CKR_OK, p11.C_Logout(session));
    EXPECT_EQ((Commands{command("80 15 20 00 00", 4)}), sent());
    EXPECT_FALSE(card->loggedIn());
    EXPECT_EQ(CKS_RW_PUBLIC_SESSION, sessionInfo(session).state);
    EXPECT_RV(CKR_SESSION_CLOSED, p11.C_Logout(session));
    forget();
    EXPECT_RV(CKR_OK, login(session, PIN));
    EXPECT_EQ(GetParam().selection + 1, sent().size());
    EXPECT_TRUE(card->loggedIn());
}

TEST_P(AppletTokens, ALogoutThatTheTokenRefusesIsAFailure)
{
    openOn();
    loginAs();
    pcsc::replyNth(1, hex("6F 00"));
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_Logout(session));
    EXPECT_TRUE(card->loggedIn());
    EXPECT_EQ(CKS_RW_USER_FUNCTIONS, sessionInfo(session).state);
    EXPECT_RV(CKR_OK, p11.C_Logout(session));
}

TEST_P(AppletTokens, ATokenPulledOutIsTakenForALogin)
{
    openOn();
    pcsc::removeCard(CARD_READER);
    EXPECT_RV(CKR_OK, login(session, PIN));
    refresh();
    EXPECT_RV(CKR_USER_ALREADY_LOGGED_IN, login(session, PIN));
    CK_SESSION_INFO info{};
    EXPECT_RV(CKR_DEVICE_REMOVED, p11.C_GetSessionInfo(session, &info));
}

TEST_P(AppletTokens, ATokenThatLostPowerIsNotSelectedAgainByItself)
{
    openOn();
    card->reset();
    refresh();
    CK_SESSION_HANDLE second = NO_HANDLE;
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_OpenSession(0, READ_WRITE, nullptr, nullptr, &second));
    EXPECT_EQ(0x8569U, sessionInfo(second).ulDeviceError) << "69 85 to the count";
}

// Objects.

TEST_P(AppletTokens, EveryPartIsAnObject)
{
    openOn();
    const std::vector<CK_OBJECT_CLASS> classes{CKO_CERTIFICATE, CKO_PUBLIC_KEY, CKO_PRIVATE_KEY,
                                               CKO_PRIVATE_KEY, CKO_PUBLIC_KEY, CKO_CERTIFICATE,
                                               CKO_PUBLIC_KEY,  CKO_PRIVATE_KEY};
    const std::size_t count = card->objects().size() == 3 ? 8 : 6;
    const Handles found = find({});
    ASSERT_EQ(count, found.size());
    for (std::size_t i = 0; i < count; ++i) {
        SCOPED_TRACE(i);
        const CK_OBJECT_HANDLE handle = i + 1;
        EXPECT_EQ(handle, found[i]);
        EXPECT_EQ(classes[i], classOf(handle));
        EXPECT_EQ(bytesOf(labelOf(object(i / 3).name)), value(handle, CKA_LABEL));
        EXPECT_EQ(Bytes{static_cast<std::uint8_t>(i / 3)}, value(handle, CKA_ID));
        EXPECT_EQ(Bytes{1}, value(handle, CKA_TOKEN));
        EXPECT_EQ(Bytes{static_cast<std::uint8_t>(classes[i] == CKO_PRIVATE_KEY)},
                  value(handle, CKA_PRIVATE));
        EXPECT_EQ(Bytes{0}, value(handle, CKA_MODIFIABLE));
        if (classes[i] != CKO_CERTIFICATE) {
            EXPECT_EQ(i / 3 == GOST_OBJECT ? GOST_KEY : CKK_RSA, number(handle, CKA_KEY_TYPE));
        }
    }
}

TEST_P(AppletTokens, ATokenWithoutObjectsHasNone)
{
    openOnObjects({});
    EXPECT_EQ(Handles{}, find({}));
}

TEST_P(AppletTokens, OneNameMayBringFiveObjects)
{
    sim::AppletObject all = appletObject("everything");
    all.rsa = sim::RsaKey::fromTestKey(sim::TestKey::First2048);
    all.gost = sim::GostKey::fromTestKey(sim::GostTestKey::First2012);
    all.setCertificate(sim::authorityCertificate());
    openOnObjects({all});
    EXPECT_EQ((Handles{1, 2, 3, 4, 5}), find({}));
    const std::vector<CK_OBJECT_CLASS> classes{CKO_PRIVATE_KEY, CKO_PUBLIC_KEY, CKO_CERTIFICATE,
                                               CKO_PUBLIC_KEY, CKO_PRIVATE_KEY};
    for (std::size_t i = 0; i < classes.size(); ++i) {
        EXPECT_EQ(classes[i], classOf(i + 1));
    }
    EXPECT_EQ(all.rsa.modulus(), value(4, CKA_MODULUS));
    EXPECT_EQ(sim::authorityCertificate(), value(3, CKA_VALUE));
}

TEST_P(AppletTokens, ObjectsWithoutPartsAndHalvesOfPairsAreCountedAsTheyAre)
{
    sim::AppletObject first = appletObject("public half");
    first.gost = sim::GostKey::fromTestKey(sim::GostTestKey::First2012);
    sim::AppletObject second = first;
    second.name = bytesOf("private half");
    first.gostPrivate = false;
    second.gostPublic = false;
    openOnObjects({appletObject("nothing"), first, second});
    EXPECT_EQ((Handles{1, 2}), find({}));
    EXPECT_EQ(CKO_PUBLIC_KEY, classOf(1));
    EXPECT_EQ(Bytes{1}, value(1, CKA_ID));
    EXPECT_EQ(CKO_PRIVATE_KEY, classOf(2));
    EXPECT_EQ(Bytes{2}, value(2, CKA_ID));
}

TEST_P(AppletTokens, ManyNamesOfEveryLengthAreLoaded)
{
    sim::AppletObjects objects;
    for (std::size_t i = 0; i < 40; ++i) {
        sim::AppletObject object = appletObject(std::string(1 + i % 20, 'a'));
        object.name.back() = static_cast<std::uint8_t>(i + 1);
        object.container = {1};
        objects.push_back(object);
    }
    openOnObjects(objects);
    const Handles found = find({});
    ASSERT_EQ(objects.size(), found.size());
    for (std::size_t i = 0; i < found.size(); ++i) {
        EXPECT_EQ(bytesOf(labelOf(objects[i].name)), value(found[i], CKA_LABEL));
        EXPECT_EQ(Bytes{static_cast<std::uint8_t>(i)}, value(found[i], CKA_ID));
    }
}

TEST_P(AppletTokens, ObjectsAreFoundByLabelAndByClassAndId)
{
    openOn();
    Bytes label = bytesOf(labelOf(object(GOST_OBJECT).name));
    EXPECT_EQ((Handles{4, 5, 6}), find({attributeOf(CKA_LABEL, label)}));
    CK_OBJECT_CLASS privateKey = CKO_PRIVATE_KEY;
    CK_BYTE id = RSA_OBJECT;
    EXPECT_EQ(Handles{RSA_PRIVATE},
              find({attributeOf(CKA_CLASS, privateKey), attributeOf(CKA_ID, id)}));
}

TEST_P(AppletTokens, BothKeysOfAnRsaPairGiveItsModulus)
{
    openOn();
    const Bytes modulus = object(RSA_OBJECT).rsa.modulus();
    EXPECT_EQ(modulus, value(RSA_PRIVATE, CKA_MODULUS)) << "read for the private key first";
    EXPECT_EQ(modulus, value(RSA_PUBLIC, CKA_MODULUS));
    EXPECT_EQ(2048U, number(RSA_PUBLIC, CKA_MODULUS_BITS));
    EXPECT_EQ(hex("01 00 01"), value(RSA_PUBLIC, CKA_PUBLIC_EXPONENT));
    forget();
    value(RSA_PUBLIC, CKA_MODULUS);
    EXPECT_TRUE(sent().empty()) << "kept";
}

TEST_P(AppletTokens, CertificatesAreReadWholeWithTheirFields)
{
    openOn();
    for (const CK_OBJECT_HANDLE handle : {RSA_CERTIFICATE, GOST_CERTIFICATE}) {
        const Bytes der =
            object(handle == RSA_CERTIFICATE ? RSA_OBJECT : GOST_OBJECT).certificate();
        ASSERT_FALSE(der.empty());
        EXPECT_EQ(der, value(handle, CKA_VALUE));
        const X509Pointer x509 = parsed(der);
        const auto encoded = [](auto encode, auto* item) {
            unsigned char* bytes = nullptr;
            const int length = encode(item, &bytes);
            Bytes result(bytes, bytes + length);
            OPENSSL_free(bytes);
            return result;
        };
        EXPECT_EQ(encoded(i2d_X509_NAME, X509_get_issuer_name(x509.get())),
                  value(handle, CKA_ISSUER));
        EXPECT_EQ(encoded(i2d_X509_NAME, X509_get_subject_name(x509.get())),
                  value(handle, CKA_SUBJECT));
        EXPECT_EQ(encoded(i2d_ASN1_INTEGER, X509_get0_serialNumber(x509.get())),
                  value(handle, CKA_SERIAL_NUMBER));
        // Of 240301080000Z and 340301080000Z: "2", the sixth character, the first five.
        EXPECT_EQ(joined({bytesOf("2124030"), {0}}), value(handle, CKA_START_DATE));
        EXPECT_EQ(joined({bytesOf("2134030"), {0}}), value(handle, CKA_END_DATE));
        EXPECT_EQ(CKC_X_509, number(handle, CKA_CERTIFICATE_TYPE));
    }
}

TEST_P(AppletTokens, AContainerThatIsNoGzipMemberGivesAnEmptyCertificate)
{
    sim::AppletObject broken = appletObject("broken");
    broken.container = Bytes(100, 0x5A);
    openOnObjects({broken});
    EXPECT_EQ(Bytes{}, value(1, CKA_VALUE));
}

TEST_P(AppletTokens, ATokenThatCannotCountFailsTheOpeningButTheSessionStands)
{
    card = GetParam().make({});
    insert(card);
    pcsc::replyNth(GetParam().selection + 1, hex("6F 00"));
    CK_SESSION_HANDLE handle = NO_HANDLE;
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_OpenSession(0, READ_WRITE, nullptr, nullptr, &handle));
    ASSERT_NE(NO_HANDLE, handle);
    session = handle;
    EXPECT_EQ(0x6FU, sessionInfo(session).ulDeviceError);
    EXPECT_EQ(card->objects().size() == 3 ? 8U : 6U, find({}).size()) << "the search loads again";
}

TEST_P(AppletTokens, AProbeThatFailsLeavesOutItsPartAlone)
{
    card = GetParam().make({});
    insert(card);
    // Behind the selection, the count and the name, the third probe asks for the certificate.
    pcsc::replyNth(GetParam().selection + 2 + 3, hex("6F 00"));
    session = open(0);
    const Handles found = find({});
    ASSERT_EQ(card->objects().size() == 3 ? 7U : 5U, found.size());
    EXPECT_EQ(CKO_PUBLIC_KEY, classOf(1));
}

// Destroying.

TEST_P(AppletTokens, DestroyingAnyPartTakesTheWholeName)
{
    openOn();
    loginAs();
    const std::size_t before = find({}).size();
    const Bytes gone = object(RSA_OBJECT).name;
    EXPECT_RV(CKR_OK, p11.C_DestroyObject(session, RSA_PUBLIC));
    EXPECT_EQ(nullptr, card->object(gone));
    EXPECT_EQ(before - 3, find({}).size());
    EXPECT_EQ(bytesOf(labelOf(object(0).name)), value(1, CKA_LABEL)) << "what was second";
    EXPECT_EQ(CKO_PRIVATE_KEY, classOf(1));
    EXPECT_EQ(Bytes{0}, value(1, CKA_ID));
}

TEST_P(AppletTokens, ADestructionThatTheTokenRefusesLooksLikeSuccess)
{
    openOn();
    const Bytes before = card->state();
    EXPECT_RV(CKR_OK, p11.C_DestroyObject(session, RSA_PUBLIC)) << "nobody is logged in";
    EXPECT_EQ(before, card->state());
    EXPECT_EQ(card->objects().size() == 3 ? 8U : 6U, find({}).size());
}

TEST_P(AppletTokens, EverythingCanBeDestroyed)
{
    openOn();
    loginAs();
    while (!card->objects().empty()) {
        const std::size_t before = card->objects().size();
        ASSERT_RV(CKR_OK, p11.C_DestroyObject(session, 1));
        ASSERT_EQ(before - 1, card->objects().size());
    }
    EXPECT_EQ(Handles{}, find({}));
}

} // namespace
} // namespace velt_test
