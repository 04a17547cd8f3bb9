// What the eToken 72K states of its applet.
#pragma once

#include "src/tokens/applet/applet.h"
#include "src/tokens/et72k/et72k_apdu.h"

namespace velt {

extern const Applet ET72K_APPLET;

} // namespace velt
