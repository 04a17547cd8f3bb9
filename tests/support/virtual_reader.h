// The reader's side of the wire to a simulated card: what the virtual reader of a real PC/SC
// service does, for tests without one.
#pragma once

#include "sim/cards/card.h"

#include <cstdint>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

class VirtualReader {
public:
    VirtualReader() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (::bind(listener_, reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
            ::listen(listener_, 1) != 0 ||
            ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("no port to listen on");
        }
        port_ = ntohs(address.sin_port);
    }
    ~VirtualReader()
    {
        hangUp();
        stopListening();
    }
    VirtualReader(const VirtualReader&) = delete;
    VirtualReader& operator=(const VirtualReader&) = delete;

    std::uint16_t port() const { return port_; }

    // True once a card has come in; false if none does within the time.
    bool takeCard(int milliseconds = 10000)
    {
        hangUp();
        if (!readable(listener_, milliseconds)) {
            return false;
        }
        card_ = ::accept(listener_, nullptr, nullptr);
        return card_ >= 0;
    }
    void hangUp()
    {
        if (card_ >= 0) {
            ::close(card_);
        }
        card_ = -1;
    }
    void stopListening()
    {
        if (listener_ >= 0) {
            ::close(listener_);
        }
        listener_ = -1;
    }

    void sendRaw(const sim::Bytes& bytes)
    {
        if (::send(card_, bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(bytes.size())) {
            throw std::runtime_error("the card takes nothing");
        }
    }
    void send(const sim::Bytes& payload)
    {
        sim::Bytes frame{static_cast<std::uint8_t>(payload.size() >> 8),
                         static_cast<std::uint8_t>(payload.size() & 0xFFu)};
        frame.insert(frame.end(), payload.begin(), payload.end());
        sendRaw(frame);
    }
    // The payload of the next frame. Throws if the card says nothing for ten seconds or has gone.
    sim::Bytes receive()
    {
        const sim::Bytes length = receiveExactly(2);
        return receiveExactly((std::size_t{length[0]} << 8) | length[1]);
    }
    sim::Bytes exchange(const sim::Bytes& command)
    {
        send(command);
        return receive();
    }
    bool cardSaysNothing(int milliseconds) { return !readable(card_, milliseconds); }
    bool cardHasGone()
    {
        std::uint8_t byte = 0;
        return readable(card_, 10000) && ::recv(card_, &byte, 1, 0) <= 0;
    }

private:
    static bool readable(int descriptor, int milliseconds)
    {
        pollfd wait{descriptor, POLLIN, 0};
        return ::poll(&wait, 1, milliseconds) == 1;
    }
    sim::Bytes receiveExactly(std::size_t count)
    {
        sim::Bytes bytes(count);
        for (std::size_t have = 0; have < count;) {
            const ssize_t got =
                readable(card_, 10000) ? ::recv(card_, bytes.data() + have, count - have, 0) : 0;
            if (got <= 0) {
                throw std::runtime_error("the card does not answer");
            }
            have += static_cast<std::size_t>(got);
        }
        return bytes;
    }

    int listener_;
    int card_ = -1;
    std::uint16_t port_ = 0;
};
