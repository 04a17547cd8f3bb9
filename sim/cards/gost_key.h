// A GOST key pair on a simulated card, worked by OpenSSL's gost engine.
//
// The engine is loaded by these keys themselves, without any configuration file, and registered
// for its own key types alone: what else the process does with OpenSSL stays as it is.
#pragma once

#include "sim/cards/card.h"
#include "sim/cards/pkey.h"
#include "sim/cards/test_keys.h"

#include <cstddef>
#include <string_view>

namespace sim {

// Both on the curve of parameter set A.
enum class GostAlgorithm : std::uint8_t {
    Gost2001,     // GOST R 34.10-2001
    Gost2012_256, // GOST R 34.10-2012 with 256 bits
};

inline constexpr std::size_t GOST_DIGEST_SIZE = 32;
inline constexpr std::size_t GOST_SIGNATURE_SIZE = 64;
inline constexpr std::size_t GOST_PUBLIC_KEY_SIZE = 64;

// A copy shares the key. Every failure of OpenSSL is thrown as std::runtime_error.
class GostKey {
public:
    GostKey() = default; // no key
    static GostKey fromPem(std::string_view pem);
    static GostKey fromDer(std::span<const std::uint8_t> pkcs8);
    static GostKey fromTestKey(GostTestKey key) { return fromPem(gostTestKeyPem(key)); }
    static GostKey generate(GostAlgorithm algorithm);
    // A key that verifies but cannot sign, from what publicKey() gives.
    static GostKey fromPublicKey(GostAlgorithm algorithm, std::span<const std::uint8_t> point);

    explicit operator bool() const { return key_ != nullptr; }
    EVP_PKEY* get() const { return key_.get(); } // stays with this object; null without a key

    GostAlgorithm algorithm() const;
    // The point's two coordinates as a SubjectPublicKeyInfo carries them: 32 bytes of x, then 32
    // of y, each with its least significant byte first.
    Bytes publicKey() const;
    Bytes privateDer() const; // PKCS#8
    Bytes publicDer() const;  // SubjectPublicKeyInfo

    // Signs the 32 bytes of a digest as they are. The signature's 64 bytes are two numbers with
    // their most significant byte first, s before r, as certificates carry them. Signing the same
    // digest again gives another signature.
    Bytes sign(std::span<const std::uint8_t> digest) const;
    bool verify(std::span<const std::uint8_t> digest,
                std::span<const std::uint8_t> signature) const;

private:
    explicit GostKey(SharedKey key);
    SharedKey key_;
};

} // namespace sim
