// What the tests of the PC/SC stand-in share: a card that counts, calls with sentinels around their
// buffers, and results compared by name.
#pragma once

#include "sim/pcsc/standin.h"

#include <winscard.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace standin_test {

using sim::Bytes;
using sim::pcsc::Action;
using sim::pcsc::Call;
using sim::pcsc::Function;

constexpr std::uint8_t SENTINEL = 0xA5;
constexpr const char* PNP = "\\\\?PnP?\\Notification";

inline std::string named(LONG result)
{
    return pcsc_stringify_error(result);
}

#define EXPECT_RESULT(expected, call) EXPECT_EQ(named(expected), named(call))
#define ASSERT_RESULT(expected, call) ASSERT_EQ(named(expected), named(call))

// Answers every command with `reply`. Its members are plain: two threads inside it at once are a
// data race that the thread sanitizer reports.
class CountingCard final : public sim::Card {
public:
    explicit CountingCard(unsigned long protocolNumber = SCARD_PROTOCOL_T0,
                          Bytes atrBytes = {0x3B, 0x02, 0x14, 0x50})
        : protocol_(protocolNumber), atr_(std::move(atrBytes))
    {
    }

    Bytes atr() const override { return atr_; }
    unsigned long protocol() const override { return protocol_; }
    void reset() override { ++resets; }
    Bytes transmit(std::span<const std::uint8_t> command) override
    {
        commands.emplace_back(command.begin(), command.end());
        if (onTransmit) {
            onTransmit();
        }
        return reply;
    }

    std::size_t resets = 0;
    std::vector<Bytes> commands;
    Bytes reply = {0x90, 0x00};
    std::function<void()> onTransmit;

private:
    unsigned long protocol_;
    Bytes atr_;
};

// The result of one SCardTransmit, with what it left in a buffer filled with sentinels.
struct Answer {
    LONG result = 0;
    DWORD length = 0;
    Bytes buffer; // room and 16 bytes more
};

inline Answer transmit(SCARDHANDLE card, const Bytes& command, DWORD room,
                       const SCARD_IO_REQUEST* pci = SCARD_PCI_T0,
                       SCARD_IO_REQUEST* received = nullptr)
{
    Answer answer;
    answer.length = room;
    answer.buffer.assign(room + 16, SENTINEL);
    answer.result = SCardTransmit(card, pci, command.data(), command.size(), received,
                                  answer.buffer.data(), &answer.length);
    return answer;
}

// A buffer of `size` bytes that starts with `data` and holds sentinels behind it.
inline Bytes padded(Bytes data, std::size_t size)
{
    data.resize(size, SENTINEL);
    return data;
}

inline SCARD_READERSTATE stateOf(const char* reader, DWORD current = SCARD_STATE_UNAWARE)
{
    SCARD_READERSTATE state{};
    state.szReader = reader;
    state.dwCurrentState = current;
    state.dwEventState = 0x5A5A5A5A;
    state.cbAtr = 77;
    std::fill(std::begin(state.rgbAtr), std::end(state.rgbAtr), SENTINEL);
    return state;
}

class StandIn : public ::testing::Test {
protected:
    StandIn()
    {
        sim::pcsc::reset();
        context_ = establish();
    }
    ~StandIn() override { sim::pcsc::reset(); }

    static SCARDCONTEXT establish()
    {
        SCARDCONTEXT context = 0;
        EXPECT_RESULT(SCARD_S_SUCCESS,
                      SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context));
        return context;
    }

    // A new reader with a card in it.
    static std::shared_ptr<CountingCard> plugWithCard(const char* name,
                                                      unsigned long protocol = SCARD_PROTOCOL_T0)
    {
        auto card = std::make_shared<CountingCard>(protocol);
        sim::pcsc::plugReader(name);
        sim::pcsc::insertCard(name, card);
        return card;
    }

    SCARDHANDLE connect(const char* name, DWORD share = SCARD_SHARE_SHARED,
                        DWORD protocols = SCARD_PROTOCOL_ANY) const
    {
        SCARDHANDLE card = 0;
        DWORD active = 0;
        EXPECT_RESULT(SCARD_S_SUCCESS,
                      SCardConnect(context_, name, share, protocols, &card, &active));
        return card;
    }

    SCARDCONTEXT context_ = 0;
};

} // namespace standin_test
