// Login and logout.
#include "src/tokens/et72k/et72k.h"
#include "src/tokens/et72k/et72k_applet.h"

CK_RV fLoginET72K(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession, CK_UTF8CHAR* pPin,
                  CK_ULONG ulPinLen) noexcept
{
    return velt::verifyPin(velt::ET72K_APPLET, hSession, {pPin, ulPinLen});
}

CK_RV fLogoutET72K(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession) noexcept
{
    return velt::logOut(velt::ET72K_APPLET, hSession);
}
