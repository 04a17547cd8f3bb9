// A simulated JaCarta: an applet that reads and writes whole keys and certificates, for which it
// takes commands of extended length, and that makes random bytes.
//
// Writing a certificate takes one command and a name that stands already. A signature with an RSA
// key is asked for by the name and the whole padded block in one command.
#pragma once

#include "sim/cards/applet_card.h"

namespace sim {

struct JacartaOptions : AppletOptions {};

class Jacarta final : public AppletCard {
public:
    // Throws std::invalid_argument for options that no token can have.
    explicit Jacarta(const JacartaOptions& options = {});

    Bytes atr() const override;

    // What a command asks for, in plain words.
    static std::string words(std::span<const std::uint8_t> command);

private:
    Data identifier() const override;
    static std::span<const Instruction> table();
    std::span<const Instruction> instructions() const override { return table(); }
    std::string_view stateMagic() const override { return "VELTJCA1"; }

    Bytes rsaPublicKey(Data data);
    Bytes gostPublicKey(Data data);
    Bytes readCertificate(Data data);
    Bytes writeCertificate(Data data);
    Bytes signRsa(Data data);
    Bytes signGost(Data data);
    Bytes random(Data data);
};

// What a JaCarta brings by itself: an RSA pair of 2,048 bits under a name of 16 bytes and a GOST
// pair under one of 7, each with a certificate.
AppletObjects jacartaObjects(const NameAttributes& issuer = defaultIssuer());

} // namespace sim
