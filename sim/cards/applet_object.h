// What the tokens with an applet keep: named objects, each with up to four parts.
#pragma once

#include "sim/cards/gost_key.h"
#include "sim/cards/rsa_key.h"
#include "sim/cards/test_ca.h"

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace sim {

inline constexpr std::size_t APPLET_LONGEST_NAME = 20;

// The parts by the numbers that the applets know them under.
enum class AppletPart : std::uint8_t { GostPrivate = 0, GostPublic = 1, Certificate = 2, Rsa = 3 };

struct AppletObject {
    Bytes name; // 1 to 20 bytes
    RsaKey rsa{};
    GostKey gost{};
    bool gostPrivate = true; // which halves of the GOST key the token holds, if there is one
    bool gostPublic = true;
    Bytes container{}; // the certificate as a gzip member; empty without one

    bool has(AppletPart part) const;
    bool empty() const; // no part at all
    // What the container holds; empty if that is no gzip member.
    Bytes certificate() const;
    void setCertificate(std::span<const std::uint8_t> der);
};

using AppletObjects = std::vector<AppletObject>;

// A certificate for the object's key under this common name; the RSA key's if there are two.
Bytes certificateFor(const AppletObject& object, const std::string& holder,
                     const NameAttributes& issuer = defaultIssuer());

// Objects as bytes, for a state file; parsing throws StateError.
Bytes packObjects(const AppletObjects& objects);
AppletObjects unpackObjects(std::span<const std::uint8_t> packed);

} // namespace sim
