// A card served by velt-cardsim, made of a simulated card and its command words.
#pragma once

#include "sim/cardsim/family.h"

#include <stdexcept>

template <class CardKind, std::string (*WORDS)(std::span<const std::uint8_t>),
          std::size_t (*SECRET_LENGTH)(std::span<const std::uint8_t>)>
class Served final : public ServedCard {
public:
    template <class Options>
    explicit Served(const Options& options) : card_(options)
    {
    }
    sim::Card& card() override { return card_; }
    sim::Bytes state() const override { return card_.state(); }
    void restore(std::span<const std::uint8_t> state) override { card_.restore(state); }
    unsigned long revision() const override { return card_.revision(); }
    std::string words(std::span<const std::uint8_t> command) const override
    {
        return WORDS(command);
    }
    std::size_t secretLength(std::span<const std::uint8_t> command) const override
    {
        return SECRET_LENGTH(command);
    }

private:
    CardKind card_;
};

// Options that no card can have are a wrong command line.
template <class ServedKind, class Options>
std::unique_ptr<ServedCard> makeServed(const Options& options)
{
    try {
        return std::make_unique<ServedKind>(options);
    } catch (const std::invalid_argument& error) {
        throw UsageError(error.what());
    }
}
