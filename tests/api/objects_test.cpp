// Finding the objects of an ID card, and what becomes of them when the token changes.
// C_FindObjectsInit, C_FindObjects, C_FindObjectsFinal, C_DestroyObject.
#include "tests/support/id_card_host.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace velt_test {
namespace {

using Handles = std::vector<CK_OBJECT_HANDLE>;

class ObjectsTest : public IdCardHost {
protected:
    // The handles that a search by one number-sized attribute finds.
    Handles findClass(CK_OBJECT_CLASS objectClass)
    {
        return find({attributeOf(CKA_CLASS, objectClass)});
    }

    Handles findClassAnd(CK_OBJECT_CLASS objectClass, CK_ATTRIBUTE_TYPE type, Bytes wanted)
    {
        return find({attributeOf(CKA_CLASS, objectClass), attributeOf(type, wanted)});
    }

    // A card on which the first pair has no certificate.
    static sim::IdCardOptions withoutFirstCertificate()
    {
        sim::IdCardOptions options;
        options.positions[0].certificate = false;
        return options;
    }

    const Bytes label1 = bytesOf("RSA119860217350100427C");
    const Bytes label2 = bytesOf("RSA219860217350100427C");
};

TEST_F(ObjectsTest, AnEmptyTemplateFindsEverything)
{
    openOn();
    EXPECT_EQ((Handles{1, 2, 3, 4, 5, 6}), find({}));
    EXPECT_TRUE(sent().empty());
}

TEST_F(ObjectsTest, ClassIdAndLabelFindTheirObjects)
{
    openOn();
    EXPECT_EQ((Handles{1, 4}), findClass(CKO_CERTIFICATE));
    EXPECT_EQ((Handles{2, 5}), findClass(CKO_PUBLIC_KEY));
    EXPECT_EQ((Handles{3, 6}), findClass(CKO_PRIVATE_KEY));
    EXPECT_EQ(Handles{}, findClass(CKO_DATA));
    Bytes id{ID_2};
    EXPECT_EQ((Handles{4, 5, 6}), find({attributeOf(CKA_ID, id)}));
    EXPECT_EQ(Handles{6}, findClassAnd(CKO_PRIVATE_KEY, CKA_ID, Bytes{ID_2}));
    EXPECT_EQ(Handles{3}, findClassAnd(CKO_PRIVATE_KEY, CKA_LABEL, label1));
    Bytes label = label2;
    EXPECT_EQ((Handles{4, 5, 6}), find({attributeOf(CKA_LABEL, label)}));
    EXPECT_EQ(Handles{}, findClassAnd(CKO_PRIVATE_KEY, CKA_LABEL, bytesOf("RSA1")));
}

TEST_F(ObjectsTest, OnlyTheFirstByteOfAnIdCounts)
{
    openOn();
    EXPECT_EQ(Handles{1}, findClassAnd(CKO_CERTIFICATE, CKA_ID, Bytes{ID_1, 0x00, 0x42}));
    EXPECT_EQ(Handles{}, findClassAnd(CKO_CERTIFICATE, CKA_ID, Bytes{0x00, ID_1}));
}

TEST_F(ObjectsTest, FlagsCountLikeAnyOtherField)
{
    openOn();
    CK_BBOOL yes = CK_TRUE;
    CK_BBOOL no = CK_FALSE;
    EXPECT_EQ((Handles{1, 2, 3, 4, 5, 6}), find({attributeOf(CKA_TOKEN, yes)}));
    EXPECT_EQ(Handles{}, find({attributeOf(CKA_TOKEN, no)}));
    EXPECT_EQ(Handles{}, find({attributeOf(CKA_PRIVATE, yes)}));
    EXPECT_EQ((Handles{1, 2, 3, 4, 5, 6}),
              find({attributeOf(CKA_PRIVATE, no), attributeOf(CKA_MODIFIABLE, no)}));
}

TEST_F(ObjectsTest, AFieldThatIsNeverComparedCostsTheMatch)
{
    openOn();
    CK_KEY_TYPE rsa = CKK_RSA;
    CK_OBJECT_CLASS key = CKO_PRIVATE_KEY;
    CK_BBOOL yes = CK_TRUE;
    EXPECT_EQ(Handles{}, find({attributeOf(CKA_CLASS, key), attributeOf(CKA_KEY_TYPE, rsa)}));
    EXPECT_EQ(Handles{}, find({attributeOf(CKA_CLASS, key), attributeOf(CKA_SIGN, yes)}));
    EXPECT_EQ(Handles{}, find({attributeOf(CKA_CLASS, key), attributeOf(CKA_CLASS, key)}))
        << "twice the same counts twice and scores once";
}

TEST_F(ObjectsTest, CertificatesAreFoundByTheirFields)
{
    openOn();
    for (const CK_OBJECT_HANDLE certificate : {CERTIFICATE_1, CERTIFICATE_2}) {
        for (const CK_ATTRIBUTE_TYPE type : {CKA_VALUE, CKA_SUBJECT, CKA_SERIAL_NUMBER}) {
            SCOPED_TRACE(numbered("attribute ", type));
            EXPECT_EQ(Handles{certificate},
                      findClassAnd(CKO_CERTIFICATE, type, value(certificate, type)));
        }
    }
    EXPECT_EQ((Handles{1, 4}),
              findClassAnd(CKO_CERTIFICATE, CKA_ISSUER, value(CERTIFICATE_1, CKA_ISSUER)))
        << "both have one issuer";
    CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
    Bytes issuer = value(CERTIFICATE_2, CKA_ISSUER);
    Bytes serial = value(CERTIFICATE_2, CKA_SERIAL_NUMBER);
    EXPECT_EQ(Handles{4},
              find({attributeOf(CKA_CLASS, objectClass), attributeOf(CKA_ISSUER, issuer),
                    attributeOf(CKA_SERIAL_NUMBER, serial)}));
    EXPECT_TRUE(sent().empty());
}

TEST_F(ObjectsTest, CertificateFieldsNeedTheirClassBeforeThem)
{
    openOn();
    CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
    for (const CK_ATTRIBUTE_TYPE type : {CKA_VALUE, CKA_ISSUER, CKA_SUBJECT}) {
        Bytes wanted = value(CERTIFICATE_1, type);
        std::array<CK_ATTRIBUTE, 2> backwards{attributeOf(type, wanted),
                                              attributeOf(CKA_CLASS, objectClass)};
        EXPECT_RV(CKR_ATTRIBUTE_TYPE_INVALID,
                  p11.C_FindObjectsInit(session, backwards.data(), backwards.size()));
    }
    Bytes serial = value(CERTIFICATE_1, CKA_SERIAL_NUMBER);
    EXPECT_EQ(Handles{},
              find({attributeOf(CKA_SERIAL_NUMBER, serial), attributeOf(CKA_CLASS, objectClass)}))
        << "the serial number is not looked at, but counts";
}

TEST_F(ObjectsTest, EveryBatchSizeHandsOutTheSameObjects)
{
    openOn();
    for (CK_ULONG batch = 0; batch <= 8; ++batch) {
        SCOPED_TRACE(batch);
        ASSERT_RV(CKR_OK, p11.C_FindObjectsInit(session, nullptr, 0));
        Handles all;
        CK_ULONG count = 1;
        while (count != 0) {
            Handles some(10, NO_HANDLE);
            ASSERT_RV(CKR_OK, p11.C_FindObjects(session, some.data(), batch, &count));
            ASSERT_LE(count, batch == 0 ? 6 : batch);
            for (std::size_t i = count; i < some.size(); ++i) {
                EXPECT_EQ(NO_HANDLE, some[i]);
            }
            all.insert(all.end(), some.begin(), some.begin() + static_cast<std::ptrdiff_t>(count));
        }
        EXPECT_EQ((Handles{1, 2, 3, 4, 5, 6}), all);
        ASSERT_RV(CKR_OK, p11.C_FindObjectsFinal(session));
    }
}

TEST_F(ObjectsTest, SearchCallsAreCheckedInTheirOrder)
{
    openOn();
    const CK_SESSION_HANDLE closed = open(0);
    ASSERT_RV(CKR_OK, p11.C_CloseSession(closed));
    CK_OBJECT_HANDLE found = NO_HANDLE;
    CK_ULONG count = 77;
    EXPECT_RV(CKR_OPERATION_NOT_INITIALIZED, p11.C_FindObjects(0, nullptr, 1, nullptr));
    EXPECT_RV(CKR_OPERATION_NOT_INITIALIZED, p11.C_FindObjectsFinal(0));
    const std::vector<CK_SESSION_HANDLE> stray{0, closed + 1, closed + 1000, 0xFFFFFFFF,
                                               ~CK_SESSION_HANDLE{0}};
    for (const CK_SESSION_HANDLE handle : stray) {
        EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_FindObjectsInit(handle, nullptr, 0));
    }
    EXPECT_RV(CKR_SESSION_CLOSED, p11.C_FindObjectsInit(closed, nullptr, 0));
    ASSERT_RV(CKR_OK, p11.C_FindObjectsInit(session, nullptr, 0));
    for (const CK_SESSION_HANDLE handle : stray) {
        EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_FindObjects(handle, nullptr, 1, nullptr));
        EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_FindObjectsFinal(handle));
    }
    EXPECT_RV(CKR_SESSION_CLOSED, p11.C_FindObjects(closed, nullptr, 1, nullptr));
    EXPECT_RV(CKR_SESSION_CLOSED, p11.C_FindObjectsFinal(closed));
    EXPECT_RV(CKR_ARGUMENTS_BAD, p11.C_FindObjects(session, nullptr, 1, &count));
    EXPECT_RV(CKR_ARGUMENTS_BAD, p11.C_FindObjects(session, &found, 1, nullptr));
    EXPECT_EQ(NO_HANDLE, found);
    EXPECT_EQ(77U, count);
    EXPECT_RV(CKR_OK, p11.C_FindObjects(session, &found, 1, &count));
    EXPECT_EQ(1U, found);
    EXPECT_EQ(1U, count);
    EXPECT_RV(CKR_OK, p11.C_FindObjectsFinal(session));
    EXPECT_RV(CKR_OPERATION_NOT_INITIALIZED, p11.C_FindObjectsFinal(session));
}

TEST_F(ObjectsTest, ARemovedCardEndsSearchesAfterTheNextListing)
{
    openOn();
    ASSERT_RV(CKR_OK, p11.C_FindObjectsInit(session, nullptr, 0));
    pcsc::removeCard(CARD_READER);
    CK_OBJECT_HANDLE found = NO_HANDLE;
    CK_ULONG count = 0;
    EXPECT_RV(CKR_OK, p11.C_FindObjects(session, &found, 1, &count));
    EXPECT_EQ(1U, count);
    refresh();
    EXPECT_RV(CKR_TOKEN_NOT_PRESENT, p11.C_FindObjects(session, &found, 1, &count));
    EXPECT_RV(CKR_TOKEN_NOT_PRESENT, p11.C_FindObjects(0, &found, 1, &count))
        << "the unused handle 0 reads as a session on slot 0";
    EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_FindObjects(session + 1, &found, 1, &count));
    EXPECT_RV(CKR_TOKEN_NOT_PRESENT, p11.C_FindObjectsInit(session, nullptr, 0));
    EXPECT_RV(CKR_OK, p11.C_FindObjectsFinal(session));
}

// Which objects there are.

TEST_F(ObjectsTest, AnEmptyCardHasNoObjects)
{
    sim::IdCardOptions options;
    for (sim::IdCardPosition& position : options.positions) {
        position.keyBits = 0;
        position.certificate = false;
    }
    meet(options);
    forget();
    session = open(0);
    EXPECT_EQ(loadObjects(*card), sent());
    EXPECT_EQ(Handles{}, find({}));
}

TEST_F(ObjectsTest, TheNumberOfObjectsMadeEndsTheSearch)
{
    openOn(withoutFirstCertificate());
    EXPECT_EQ((Handles{2, 3, 4, 5}), find({})) << "positions 0 to 4 are looked at";
    EXPECT_EQ(Handles{3}, findClass(CKO_PRIVATE_KEY));
}

TEST_F(ObjectsTest, KeysWithoutCertificatesAreFoundForTheFirstPairAlone)
{
    sim::IdCardOptions options = withoutFirstCertificate();
    options.positions[1].certificate = false;
    openOn(options);
    EXPECT_EQ((Handles{2, 3}), find({})) << "four were made";
}

TEST_F(ObjectsTest, ACertificateThatDoesNotDecompressIsLeftOut)
{
    sim::IdCardOptions options;
    options.positions[0].file = hex("00 04 DE AD BE EF");
    openOn(options);
    EXPECT_EQ((Handles{2, 3, 4, 5}), find({}));
}

TEST_F(ObjectsTest, ACertificateFileThatEndsEarlyIsADeviceErrorForASearch)
{
    sim::IdCardOptions options;
    options.positions[0].file = hex("00 10 1F 8B");
    meet(options);
    CK_SESSION_HANDLE handle = NO_HANDLE;
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_OpenSession(0, READ_WRITE, nullptr, nullptr, &handle));
    EXPECT_RV(CKR_DEVICE_ERROR, p11.C_FindObjectsInit(handle, nullptr, 0));
    EXPECT_RV(CKR_OPERATION_NOT_INITIALIZED, p11.C_FindObjectsFinal(handle));
}

TEST_F(ObjectsTest, AnotherCardInTheReaderShowsItsObjectsAfterTheNextListing)
{
    openOn();
    const Bytes before = value(CERTIFICATE_1, CKA_VALUE);
    pcsc::removeCard(CARD_READER);
    sim::IdCardOptions options;
    options.cardObject = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    card = std::make_shared<sim::IdCard>(options);
    pcsc::insertCard(CARD_READER, card);
    EXPECT_EQ(label1, value(CERTIFICATE_1, CKA_LABEL));
    refresh();
    session = open(0);
    EXPECT_EQ(bytesOf("RSA1010203040506070809"), value(CERTIFICATE_1, CKA_LABEL));
    EXPECT_EQ(bytesOf("RSA2010203040506070809"), value(PRIVATE_2, CKA_LABEL));
    EXPECT_EQ(before, value(CERTIFICATE_1, CKA_VALUE));
}

// C_DestroyObject.

TEST_F(ObjectsTest, DestroyingLeavesTheCardAsItIsAndLoadsAgain)
{
    openOn();
    loginAs();
    const Bytes before = card->state();
    MessageMark mark;
    EXPECT_RV(CKR_OK, p11.C_DestroyObject(session, CERTIFICATE_1));
    EXPECT_EQ(loadObjects(*card), sent());
    EXPECT_EQ(before, card->state());
    EXPECT_EQ((Handles{1, 2, 3, 4, 5, 6}), find({}));
    mark.reset();
    EXPECT_RV(CKR_OK, p11.C_DestroyObject(session, PRIVATE_2));
    EXPECT_MESSAGES(mark, "C_DestroyObject", "IDCard DestroyObject CKR_FUNCTION_NOT_SUPPORTED",
                    "VELTObjectsInit", "VELTObjectsInit Do init = true", "VELTObjectsInit complete",
                    "VELTObjectsInit CKR_OK", "DestroyObject CKR_OK");
}

TEST_F(ObjectsTest, DestroyingTakesEveryHandleOnAnOpenSession)
{
    openOn();
    for (const CK_OBJECT_HANDLE object :
         Handles{0, 7, 11, 1000000, 0x4B5A0000, ~CK_OBJECT_HANDLE{0}}) {
        EXPECT_RV(CKR_OK, p11.C_DestroyObject(session, object));
    }
    EXPECT_EQ((Handles{1, 2, 3, 4, 5, 6}), find({}));
    for (const CK_SESSION_HANDLE stray : strayHandles()) {
        EXPECT_RV(CKR_SESSION_HANDLE_INVALID, p11.C_DestroyObject(stray, 1));
    }
    ASSERT_RV(CKR_OK, p11.C_CloseSession(session));
    EXPECT_RV(CKR_SESSION_CLOSED, p11.C_DestroyObject(session, 1));
}

TEST_F(ObjectsTest, DestroyingNeedsNoLogin)
{
    openOn();
    loginAs();
    ASSERT_RV(CKR_OK, p11.C_Logout(session));
    EXPECT_RV(CKR_OK, p11.C_DestroyObject(session, 1));
}

TEST_F(ObjectsTest, DestroyingReturnsTheResultOfTheLoad)
{
    openOn();
    MessageMark mark;
    pcsc::replyNth(1, hex("6F 00")); // the master file: no labels
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_DestroyObject(session, 1));
    EXPECT_MESSAGE_AMONG(mark, "DestroyObject error 0x6");
    pcsc::replyNth(4, hex("6F 00")); // the certificates' directory
    EXPECT_RV(CK_RV{2}, p11.C_DestroyObject(session, 1));
    EXPECT_EQ(Handles{}, [this] {
        pcsc::replyNth(1, hex("6F 00"));
        return find({});
    }()) << "labels that cannot be read let the search start over an empty table";
    EXPECT_EQ((Handles{1, 2, 3, 4, 5, 6}), find({})) << "the next one loads again";
}

TEST_F(ObjectsTest, DestroyingAfterTheCardWasPulledOutTellsTheFailedLoad)
{
    openOn();
    pcsc::removeCard(CARD_READER);
    EXPECT_RV(CKR_FUNCTION_FAILED, p11.C_DestroyObject(session, 1));
    EXPECT_EQ(Handles{}, find({}));
    CK_ATTRIBUTE attribute{CKA_ID, nullptr, 0};
    EXPECT_RV(CKR_OBJECT_HANDLE_INVALID, p11.C_GetAttributeValue(session, 1, &attribute, 1));
    EXPECT_RV(CKR_KEY_HANDLE_INVALID, signInit(1));
}

// After C_Finalize.

TEST_F(ObjectsTest, OldSessionsAreClosedToEverySearchAndRead)
{
    openOn();
    ASSERT_RV(CKR_OK, p11.C_FindObjectsInit(session, nullptr, 0));
    const CK_SESSION_HANDLE old = session;
    ASSERT_RV(CKR_OK, p11.C_Finalize(nullptr));
    initialise();
    CK_OBJECT_HANDLE found = NO_HANDLE;
    CK_ULONG count = 0;
    CK_ATTRIBUTE attribute{CKA_ID, nullptr, 0};
    for (int listed = 0; listed < 2; ++listed) {
        EXPECT_RV(CKR_SESSION_CLOSED, p11.C_FindObjectsInit(old, nullptr, 0));
        EXPECT_RV(CKR_SESSION_CLOSED, p11.C_FindObjects(old, &found, 1, &count))
            << "the search itself has survived";
        EXPECT_RV(CKR_SESSION_CLOSED, p11.C_FindObjectsFinal(old));
        EXPECT_RV(CKR_SESSION_CLOSED, p11.C_GetAttributeValue(old, 1, &attribute, 1));
        EXPECT_RV(CKR_SESSION_CLOSED, p11.C_DestroyObject(old, 1));
        slots();
    }
    session = open(0);
    EXPECT_EQ(old + 1, session);
    EXPECT_RV(CKR_OK, p11.C_FindObjectsFinal(session));
    EXPECT_EQ(6U, find({}).size());
}

} // namespace
} // namespace velt_test
