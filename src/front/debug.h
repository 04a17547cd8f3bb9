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

// The text of a message that is passed for more than one family, or none. Only a build that keeps
// messages holds the text.
class Message {
public:
    constexpr Message() noexcept = default;
#ifdef VELT_DEBUG_LOG
    constexpr Message(const char* text) noexcept : text_(text) {}
    const char* text() const noexcept
    {
        return text_;
    }

private:
    const char* text_ = nullptr;
#else
    consteval Message(const char* /*text*/) noexcept {}
    static const char* text() noexcept
    {
        return nullptr;
    }
#endif
};

// Passes a message, if there is one, on the way out; `result` is returned as it is.
template <class Result>
inline Result report(const char* message, Result result) noexcept
{
    VELT_PKCS11_Debug(message);
    return result;
}

template <class Result>
inline Result report(Message message, Result result) noexcept
{
    return message.text() == nullptr ? result : report(message.text(), result);
}

// The same for a message with a number.
template <class Result>
inline Result report(const char* message, std::uint64_t value, Result result) noexcept
{
    VELT_PKCS11_DebugD(message, DEBUG_WITH_NUMBER, value);
    return result;
}

template <class Result>
inline Result report(Message message, std::uint64_t value, Result result) noexcept
{
    return message.text() == nullptr ? result : report(message.text(), value, result);
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

inline void note(Message message, std::uint64_t value) noexcept
{
    report(message, value, true);
}

} // namespace velt
