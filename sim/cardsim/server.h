// Serves cards to virtual readers until a signal ends it.
#pragma once

#include "sim/cardsim/family.h"

#include "sim/cards/vpcd_link.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <vector>

// No reader took the card within the time allowed.
class NoReader : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct ServerSettings {
    std::chrono::seconds patience{10}; // for a reader that does not listen yet, or no longer
    bool trace = false;
    std::filesystem::path stateFile;  // empty: the state is not kept
    std::filesystem::path noticeFile; // stands while every card is noticed; empty: not made
    unsigned long vanishAfter = 0;    // commands answered until a card leaves; 0: it stays
};

class Server {
public:
    explicit Server(ServerSettings settings);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    void add(std::uint16_t port, std::unique_ptr<ServedCard> card);
    // Serves until SIGINT or SIGTERM. SIGUSR1 pulls the cards out, SIGUSR2 puts them back.
    void run();

private:
    class Reader;

    void connectReaders();
    bool handleSignal();
    void reportNotice();

    ServerSettings settings_;
    std::vector<std::unique_ptr<Reader>> readers_;
    int signals_ = -1;
    bool noticeGiven_ = false;
};
