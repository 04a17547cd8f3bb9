// Keys that stand ready, so that a card starts without generating any.
#pragma once

#include <string_view>

namespace sim {

enum class TestKey { // RSA
    Authority,       // signs the certificates; 2,048 bits
    First2048,
    Second2048,
    First1024,
    Second1024,
};

enum class GostTestKey { First2012, Second2012, First2001, Second2001 }; // 256 bits each

// Private key in PEM form (PKCS#8).
std::string_view testKeyPem(TestKey key);
std::string_view gostTestKeyPem(GostTestKey key);

} // namespace sim
