// A simulated KAZTOKEN: RSA and GOST key pairs with certificates, one PIN, protocol T=1.
//
//     3F00                   master file
//       1000                 application directory
//         1010               directory of the list, made by its user
//           1010             list of key pairs: 01 00 00 10, then for each pair its ID byte, its
//                            label and a zero byte
//         1000
//           6001, 6002       the two key files of a pair, 00 and its ID byte: the private key is
//                            used out of the first, the public key is read from the second
//           6004             its certificate: a gzip member that fills the file
//
// The token is strict: what it does not know is refused with the status of ISO 7816-4 that fits.
// RSA takes its whole block, padded by the host, with the least significant byte first and in two
// chained commands, and answers likewise.
#pragma once

#include "sim/cards/card.h"
#include "sim/cards/kaz_token_files.h"
#include "sim/cards/test_ca.h"

#include <array>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

namespace sim {

enum class KazKeyKind : std::uint8_t { Rsa1024, Rsa2048, Gost2001, Gost2012 };

// What READ BINARY answers at the very end of a file, where no byte is left.
enum class EndOfFile : std::uint8_t {
    Bare,        // 90 00 without data
    WrongOffset, // 6B 00
};

// A key pair that a new token holds.
struct KazPair {
    std::uint8_t id = 0x01;
    KazKeyKind kind = KazKeyKind::Rsa2048;
    bool fresh = false;          // generates the keys rather than taking some that stand ready
    bool keys = true;            // its two key files
    bool certificate = true;     // one for these keys, unless the next two say otherwise
    Bytes certificateDer{};      // this certificate instead
    std::optional<Bytes> file{}; // these bytes as the whole certificate file instead
    std::optional<std::string> label{}; // otherwise 32 hexadecimal digits that end in the ID
};

struct KazTokenOptions {
    std::string pin = "123456";
    std::uint8_t retryLimit = 3;
    // What a wrong PIN is answered with. The attempts left take the place of a zero digit at the
    // end of the second byte, or else of the first: C3 63, or 63 C3 out of 63C0.
    std::uint16_t wrongPin = 0xC063;
    std::uint16_t blockedPin = 0x6983;
    std::vector<KazPair> pairs{
        {.id = 0x01, .kind = KazKeyKind::Rsa2048},
        {.id = 0x02, .kind = KazKeyKind::Gost2012},
        {.id = 0x03, .kind = KazKeyKind::Rsa1024, .certificate = false},
    };
    bool listDirectory = true; // 1000/1010
    bool list = true;          // 1000/1010/1010, which lists every pair
    EndOfFile endOfFile = EndOfFile::Bare;
    GostAlgorithm generatedGost = GostAlgorithm::Gost2012_256; // of the keys that it generates
    NameAttributes issuer = defaultIssuer(); // of the certificates that the token makes for itself
};

// Commands received, refused ones included, unless a field says otherwise.
struct KazTokenCounters {
    unsigned long commands = 0;
    unsigned long selects = 0;
    unsigned long reads = 0; // READ BINARY
    unsigned long updates = 0;
    unsigned long creates = 0;
    unsigned long deletes = 0;
    unsigned long verifies = 0;
    unsigned long logouts = 0;
    unsigned long environments = 0; // MANAGE SECURITY ENVIRONMENT
    unsigned long signCommands = 0; // PERFORM SECURITY OPERATION
    unsigned long signatures = 0;   // made, not refused
    unsigned long keyPairs = 0;     // GENERATE KEY PAIR, in either of its forms
    unsigned long challenges = 0;
};

class KazToken final : public Card {
public:
    // Throws std::invalid_argument for options that no token can have.
    explicit KazToken(const KazTokenOptions& options = {});

    Bytes atr() const override;
    unsigned long protocol() const override;
    void reset() override;
    Bytes transmit(std::span<const std::uint8_t> command) override;

    // The list's file, and what it lists; nothing while there is no such file.
    std::optional<Bytes> list() const;
    void setList(const Bytes& content); // with its directory, if that is missing
    void removeList();

    bool hasFile(const KazPath& path) const { return kazFind(files_, path) != nullptr; }
    std::optional<Bytes> file(const KazPath& path) const; // a transparent file's content
    void setFile(const KazPath& path, Bytes content);     // its directory must be there
    void removeFile(const KazPath& path);

    // Without a key if the pair is not there or of the other kind.
    RsaKey rsaKey(std::uint8_t id) const;
    GostKey gostKey(std::uint8_t id) const;
    // What the certificate file's gzip member holds; empty if there is no readable certificate.
    Bytes certificate(std::uint8_t id) const;

    unsigned retriesLeft() const { return retriesLeft_; }
    bool verified() const { return verified_; }
    const KazTokenCounters& counters() const { return counters_; }
    void clearCounters() { counters_ = {}; }

    // Everything that survives a loss of power, as packState() lays it out (magic "VELTKTC1").
    Bytes state() const;
    void restore(std::span<const std::uint8_t> state); // StateError leaves the token as it was
    void save(const std::filesystem::path& path) const;
    void load(const std::filesystem::path& path);
    // Grows with every change of what state() gives.
    unsigned long revision() const { return revision_; }

private:
    struct Command;
    struct Instruction;
    static const std::array<Instruction, 11> INSTRUCTIONS;

    Bytes select(const Command& command);
    Bytes readBinary(const Command& command);
    Bytes updateBinary(const Command& command);
    Bytes createFile(const Command& command);
    Bytes deleteFile(const Command& command);
    Bytes verify(const Command& command);
    Bytes logOut(const Command& command);
    Bytes setEnvironment(const Command& command);
    Bytes sign(const Command& command);
    Bytes keyPair(const Command& command);
    Bytes challenge(const Command& command);

    std::optional<KazPath> pathFor(const Command& command) const;
    KazFile* openFile();
    bool allows(KazFile::Need need) const;
    Bytes remove(std::uint16_t id);
    bool mayHold(const KazFile& file) const;
    Bytes signWithRsa(const Command& command, const RsaKey& key);
    Bytes signWithGost(const Command& command, const GostKey& key);
    Bytes generate(std::uint8_t id);
    Bytes publicKey(std::uint8_t id, const Command& command) const;
    void addPair(const KazPair& pair, std::size_t position, const NameAttributes& issuer);

    // Kept without power.
    EndOfFile endOfFile_;
    std::uint16_t wrongPin_;
    std::uint16_t blockedPin_;
    std::uint8_t retryLimit_;
    std::uint8_t retriesLeft_;
    std::string pin_;
    GostAlgorithm generatedGost_;
    KazFiles files_;
    unsigned long revision_ = 0;

    // Lost with power.
    KazPath directory_;
    std::optional<std::uint16_t> file_;
    std::optional<std::uint8_t> signingKey_;
    Bytes chained_;
    bool verified_ = false;

    KazTokenCounters counters_;
};

} // namespace sim
