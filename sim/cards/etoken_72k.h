// A simulated eToken 72K: the JaCarta's sibling, which moves at most 32 bytes a command and keeps
// between commands what has been chosen, uploaded or made.
//
// A certificate is written in three stages. The announced length makes a container of so many zero
// bytes, pieces fill it from the front, and binding gives it to a name that stands already. A
// container whose last byte never came is bound all the same, with the zero byte that stands there;
// in a gzip member of less than 16 megabytes that is the right one. Anything less is refused.
//
// A signature with an RSA key takes a padded block of 256 bytes in eight pieces, whatever the
// length of the key, and is fetched in pieces.
#pragma once

#include "sim/cards/applet_card.h"

#include <bitset>

namespace sim {

struct Etoken72kOptions : AppletOptions {
    std::string serial = "ET72K-00421"; // 1 to 21 bytes; the token fills up to 21 with zero bytes
    // Names are sent with a zero byte behind them. Where they are not, a host that takes the reply
    // for text counts the 90 of the status along; the token then knows an object by either form.
    bool terminatedNames = true;
};

class Etoken72k final : public AppletCard {
public:
    // Throws std::invalid_argument for options that no token can have.
    explicit Etoken72k(const Etoken72kOptions& options = {});

    Bytes atr() const override;

    // What a command asks for, in plain words.
    static std::string words(std::span<const std::uint8_t> command);

private:
    static constexpr std::size_t PIECE_SIZE = 32;
    static constexpr std::size_t PIECES_IN_BLOCK = BLOCK_SIZE / PIECE_SIZE;

    Data identifier() const override;
    static std::span<const Instruction> table();
    std::span<const Instruction> instructions() const override { return table(); }
    std::string_view stateMagic() const override { return "VELTE721"; }
    void packMore(StateRecords& records) const override;
    void unpackMore(const StateRecords& records) override;
    void forget() override;
    Bytes spokenName(const Bytes& name) const override;
    bool means(Data sent, const Bytes& name) const override;

    Bytes serialNumber(Data data);
    Bytes rsaKeySize(Data data);
    Bytes rsaModulusPiece(Data data);
    Bytes gostFirstHalf(Data data);
    Bytes gostSecondHalf(Data data);
    Bytes chooseCertificate(Data data);
    Bytes readCertificate(Data data);
    Bytes writeCertificate(Data data);
    Bytes bindCertificate(Data data);
    Bytes uploadPiece(Data data);
    Bytes signRsa(Data data);
    Bytes signaturePiece(Data data);
    Bytes signGost(Data data);
    Bytes signatureSecondHalf(Data data);

    static Bytes piece(const Bytes& whole, std::size_t offset);
    Bytes gostHalf(Data data, std::size_t from);
    Bytes announce(std::size_t length);
    Bytes append(Data bytes);

    // Kept without power.
    std::string serial_;
    bool terminatedNames_;

    // Lost with power, and with every login that ends.
    std::optional<Bytes> chosen_;   // container
    std::optional<Bytes> written_;  // container under way
    std::size_t writtenLength_ = 0; // how much of it has come
    std::array<std::uint8_t, BLOCK_SIZE> block_{};
    std::bitset<PIECES_IN_BLOCK> uploaded_;
    std::optional<Bytes> rsaSignature_;
    std::optional<Bytes> gostRest_; // second half of a signature
};

// What an eToken 72K brings by itself: an RSA pair of 2,048 bits under a name of 12 bytes and a
// GOST pair under one of 9, each with a certificate, and an RSA pair of 1,024 bits under one of 5.
AppletObjects etoken72kObjects(const NameAttributes& issuer = defaultIssuer());

} // namespace sim
