// An ID card that answers from memory and computes nothing, for tests that make very many calls or
// measure time: two key pairs with a certificate each, no PIN check, signatures of fixed bytes.
#pragma once

#include "sim/cards/card.h"

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

namespace velt_test {

// A version 3 certificate whose names have the six usual attributes, self-signed.
inline sim::Bytes smallCertificate(long serial, const std::string& commonName)
{
    const auto check = [](bool done) {
        if (!done) {
            throw std::runtime_error("OpenSSL could not make a certificate");
        }
    };
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
        EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), EVP_PKEY_free);
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), X509_free);
    check(key != nullptr && certificate != nullptr);
    X509* const x509 = certificate.get();
    check(X509_set_version(x509, X509_VERSION_3) == 1);
    check(ASN1_INTEGER_set(X509_get_serialNumber(x509), serial) == 1);
    check(ASN1_TIME_set_string(X509_getm_notBefore(x509), "250131120000Z") == 1);
    check(ASN1_TIME_set_string(X509_getm_notAfter(x509), "350228235959Z") == 1);
    X509_NAME* const name = X509_get_subject_name(x509);
    const std::array<std::pair<const char*, std::string>, 6> attributes{{
        {"C", "KZ"},
        {"ST", "Akmola"},
        {"L", "Kokshetau"},
        {"O", "Velt Test"},
        {"OU", "Memory"},
        {"CN", commonName},
    }};
    for (const auto& [type, value] : attributes) {
        check(X509_NAME_add_entry_by_txt(name, type, MBSTRING_UTF8,
                                         reinterpret_cast<const unsigned char*>(value.data()), -1,
                                         -1, 0) == 1);
    }
    check(X509_set_issuer_name(x509, name) == 1 && X509_set_pubkey(x509, key.get()) == 1);
    check(X509_sign(x509, key.get(), EVP_sha256()) > 0);
    unsigned char* encoded = nullptr;
    const int length = i2d_X509(x509, &encoded);
    check(length > 0);
    const sim::Bytes bytes(encoded, encoded + length);
    OPENSSL_free(encoded);
    return bytes;
}

// A gzip member (RFC 1952) that stores the data without compressing it; up to 65,535 bytes.
inline sim::Bytes storedGzip(const sim::Bytes& data)
{
    const auto put = [](sim::Bytes& out, std::uint32_t number, int bytes) {
        for (int i = 0; i < bytes; ++i) {
            out.push_back(static_cast<std::uint8_t>(number >> (8 * i)));
        }
    };
    sim::Bytes out{0x1F, 0x8B, 8, 0, 0, 0, 0, 0, 0, 3, 1}; // header; one last, stored block
    const auto length = static_cast<std::uint32_t>(data.size());
    put(out, length, 2);
    put(out, ~length, 2);
    out.insert(out.end(), data.begin(), data.end());
    std::uint32_t crc = 0xFFFFFFFF;
    for (const std::uint8_t byte : data) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320 : 0);
        }
    }
    put(out, ~crc, 4);
    put(out, length, 4);
    return out;
}

class MemoryCard final : public sim::Card {
public:
    static constexpr std::size_t KEY_BYTES = 256;

    MemoryCard()
    {
        for (std::size_t i = 0; i < 2; ++i) {
            certificates_[i] =
                smallCertificate(0x1234 + static_cast<long>(i), "Holder " + std::to_string(i + 1));
            const sim::Bytes packed = storedGzip(certificates_[i]);
            files_[i] = {static_cast<std::uint8_t>(packed.size() >> 8),
                         static_cast<std::uint8_t>(packed.size())};
            files_[i].insert(files_[i].end(), packed.begin(), packed.end());
            moduli_[i] = pattern(0x80 + i);
            signatures_[i] = pattern(0x40 + i);
        }
    }

    // Of key pair 1 (index 0) and 2.
    const sim::Bytes& certificate(std::size_t pair) const { return certificates_[pair]; }
    const sim::Bytes& modulus(std::size_t pair) const { return moduli_[pair]; }
    const sim::Bytes& signature(std::size_t pair) const { return signatures_[pair]; }

    sim::Bytes atr() const override
    {
        return {0x3B, 0x77, 0x18, 0x00, 0x00, 0x4B, 0x41, 0x53, 0x41, 0x4B, 0x49, 0x44};
    }
    unsigned long protocol() const override { return 1; }

    void reset() override
    {
        pending_.clear();
        file_ = NO_FILE;
    }

    sim::Bytes transmit(std::span<const std::uint8_t> command) override
    {
        if (command.size() < 5 || command[0] != 0x00) {
            return {0x6E, 0x00};
        }
        switch (command[1]) {
        case 0xA4: // SELECT
            return select(command);
        case 0xB0: // READ BINARY
            return read(command);
        case 0xC0: // GET RESPONSE
            return deliver(command[4]);
        case 0xCA: // GET DATA
            return {1, 2, 3, 4, 5, 6, 7, 8, 9, 0x90, 0x00};
        case 0xCB: // GET PUBLIC KEY
            return command.size() == 16 ? announce(publicKey(command[9] == 0x08 ? 1 : 0))
                                        : sim::Bytes{0x67, 0x00};
        case 0x20: // VERIFY
            return {0x90, 0x00};
        case 0x22: // MANAGE SECURITY ENVIRONMENT
            return chooseKey(command);
        case 0x88: // INTERNAL AUTHENTICATE
            return announce(signatures_[key_]);
        default:
            return {0x6D, 0x00};
        }
    }

private:
    static constexpr std::size_t NO_FILE = 2;

    static sim::Bytes pattern(std::size_t seed)
    {
        sim::Bytes bytes(KEY_BYTES);
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = static_cast<std::uint8_t>(seed + i * 3);
        }
        return bytes;
    }

    // 15 bytes of template header, then the modulus.
    sim::Bytes publicKey(std::size_t pair) const
    {
        sim::Bytes bytes{0x7F, 0x49, 0x82, 0x01, 0x0A, 0x81, 0x82, 0x01,
                         0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
        bytes.insert(bytes.end(), moduli_[pair].begin(), moduli_[pair].end());
        return bytes;
    }

    sim::Bytes chooseKey(std::span<const std::uint8_t> command)
    {
        if (command.size() != 14) {
            return {0x67, 0x00};
        }
        key_ = command[10] == 0x88 ? 1 : 0;
        return {0x90, 0x00};
    }

    sim::Bytes select(std::span<const std::uint8_t> command)
    {
        const bool elementary = command[2] == 0x02 && command.size() >= 7;
        file_ = elementary ? static_cast<std::size_t>(command[6] - 1) % 2 : NO_FILE;
        return {0x90, 0x00};
    }

    sim::Bytes read(std::span<const std::uint8_t> command) const
    {
        if (file_ == NO_FILE) {
            return {0x69, 0x86};
        }
        const sim::Bytes& file = files_[file_];
        const auto from = static_cast<std::size_t>(command[2] * 256 + command[3]);
        const std::size_t wanted = command[4] == 0 ? 256 : command[4];
        if (from + wanted > file.size()) {
            return {0x6B, 0x00};
        }
        const auto start = file.begin() + static_cast<std::ptrdiff_t>(from);
        sim::Bytes reply(start, start + static_cast<std::ptrdiff_t>(wanted));
        reply.insert(reply.end(), {0x90, 0x00});
        return reply;
    }

    static std::uint8_t announced(std::size_t left)
    {
        return left > 255 ? std::uint8_t{0} : static_cast<std::uint8_t>(left);
    }

    sim::Bytes announce(sim::Bytes data)
    {
        pending_ = std::move(data);
        return {0x61, announced(pending_.size())};
    }

    sim::Bytes deliver(std::uint8_t le)
    {
        const std::size_t wanted = le == 0 ? 256 : le;
        if (pending_.size() < wanted) {
            return {0x6C, announced(pending_.size())};
        }
        const auto end = pending_.begin() + static_cast<std::ptrdiff_t>(wanted);
        sim::Bytes reply(pending_.begin(), end);
        pending_.erase(pending_.begin(), end);
        if (pending_.empty()) {
            reply.insert(reply.end(), {0x90, 0x00});
        } else {
            reply.insert(reply.end(), {0x61, announced(pending_.size())});
        }
        return reply;
    }

    std::array<sim::Bytes, 2> certificates_;
    std::array<sim::Bytes, 2> files_;
    std::array<sim::Bytes, 2> moduli_;
    std::array<sim::Bytes, 2> signatures_;
    sim::Bytes pending_;
    std::size_t file_ = NO_FILE;
    std::size_t key_ = 0;
};

} // namespace velt_test
