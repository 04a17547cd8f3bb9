// Engines are deprecated in OpenSSL 3, and still the only form that GOST comes in.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "sim/cards/gost_key.h"

#include "sim/cards/openssl_error.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>

#include <openssl/engine.h>
#include <openssl/err.h>

namespace sim {

namespace {

using Context = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;

constexpr const char* PARAMETER_SET = "A";

// SubjectPublicKeyInfo with the curve of parameter set A, up to the point.
constexpr std::array<std::uint8_t, 37> HEAD_2001{
    0x30, 0x63, 0x30, 0x1C, 0x06, 0x06, 0x2A, 0x85, 0x03, 0x02, 0x02, 0x13, 0x30,
    0x12, 0x06, 0x07, 0x2A, 0x85, 0x03, 0x02, 0x02, 0x23, 0x01, 0x06, 0x07, 0x2A,
    0x85, 0x03, 0x02, 0x02, 0x1E, 0x01, 0x03, 0x43, 0x00, 0x04, 0x40};
constexpr std::array<std::uint8_t, 40> HEAD_2012{
    0x30, 0x66, 0x30, 0x1F, 0x06, 0x08, 0x2A, 0x85, 0x03, 0x07, 0x01, 0x01, 0x01, 0x01,
    0x30, 0x13, 0x06, 0x07, 0x2A, 0x85, 0x03, 0x02, 0x02, 0x23, 0x01, 0x06, 0x08, 0x2A,
    0x85, 0x03, 0x07, 0x01, 0x01, 0x02, 0x02, 0x03, 0x43, 0x00, 0x04, 0x40};

// The engine, ready for use until the process ends.
class Gost {
public:
    Gost()
    {
        if (engine_ == nullptr || ENGINE_init(engine_) != 1) {
            ENGINE_free(engine_);
            throw std::runtime_error(
                "OpenSSL has no gost engine: is package libengine-gost-openssl installed?");
        }
        // Keys can be read and put into certificates; no default of OpenSSL's changes.
        require(ENGINE_register_pkey_asn1_meths(engine_), "gost engine");
        require(ENGINE_register_pkey_meths(engine_), "gost engine");
    }
    ~Gost()
    {
        ENGINE_finish(engine_);
        ENGINE_free(engine_);
    }
    Gost(const Gost&) = delete;
    Gost& operator=(const Gost&) = delete;

    ENGINE* get() const { return engine_; }

private:
    ENGINE* engine_ = ENGINE_by_id("gost");
};

ENGINE* engine()
{
    static const Gost gost;
    return gost.get();
}

int numberOf(GostAlgorithm algorithm)
{
    return algorithm == GostAlgorithm::Gost2001 ? NID_id_GostR3410_2001 : NID_id_GostR3410_2012_256;
}

Context contextFor(EVP_PKEY* key)
{
    return {require(EVP_PKEY_CTX_new(key, engine()), "GOST context"), EVP_PKEY_CTX_free};
}

} // namespace

GostKey::GostKey(SharedKey key) : key_(std::move(key))
{
    const int number = EVP_PKEY_get_id(key_.get());
    if (number != NID_id_GostR3410_2001 && number != NID_id_GostR3410_2012_256) {
        throw std::runtime_error("this is no GOST key of 256 bits");
    }
}

GostKey GostKey::fromPem(std::string_view pem)
{
    engine();
    return GostKey(privateKeyFromPem(pem));
}

GostKey GostKey::fromDer(std::span<const std::uint8_t> pkcs8)
{
    engine();
    return GostKey(privateKeyFromDer(pkcs8));
}

GostKey GostKey::generate(GostAlgorithm algorithm)
{
    const Context context(
        require(EVP_PKEY_CTX_new_id(numberOf(algorithm), engine()), "GOST context"),
        EVP_PKEY_CTX_free);
    require(EVP_PKEY_keygen_init(context.get()), "GOST generation");
    require(EVP_PKEY_CTX_ctrl_str(context.get(), "paramset", PARAMETER_SET), "GOST parameters");
    EVP_PKEY* key = nullptr;
    require(EVP_PKEY_keygen(context.get(), &key), "GOST generation");
    return GostKey(sharedKey(key, "GOST key"));
}

GostKey GostKey::fromPublicKey(GostAlgorithm algorithm, std::span<const std::uint8_t> point)
{
    if (point.size() != GOST_PUBLIC_KEY_SIZE) {
        throw std::invalid_argument("a GOST public key has 64 bytes");
    }
    engine();
    Bytes der = algorithm == GostAlgorithm::Gost2001 ? Bytes(HEAD_2001.begin(), HEAD_2001.end())
                                                     : Bytes(HEAD_2012.begin(), HEAD_2012.end());
    der.insert(der.end(), point.begin(), point.end());
    return GostKey(publicKeyFromDer(der));
}

GostAlgorithm GostKey::algorithm() const
{
    return EVP_PKEY_get_id(key_.get()) == NID_id_GostR3410_2001 ? GostAlgorithm::Gost2001
                                                                : GostAlgorithm::Gost2012_256;
}

Bytes GostKey::publicKey() const
{
    const Bytes der = publicDer();
    return {der.end() - static_cast<std::ptrdiff_t>(GOST_PUBLIC_KEY_SIZE), der.end()};
}

Bytes GostKey::privateDer() const
{
    return privateKeyDer(key_.get());
}

Bytes GostKey::publicDer() const
{
    return publicKeyDer(key_.get());
}

Bytes GostKey::sign(std::span<const std::uint8_t> digest) const
{
    if (digest.size() != GOST_DIGEST_SIZE) {
        throw std::invalid_argument("a GOST signature takes a digest of 32 bytes");
    }
    const Context context = contextFor(key_.get());
    require(EVP_PKEY_sign_init(context.get()), "GOST signature");
    Bytes signature(GOST_SIGNATURE_SIZE);
    std::size_t length = signature.size();
    require(EVP_PKEY_sign(context.get(), signature.data(), &length, digest.data(), digest.size()),
            "GOST signature");
    signature.resize(length);
    return signature;
}

bool GostKey::verify(std::span<const std::uint8_t> digest,
                     std::span<const std::uint8_t> signature) const
{
    if (digest.size() != GOST_DIGEST_SIZE || signature.size() != GOST_SIGNATURE_SIZE) {
        return false;
    }
    const Context context = contextFor(key_.get());
    require(EVP_PKEY_verify_init(context.get()), "GOST verification");
    const bool genuine = EVP_PKEY_verify(context.get(), signature.data(), signature.size(),
                                         digest.data(), digest.size()) == 1;
    ERR_clear_error();
    return genuine;
}

} // namespace sim
