#include "sim/cards/rsa_key.h"

#include "sim/cards/openssl_error.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

namespace sim {

namespace {

using Context = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;

Context contextFor(EVP_PKEY* key)
{
    return {require(EVP_PKEY_CTX_new(key, nullptr), "RSA context"), EVP_PKEY_CTX_free};
}

// Takes what an i2d function wrote into memory of OpenSSL's.
Bytes takeDer(unsigned char* der, int length, const char* what)
{
    if (length <= 0) {
        throwOpenSsl(what);
    }
    Bytes bytes(der, der + length);
    OPENSSL_clear_free(der, static_cast<std::size_t>(length));
    return bytes;
}

} // namespace

RsaKey::RsaKey(EVP_PKEY* key) : key_(require(key, "RSA key"), EVP_PKEY_free) {}

RsaKey RsaKey::fromPem(std::string_view pem)
{
    const std::unique_ptr<BIO, decltype(&BIO_free)> bio(
        require(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), "PEM"), BIO_free);
    return RsaKey(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
}

RsaKey RsaKey::fromDer(std::span<const std::uint8_t> pkcs8)
{
    const unsigned char* at = pkcs8.data();
    const std::unique_ptr<PKCS8_PRIV_KEY_INFO, decltype(&PKCS8_PRIV_KEY_INFO_free)> info(
        require(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &at, static_cast<long>(pkcs8.size())), "PKCS#8"),
        PKCS8_PRIV_KEY_INFO_free);
    return RsaKey(EVP_PKCS82PKEY(info.get()));
}

RsaKey RsaKey::generate(unsigned bits)
{
    return RsaKey(EVP_RSA_gen(bits));
}

unsigned RsaKey::bits() const
{
    return static_cast<unsigned>(EVP_PKEY_get_bits(key_.get()));
}

Bytes RsaKey::modulus() const
{
    BIGNUM* number = nullptr;
    require(EVP_PKEY_get_bn_param(key_.get(), OSSL_PKEY_PARAM_RSA_N, &number), "RSA modulus");
    Bytes bytes(modulusSize());
    BN_bn2binpad(number, bytes.data(), static_cast<int>(bytes.size()));
    BN_free(number);
    return bytes;
}

Bytes RsaKey::privateDer() const
{
    const std::unique_ptr<PKCS8_PRIV_KEY_INFO, decltype(&PKCS8_PRIV_KEY_INFO_free)> info(
        require(EVP_PKEY2PKCS8(key_.get()), "PKCS#8"), PKCS8_PRIV_KEY_INFO_free);
    unsigned char* der = nullptr;
    const int length = i2d_PKCS8_PRIV_KEY_INFO(info.get(), &der);
    return takeDer(der, length, "PKCS#8");
}

Bytes RsaKey::publicDer() const
{
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(key_.get(), &der);
    return takeDer(der, length, "public key");
}

Bytes RsaKey::sign(std::span<const std::uint8_t> data) const
{
    const Context context = contextFor(key_.get());
    require(EVP_PKEY_sign_init(context.get()), "RSA signature");
    require(EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING), "RSA padding");
    Bytes signature(modulusSize());
    std::size_t length = signature.size();
    require(EVP_PKEY_sign(context.get(), signature.data(), &length, data.data(), data.size()),
            "RSA signature");
    signature.resize(length);
    return signature;
}

Bytes RsaKey::recover(std::span<const std::uint8_t> signature) const
{
    const Context context = contextFor(key_.get());
    require(EVP_PKEY_verify_recover_init(context.get()), "RSA recovery");
    require(EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING), "RSA padding");
    Bytes data(modulusSize());
    std::size_t length = data.size();
    require(EVP_PKEY_verify_recover(context.get(), data.data(), &length, signature.data(),
                                    signature.size()),
            "RSA recovery");
    data.resize(length);
    return data;
}

} // namespace sim
