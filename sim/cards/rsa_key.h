// An RSA key pair on a simulated card, worked by OpenSSL.
#pragma once

#include "sim/cards/card.h"
#include "sim/cards/pkey.h"
#include "sim/cards/test_keys.h"

#include <cstddef>
#include <string_view>
#include <utility>

namespace sim {

// A copy shares the key. Every failure of OpenSSL is thrown as std::runtime_error.
class RsaKey {
public:
    RsaKey() = default; // no key
    static RsaKey fromPem(std::string_view pem);
    static RsaKey fromDer(std::span<const std::uint8_t> pkcs8);
    static RsaKey fromTestKey(TestKey key) { return fromPem(testKeyPem(key)); }
    static RsaKey generate(unsigned bits);

    explicit operator bool() const { return key_ != nullptr; }
    EVP_PKEY* get() const { return key_.get(); } // stays with this object; null without a key

    unsigned bits() const;
    std::size_t modulusSize() const { return (bits() + 7U) / 8U; }
    Bytes modulus() const;    // most significant byte first, modulusSize() bytes
    Bytes privateDer() const; // PKCS#8
    Bytes publicDer() const;  // SubjectPublicKeyInfo

    // What a block of type 1 takes at most: the modulus size less 11 bytes of padding.
    std::size_t signCapacity() const { return modulusSize() - 11U; }
    // Pads the data as a block of type 1 and raises it to the private exponent.
    Bytes sign(std::span<const std::uint8_t> data) const;
    // Raises a whole block, as long as the modulus and smaller, to the private exponent.
    Bytes raise(std::span<const std::uint8_t> block) const;
    // What the public key recovers from a signature: the data, without its padding.
    Bytes recover(std::span<const std::uint8_t> signature) const;
    // The same with its padding, whatever that is.
    Bytes recoverBlock(std::span<const std::uint8_t> signature) const;

private:
    explicit RsaKey(SharedKey key) : key_(std::move(key)) {}
    Bytes recoverWith(int padding, std::span<const std::uint8_t> signature) const;
    SharedKey key_;
};

} // namespace sim
