// Login and logout: the PIN goes to the card as eight characters.
#include "src/front/debug.h"
#include "src/tokens/idc/idc.h"
#include "src/tokens/idc/idc_apdu.h"

#include <algorithm>
#include <array>

using velt::ByteRoom;
using velt::ByteView;
using velt::report;

namespace {

constexpr std::size_t PIN_SIZE = 4;
constexpr std::size_t PIN_BLOCK_SIZE = 8;

using PinBlock = std::array<std::uint8_t, PIN_BLOCK_SIZE>;

// Puts the first four bytes of a PIN, or as many as there are, and the filler into a zeroed block.
void fillPinBlock(PinBlock& block, ByteView pin) noexcept
{
    velt::copyBounded(ByteRoom{block}.first(PIN_SIZE), pin);
    velt::fill(ByteRoom{block}.subspan(PIN_SIZE), IDC_PIN_FILLER);
}

// Sends VERIFY; neither copy of the PIN outlives the call.
std::uint64_t verifyPin(CK_SESSION_HANDLE hSession, ByteView pin) noexcept
{
    PinBlock block{};
    fillPinBlock(block, pin);
    // Kept: the block is text, so a zero byte among the four ends it.
    const ByteView text = ByteView{block}.first(velt::textLength(block));
    velt::Command verify{IDC_CLA, IDC_INS_VERIFY, IDC_P1_VERIFY, IDC_P2_USER_PIN};
    verify.putCounted(text);
    const std::uint64_t result = velt::exchange(hSession, verify, IDC_REPLY_STATUS);
    verify.wipe();
    velt::wipe(block);
    return result;
}

} // namespace

CK_RV fLoginIDC(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession, CK_UTF8CHAR* pPin,
                CK_ULONG ulPinLen) noexcept
{
    velt::exchange(hSession, IDC_SELECT_MF, IDC_REPLY_STATUS); // Kept: the PIN decides
    velt::fill(ByteRoom{pbyOutput}.first(IDC_REPLY_BLOCK), 0);
    const std::uint64_t result = verifyPin(hSession, {pPin, ulPinLen});
    switch (result) {
    case 0:
        return report("IDCard Login CKR_OK", CKR_OK);
    case IDC_PIN_LOCKED_CARD_ORDER:
    case IDC_SW_PIN_BLOCKED:
        return report("IDCard Login CKR_PIN_LOCKED", CKR_PIN_LOCKED);
    case IDC_ONE_TRY_LEFT_CARD_ORDER:
    case IDC_TWO_TRIES_LEFT_CARD_ORDER:
        return report("IDCard Login CKR_PIN_INCORRECT", CKR_PIN_INCORRECT);
    case IDC_ALREADY_VERIFIED_CARD_ORDER:
        return report("IDCard Login CKR_USER_ALREADY_LOGGED_IN", CKR_USER_ALREADY_LOGGED_IN);
    default:
        return report("IDCard Login error ", result, CKR_FUNCTION_FAILED);
    }
}

CK_RV fLogoutIDC(TokenDriver* /*table*/, CK_SESSION_HANDLE /*hSession*/) noexcept
{
    return CKR_OK; // Kept: the card is not told and stays verified.
}
