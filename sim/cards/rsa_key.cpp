#include "sim/cards/rsa_key.h"

#include "sim/cards/openssl_error.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/rsa.h>

namespace sim {

namespace {

using Context = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;

Context contextFor(EVP_PKEY* key)
{
    return {require(EVP_PKEY_CTX_new(key, nullptr), "RSA context"), EVP_PKEY_CTX_free};
}

} // namespace

RsaKey RsaKey::fromPem(std::string_view pem)
{
    return RsaKey(privateKeyFromPem(pem));
}

RsaKey RsaKey::fromDer(std::span<const std::uint8_t> pkcs8)
{
    return RsaKey(privateKeyFromDer(pkcs8));
}

RsaKey RsaKey::generate(unsigned bits)
{
    return RsaKey(sharedKey(EVP_RSA_gen(bits), "RSA key"));
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
    return privateKeyDer(key_.get());
}

Bytes RsaKey::publicDer() const
{
    return publicKeyDer(key_.get());
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

Bytes RsaKey::recoverWith(int padding, std::span<const std::uint8_t> signature) const
{
    const Context context = contextFor(key_.get());
    require(EVP_PKEY_verify_recover_init(context.get()), "RSA recovery");
    require(EVP_PKEY_CTX_set_rsa_padding(context.get(), padding), "RSA padding");
    Bytes data(modulusSize());
    std::size_t length = data.size();
    require(EVP_PKEY_verify_recover(context.get(), data.data(), &length, signature.data(),
                                    signature.size()),
            "RSA recovery");
    data.resize(length);
    return data;
}

Bytes RsaKey::recover(std::span<const std::uint8_t> signature) const
{
    return recoverWith(RSA_PKCS1_PADDING, signature);
}

Bytes RsaKey::recoverBlock(std::span<const std::uint8_t> signature) const
{
    return recoverWith(RSA_NO_PADDING, signature);
}

Bytes RsaKey::raise(std::span<const std::uint8_t> block) const
{
    const Context context = contextFor(key_.get());
    require(EVP_PKEY_sign_init(context.get()), "RSA operation");
    require(EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING), "RSA padding");
    Bytes number(modulusSize());
    std::size_t length = number.size();
    require(EVP_PKEY_sign(context.get(), number.data(), &length, block.data(), block.size()),
            "RSA operation");
    number.resize(length);
    return number;
}

} // namespace sim
