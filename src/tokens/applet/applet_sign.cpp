// The parts of signing that both applets share.
#include "src/front/debug.h"
#include "src/tokens/applet/applet.h"

#include <algorithm>

namespace velt {

CK_RV recordSigning(const Applet& applet, const CK_MECHANISM& mechanism, CK_OBJECT_HANDLE hKey,
                    CK_MECHANISM& signMechanism, std::uint64_t& signKey) noexcept
{
    if (mechanism.mechanism != CKM_RSA_PKCS && mechanism.mechanism != applet.gostSigning) {
        return report(applet.messages.badMechanism, CKR_MECHANISM_INVALID);
    }
    signMechanism = mechanism;
    signKey = hKey;
    return report(applet.messages.signInitialised, CKR_OK);
}

CK_RV refuseSigning(const Applet& applet, Message message, std::uint64_t result,
                    std::uint64_t signKey) noexcept
{
    note(message, result);
    return report(applet.messages.signFailed, signKey, CKR_FUNCTION_FAILED);
}

RsaBlock padBlock(ByteView data) noexcept
{
    RsaBlock block;
    block.fill(0xFF);
    block[0] = 0x00;
    block[1] = 0x01;
    const ByteRoom end = ByteRoom{block}.last(std::min(data.size(), MAX_BLOCK_DATA) + 1);
    end[0] = 0x00;
    copyBounded(end.subspan(1), data);
    return block;
}

bool fitsGostCommand(ByteView name, ByteView data) noexcept
{
    constexpr std::size_t MAX_LC = 255;
    return data.size() <= MAX_LC - namedSize(name);
}

Command gostCommand(std::uint8_t p1, ByteView name, ByteView data) noexcept
{
    Command command{APPLET_CLA, APPLET_INS_SIGN, p1, 0x00};
    putName(command.put(lowByte(namedSize(name) + data.size())), name);
    return command.putTurned(data);
}

void turnHalf(ByteRoom to, std::span<const std::uint8_t, APPLET_GOST_HALF> from) noexcept
{
    for (std::size_t i = 0; i < to.size(); ++i) {
        to[i] = from[APPLET_GOST_HALF - 1 - i];
    }
}

std::span<const std::uint8_t, APPLET_GOST_HALF> bufferedHalf(std::size_t half) noexcept
{
    return ByteView{pbyOutput}.subspan(half * APPLET_GOST_HALF).first<APPLET_GOST_HALF>();
}

} // namespace velt
