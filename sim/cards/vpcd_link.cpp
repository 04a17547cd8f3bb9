#include "sim/cards/vpcd_link.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace sim {

namespace {

constexpr std::uint8_t POWER_OFF = 0x00;
constexpr std::uint8_t POWER_ON = 0x01;
constexpr std::uint8_t RESET = 0x02;
constexpr std::uint8_t SEND_ATR = 0x04;

constexpr std::size_t LENGTH_SIZE = 2;
constexpr std::size_t LARGEST_PAYLOAD = 0xFFFF;

void switchOn(int socket, int option)
{
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, option, &on, sizeof on);
}

std::size_t lengthIn(std::span<const std::uint8_t> frame)
{
    return (std::size_t{frame[0]} << 8) | frame[1];
}

bool connectTo(int socket, std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

} // namespace

bool VpcdLink::connect(std::uint16_t port)
{
    close();
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socket < 0) {
        return false;
    }
    if (!connectTo(socket, port)) {
        ::close(socket);
        return false;
    }
    switchOn(socket, TCP_NODELAY);
    switchOn(socket, TCP_QUICKACK);
    socket_ = socket;
    return true;
}

void VpcdLink::close()
{
    if (socket_ >= 0) {
        ::close(socket_);
        socket_ = -1;
    }
    arrived_.clear();
    poweredUp_ = atrRead_ = noticed_ = false;
}

bool VpcdLink::serve(Card& card)
{
    if (!receive()) {
        close();
        return false;
    }
    while (arrived_.size() >= LENGTH_SIZE && arrived_.size() - LENGTH_SIZE >= lengthIn(arrived_)) {
        const auto start = arrived_.begin() + static_cast<std::ptrdiff_t>(LENGTH_SIZE);
        const auto end = start + static_cast<std::ptrdiff_t>(lengthIn(arrived_));
        const Bytes payload(start, end);
        arrived_.erase(arrived_.begin(), end);
        if (!answer(card, payload)) {
            close();
            return false;
        }
    }
    // The system drops this setting by itself. The reader sends a frame's length and payload apart
    // and holds the payload back until the length is acknowledged: 40 ms late without it.
    switchOn(socket_, TCP_QUICKACK);
    return true;
}

bool VpcdLink::receive()
{
    std::array<std::uint8_t, 4096> chunk{};
    switchOn(socket_, TCP_QUICKACK);
    ssize_t count = 0;
    do {
        count = ::recv(socket_, chunk.data(), chunk.size(), 0);
    } while (count < 0 && errno == EINTR);
    if (count <= 0) {
        return false;
    }
    arrived_.insert(arrived_.end(), chunk.begin(), chunk.begin() + count);
    return true;
}

bool VpcdLink::answer(Card& card, std::span<const std::uint8_t> payload)
{
    if (payload.size() != 1) {
        return send(card.transmit(payload));
    }
    switch (payload[0]) {
    case POWER_ON:
        poweredUp_ = true;
        atrRead_ = false;
        card.reset();
        return true;
    case POWER_OFF:
    case RESET:
        card.reset();
        return true;
    case SEND_ATR:
        noticed_ = noticed_ || atrRead_;
        atrRead_ = poweredUp_;
        return send(card.atr());
    default:
        return true; // control that means nothing to a card
    }
}

bool VpcdLink::send(const Bytes& payload)
{
    const std::size_t length = std::min(payload.size(), LARGEST_PAYLOAD);
    Bytes frame{static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length & 0xFFU)};
    frame.insert(frame.end(), payload.begin(),
                 payload.begin() + static_cast<std::ptrdiff_t>(length));
    std::span<const std::uint8_t> rest = frame;
    while (!rest.empty()) {
        const ssize_t count = ::send(socket_, rest.data(), rest.size(), MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        rest = rest.subspan(count < 0 ? 0 : static_cast<std::size_t>(count));
    }
    return true;
}

} // namespace sim
