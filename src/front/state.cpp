#include "src/front/state.h"

#include <ctime>

SCARDCONTEXT hSC = 0;
std::uint64_t oiFlags = RELOAD_OBJECTS;
std::array<char, TIME_STAMP_LENGTH + 1> str_t{};

std::size_t getTime() noexcept
{
    str_t.fill(' ');
    str_t.back() = '\0';
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    if (localtime_r(&now, &local) == nullptr) {
        return 0;
    }
    return std::strftime(str_t.data(), str_t.size(), "%Y.%m.%d %H:%M:%S ", &local);
}
