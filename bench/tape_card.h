// A simulated card with a tape recorder: what was recorded once is played again in a loop, with
// neither computing nor waiting, so that what is measured is everything but the card.
#pragma once

#include "sim/cards/card.h"
#include "sim/cardsim/family.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace bench {

class TapeCard final : public sim::Card {
public:
    struct Step {
        sim::Bytes command;
        sim::Bytes reply;
    };

    explicit TapeCard(std::unique_ptr<ServedCard> card) : card_(std::move(card)) {}

    void record(); // from now on, on an empty tape
    void play();   // from now on, from its beginning and round and round
    void stop();   // the card answers by itself
    const std::vector<Step>& tape() const { return tape_; }

    sim::Bytes atr() const override { return card_->card().atr(); }
    unsigned long protocol() const override { return card_->card().protocol(); }
    void reset() override { card_->card().reset(); }
    // Ends the program when another command than the recorded one comes while playing.
    sim::Bytes transmit(std::span<const std::uint8_t> command) override;

private:
    enum class Mode { Through, Record, Play };

    std::unique_ptr<ServedCard> card_;
    Mode mode_ = Mode::Through;
    std::vector<Step> tape_;
    std::size_t next_ = 0;
};

// The simulated card of a family as it is without options, with our PIN.
std::unique_ptr<ServedCard> makeCard(const Family& family);
std::shared_ptr<TapeCard> makeTapeCard(const Family& family);

// The stand-in's world anew, with that card in its only reader.
void insertAlone(std::shared_ptr<sim::Card> card);

} // namespace bench
