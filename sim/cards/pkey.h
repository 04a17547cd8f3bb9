// Keys of any algorithm in and out of their encodings.
#pragma once

#include "sim/cards/card.h"

#include <memory>
#include <string_view>

#include <openssl/evp.h>

namespace sim {

using SharedKey = std::shared_ptr<EVP_PKEY>;

// Takes the key over; a null pointer is a failure of OpenSSL, thrown as std::runtime_error.
SharedKey sharedKey(EVP_PKEY* key, const char* what);

SharedKey privateKeyFromPem(std::string_view pem);
SharedKey privateKeyFromDer(std::span<const std::uint8_t> pkcs8);
SharedKey publicKeyFromDer(std::span<const std::uint8_t> subjectPublicKeyInfo);

Bytes privateKeyDer(EVP_PKEY* key); // PKCS#8
Bytes publicKeyDer(EVP_PKEY* key);  // SubjectPublicKeyInfo

} // namespace sim
