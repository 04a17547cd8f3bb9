// RSA keys that stand ready, so that a card starts without generating any.
#pragma once

#include <string_view>

namespace sim {

enum class TestKey {
    Authority, // signs the certificates; 2,048 bits
    First2048,
    Second2048,
    First1024,
    Second1024,
};

// Private key in PEM form (PKCS#8).
std::string_view testKeyPem(TestKey key);

} // namespace sim
