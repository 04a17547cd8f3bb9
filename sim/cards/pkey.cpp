#include "sim/cards/pkey.h"

#include "sim/cards/openssl_error.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace sim {

namespace {

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

SharedKey sharedKey(EVP_PKEY* key, const char* what)
{
    SharedKey shared(require(key, what), EVP_PKEY_free);
    // Decoders that tried the key in vain before another took it have left their errors behind.
    ERR_clear_error();
    return shared;
}

SharedKey privateKeyFromPem(std::string_view pem)
{
    const std::unique_ptr<BIO, decltype(&BIO_free)> bio(
        require(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), "PEM"), BIO_free);
    return sharedKey(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr), "private key");
}

SharedKey privateKeyFromDer(std::span<const std::uint8_t> pkcs8)
{
    const unsigned char* at = pkcs8.data();
    const std::unique_ptr<PKCS8_PRIV_KEY_INFO, decltype(&PKCS8_PRIV_KEY_INFO_free)> info(
        require(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &at, static_cast<long>(pkcs8.size())), "PKCS#8"),
        PKCS8_PRIV_KEY_INFO_free);
    return sharedKey(EVP_PKCS82PKEY(info.get()), "private key");
}

SharedKey publicKeyFromDer(std::span<const std::uint8_t> subjectPublicKeyInfo)
{
    const unsigned char* at = subjectPublicKeyInfo.data();
    return sharedKey(d2i_PUBKEY(nullptr, &at, static_cast<long>(subjectPublicKeyInfo.size())),
                     "public key");
}

Bytes privateKeyDer(EVP_PKEY* key)
{
    const std::unique_ptr<PKCS8_PRIV_KEY_INFO, decltype(&PKCS8_PRIV_KEY_INFO_free)> info(
        require(EVP_PKEY2PKCS8(key), "PKCS#8"), PKCS8_PRIV_KEY_INFO_free);
    unsigned char* der = nullptr;
    const int length = i2d_PKCS8_PRIV_KEY_INFO(info.get(), &der);
    return takeDer(der, length, "PKCS#8");
}

Bytes publicKeyDer(EVP_PKEY* key)
{
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(key, &der);
    return takeDer(der, length, "public key");
}

} // namespace sim
