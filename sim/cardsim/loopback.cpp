#include "sim/cardsim/loopback.h"

#include <cerrno>
#include <cstring>
#include <system_error>

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

void raiseLoopback()
{
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", sizeof request.ifr_name - 1);
    bool done = socket >= 0 && ::ioctl(socket, SIOCGIFFLAGS, &request) == 0;
    if (done) {
        request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
        done = ::ioctl(socket, SIOCSIFFLAGS, &request) == 0;
    }
    const int error = errno;
    if (socket >= 0) {
        ::close(socket);
    }
    if (!done) {
        throw std::system_error(error, std::generic_category(), "loopback interface");
    }
}
