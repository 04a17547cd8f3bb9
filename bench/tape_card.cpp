#include "bench/tape_card.h"

#include "bench/host.h"
#include "sim/pcsc/standin.h"

#include <algorithm>
#include <array>

namespace bench {

void TapeCard::record()
{
    tape_.clear();
    mode_ = Mode::Record;
}

void TapeCard::play()
{
    require(!tape_.empty(), "recording a conversation");
    next_ = 0;
    mode_ = Mode::Play;
}

void TapeCard::stop()
{
    mode_ = Mode::Through;
}

sim::Bytes TapeCard::transmit(std::span<const std::uint8_t> command)
{
    if (mode_ == Mode::Play) {
        const Step& step = tape_[next_];
        require(std::ranges::equal(command, step.command), "repeating a conversation");
        next_ = next_ + 1 == tape_.size() ? 0 : next_ + 1;
        return step.reply;
    }
    sim::Bytes reply = card_->card().transmit(command);
    if (mode_ == Mode::Record) {
        tape_.push_back({{command.begin(), command.end()}, reply});
    }
    return reply;
}

std::unique_ptr<ServedCard> makeCard(const Family& family)
{
    const std::unique_ptr<CardSettings> settings = family.settings();
    const std::array words{"bench", "--pin", PIN};
    Arguments arguments(static_cast<int>(words.size()), words.data());
    while (arguments.next()) {
        require(settings->take(arguments), "setting the card's PIN");
    }
    return settings->make();
}

std::shared_ptr<TapeCard> makeTapeCard(const Family& family)
{
    return std::make_shared<TapeCard>(makeCard(family));
}

void insertAlone(std::shared_ptr<sim::Card> card)
{
    constexpr const char* READER = "Bench Reader 00 00";
    sim::pcsc::reset();
    sim::pcsc::setLogging(false);
    sim::pcsc::plugReader(READER);
    sim::pcsc::insertCard(READER, std::move(card));
}

} // namespace bench
