// Debug hooks. Every exit of an operation passes a fixed message; a release build discards them. A
// build with VELT_DEBUG_LOG appends one line a message to that file.
#pragma once

#include <cstdint>

inline constexpr std::uint32_t DEBUG_PLAIN = 0;       // a message alone
inline constexpr std::uint32_t DEBUG_WITH_NUMBER = 1; // a message and its number

#ifdef VELT_DEBUG_LOG

// Opens the log unless it is open; a log that cannot be opened stays silent.
void VELT_PKCS11_InitDebug() noexcept;

// Appends `message`, and for DEBUG_WITH_NUMBER `value` as 0x and lower-case hexadecimal, as a line.
void VELT_PKCS11_DebugD(const char* message, std::uint32_t kind, std::uint64_t value) noexcept;

// Closes the log.
void VELT_PKCS11_CloseDebug() noexcept;

#else

inline void VELT_PKCS11_InitDebug() noexcept {}
inline void VELT_PKCS11_DebugD(const char* /*message*/, std::uint32_t /*kind*/,
                               std::uint64_t /*value*/) noexcept
{
}
inline void VELT_PKCS11_CloseDebug() noexcept {}

#endif

inline void VELT_PKCS11_Debug(const char* message) noexcept
{
    VELT_PKCS11_DebugD(message, DEBUG_PLAIN, 0);
}

namespace velt {

// Passes a message on the way out; `result` is returned as it is.
template <class Result>
inline Result report(const char* message, Result result) noexcept
{
    VELT_PKCS11_Debug(message);
    return result;
}

// The same for a message with a number.
template <class Result>
inline Result report(const char* message, std::uint64_t value, Result result) noexcept
{
    VELT_PKCS11_DebugD(message, DEBUG_WITH_NUMBER, value);
    return result;
}

// A message on a line of its own, where the flow goes on.
inline void note(const char* message) noexcept
{
    VELT_PKCS11_Debug(message);
}

inline void note(const char* message, std::uint64_t value) noexcept
{
    VELT_PKCS11_DebugD(message, DEBUG_WITH_NUMBER, value);
}

} // namespace velt
