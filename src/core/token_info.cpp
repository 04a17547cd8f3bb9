#include "src/core/token_info.h"

#include <algorithm>

namespace velt {

void describeToken(const TokenDescription& token, CK_ULONG sessionCount,
                   CK_TOKEN_INFO& info) noexcept
{
    info = CK_TOKEN_INFO{};
    std::ranges::copy(token.label, info.label);
    std::ranges::copy(token.manufacturer, info.manufacturerID);
    std::ranges::copy(token.model, info.model);
    info.flags = CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED;
    info.ulMaxSessionCount = token.maxSessions;
    info.ulSessionCount = sessionCount;
    info.ulMaxRwSessionCount = 1;
    info.ulMaxPinLen = token.maxPinLength;
    info.ulMinPinLen = token.minPinLength;
    info.hardwareVersion = {1, 0};
    info.firmwareVersion = {1, 0};
}

// Kept: too small a list is a success, with nothing written.
CK_RV listMechanisms(std::span<const CK_MECHANISM_TYPE> mechanisms,
                     CK_MECHANISM_TYPE* pMechanismList, CK_ULONG* pulCount) noexcept
{
    if (pMechanismList == nullptr || *pulCount < mechanisms.size()) {
        *pulCount = mechanisms.size();
        return CKR_OK;
    }
    std::ranges::copy(mechanisms, pMechanismList);
    return CKR_OK;
}

} // namespace velt
