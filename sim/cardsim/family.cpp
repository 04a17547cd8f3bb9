#include "sim/cardsim/family.h"

#include <algorithm>
#include <array>

static constexpr std::array<const Family*, 4> FAMILIES{&idCardFamily, &kazTokenFamily,
                                                       &jacartaFamily, &etoken72kFamily};

std::span<const Family* const> allFamilies()
{
    return FAMILIES;
}

const Family* findFamily(std::string_view name)
{
    const auto found = std::find_if(FAMILIES.begin(), FAMILIES.end(),
                                    [&](const Family* family) { return family->name == name; });
    return found == FAMILIES.end() ? nullptr : *found;
}
