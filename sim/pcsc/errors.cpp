// Result codes in words: the names of their constants.
#include <winscard.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace {

struct Named {
    LONG code;
    const char* name;
};

#define NAMED(code)                                                                                \
    Named                                                                                          \
    {                                                                                              \
        code, #code                                                                                \
    }
constexpr std::array NAMES{
    NAMED(SCARD_S_SUCCESS),
    NAMED(SCARD_F_INTERNAL_ERROR),
    NAMED(SCARD_E_CANCELLED),
    NAMED(SCARD_E_INVALID_HANDLE),
    NAMED(SCARD_E_INVALID_PARAMETER),
    NAMED(SCARD_E_INVALID_TARGET),
    NAMED(SCARD_E_NO_MEMORY),
    NAMED(SCARD_F_WAITED_TOO_LONG),
    NAMED(SCARD_E_INSUFFICIENT_BUFFER),
    NAMED(SCARD_E_UNKNOWN_READER),
    NAMED(SCARD_E_TIMEOUT),
    NAMED(SCARD_E_SHARING_VIOLATION),
    NAMED(SCARD_E_NO_SMARTCARD),
    NAMED(SCARD_E_UNKNOWN_CARD),
    NAMED(SCARD_E_CANT_DISPOSE),
    NAMED(SCARD_E_PROTO_MISMATCH),
    NAMED(SCARD_E_NOT_READY),
    NAMED(SCARD_E_INVALID_VALUE),
    NAMED(SCARD_E_SYSTEM_CANCELLED),
    NAMED(SCARD_F_COMM_ERROR),
    NAMED(SCARD_F_UNKNOWN_ERROR),
    NAMED(SCARD_E_INVALID_ATR),
    NAMED(SCARD_E_NOT_TRANSACTED),
    NAMED(SCARD_E_READER_UNAVAILABLE),
    NAMED(SCARD_P_SHUTDOWN),
    NAMED(SCARD_E_PCI_TOO_SMALL),
    NAMED(SCARD_E_READER_UNSUPPORTED),
    NAMED(SCARD_E_DUPLICATE_READER),
    NAMED(SCARD_E_CARD_UNSUPPORTED),
    NAMED(SCARD_E_NO_SERVICE),
    NAMED(SCARD_E_SERVICE_STOPPED),
    NAMED(SCARD_E_UNSUPPORTED_FEATURE),
    NAMED(SCARD_E_NO_READERS_AVAILABLE),
    NAMED(SCARD_W_UNSUPPORTED_CARD),
    NAMED(SCARD_W_UNRESPONSIVE_CARD),
    NAMED(SCARD_W_UNPOWERED_CARD),
    NAMED(SCARD_W_RESET_CARD),
    NAMED(SCARD_W_REMOVED_CARD),
};
#undef NAMED

} // namespace

const char* pcsc_stringify_error(const LONG code)
{
    const auto* const found = std::find_if(
        NAMES.begin(), NAMES.end(), [code](const Named& named) { return named.code == code; });
    if (found != NAMES.end()) {
        return found->name;
    }
    thread_local std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), "Unknown error: 0x%08lX",
                  static_cast<unsigned long>(code) & 0xFFFFFFFFUL);
    return text.data();
}
