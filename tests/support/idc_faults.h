// Operations on the ID card as lists of exchanges, any of which can be made to fail.
#pragma once

#include "tests/support/idc_certificates.h"
#include "tests/support/idc_fixture.h"

#include <cstring>
#include <functional>
#include <optional>

namespace velt_test {

// How an exchange goes wrong, and the result that it then has.
struct Fault {
    const char* name;
    Bytes reply;                // what the card or the reader answers
    std::optional<long> result; // or what PC/SC says instead
    std::uint64_t value;

    bool comesFromCard() const { return !result && reply.size() >= 2; }
};

inline std::vector<Fault> allFaults()
{
    return {
        {"card refuses", hex("69 82"), std::nullopt, 0x8269},
        {"card fails", hex("6F 00"), std::nullopt, 0x006F},
        {"card is gone", {}, SCARD_W_REMOVED_CARD, pcscCode(SCARD_W_REMOVED_CARD)},
        {"reader fails", {}, SCARD_E_COMM_DATA_LOST, pcscCode(SCARD_E_COMM_DATA_LOST)},
        {"empty reply", {}, std::nullopt, pcscCode(SCARD_E_PROTO_MISMATCH)},
        {"half a status", hex("90"), std::nullopt, pcscCode(SCARD_E_PROTO_MISMATCH)},
    };
}

// One exchange of an operation and what its failure leads to.
struct Step {
    Bytes command;
    Bytes reply;
    std::size_t capacity = 2;
    std::optional<CK_RV> ends{};       // the operation's result then, or
    std::optional<std::size_t> next{}; // the step that it goes on with, or the one behind
    std::vector<std::string> tells{};  // messages; one that ends in a blank gets the number
    std::vector<std::size_t> makes{};  // positions filled when it succeeds
    bool asIs = false;                 // the capacity is the length of the reply before
};

class IdcFaults : public IdcTest {
protected:
    static constexpr std::uint64_t OLD_ERROR = 0x5EED;

    struct Outcome {
        std::optional<CK_RV> ended;
        std::vector<std::size_t> made;
        std::vector<std::string> told;
        std::uint64_t deviceError = OLD_ERROR;
    };

    void expectFaulty(const Step& step, const Fault& fault)
    {
        if (fault.result) {
            expectLost(step.command, *fault.result, step.capacity);
        } else if (fault.comesFromCard()) {
            expect(step.command, fault.reply, step.capacity);
        } else {
            expectReplaced(step.command, fault.reply, step.capacity);
        }
    }

    static std::string told(const std::string& message, const Fault& fault)
    {
        return message.back() == ' ' ? numbered(message, fault.value) : message;
    }

    static bool isGetResponse(const Step& step) { return step.command.at(1) == 0xC0; }

    // States the exchanges of an operation whose `faulty`th one fails, and says what comes of it.
    Outcome expectFaultAt(const std::vector<Step>& steps, std::size_t faulty, const Fault& fault)
    {
        Outcome outcome;
        for (std::size_t i = 0; i < steps.size();) {
            const Step& step = steps[i];
            if (i != faulty) {
                expect(step.command, step.reply, step.capacity);
                outcome.made.insert(outcome.made.end(), step.makes.begin(), step.makes.end());
                outcome.deviceError = 0;
                ++i;
                continue;
            }
            expectFaulty(step, fault);
            for (const std::string& message : step.tells) {
                outcome.told.push_back(told(message, fault));
            }
            // a failure of PC/SC is recorded inside a chain only
            if (fault.comesFromCard() || isGetResponse(step)) {
                outcome.deviceError = fault.value;
            }
            if (step.ends) {
                outcome.ended = step.ends;
                return outcome;
            }
            i = step.next.value_or(i + 1);
        }
        return outcome;
    }

    static Step plain(std::string_view command)
    {
        return {.command = hex(command), .reply = hex(OK)};
    }
    static Step ending(std::string_view command, CK_RV result,
                       std::vector<std::string> messages = {})
    {
        return {.command = hex(command),
                .reply = hex(OK),
                .ends = result,
                .tells = std::move(messages)};
    }

    // Certificate and keys of one key pair, the way a load reads them.
    static void appendKeyPair(std::vector<Step>& steps, std::size_t keyPair)
    {
        const std::size_t first = keyPair == 1 ? 0 : 3;
        const Bytes content = gzipMemberOf(Certificate{}.encode(), 300);
        steps.push_back(plain(SELECT_MF));
        steps.push_back(ending(SELECT_DF_0801, 2));
        steps.push_back(ending(selectCertificateFile(keyPair), 2));
        steps.push_back({.command = hex(READ_LENGTH),
                         .reply = hex("01 2C 90 00"),
                         .capacity = 4,
                         .next = steps.size() + 3});
        steps.push_back({.command = hex("00 B0 00 02 00"),
                         .reply = slice(content, 0, 256) + hex(OK),
                         .capacity = 258,
                         .ends = 2});
        steps.push_back({.command = hex("00 B0 01 02 2C"),
                         .reply = slice(content, 256, 44) + hex(OK),
                         .capacity = 46,
                         .ends = 2,
                         .makes = {first}});
        steps.push_back(plain(SELECT_MF));
        steps.push_back(plain(SELECT_DF_0101));
        const std::size_t behind = steps.size() + 2;
        const std::vector<std::string> message{"IDCard ObjectsInit CKA_MODULUS read error "};
        steps.push_back({.command = getPublicKey(keyPair),
                         .reply = hex("61 8F"),
                         .next = behind,
                         .tells = message,
                         .asIs = true});
        steps.push_back({.command = hex("00 C0 00 00 8F"),
                         .reply = publicKeyHeader() + pattern(128) + hex(OK),
                         .capacity = 145,
                         .next = behind,
                         .tells = message,
                         .makes = {first + 1, first + 2}});
    }

    static std::vector<Step> loadSteps()
    {
        std::vector<Step> steps;
        steps.push_back(ending(SELECT_MF, 6));
        steps.push_back({.command = hex(GET_DATA_DF01),
                         .reply = hex(DF01) + hex(OK),
                         .capacity = 11,
                         .ends = 6});
        appendKeyPair(steps, 1);
        appendKeyPair(steps, 2);
        return steps;
    }

    // A fault that leaves no length, or less than a status, as the room of the next command.
    static bool starvesNext(const std::vector<Step>& steps, std::size_t faulty, const Fault& fault)
    {
        return !fault.comesFromCard() && faulty + 1 < steps.size() && steps[faulty + 1].asIs;
    }

    // Runs an operation once for each exchange and each fault.
    void failEverywhere(const std::vector<Step>& steps, const std::function<void()>& prepare,
                        const std::function<void(const Outcome&)>& run)
    {
        for (std::size_t faulty = 0; faulty < steps.size(); ++faulty) {
            for (const Fault& fault : allFaults()) {
                if (starvesNext(steps, faulty, fault)) {
                    continue; // has a case of its own
                }
                SCOPED_TRACE(testing::Message() << fault.name << " at exchange " << faulty);
                prepare();
                velt::findSession(session)->deviceError = OLD_ERROR;
                mark.reset();
                run(expectFaultAt(steps, faulty, fault));
                expectAllExchanged();
            }
        }
    }

    // Labels that are there already.
    static void setLabels()
    {
        Alias1.fill(0);
        Alias2.fill(0);
        std::memcpy(Alias1.data(), ALIAS_1.data(), ALIAS_1.size());
        std::memcpy(Alias2.data(), ALIAS_2.data(), ALIAS_2.size());
    }
};

} // namespace velt_test
