// Selection and login.
#include "src/front/debug.h"
#include "src/tokens/applet/applet.h"

namespace velt {

namespace {

std::uint64_t sendSelect(CK_SESSION_HANDLE hSession, ByteView aid) noexcept
{
    Command select{APPLET_CLA_ISO, APPLET_INS_SELECT, APPLET_SELECT_BY_NAME, 0x00};
    select.putCounted(aid);
    return exchange(hSession, select, APPLET_REPLY_SHORT);
}

} // namespace

std::uint64_t selectApplet(const Applet& applet, CK_SESSION_HANDLE hSession) noexcept
{
    *applet.selected = 0;
    std::uint64_t result = sendSelect(hSession, applet.aid);
    if (result != 0) {
        return report(applet.messages.selectFailed, result, result);
    }
    result = exchange(hSession, APPLET_RESET, APPLET_REPLY_SHORT);
    if (result != 0) {
        return report(applet.messages.resetFailed, result, result);
    }
    *applet.selected = 1;
    return 0;
}

void ensureApplet(const Applet& applet, CK_SESSION_HANDLE hSession) noexcept
{
    if (*applet.selected == 0) {
        applet.select(hSession);
    }
}

// Kept: the reply's capacity is the length of the last reply, and any refusal but a wrong PIN is
// told as a success, which shows at the first signature.
CK_RV verifyPin(const Applet& applet, CK_SESSION_HANDLE hSession, ByteView pin) noexcept
{
    if (pin.size() > MAX_COMMAND_DATA) {
        return CKR_PIN_LEN_RANGE;
    }
    ensureApplet(applet, hSession);
    Command verify{APPLET_CLA, APPLET_INS_PIN, applet.pinReference, 0x00};
    verify.putCounted(pin);
    const std::uint64_t result = exchangeAsIs(hSession, verify);
    verify.wipe();
    if (result == APPLET_SW_WRONG_PIN) {
        return report(applet.messages.wrongPin, result, CKR_PIN_INCORRECT);
    }
    return report(applet.messages.loggedIn, CKR_OK);
}

CK_RV logOut(const Applet& applet, CK_SESSION_HANDLE hSession) noexcept
{
    const std::uint64_t result = exchange(hSession, APPLET_RESET, APPLET_REPLY_SHORT);
    if (result != 0) {
        return report(applet.messages.notLoggedOut, result, result);
    }
    *applet.selected = 0;
    return report(applet.messages.loggedOut, CKR_OK);
}

} // namespace velt
