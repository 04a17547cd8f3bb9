// What the two simulated tokens with an applet have in common: a list of named objects, one PIN and
// the way commands are told apart. Protocol T=1, and no command asks for a length.
//
// Selecting the applet leaves it uninitialised; until 80 15 20 00 00 has come it knows no other
// command. That one also ends a login. The card is strict: what it does not expect is refused, by
// one of the applet's own status words or by one of ISO 7816-4.
#pragma once

#include "sim/cards/applet_object.h"
#include "sim/cards/card.h"
#include "sim/cards/state_file.h"

#include <array>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace sim {

struct AppletOptions {
    std::string pin = "1234"; // 4 to 10 bytes
    std::uint8_t retryLimit = 3;
    std::optional<AppletObjects> objects{};  // instead of what the token brings by itself
    NameAttributes issuer = defaultIssuer(); // of the certificates that it brings by itself
};

struct AppletCounters {
    unsigned long commands = 0; // received, refused ones included
    unsigned long verifies = 0;
    unsigned long signatures = 0;  // made, not refused
    unsigned long generations = 0; // the same
};

class AppletCard : public Card {
public:
    unsigned long protocol() const final;
    void reset() final;
    Bytes transmit(std::span<const std::uint8_t> command) final;

    const AppletObjects& objects() const { return objects_; }
    // The objects may be changed behind the applet's back; throws std::invalid_argument for names
    // that no object can have.
    void setObjects(AppletObjects objects);
    // Null if there is none of this name.
    const AppletObject* object(std::span<const std::uint8_t> name) const;

    unsigned retriesLeft() const { return retriesLeft_; }
    bool loggedIn() const { return session_ == Session::User; }
    const AppletCounters& counters() const { return counters_; }
    void clearCounters() { counters_ = {}; }

    // Everything that survives a loss of power, as packState() lays it out.
    Bytes state() const;
    void restore(std::span<const std::uint8_t> state); // StateError leaves the card as it was
    void save(const std::filesystem::path& path) const;
    void load(const std::filesystem::path& path);
    // Grows with every change of what state() gives.
    unsigned long revision() const { return revision_; }

    // How many bytes at a command's end must not be shown: the PIN of a VERIFY.
    static std::size_t secretLength(std::span<const std::uint8_t> command);

protected:
    using Data = std::span<const std::uint8_t>;
    using Handler = Bytes (AppletCard::*)(Data);

    enum class Form : std::uint8_t {
        Empty,    // five bytes, the last of them 00
        Short,    // one byte of length and so much data
        Extended, // 00, two bytes of length and so much data
    };

    // A command of class 80. The word for it may be followed by a name, whose length stands in the
    // data at nameAt (0: there is none).
    struct Instruction {
        std::uint8_t code;
        std::uint8_t p1;
        std::uint8_t p2;
        Form form;
        Handler run;
        std::string_view words;
        std::size_t nameAt = 0;
    };

    enum class Session : std::uint8_t { Unselected, Selected, Initialised, User };

    // Status words, the applets' own first.
    enum Status : unsigned {
        DONE = 0x9000,
        WRONG_PIN = 0x6413,
        NOT_LOGGED_IN = 0x6414,
        PIN_BLOCKED = 0x6415,
        NO_CERTIFICATE = 0x6419, // none of this name
        NO_KEY = 0x6428,         // no object of this name, or without the key asked for
        WRONG_LENGTH = 0x6700,
        CONDITIONS = 0x6985,
        WRONG_DATA = 0x6A80,
        APPLET_NOT_FOUND = 0x6A82,
        NO_SUCH_POSITION = 0x6A83,
        NO_ROOM = 0x6A84,
        WRONG_PARAMETERS = 0x6A86,
        NAME_TAKEN = 0x6A89,
        WRONG_OFFSET = 0x6B00,
        UNKNOWN_INSTRUCTION = 0x6D00,
        UNKNOWN_CLASS = 0x6E00,
    };

    static constexpr std::size_t BLOCK_SIZE = 256;
    static constexpr std::size_t LARGEST_CONTAINER = 2048;
    static constexpr std::size_t GOST_HALF = 32;

    explicit AppletCard(const AppletOptions& options, AppletObjects usualObjects);

    virtual Data identifier() const = 0; // the applet's, for SELECT
    virtual std::span<const Instruction> instructions() const = 0;
    virtual std::string_view stateMagic() const = 0;
    // What only this family keeps, with tags from 81 on.
    virtual void packMore(StateRecords& /*records*/) const {}
    virtual void unpackMore(const StateRecords& /*records*/) {}
    // Selections and results that a command left for the next.
    virtual void forget() {}
    // The name as it is sent to the host, and whether a name that the host sent means this one.
    virtual Bytes spokenName(const Bytes& name) const { return name; }
    virtual bool means(Data sent, const Bytes& name) const;

    // What a command asks for, in plain words.
    static std::string words(std::span<const Instruction> known, Data command);

    template <class Derived>
    static constexpr Handler handler(Bytes (Derived::*run)(Data))
    {
        return static_cast<Handler>(run);
    }

    // Commands of both families.
    Bytes initialise(Data data);
    Bytes verify(Data data);
    Bytes countObjects(Data data);
    Bytes nameObject(Data data);
    Bytes probePart(Data data);
    Bytes generateRsa(Data data);
    Bytes generateGost(Data data);
    Bytes destroy(Data data);

    // A name in a command's data, with one byte of length before it, and what comes behind.
    struct Named {
        Data name;
        Data rest;
    };
    static std::optional<Named> nameIn(Data data);
    // The same behind a byte of 00; nothing unless exactly `rest` bytes come behind.
    static std::optional<Named> namedBehindZero(Data data, std::size_t rest = 0);
    AppletObject* find(Data name);
    AppletObject* find(Data name, AppletPart part); // null too if the object lacks the part
    static unsigned missing(AppletPart part);

    bool needsLogin() const { return session_ != Session::User; }
    void changed() { ++revision_; }

    // The signature of a block of type 1 with 256 bytes; a shorter key signs what is in the block
    // under padding of its own length. Nothing if the block is made otherwise or holds too much.
    std::optional<Bytes> signBlock(const RsaKey& key, Data block);
    // The signature of 32 bytes of digest whose last byte comes first: 64 bytes, and of its two
    // numbers too the last byte comes first.
    Bytes signReversed(const GostKey& key, Data reversedDigest);

    static Bytes status(unsigned value);
    static Bytes with(Data data, unsigned value = DONE);
    static Bytes number16(std::size_t value);
    static std::size_t numberAt(Data data, std::size_t at); // two bytes
    // Each half of 64 bytes with its last byte first.
    static Bytes halvesReversed(Data bytes);

private:
    // Throws std::invalid_argument for what no token can be like.
    static void check(const std::string& pin, unsigned retryLimit, const AppletObjects& objects);

    Bytes select(Data command);
    Bytes carryOut(Data command);
    // The object that a new key goes to, made if there is none; null and why not otherwise.
    AppletObject* placeFor(Data name, AppletPart part, unsigned& refusal);
    void enter(Session session);

    // Kept without power.
    std::uint8_t retryLimit_;
    std::uint8_t retriesLeft_;
    std::string pin_;
    AppletObjects objects_;
    unsigned long revision_ = 0;

    // Lost with power.
    Session session_ = Session::Unselected;

    AppletCounters counters_;
};

} // namespace sim
