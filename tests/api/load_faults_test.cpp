// Every exchange of loading an ID card's objects goes wrong once: what the opening answers, which
// objects are left, and that the next load finds them all.
// C_OpenSession, C_FindObjectsInit, C_FindObjects, C_FindObjectsFinal.
#include "tests/support/id_card_host.h"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace velt_test {
namespace {

using Handles = std::vector<CK_OBJECT_HANDLE>;

struct Fault {
    const char* name;
    bool shorterThanAStatus;
    std::function<void(std::size_t n)> plan;
};

void alterReply(std::size_t n, const Bytes& reply)
{
    pcsc::Action action;
    action.alter = [reply](const Bytes&) { return reply; };
    pcsc::onNth(pcsc::Function::Transmit, n, action);
}

const std::vector<Fault>& faults()
{
    static const std::vector<Fault> all{
        {"a refusal", false, [](std::size_t n) { alterReply(n, hex("6F 00")); }},
        {"a warning", false, [](std::size_t n) { alterReply(n, hex("62 00")); }},
        {"no bytes", true, [](std::size_t n) { alterReply(n, {}); }},
        {"one byte", true, [](std::size_t n) { alterReply(n, hex("90")); }},
        {"more than there is room for", false,
         [](std::size_t n) { alterReply(n, Bytes(3000, 0x90)); }},
    };
    return all;
}

// What a fault at one of the commands does to the load.
struct Outcome {
    CK_RV result;
    Handles objects; // of the search that follows
};

const Handles ALL{1, 2, 3, 4, 5, 6};

class LoadFaultsTest : public IdCardHost {
protected:
    // `at` counts from 0; `command` is what is sent there.
    static Outcome expected(std::size_t at, const Sent& command, bool secondPair,
                            bool shorterThanAStatus)
    {
        if (at < 2) {
            return {CKR_OK, ALL}; // no labels: the search loads again
        }
        if (command == SELECT_CERTIFICATES || command == selectFile(0) ||
            command == selectFile(1)) {
            return {CKR_FUNCTION_FAILED, ALL};
        }
        if (command == READ_LENGTH) {
            return {CKR_OK, secondPair ? Handles{1, 2, 3, 5} : Handles{2, 3, 4, 5}};
        }
        if (command.command[1] == 0xB0) {
            return {CKR_FUNCTION_FAILED, ALL};
        }
        // Asking for a public key offers the room of the reply before, that of the selection.
        const bool noRoom = command == SELECT_KEYS && shorterThanAStatus;
        if (noRoom || command.command[1] == 0xCB || command.command[1] == 0xC0) {
            return {CKR_OK, secondPair ? Handles{1, 2, 3, 4} : Handles{1, 4}};
        }
        return {CKR_OK, ALL}; // a selection whose refusal is ignored
    }
};

TEST_F(LoadFaultsTest, EachExchangeMayFailOnce)
{
    meet();
    const Commands commands = loadObjects(*card);
    for (const Fault& fault : faults()) {
        bool secondPair = false;
        for (std::size_t at = 0; at < commands.size(); ++at) {
            SCOPED_TRACE(std::string(fault.name) + " to command " + std::to_string(at + 1));
            secondPair = secondPair || commands[at] == selectFile(1);
            const Outcome outcome =
                expected(at, commands[at], secondPair, fault.shorterThanAStatus);
            refresh(); // the next opening loads
            fault.plan(at + 1);
            session = NO_HANDLE;
            EXPECT_RV(outcome.result, p11.C_OpenSession(0, READ_WRITE, nullptr, nullptr, &session));
            ASSERT_NE(NO_HANDLE, session);
            pcsc::clearPlans();
            EXPECT_EQ(outcome.objects, find({}));
            refresh();
            EXPECT_EQ(ALL, find({}));
            EXPECT_EQ(card->certificate(1), value(CERTIFICATE_2, CKA_VALUE));
            EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
        }
    }
}

TEST_F(LoadFaultsTest, TheCardMayBePulledOutAtEachExchange)
{
    meet();
    const std::size_t exchanges = loadObjects(*card).size();
    for (std::size_t n = 1; n <= exchanges; ++n) {
        SCOPED_TRACE(n);
        refresh();
        pcsc::Action pull;
        pull.before = [] { pcsc::removeCard(CARD_READER); };
        pcsc::onNth(pcsc::Function::Transmit, n, pull);
        session = NO_HANDLE;
        const CK_RV result = p11.C_OpenSession(0, READ_WRITE, nullptr, nullptr, &session);
        EXPECT_TRUE(result == CKR_OK || result == CKR_FUNCTION_FAILED) << codeName(result);
        ASSERT_NE(NO_HANDLE, session);
        EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
        pcsc::clearPlans();
        pcsc::insertCard(CARD_READER, card);
        refresh();
        session = open(0);
        EXPECT_EQ(ALL, find({}));
        EXPECT_RV(CKR_OK, p11.C_CloseSession(session));
    }
}

// The data of a certificate file, bit by bit, does not survive as a certificate.
TEST_F(LoadFaultsTest, AFlippedBitInACertificateLeavesItOut)
{
    meet();
    const Bytes file = card->file(0);
    const std::size_t end = 2 + static_cast<std::size_t>(file[0]) * 256 + file[1];
    const std::size_t padded = end - 9; // the last byte of the data may hold bits of no meaning
    session = open(0);
    for (std::size_t at = 2; at < end; at += at + 7 == padded ? 8U : 7U) {
        Bytes damaged = file;
        damaged[at] = static_cast<std::uint8_t>(damaged[at] ^ (1U << (at % 8)));
        card->setFile(0, damaged);
        refresh();
        const Handles found = find({});
        // Time, flags and system in the member's header say nothing about its data.
        const bool unread = at >= 2 + 4 && at < 2 + 10;
        EXPECT_EQ(unread ? ALL : (Handles{2, 3, 4, 5}), found) << "byte " << at;
    }
}

} // namespace
} // namespace velt_test
