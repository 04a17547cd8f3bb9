// Tests through the built module of what a host does with a JaCarta or an eToken 72K.
#pragma once

#include "sim/cards/etoken_72k.h"
#include "sim/cards/jacarta.h"
#include "tests/support/card_host.h"

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace velt_test {

using Handles = std::vector<CK_OBJECT_HANDLE>;

// The vendor's mechanisms as numbers of 64 bits: as they are, and with their sign carried on.
constexpr CK_MECHANISM_TYPE GOST_SIGN = 0x84B5A002;
constexpr CK_MECHANISM_TYPE GOST_SIGN_EXTENDED = 0xFFFFFFFF84B5A002;
constexpr CK_KEY_TYPE GOST_KEY = 0x84B5A001;

// Handles of the objects that both tokens bring by themselves.
constexpr CK_OBJECT_HANDLE RSA_CERTIFICATE = 1;
constexpr CK_OBJECT_HANDLE RSA_PUBLIC = 2;
constexpr CK_OBJECT_HANDLE RSA_PRIVATE = 3;
constexpr CK_OBJECT_HANDLE GOST_PRIVATE = 4;
constexpr CK_OBJECT_HANDLE GOST_PUBLIC = 5;
constexpr CK_OBJECT_HANDLE GOST_CERTIFICATE = 6;
constexpr CK_OBJECT_HANDLE OLD_PUBLIC = 7; // of the eToken alone
constexpr CK_OBJECT_HANDLE OLD_PRIVATE = 8;

// Positions of those objects on the token.
constexpr std::size_t RSA_OBJECT = 0;
constexpr std::size_t GOST_OBJECT = 1;
constexpr std::size_t OLD_OBJECT = 2;

inline std::string labelOf(const Bytes& name)
{
    return sim::toHex(name);
}

// A short command: its header, one byte of length and its data.
inline Sent shortCommand(std::string_view header, const Bytes& data, unsigned long capacity)
{
    Bytes bytes = hex(header);
    bytes.push_back(static_cast<std::uint8_t>(data.size()));
    bytes.insert(bytes.end(), data.begin(), data.end());
    return {bytes, capacity};
}

inline Bytes joined(const std::vector<Bytes>& parts)
{
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

// One byte of length and the name.
inline Bytes countedName(const Bytes& name)
{
    return joined({{static_cast<std::uint8_t>(name.size())}, name});
}

// A command whose data is 00, a name with its length, and what comes behind.
inline Sent namedCommand(std::string_view header, const Bytes& name, unsigned long capacity,
                         const Bytes& behind = {})
{
    return shortCommand(header, joined({{0x00}, countedName(name), behind}), capacity);
}

inline Bytes reversed(const Bytes& bytes)
{
    return {bytes.rbegin(), bytes.rend()};
}

// 64 bytes, each half of them with its last byte first.
inline Bytes halvesReversed(const Bytes& bytes)
{
    EXPECT_EQ(64U, bytes.size());
    Bytes turned(bytes.rbegin(), bytes.rend());
    std::rotate(turned.begin(), turned.begin() + static_cast<std::ptrdiff_t>(turned.size() / 2),
                turned.end());
    return turned;
}

// A block of 256 bytes: 00 01, bytes of FF, 00 and the data.
inline Bytes paddedBlock(const Bytes& data)
{
    return joined({{0x00, 0x01}, Bytes(253 - data.size(), 0xFF), {0x00}, data});
}

// The SHA-256 of a message as CKM_RSA_PKCS wants it.
inline Bytes sha256Info(std::string_view message)
{
    Bytes info = hex("30 31 30 0D 06 09 60 86 48 01 65 03 04 02 01 05 00 04 20");
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    EVP_Digest(message.data(), message.size(), digest.data(), &length, EVP_sha256(), nullptr);
    info.insert(info.end(), digest.begin(), digest.begin() + length);
    return info;
}

using X509Pointer = std::unique_ptr<X509, decltype(&X509_free)>;

inline X509Pointer parsed(const Bytes& der)
{
    const unsigned char* at = der.data();
    return {d2i_X509(nullptr, &at, static_cast<long>(der.size())), X509_free};
}

// Whether OpenSSL accepts the RSA signature of a message with the key of a certificate.
inline bool verifiesWith(const Bytes& certificate, std::string_view message, const Bytes& signature)
{
    const X509Pointer x509 = parsed(certificate);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          EVP_MD_CTX_free);
    return x509 != nullptr &&
           EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr,
                                X509_get0_pubkey(x509.get())) == 1 &&
           EVP_DigestVerify(context.get(), signature.data(), signature.size(),
                            reinterpret_cast<const unsigned char*>(message.data()),
                            message.size()) == 1;
}

// A digest whose bytes all differ.
inline Bytes someDigest()
{
    Bytes digest(32);
    for (std::size_t i = 0; i < digest.size(); ++i) {
        digest[i] = static_cast<std::uint8_t>(11 * i + 5);
    }
    return digest;
}

// An object whose name is this text.
inline sim::AppletObject appletObject(std::string_view name)
{
    sim::AppletObject object;
    object.name.assign(name.begin(), name.end());
    return object;
}

class AppletHost : public CardHost {
protected:
    // What the commands since the last forget() were, without capacities and replies.
    static std::vector<Bytes> commandsOf(const Commands& commands)
    {
        std::vector<Bytes> bytes;
        for (const Sent& sent : commands) {
            bytes.push_back(sent.command);
        }
        return bytes;
    }

    // Opens a session on a token.
    void openWith(std::shared_ptr<sim::AppletCard> token)
    {
        card = std::move(token);
        insert(card);
        session = open(0);
        forget();
    }

    // The module anew on the same token, and a session on it.
    void startAgain()
    {
        ASSERT_RV(CKR_OK, p11.C_Finalize(nullptr));
        initialise();
        slots();
        session = open(0);
    }

    const sim::AppletObject& object(std::size_t position) const
    {
        return card->objects().at(position);
    }

    CK_OBJECT_CLASS classOf(CK_OBJECT_HANDLE handle) { return number(handle, CKA_CLASS); }

    CK_ULONG number(CK_OBJECT_HANDLE handle, CK_ATTRIBUTE_TYPE type)
    {
        const Bytes bytes = value(handle, type);
        CK_ULONG read = 0;
        EXPECT_EQ(sizeof read, bytes.size());
        for (std::size_t i = 0; i < bytes.size() && i < sizeof read; ++i) {
            read |= static_cast<CK_ULONG>(bytes[i]) << (8 * i);
        }
        return read;
    }

    CK_RV create(std::vector<CK_ATTRIBUTE> attributes)
    {
        created = NO_HANDLE;
        return p11.C_CreateObject(session, attributes.data(), attributes.size(), &created);
    }

    // A certificate for the object at a position, or under a label.
    CK_RV writeById(Bytes der, CK_BYTE id)
    {
        return create({attributeOf(CKA_CLASS, certificateClass), attributeOf(CKA_TOKEN, yes),
                       attributeOf(CKA_VALUE, der), attributeOf(CKA_ID, id)});
    }
    CK_RV writeByLabel(Bytes der, const std::string& label)
    {
        Bytes text = bytesOf(label);
        text.push_back(0); // the label is text with an end
        CK_ATTRIBUTE name = attributeOf(CKA_LABEL, text);
        name.ulValueLen -= 1;
        return create({attributeOf(CKA_CLASS, certificateClass), attributeOf(CKA_TOKEN, yes),
                       attributeOf(CKA_VALUE, der), name});
    }

    // The n-th command from here on is refused, though the token carries it out.
    static void refuse(std::size_t n, const Bytes& status)
    {
        pcsc::Action refusal;
        refusal.alter = [status](const Bytes&) { return status; };
        pcsc::onNth(pcsc::Function::Transmit, n, refusal);
    }

    std::shared_ptr<sim::AppletCard> card;
    CK_OBJECT_CLASS certificateClass = CKO_CERTIFICATE;
    CK_BBOOL yes = CK_TRUE;
    CK_BBOOL no = CK_FALSE;
    CK_OBJECT_HANDLE created = NO_HANDLE;
    Bytes signature;
};

} // namespace velt_test
