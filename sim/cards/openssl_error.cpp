#include "sim/cards/openssl_error.h"

#include <array>
#include <stdexcept>
#include <string>

#include <openssl/err.h>

namespace sim {

void throwOpenSsl(const char* what)
{
    std::array<char, 256> reason{};
    ERR_error_string_n(ERR_get_error(), reason.data(), reason.size());
    ERR_clear_error();
    throw std::runtime_error(std::string(what) + ": " + reason.data());
}

} // namespace sim
