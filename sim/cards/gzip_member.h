// Gzip members as cards keep them: header, deflated data, CRC and length.
#pragma once

#include "sim/cards/card.h"

#include <cstddef>

namespace sim {

// One complete member; an empty input gives the 20 bytes of an empty member.
Bytes gzipMember(std::span<const std::uint8_t> plain);

// What a complete member holds. Anything else, or more than the limit, is a std::runtime_error.
Bytes gzipContent(std::span<const std::uint8_t> member, std::size_t limit = 65536);

} // namespace sim
