#include "bench/peers.h"

#include "sim/cards/id_card.h"

#include <algorithm>
#include <array>
#include <utility>

namespace bench {

namespace {

constexpr std::size_t KEY_PAIRS = 2;

sim::Bytes joined(std::initializer_list<sim::Bytes> parts)
{
    sim::Bytes whole;
    for (const sim::Bytes& part : parts) {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole;
}

// Tag, length in two octets, content.
sim::Bytes item(std::uint8_t tag, const sim::Bytes& content)
{
    return joined({{tag, 0x82, static_cast<std::uint8_t>(content.size() >> 8),
                    static_cast<std::uint8_t>(content.size() & 0xFF)},
                   content});
}

class PivCard final : public sim::Card {
public:
    PivCard()
    {
        const sim::IdCard original;
        certificate_ = item(
            0x53, joined({item(0x70, original.certificate(0)), {0x71, 0x01, 0x00, 0xFE, 0x00}}));
        signature_ = item(0x7C, item(0x82, original.modulus(0)));
    }

    sim::Bytes atr() const override { return {0x3B, 0x80, 0x80, 0x01, 0x01}; }
    unsigned long protocol() const override { return 2; }
    void reset() override { pending_.clear(); }

    sim::Bytes transmit(std::span<const std::uint8_t> command) override
    {
        if (command.size() < 4 || (command[0] & 0x10) != 0) {
            return {0x90, 0x00}; // a part of a chain
        }
        switch (command[1]) {
        case 0xA4: // SELECT
            return deliver({0x61, 0x11, 0x4F, 0x06, 0x00, 0x00, 0x10, 0x00, 0x01, 0x00, 0x79, 0x07,
                            0x4F, 0x05, 0xA0, 0x00, 0x00, 0x03, 0x08});
        case 0xCB: // GET DATA
            return getData(command);
        case 0xC0: // GET RESPONSE
            return deliver(std::exchange(pending_, {}));
        case 0x20: // VERIFY
            return {0x90, 0x00};
        case 0x87: // GENERAL AUTHENTICATE
            return deliver(signature_);
        default:
            return {0x6D, 0x00};
        }
    }

private:
    sim::Bytes getData(std::span<const std::uint8_t> command)
    {
        constexpr std::array<std::uint8_t, 5> CERTIFICATE{0x5C, 0x03, 0x5F, 0xC1, 0x05};
        const bool known = command.size() >= 10 &&
                           std::ranges::equal(command.subspan(5, CERTIFICATE.size()), CERTIFICATE);
        return known ? deliver(certificate_) : sim::Bytes{0x6A, 0x82};
    }

    sim::Bytes deliver(const sim::Bytes& data)
    {
        constexpr std::size_t MOST = 256;
        const std::size_t count = std::min(data.size(), MOST);
        const auto end = data.begin() + static_cast<std::ptrdiff_t>(count);
        sim::Bytes reply(data.begin(), end);
        pending_.assign(end, data.end());
        const std::size_t left = std::min(pending_.size(), MOST);
        reply.push_back(left == 0 ? 0x90 : 0x61);
        reply.push_back(static_cast<std::uint8_t>(left & 0xFF));
        return reply;
    }

    sim::Bytes certificate_;
    sim::Bytes signature_;
    sim::Bytes pending_;
};

void makeKeyPair(const Session& session, CK_BYTE id)
{
    CK_MECHANISM mechanism{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
    CK_BBOOL yes = CK_TRUE;
    CK_ULONG bits = 2048;
    std::array<CK_BYTE, 3> exponent{0x01, 0x00, 0x01};
    std::array<CK_ATTRIBUTE, 5> publicKey{{
        {CKA_TOKEN, &yes, sizeof yes},
        {CKA_ID, &id, sizeof id},
        {CKA_VERIFY, &yes, sizeof yes},
        {CKA_MODULUS_BITS, &bits, sizeof bits},
        {CKA_PUBLIC_EXPONENT, exponent.data(), exponent.size()},
    }};
    std::array<CK_ATTRIBUTE, 4> privateKey{{
        {CKA_TOKEN, &yes, sizeof yes},
        {CKA_ID, &id, sizeof id},
        {CKA_PRIVATE, &yes, sizeof yes},
        {CKA_SIGN, &yes, sizeof yes},
    }};
    std::array<CK_OBJECT_HANDLE, 2> handles{};
    require(session.module->C_GenerateKeyPair(session.handle, &mechanism, publicKey.data(),
                                              publicKey.size(), privateKey.data(),
                                              privateKey.size(), &handles[0], &handles[1]),
            "C_GenerateKeyPair");
}

void makeCertificate(const Session& session, CK_BYTE id, Bytes der)
{
    CK_OBJECT_CLASS objClass = CKO_CERTIFICATE;
    CK_CERTIFICATE_TYPE type = CKC_X_509;
    CK_BBOOL yes = CK_TRUE;
    // Any encoding will do: nobody looks into them here.
    std::array<CK_BYTE, 180> name{0x30, 0x81, 0xB1};
    std::array<CK_BYTE, 10> serial{0x02, 0x08, 0x01};
    std::array<CK_ATTRIBUTE, 8> attributes{{
        {CKA_CLASS, &objClass, sizeof objClass},
        {CKA_CERTIFICATE_TYPE, &type, sizeof type},
        {CKA_TOKEN, &yes, sizeof yes},
        {CKA_ID, &id, sizeof id},
        {CKA_SUBJECT, name.data(), name.size()},
        {CKA_ISSUER, name.data(), name.size()},
        {CKA_SERIAL_NUMBER, serial.data(), serial.size()},
        {CKA_VALUE, der.data(), der.size()},
    }};
    CK_OBJECT_HANDLE handle = 0;
    require(session.module->C_CreateObject(session.handle, attributes.data(), attributes.size(),
                                           &handle),
            "C_CreateObject");
}

} // namespace

std::shared_ptr<sim::Card> peerCard(const std::string& provider)
{
    return provider == "opensc" ? std::make_shared<PivCard>() : nullptr;
}

void fillToken(const Session& session)
{
    CK_OBJECT_CLASS objClass = CKO_CERTIFICATE;
    std::array<CK_ATTRIBUTE, 1> wanted{{{CKA_CLASS, &objClass, sizeof objClass}}};
    if (!session.find(wanted).empty()) {
        return;
    }
    const sim::IdCard original;
    for (std::size_t pair = 0; pair < KEY_PAIRS; ++pair) {
        const auto id = static_cast<CK_BYTE>(0x87 + pair);
        makeKeyPair(session, id);
        makeCertificate(session, id, original.certificate(pair));
    }
}

} // namespace bench
