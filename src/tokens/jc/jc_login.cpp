// Login and logout.
#include "src/tokens/jc/jc.h"
#include "src/tokens/jc/jc_applet.h"

CK_RV fLoginJC(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession, CK_UTF8CHAR* pPin,
               CK_ULONG ulPinLen) noexcept
{
    return velt::verifyPin(velt::JC_APPLET, hSession, {pPin, ulPinLen});
}

CK_RV fLogoutJC(TokenDriver* /*table*/, CK_SESSION_HANDLE hSession) noexcept
{
    return velt::logOut(velt::JC_APPLET, hSession);
}
