// Questions about a slot's token: its description, its mechanisms and their key sizes.
#include "src/core/bytes.h"
#include "src/core/readers.h"
#include "src/core/token_driver.h"
#include "src/front/debug.h"

using velt::report;

namespace {

struct MechanismRow {
    CK_MECHANISM_TYPE type;
    CK_MECHANISM_INFO info; // key sizes in bits
};

constexpr CK_FLAGS GENERATES = CKF_HW | CKF_GENERATE_KEY_PAIR;
constexpr CK_FLAGS SIGNS = CKF_HW | CKF_SIGN;

// The same for every token.
constexpr std::array MECHANISMS{
    MechanismRow{.type = CKM_RSA_PKCS_KEY_PAIR_GEN, .info = {1024, 2048, GENERATES}},
    MechanismRow{.type = CKM_RSA_PKCS, .info = {1024, 2048, SIGNS}},
    MechanismRow{.type = CKM_VELT_GOST_KEY_PAIR_GEN, .info = {256, 512, GENERATES}},
    MechanismRow{.type = CKM_VELT_GOST_SIGN, .info = {256, 512, SIGNS}},
};

} // namespace

CK_RV VELT_GetTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO* pInfo) noexcept
{
    if (pInfo == nullptr) {
        return report("GetTokenInfo CKR_ARGUMENTS_BAD", CKR_ARGUMENTS_BAD);
    }
    if (!velt::isReaderSlot(slotID)) {
        return report("GetTokenInfo CKR_SLOT_ID_INVALID", CKR_SLOT_ID_INVALID);
    }
    const std::uint8_t tokenType = velt::tokenTypeOf(slotID);
    if (tokenType == TOKEN_NONE) {
        return report("GetTokenInfo CKR_TOKEN_NOT_PRESENT", CKR_TOKEN_NOT_PRESENT);
    }
    velt::ensureDriver(tokenType);
    if (velt::callDriver(&TokenDriver::GetTokenInfo, slotID, pInfo) != CKR_OK) {
        return report("GetTokenInfo CKR_FUNCTION_FAILED", CKR_FUNCTION_FAILED);
    }
    return report("GetTokenInfo CKR_OK", CKR_OK);
}

// Kept: unlike above, the pseudo-reader behind the last reader passes as a slot, without a token.
CK_RV VELT_GetMechanismList(CK_SLOT_ID slotID, CK_MECHANISM_TYPE* pMechanismList,
                            CK_ULONG* pulCount) noexcept
{
    if (rCount == 0 || !velt::isReaderOrPseudoSlot(slotID)) {
        return report("GetMechanismList CKR_SLOT_ID_INVALID", CKR_SLOT_ID_INVALID);
    }
    const std::uint8_t tokenType = velt::tokenTypeOf(slotID);
    if (tokenType == TOKEN_NONE) {
        return report("GetMechanismList CKR_TOKEN_NOT_PRESENT", CKR_TOKEN_NOT_PRESENT);
    }
    velt::ensureDriver(tokenType);
    if (velt::callDriver(&TokenDriver::GetMechanismList, pMechanismList, pulCount) != CKR_OK) {
        return report("GetMechanismList CKR_FUNCTION_FAILED", CKR_FUNCTION_FAILED);
    }
    return report("GetMechanismList CKR_OK", CKR_OK);
}

CK_RV VELT_GetMechanismInfo(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type,
                            CK_MECHANISM_INFO* pInfo) noexcept
{
    if (rCount == 0 || !velt::isReaderOrPseudoSlot(slotID)) {
        return report("GetMechanismInfo CKR_SLOT_ID_INVALID", CKR_SLOT_ID_INVALID);
    }
    const auto row = std::ranges::find(MECHANISMS, type, &MechanismRow::type);
    if (row == MECHANISMS.end()) {
        return report("GetMechanismInfo CKR_MECHANISM_INVALID", CKR_MECHANISM_INVALID);
    }
    *pInfo = row->info;
    return report("GetMechanismInfo CKR_OK", CKR_OK);
}
