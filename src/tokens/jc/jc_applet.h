// What the JaCarta states of its applet.
#pragma once

#include "src/tokens/applet/applet.h"
#include "src/tokens/jc/jc_apdu.h"

namespace velt {

// Kept: the vendor's number sign-extended, unlike the one that the mechanism list has.
inline constexpr CK_MECHANISM_TYPE CKM_JC_GOST_SIGN = 0xFFFFFFFF84B5A002;

extern const Applet JC_APPLET;

} // namespace velt
