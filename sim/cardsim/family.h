// What velt-cardsim needs of a family of cards. A new family defines its Family in a source of its
// own and is named in family.cpp.
#pragma once

#include "sim/cardsim/arguments.h"

#include "sim/cards/card.h"

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

// A card that is served, kept in a file and traced.
class ServedCard {
public:
    virtual ~ServedCard() = default;
    virtual sim::Card& card() = 0;

    // What survives the program, and a number that grows with every change of it.
    virtual sim::Bytes state() const = 0;
    virtual void restore(std::span<const std::uint8_t> state) = 0;
    virtual unsigned long revision() const = 0;

    // A command in plain words, and how many bytes at its end a trace must not show.
    virtual std::string words(std::span<const std::uint8_t> command) const = 0;
    virtual std::size_t secretLength(std::span<const std::uint8_t> command) const = 0;
};

// The options of a family, collected from the command line.
class CardSettings {
public:
    virtual ~CardSettings() = default;
    // False if the option is none of the family's.
    virtual bool take(Arguments& arguments) = 0;
    virtual std::unique_ptr<ServedCard> make() const = 0;
};

struct Family {
    std::string_view name;
    std::string_view title;
    std::string_view options; // for the help: lines of two columns
    std::unique_ptr<CardSettings> (*settings)();
};

extern const Family idCardFamily;
extern const Family kazTokenFamily;
extern const Family jacartaFamily;
extern const Family etoken72kFamily;

std::span<const Family* const> allFamilies();
const Family* findFamily(std::string_view name); // null if there is none of this name
