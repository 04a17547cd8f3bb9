// A simulated identity card: two RSA keys with certificates, one PIN, protocol T=0.
//
//     3F00            master file: data object DF01 (9 bytes) and the PIN (reference 02)
//       0801          certificates: transparent files 0101 and 0102, each two bytes of length,
//                     most significant first, and a gzip member of that length
//       0101          key application: key pairs 87 and 88, whose public keys are read as 07 and 08
//
// The card is strict: what it does not know is refused with the status of ISO 7816-4 that fits.
// Commands with data and a response are answered with 61 xx and served by GET RESPONSE.
#pragma once

#include "sim/cards/card.h"
#include "sim/cards/rsa_key.h"
#include "sim/cards/test_ca.h"

#include <array>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

namespace sim {

inline constexpr std::size_t ID_CARD_POSITIONS = 2;

enum class IdCardIssue : std::uint8_t { Old, New };

// What READ BINARY does if the file ends before the length asked for.
enum class ShortRead : std::uint8_t {
    Warning,     // the bytes there are, with 62 82
    Silent,      // the bytes there are, with 90 00
    WrongLength, // no bytes: 6C and the length to ask for
};

// One of the two places for a key and its certificate.
struct IdCardPosition {
    unsigned keyBits = 2048; // 0: no key; 1024 and 2048 stand ready, others are generated
    bool freshKey = false;   // generates a key rather than taking the one that stands ready
    bool certificate = true; // one for the key of this position, unless the next two say otherwise
    Bytes certificateDer;    // this certificate instead
    std::optional<Bytes> file; // these bytes as the whole certificate file instead
};

struct IdCardOptions {
    IdCardIssue issue = IdCardIssue::New;
    std::string pin = "1234"; // four bytes; the card wants "0000" behind them
    std::uint8_t retryLimit = 3;
    std::array<std::uint8_t, 9> cardObject{0x19, 0x86, 0x02, 0x17, 0x35, 0x01, 0x00, 0x42, 0x7C};
    std::array<IdCardPosition, ID_CARD_POSITIONS> positions{};
    NameAttributes issuer = defaultIssuer(); // of the certificates that the card makes for itself
    std::size_t fileSize = 2 + 4096;
    unsigned generatedBits = 2048; // size of the keys that the card generates
    ShortRead shortRead = ShortRead::Warning;
};

// Commands received, refused ones included, unless a field says otherwise.
struct IdCardCounters {
    unsigned long commands = 0;
    unsigned long selects = 0;
    unsigned long reads = 0; // READ BINARY
    unsigned long updates = 0;
    unsigned long dataObjects = 0; // GET DATA
    unsigned long publicKeys = 0;  // GET PUBLIC KEY
    unsigned long verifies = 0;
    unsigned long environments = 0; // MANAGE SECURITY ENVIRONMENT
    unsigned long signCommands = 0; // INTERNAL AUTHENTICATE
    unsigned long signatures = 0;   // made, not refused
    unsigned long generations = 0;
    unsigned long getResponses = 0;
};

class IdCard final : public Card {
public:
    // Throws std::invalid_argument for options that no card can have.
    explicit IdCard(const IdCardOptions& options = {});

    Bytes atr() const override;
    unsigned long protocol() const override;
    void reset() override;
    Bytes transmit(std::span<const std::uint8_t> command) override;

    // Positions are 0 (key 87, file 0101) and 1 (key 88, file 0102).
    const RsaKey& key(std::size_t position) const { return places_.at(position).key; }
    Bytes modulus(std::size_t position) const; // empty without a key
    void setKey(std::size_t position, RsaKey key);
    const Bytes& file(std::size_t position) const { return places_.at(position).file; }
    void setFile(std::size_t position, Bytes content); // at most 32,768 bytes
    // What the file's gzip member holds; empty if the file holds no readable certificate.
    Bytes certificate(std::size_t position) const;
    void setCertificate(std::size_t position, std::span<const std::uint8_t> der);

    unsigned retriesLeft() const { return retriesLeft_; }
    bool verified() const { return verified_; }
    const IdCardCounters& counters() const { return counters_; }
    void clearCounters() { counters_ = {}; }

    // Everything that survives a loss of power, as packState() lays it out (magic "VELTIDC1").
    Bytes state() const;
    void restore(std::span<const std::uint8_t> state); // StateError leaves the card as it was
    void save(const std::filesystem::path& path) const;
    void load(const std::filesystem::path& path);
    // Grows with every change of what state() gives.
    unsigned long revision() const { return revision_; }

private:
    enum class Directory : std::uint8_t { None, Master, Certificates, Keys };

    struct Place {
        RsaKey key;
        Bytes file;
    };

    struct Command;
    struct Instruction;
    static const std::array<Instruction, 10> INSTRUCTIONS;

    Bytes select(const Command& command);
    Bytes readBinary(const Command& command);
    Bytes updateBinary(const Command& command);
    Bytes getData(const Command& command);
    Bytes getPublicKey(const Command& command);
    Bytes verify(const Command& command);
    Bytes setEnvironment(const Command& command);
    Bytes sign(const Command& command);
    Bytes generate(const Command& command);
    Bytes getResponse(const Command& command);

    Bytes enter(Directory directory);
    Bytes selectDirectory(const Command& command);
    Bytes selectFile(const Command& command);
    Bytes shortAnswer(std::span<const std::uint8_t> rest, bool anyLength) const;
    Bytes answerLater(Bytes data);

    // Kept without power.
    IdCardIssue issue_;
    ShortRead shortRead_;
    unsigned generatedBits_;
    std::uint8_t retryLimit_;
    std::uint8_t retriesLeft_;
    std::string pin_;
    Bytes cardObject_;
    std::array<Place, ID_CARD_POSITIONS> places_{};
    unsigned long revision_ = 0;

    // Lost with power.
    Directory directory_ = Directory::None;
    std::optional<std::size_t> openFile_;
    std::optional<std::size_t> signingKey_;
    bool verified_ = false;
    Bytes pending_;

    IdCardCounters counters_;
};

} // namespace sim
