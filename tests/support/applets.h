// The applet families, for the cases that all of them answer alike.
#pragma once

#include "tests/support/applet_fixture.h"
#include "tests/support/et72k_fixture.h"
#include "tests/support/jc_fixture.h"

namespace velt_test {

const std::vector<const Applet*> APPLETS{&JACARTA, &ETOKEN};

// A session on a card of the family that is the parameter.
class EachApplet : public AppletTest, public testing::WithParamInterface<const Applet*> {
protected:
    EachApplet() : AppletTest(*GetParam()) {}
};

inline std::string appletName(const testing::TestParamInfo<const Applet*>& info)
{
    return info.param->name;
}

} // namespace velt_test
