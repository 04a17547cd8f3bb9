#include "sim/cardsim/server.h"

#include "sim/cardsim/trace.h"

#include "sim/cards/state_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <system_error>
#include <utility>

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

using Clock = std::chrono::steady_clock;

static constexpr int RETRY_MILLISECONDS = 50;

namespace {

// Thrown through the link when a card leaves in the middle of a command.
class CardLeft : public std::exception {};

} // namespace

// One reader and its card. What the reader's link asks of the card passes through here.
class Server::Reader final : public sim::Card {
public:
    Reader(const ServerSettings& settings, std::uint16_t port, std::unique_ptr<ServedCard> card)
        : settings_(settings),
          port_(port),
          card_(std::move(card)),
          saved_(card_->revision()),
          leavesAfter_(settings.vanishAfter)
    {
        insert();
    }

    sim::Bytes atr() const override { return card_->card().atr(); }
    unsigned long protocol() const override { return card_->card().protocol(); }
    void reset() override { card_->card().reset(); }
    sim::Bytes transmit(std::span<const std::uint8_t> command) override;

    int descriptor() const { return link_.descriptor(); }
    bool connected() const { return link_.connected(); }
    bool waiting() const { return inserted_ && !link_.connected(); }
    bool noticed() const { return link_.noticed(); }

    void insert();
    void pull(const char* reason);
    void tryToConnect();
    void serve();

private:
    void keep();

    const ServerSettings& settings_;
    std::uint16_t port_;
    std::unique_ptr<ServedCard> card_;
    sim::VpcdLink link_;
    unsigned long saved_;
    unsigned long leavesAfter_;
    unsigned long answered_ = 0;
    bool inserted_ = false;
    Clock::time_point deadline_;
};

sim::Bytes Server::Reader::transmit(std::span<const std::uint8_t> command)
{
    if (leavesAfter_ != 0 && answered_ == leavesAfter_) {
        leavesAfter_ = 0; // put back in, it stays
        throw CardLeft();
    }
    if (settings_.trace) {
        traceCommand(port_, command, card_->secretLength(command), card_->words(command));
    }
    sim::Bytes reply = card_->card().transmit(command);
    ++answered_;
    if (settings_.trace) {
        traceReply(port_, reply);
    }
    keep();
    return reply;
}

// Before the reply leaves, so that nothing a host has seen is lost.
void Server::Reader::keep()
{
    if (!settings_.stateFile.empty() && card_->revision() != saved_) {
        sim::writeStateFile(settings_.stateFile, card_->state());
        saved_ = card_->revision();
    }
}

void Server::Reader::insert()
{
    inserted_ = true;
    deadline_ = Clock::now() + settings_.patience;
}

void Server::Reader::pull(const char* reason)
{
    if (inserted_) {
        std::fprintf(stderr, "velt-cardsim: port %u: %s\n", unsigned{port_}, reason);
    }
    inserted_ = false;
    link_.close();
    card_->card().reset();
}

void Server::Reader::tryToConnect()
{
    if (link_.connect(port_)) {
        std::fprintf(stderr, "velt-cardsim: port %u: the card is in the reader\n", unsigned{port_});
    } else if (Clock::now() >= deadline_) {
        throw NoReader("no virtual reader listens on port " + std::to_string(port_));
    }
}

void Server::Reader::serve()
{
    try {
        if (!link_.serve(*this)) {
            std::fprintf(stderr, "velt-cardsim: port %u: the reader has gone\n", unsigned{port_});
            card_->card().reset();
            deadline_ = Clock::now() + settings_.patience;
        }
    } catch (const CardLeft&) {
        pull("the card leaves instead of answering");
    }
}

Server::Server(ServerSettings settings) : settings_(std::move(settings))
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2}) {
        sigaddset(&set, signal);
    }
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signals_ = ::signalfd(-1, &set, SFD_CLOEXEC);
    if (signals_ < 0) {
        throw std::system_error(errno, std::generic_category(), "signals");
    }
}

Server::~Server()
{
    if (noticeGiven_) {
        std::error_code ignored;
        std::filesystem::remove(settings_.noticeFile, ignored);
    }
    ::close(signals_);
}

void Server::add(std::uint16_t port, std::unique_ptr<ServedCard> card)
{
    readers_.push_back(std::make_unique<Reader>(settings_, port, std::move(card)));
}

void Server::run()
{
    for (;;) {
        connectReaders();
        std::vector<pollfd> ready{{signals_, POLLIN, 0}};
        for (const auto& reader : readers_) {
            ready.push_back({reader->descriptor(), POLLIN, 0}); // -1 is passed over
        }
        const bool waiting = std::any_of(readers_.begin(), readers_.end(),
                                         [](const auto& reader) { return reader->waiting(); });
        if (::poll(ready.data(), ready.size(), waiting ? RETRY_MILLISECONDS : -1) < 0) {
            continue;
        }
        for (std::size_t i = 0; i < readers_.size(); ++i) {
            if (ready[i + 1].revents != 0) {
                readers_[i]->serve();
            }
        }
        if (ready[0].revents != 0 && !handleSignal()) {
            return;
        }
        reportNotice();
    }
}

void Server::connectReaders()
{
    for (const auto& reader : readers_) {
        if (reader->waiting()) {
            reader->tryToConnect();
        }
    }
}

// False if the signal ends the program.
bool Server::handleSignal()
{
    signalfd_siginfo info{};
    if (::read(signals_, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
        return true;
    }
    if (info.ssi_signo != SIGUSR1 && info.ssi_signo != SIGUSR2) {
        return false;
    }
    for (const auto& reader : readers_) {
        info.ssi_signo == SIGUSR1 ? reader->pull("the card is pulled out") : reader->insert();
    }
    return true;
}

void Server::reportNotice()
{
    const bool all = std::all_of(readers_.begin(), readers_.end(),
                                 [](const auto& reader) { return reader->noticed(); });
    if (all == noticeGiven_ || settings_.noticeFile.empty()) {
        return;
    }
    if (!all) {
        std::filesystem::remove(settings_.noticeFile);
    } else if (!std::ofstream(settings_.noticeFile)) {
        throw std::system_error(errno, std::generic_category(), settings_.noticeFile.string());
    }
    noticeGiven_ = all;
}
