// What is left when an exchange with the ID card fails, at every single one of an operation, and
// when memory runs out.
#include "tests/support/idc_faults.h"

using namespace velt_test;

namespace {

TEST_F(IdcFaults, ALoadKeepsWhatItMadeBeforeTheFailure)
{
    failEverywhere(
        loadSteps(), [] {},
        [this](const Outcome& outcome) {
            EXPECT_EQ(outcome.ended.value_or(0), fObjectsInitIDC(table, session));
            expectMade(outcome.made);
            EXPECT_EQ(outcome.deviceError, deviceError());
            EXPECT_MESSAGES(mark, outcome.told);
        });
}

TEST_F(IdcFaults, AKeyHasTheRoomThatALostSelectionLeft)
{
    const std::uint64_t noRoom = pcscCode(SCARD_E_INSUFFICIENT_BUFFER);
    for (const Fault& fault : allFaults()) {
        if (fault.comesFromCard()) {
            continue;
        }
        SCOPED_TRACE(fault.name);
        mark.reset();
        expectAliases();
        expectNoCertificate(1);
        expect(SELECT_MF, OK);
        expectFaulty(ending(SELECT_DF_0101, 0), fault);
        expect(getPublicKey(1), hex("61 8F"), fault.reply.size());
        expectNoCertificate(2);
        expectKey(2, pattern(128));
        EXPECT_EQ(0U, fObjectsInitIDC(table, session));
        expectMade({4, 5});
        EXPECT_MESSAGES(mark, numbered("IDCard ObjectsInit CKA_MODULUS read error ", noRoom));
        expectAllExchanged();
    }
}

TEST_F(IdcFaults, AFailedLoadIsTriedAgain)
{
    oiFlags = RELOAD_OBJECTS;
    expectAliases();
    expect(SELECT_MF, OK);
    expect(SELECT_DF_0801, "6A 82");
    EXPECT_EQ(2U, VELTObjectsInit(session, TOKEN_IDC));
    EXPECT_EQ(RELOAD_OBJECTS, oiFlags);
    expectEmptyLoad();
    EXPECT_EQ(0U, VELTObjectsInit(session, TOKEN_IDC));
    EXPECT_EQ(0U, oiFlags);
}

TEST_F(IdcFaults, LabelsAreEmptyAfterALoadThatCouldNotReadThem)
{
    setLabels();
    expect(SELECT_MF, OK);
    expect(GET_DATA_DF01, "6A 88", 11);
    EXPECT_EQ(6U, fObjectsInitIDC(table, session));
    EXPECT_EQ((std::array<std::uint8_t, IDC_ALIAS_SIZE>{}), Alias1);
    EXPECT_EQ((std::array<std::uint8_t, IDC_ALIAS_SIZE>{}), Alias2);
    expectMade({});
}

TEST_F(IdcFaults, AKeyReplyThatBreaksOffIsTakenAlongByTheNextSuccess)
{
    expectAliases();
    expectNoCertificate(1);
    expectKeyDirectory();
    expect(getPublicKey(1), hex("61 00"));
    expectGetResponse(0, pattern(256) + hex("61 0F"));
    expectGetResponse(0x0F, hex("6F 00"));
    expectNoCertificate(2); // its SELECT is answered with the 256 bytes in front
    expectKey(2, pattern(256));
    EXPECT_EQ(0U, fObjectsInitIDC(table, session));
    expectMade({4, 5});
    EXPECT_MESSAGES(mark, numbered("IDCard ObjectsInit CKA_MODULUS read error ", 0x006F));
}

TEST_F(IdcFaults, ALoadWithoutMemoryKeepsWhatItMade)
{
    const std::vector<Step> steps = loadSteps();
    // The table, then certificate, public and private key of both key pairs; how many exchanges
    // come before each.
    const std::vector<std::size_t> exchangesBefore{0, 8, 12, 12, 18, 22, 22};
    for (std::size_t failing = 1; failing <= exchangesBefore.size(); ++failing) {
        SCOPED_TRACE(failing);
        std::vector<std::size_t> made;
        for (std::size_t i = 0; i + 2 < failing; ++i) {
            made.push_back(i);
        }
        for (std::size_t i = 0; i < exchangesBefore[failing - 1]; ++i) {
            expect(steps[i].command, steps[i].reply, steps[i].capacity);
        }
        oiFlags = RELOAD_OBJECTS;
        alloc::failNth(failing);
        EXPECT_EQ(1U, VELTObjectsInit(session, TOKEN_IDC));
        alloc::clear();
        EXPECT_EQ(RELOAD_OBJECTS, oiFlags);
        if (failing == 1) {
            EXPECT_EQ(nullptr, VELTObj);
            EXPECT_EQ(0U, ulObjCount);
        } else {
            expectMade(made);
        }
        expectAllExchanged();
    }
}

TEST_F(IdcFaults, ALoadOnACardThatVanishesEndsWhereItsResultCounts)
{
    const std::vector<Step> steps = loadSteps();
    for (std::size_t gone = 0; gone < steps.size(); ++gone) {
        SCOPED_TRACE(gone);
        std::optional<CK_RV> ended;
        for (std::size_t i = 0; i < steps.size() && !ended;) {
            if (i < gone) {
                expect(steps[i].command, steps[i].reply, steps[i].capacity);
                ++i;
                continue;
            }
            const bool hasNoRoom = steps[i].asIs && i > gone;
            expectLost(steps[i].command, SCARD_W_REMOVED_CARD, hasNoRoom ? 0 : steps[i].capacity);
            ended = steps[i].ends;
            i = steps[i].next.value_or(i + 1);
        }
        EXPECT_EQ(ended.value_or(0), fObjectsInitIDC(table, session));
        expectAllExchanged();
    }
}

TEST_F(IdcFaults, AnOpeningTellsAFailedLoadAndKeepsTheSession)
{
    for (const CK_RV wanted : {CK_RV{CKR_FUNCTION_FAILED}, CK_RV{CKR_OK}}) {
        CK_SESSION_HANDLE opened = 0;
        oiFlags = RELOAD_OBJECTS;
        expect(SELECT_MF, OK);
        if (wanted == CKR_OK) { // labels that cannot be read do not matter here
            expect(GET_DATA_DF01, "6A 88", 11);
        } else {
            expect(hex(GET_DATA_DF01), hex(DF01) + hex(OK), 11);
            expect(SELECT_MF, OK);
            expect(SELECT_DF_0801, "6A 82");
        }
        EXPECT_EQ(wanted, VELT_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &opened));
        EXPECT_TRUE(velt::isOpenSession(opened));
    }
    CK_SESSION_HANDLE opened = 0;
    oiFlags = RELOAD_OBJECTS;
    alloc::failNth(2); // the first makes the session
    EXPECT_EQ(CKR_TOKEN_NOT_RECOGNIZED,
              VELT_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &opened));
    EXPECT_TRUE(velt::isOpenSession(opened));
}

TEST_F(IdcFaults, ASignatureFailsAtEachCommand)
{
    const Bytes data = pattern(35);
    const std::string last = "IDCard Sign 3 APDU error ";
    const std::vector<Step> steps{
        plain(SELECT_MF),
        ending(SELECT_DF_0101, CKR_DEVICE_ERROR, {"IDCard Sign 1 APDU error "}),
        ending("00 22 41 A4 09 95 01 40 84 01 87 80 01 02", CKR_DEVICE_ERROR,
               {"IDCard Sign 2 APDU error "}),
        {.command = hex("00 88 02 00 23") + data,
         .reply = hex("61 00"),
         .capacity = 258,
         .ends = CKR_FUNCTION_FAILED,
         .tells = {last}},
        {.command = hex("00 C0 00 00 00"),
         .reply = pattern(256) + hex(OK),
         .capacity = 258,
         .ends = CKR_FUNCTION_FAILED,
         .tells = {last}},
    };
    expectAliases();
    expectNoCertificate(1);
    expectKey(1, pattern(256));
    expectNoCertificate(2);
    expectNoKey(2);
    ASSERT_EQ(0U, fObjectsInitIDC(table, session));
    CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
    ASSERT_EQ(CKR_OK, fSignInitIDC(table, session, &mechanism, 3));
    failEverywhere(
        steps, [] {},
        [&](const Outcome& outcome) {
            Bytes signature(300, SENTINEL);
            CK_ULONG length = signature.size();
            Bytes toSign = data;
            EXPECT_EQ(
                outcome.ended.value_or(CKR_OK),
                fSignIDC(table, session, toSign.data(), toSign.size(), signature.data(), &length));
            const Bytes made = outcome.ended ? Bytes{} : pattern(256);
            EXPECT_EQ(outcome.ended ? 300U : 256U, length);
            EXPECT_EQ(made + Bytes(300 - made.size(), SENTINEL), signature);
            EXPECT_EQ(outcome.deviceError, deviceError());
            EXPECT_EQ(3U, hSignKeyIDC);
            EXPECT_MESSAGES(mark, outcome.told);
        });
}

TEST_F(IdcFaults, ALabelFailsAtEachCommand)
{
    setLabels();
    const std::vector<Step> steps{
        ending(SELECT_MF, 1, {"IDCard WriteAlias 1 APDU error "}),
        ending(SELECT_DF_0801, 2, {"IDCard WriteAlias 2 APDU error "}),
        ending(SELECT_EF_0102, 3, {"IDCard WriteAlias 3 APDU error "}),
        ending(CLEAR_LENGTH, 4, {"IDCard WriteAlias 4 APDU error "}),
        {.command = hex("00 D6 00 02 16") + text(ALIAS_2),
         .reply = hex(OK),
         .ends = 10,
         .tells = {"IDCard WriteBinary error ", "IDCard WriteAlias error 0xa"}},
    };
    failEverywhere(
        steps, [] {},
        [&](const Outcome& outcome) {
            EXPECT_EQ(outcome.ended.value_or(0), VELT_WriteAliasIDC(session, 0x88));
            EXPECT_EQ(outcome.deviceError, deviceError());
            EXPECT_MESSAGES(mark, outcome.told);
        });
}

TEST_F(IdcFaults, ALabelThatCannotBeMadeChangesNothingOnTheCard)
{
    const std::vector<Step> steps{
        ending(SELECT_MF, 6, {"IDCard WriteAlias CKR_FUNCTION_FAILED"}),
        {.command = hex(GET_DATA_DF01),
         .reply = hex(DF01) + hex(OK),
         .capacity = 11,
         .ends = 6,
         .tells = {"IDCard WriteAlias CKR_FUNCTION_FAILED"}},
    };
    for (std::size_t faulty = 0; faulty < steps.size(); ++faulty) {
        for (const Fault& fault : allFaults()) {
            mark.reset();
            const Outcome outcome = expectFaultAt(steps, faulty, fault);
            EXPECT_EQ(6U, VELT_WriteAliasIDC(session, 0x87));
            EXPECT_MESSAGES(mark, outcome.told);
        }
    }
}

TEST_F(IdcFaults, ACertificateFailsAtEachCommand)
{
    const Bytes encoded = Certificate{}.encode(Bytes{0} + pattern(400));
    const Bytes member = gzipMember(encoded);
    ASSERT_GT(member.size(), 512U);
    ASSERT_LT(member.size(), 767U);
    const std::vector<std::string> chunk{"IDCard WriteBinary error ",
                                         "IDCard CreateObject write binary APDU error 0xa"};
    const auto ends = [](Bytes command, std::vector<std::string> messages) {
        return Step{.command = std::move(command),
                    .reply = hex(OK),
                    .ends = CKR_FUNCTION_FAILED,
                    .tells = std::move(messages)};
    };
    const std::size_t rest = member.size() - 510;
    const std::vector<Step> steps{
        ends(hex(SELECT_MF), {"IDCard CreateObject 1 APDU error "}),
        ends(hex(SELECT_DF_0801), {"IDCard CreateObject 2 APDU error "}),
        ends(hex(SELECT_EF_0102), {"IDCard CreateObject 3 APDU error "}),
        ends(hex("00 D6 00 00 02") + bigEndian(member.size()),
             {"IDCard CreateObject 4 APDU error "}),
        ends(hex("00 D6 00 02 FF") + slice(member, 0, 255), chunk),
        ends(hex("00 D6 01 01 FF") + slice(member, 255, 255), chunk),
        ends(hex("00 D6 02 00") + Bytes{static_cast<std::uint8_t>(rest)} + slice(member, 510, rest),
             chunk),
    };
    std::uint64_t objClass = CKO_CERTIFICATE;
    std::uint8_t onToken = 1;
    std::uint8_t keyId = 0x88;
    Bytes content = encoded;
    std::array<CK_ATTRIBUTE, 4> rows{
        CK_ATTRIBUTE{CKA_CLASS, &objClass, sizeof objClass}, CK_ATTRIBUTE{CKA_TOKEN, &onToken, 1},
        CK_ATTRIBUTE{CKA_ID, &keyId, 1}, CK_ATTRIBUTE{CKA_VALUE, content.data(), content.size()}};
    failEverywhere(
        steps, [] {},
        [&](const Outcome& outcome) {
            CK_OBJECT_HANDLE handle = 4711;
            EXPECT_EQ(outcome.ended.value_or(CKR_OK),
                      fCreateObjectIDC(table, session, rows.data(), rows.size(), &handle));
            EXPECT_EQ(4711U, handle);
            EXPECT_EQ(outcome.deviceError, deviceError());
            EXPECT_EQ(0U, oiFlags); // nothing is reloaded by the driver
            EXPECT_MESSAGES(mark, outcome.told);
        });
}

class IdcGenerationFaults : public IdcFaults {
protected:
    CK_RV generate()
    {
        std::uint8_t keyId = 0x88;
        CK_ATTRIBUTE row{CKA_ID, &keyId, 1};
        return fGenerateKeyPairIDC(table, session, nullptr, &row, 1, nullptr, 0, nullptr, nullptr);
    }

    static std::vector<Step> generationSteps()
    {
        const auto ends = [](Bytes command, std::vector<std::string> messages) {
            return Step{.command = std::move(command),
                        .reply = hex(OK),
                        .ends = CKR_FUNCTION_FAILED,
                        .tells = std::move(messages)};
        };
        const std::string outer = "IDCard GenerateKeyPair write alias error ";
        return {
            ends(hex(SELECT_MF), {"IDCard GenerateKeyPair 1 APDU error "}),
            ends(hex(SELECT_DF_0101), {"IDCard GenerateKeyPair 2 APDU error "}),
            ends(hex("00 46 02 00 05 A4 03 84 01 88"), {"IDCard GenerateKeyPair 3 APDU error "}),
            ends(hex(SELECT_MF), {"IDCard WriteAlias 1 APDU error ", outer + "0x1"}),
            ends(hex(SELECT_DF_0801), {"IDCard WriteAlias 2 APDU error ", outer + "0x2"}),
            ends(hex(SELECT_EF_0102), {"IDCard WriteAlias 3 APDU error ", outer + "0x3"}),
            ends(hex(CLEAR_LENGTH), {"IDCard WriteAlias 4 APDU error ", outer + "0x4"}),
            ends(hex("00 D6 00 02 16") + text(ALIAS_2),
                 {"IDCard WriteBinary error ", "IDCard WriteAlias error 0xa", outer + "0xa"}),
        };
    }
};

TEST_F(IdcGenerationFaults, AFailedCommandEndsTheGenerationWithoutAReload)
{
    failEverywhere(
        generationSteps(), [] { setLabels(); },
        [this](const Outcome& outcome) {
            ASSERT_TRUE(outcome.ended);
            EXPECT_EQ(CKR_FUNCTION_FAILED, generate());
            EXPECT_EQ(0U, oiFlags);
            EXPECT_EQ(outcome.deviceError, deviceError());
            EXPECT_MESSAGES(mark, outcome.told);
        });
}

TEST_F(IdcGenerationFaults, ALabelThatCannotBeMadeEndsTheGeneration)
{
    expectKeyDirectory();
    expect("00 46 02 00 05 A4 03 84 01 88", OK);
    expect(SELECT_MF, "6A 82");
    EXPECT_EQ(CKR_FUNCTION_FAILED, generate());
    EXPECT_MESSAGES(mark, "IDCard WriteAlias CKR_FUNCTION_FAILED",
                    "IDCard GenerateKeyPair write alias error 0x6");
}

TEST_F(IdcGenerationFaults, AReloadFailsWithTheCardOnlyWhereACertificateFileDoes)
{
    const std::vector<Step> steps = loadSteps();
    for (std::size_t faulty = 0; faulty < steps.size(); ++faulty) {
        SCOPED_TRACE(faulty);
        setLabels();
        mark.reset();
        for (const Step& step : generationSteps()) {
            expect(step.command, step.reply, step.capacity);
        }
        const Outcome outcome = expectFaultAt(steps, faulty, allFaults().front());
        const bool isCardFailure = outcome.ended == CK_RV{2};
        EXPECT_EQ(isCardFailure ? CKR_DEVICE_ERROR : CKR_OK, generate());
        // Unreadable labels count as a success but leave the reload to do.
        EXPECT_EQ(outcome.ended ? RELOAD_OBJECTS : 0, oiFlags);
        expectMade(outcome.made);
        if (isCardFailure) {
            EXPECT_MESSAGE_AMONG(mark, "IDCard GenerateKeyPair CKR_DEVICE_ERROR");
        }
        expectAllExchanged();
    }
}

TEST_F(IdcGenerationFaults, AReloadWithoutMemoryIsToldAsSuch)
{
    setLabels();
    for (const Step& step : generationSteps()) {
        expect(step.command, step.reply, step.capacity);
    }
    alloc::failNth(1);
    EXPECT_EQ(CKR_HOST_MEMORY, generate());
    EXPECT_EQ(RELOAD_OBJECTS, oiFlags);
    EXPECT_MESSAGES(mark, "VELTObjectsInit", "VELTObjectsInit Do init = true",
                    "IDCard GenerateKeyPair CKR_HOST_MEMORY");
}

} // namespace
