#include "src/core/token_driver.h"

#include "src/core/bytes.h"
#include "src/core/readers.h"
#include "src/objects/attr_blocks.h"
#include "src/tokens/et72k/et72k.h"
#include "src/tokens/idc/idc.h"
#include "src/tokens/jc/jc.h"
#include "src/tokens/kt/kt.h"

TokenDriver stVELTTokens{};

std::uint64_t fVELTTokensInit(TokenDriver* table, std::uint64_t tokenType) noexcept
{
    switch (tokenType) {
    case TOKEN_IDC:
        *table = driverIDC;
        break;
    case TOKEN_KT:
        *table = driverKT;
        break;
    case TOKEN_ET72K:
        *table = driverET72K;
        break;
    case TOKEN_JC:
        *table = driverJC;
        break;
    default:
        table->type = TOKEN_NONE; // Kept: the operations of the family before stay.
        return 0;
    }
    velt::initAttrTemplates();
    return 0;
}

std::uint64_t strindex(const std::uint8_t* haystack, std::uint64_t haystackLen,
                       const std::uint8_t* needle, std::uint64_t needleLen) noexcept
{
    for (std::uint64_t position = 0; position < haystackLen; ++position) {
        std::uint64_t equal = 0;
        while (equal < needleLen && haystack[position + equal] == needle[equal]) {
            ++equal;
        }
        if (equal != 0 && equal == needleLen) {
            return position;
        }
    }
    return STRINDEX_NOT_FOUND;
}

namespace velt {

void ensureDriver(std::uint64_t tokenType) noexcept
{
    if (stVELTTokens.type == TOKEN_NONE || stVELTTokens.type != tokenType) {
        fVELTTokensInit(&stVELTTokens, tokenType);
    }
}

} // namespace velt
