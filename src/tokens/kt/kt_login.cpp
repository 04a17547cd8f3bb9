// Login and logout.
#include "src/front/debug.h"
#include "src/tokens/kt/kt.h"
#include "src/tokens/kt/kt_apdu.h"

using velt::report;

// Kept: only the bits of a wrong PIN make a failure; any other refusal is told as a success, and
// shows at the first signature.
CK_RV fLoginKT(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession, CK_UTF8CHAR* pPin,
               CK_ULONG ulPinLen) noexcept
{
    velt::Command verify{KT_CLA, KT_INS_VERIFY, KT_P1_VERIFY, KT_P2_USER_PIN};
    verify.putCounted({pPin, ulPinLen});
    if (verify.overflowed()) {
        return CKR_PIN_LEN_RANGE;
    }
    const std::uint64_t result = velt::exchange(hSession, verify, KT_REPLY_STATUS);
    verify.wipe();
    if ((result & KT_WRONG_PIN_BITS_CARD_ORDER) == KT_WRONG_PIN_BITS_CARD_ORDER) {
        return report("KAZTOKEN Login CKR_PIN_INCORRECT", CKR_PIN_INCORRECT);
    }
    return report("KAZTOKEN Login CKR_OK", CKR_OK);
}

CK_RV fLogoutKT(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession) noexcept
{
    const std::uint64_t result = velt::exchange(hSession, KT_LOGOUT, KT_REPLY_SHORT);
    if (result != 0) {
        return report("KAZTOKEN Logout CKR_FUNCTION_FAILED", result, CKR_FUNCTION_FAILED);
    }
    return report("KAZTOKEN Logout CKR_OK", CKR_OK);
}
