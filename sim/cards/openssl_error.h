// Failures of OpenSSL as exceptions.
#pragma once

namespace sim {

// Throws std::runtime_error: what was tried, and OpenSSL's own reason.
[[noreturn]] void throwOpenSsl(const char* what);

// Passes a result on that must be 1, or a pointer that must not be null.
inline void require(int result, const char* what)
{
    if (result != 1) {
        throwOpenSsl(what);
    }
}

template <class Pointer>
Pointer* require(Pointer* pointer, const char* what)
{
    if (pointer == nullptr) {
        throwOpenSsl(what);
    }
    return pointer;
}

} // namespace sim
