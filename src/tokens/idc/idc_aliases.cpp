// The labels of the two key pairs: made from a number on the card, written beside a new key.
#include "src/front/debug.h"
#include "src/tokens/idc/idc.h"
#include "src/tokens/idc/idc_apdu.h"
#include "src/tokens/idc/idc_files.h"

#include <algorithm>
#include <string_view>

using velt::ByteView;
using velt::exchange;
using velt::exchangeAsIs;
using velt::report;

std::array<std::uint8_t, IDC_ALIAS_SIZE> Alias1{};
std::array<std::uint8_t, IDC_ALIAS_SIZE> Alias2{};

namespace {

constexpr std::size_t ALIAS_NUMBER_SIZE = IDC_REPLY_ALIAS_NUMBER - velt::STATUS_SIZE;
constexpr std::string_view ALIAS_1_PREFIX = "RSA1";
constexpr std::string_view ALIAS_2_PREFIX = "RSA2";
static_assert(ALIAS_1_PREFIX.size() + 2 * ALIAS_NUMBER_SIZE < IDC_ALIAS_SIZE);

// The prefix and the number's bytes in upper-case hexadecimal, zeros behind.
void composeAlias(std::array<std::uint8_t, IDC_ALIAS_SIZE>& alias, std::string_view prefix,
                  ByteView number) noexcept
{
    constexpr std::string_view DIGITS = "0123456789ABCDEF";
    alias.fill(0);
    auto* next = std::ranges::copy(prefix, alias.begin()).out;
    for (const std::uint8_t byte : number) {
        *next++ = static_cast<std::uint8_t>(DIGITS[byte >> 4]);
        *next++ = static_cast<std::uint8_t>(DIGITS[byte & 0x0F]);
    }
}

std::uint64_t writeText(CK_SESSION_HANDLE hSession, ByteView alias) noexcept
{
    const auto length = static_cast<std::int16_t>(velt::textLength(alias));
    const std::uint64_t result =
        VELT_WriteBinaryIDC(hSession, alias.data(), IDC_CONTENT_OFFSET, length);
    return result == 0 ? 0 : report("IDCard WriteAlias error ", result, result);
}

} // namespace

std::uint64_t VELT_SetAliasesIDC(CK_SESSION_HANDLE hSession) noexcept
{
    constexpr std::uint64_t NO_MASTER_FILE = 1;
    constexpr std::uint64_t NO_NUMBER = 2;
    if (exchange(hSession, IDC_SELECT_MF, IDC_REPLY_STATUS) != 0) {
        return NO_MASTER_FILE;
    }
    if (exchange(hSession, IDC_GET_ALIAS_NUMBER, IDC_REPLY_ALIAS_NUMBER) != 0) {
        return NO_NUMBER;
    }
    // Kept: behind a short reply the bytes of earlier ones count.
    const ByteView number = ByteView{pbyOutput}.first(ALIAS_NUMBER_SIZE);
    composeAlias(Alias1, ALIAS_1_PREFIX, number);
    composeAlias(Alias2, ALIAS_2_PREFIX, number);
    return 0;
}

std::uint64_t VELT_WriteAliasIDC(CK_SESSION_HANDLE hSession, std::uint8_t keyId) noexcept
{
    if ((Alias1[0] == 0 || Alias2[0] == 0) && VELT_SetAliasesIDC(hSession) != 0) {
        return report("IDCard WriteAlias CKR_FUNCTION_FAILED", CKR_FUNCTION_FAILED);
    }
    std::uint64_t result = exchange(hSession, IDC_SELECT_MF, IDC_REPLY_STATUS);
    if (result != 0) {
        return report("IDCard WriteAlias 1 APDU error ", result, std::uint64_t{1});
    }
    result = exchange(hSession, IDC_SELECT_CERTIFICATES, IDC_REPLY_STATUS);
    if (result != 0) {
        return report("IDCard WriteAlias 2 APDU error ", result, std::uint64_t{2});
    }
    const velt::IdcKeyPair* pair = velt::idcKeyPairOf(keyId);
    // Kept: an unknown key ID clears the first certificate file and writes no text.
    const auto& select = pair != nullptr ? pair->selectCertificate : IDC_SELECT_CERTIFICATE_1;
    result = exchange(hSession, select, IDC_REPLY_STATUS);
    if (result != 0) {
        return report("IDCard WriteAlias 3 APDU error ", result, std::uint64_t{3});
    }
    // Kept: with the capacity that the last reply left.
    result = exchangeAsIs(hSession, idcWriteLength(0));
    if (result != 0) {
        return report("IDCard WriteAlias 4 APDU error ", result, std::uint64_t{4});
    }
    if (pair == nullptr) {
        return 0;
    }
    return writeText(hSession, keyId == IDC_KEY_ID_1 ? Alias1 : Alias2);
}
