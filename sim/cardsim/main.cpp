// velt-cardsim: simulated cards in the virtual readers of a real PC/SC service.
#include "sim/cardsim/arguments.h"
#include "sim/cardsim/family.h"
#include "sim/cardsim/loopback.h"
#include "sim/cardsim/server.h"

#include "sim/cards/state_file.h"

#include <algorithm>
#include <cstdio>
#include <exception>

namespace {

enum ExitCode : int {
    EXIT_ENDED = 0,
    EXIT_FAILED = 1,
    EXIT_USAGE = 2,
    EXIT_NO_READER = 3,
    EXIT_STATE = 4,
};

constexpr std::string_view HELP_START =
    R"(velt-cardsim serves simulated smart cards to a running pcscd, through the virtual reader of
package vsmartcard-vpcd. It runs until SIGINT or SIGTERM; SIGUSR1 pulls its cards out of their
readers and SIGUSR2 puts them back.

Usage: velt-cardsim [OPTION]...

  --family NAME             what kind of card: idc, kt, jc or et72k (idc)
  --port N                  TCP port of the reader on the loopback (35963); repeat it for more
                            readers, each of which gets a card of its own
  --readers N               cards for N readers on consecutive ports from 35963
  --wait SECONDS            how long to wait for a reader to listen (10)
  --state FILE              start from this file if it exists, where options of the card then do
                            nothing, and write every change to it; for one reader only
  --trace                   show every command and answer on the error stream, PINs hidden
  --notice FILE             keep this file there as long as the PC/SC service sees every card
  --vanish-after N          answer N commands, then leave the reader instead of answering
  --raise-loopback          only switch the loopback interface on, for a network of one's own
  --help                    this text
)";

constexpr std::string_view HELP_END = R"(
Exit code: 0 ended by a signal, 2 wrong options, 3 no reader listens on the port, 4 the state file
cannot be used, 1 anything else.
)";

constexpr unsigned long MOST_READERS = 16;
constexpr unsigned long LARGEST_PORT = 65535;
constexpr unsigned long LONGEST_WAIT = 3600;

struct Settings {
    const Family* family = &idCardFamily;
    std::unique_ptr<CardSettings> card;
    std::vector<std::uint16_t> ports;
    ServerSettings server;
    bool help = false;
    bool raiseLoopback = false;
};

void showHelp()
{
    std::fputs(HELP_START.data(), stdout);
    for (const Family* const family : allFamilies()) {
        std::printf("\nOptions of family %s (%s):\n\n%s", family->name.data(), family->title.data(),
                    family->options.data());
    }
    std::fputs(HELP_END.data(), stdout);
}

bool takeSwitch(Settings& settings, Arguments& arguments)
{
    const std::string_view option = arguments.option();
    if (option == "--help") {
        settings.help = true;
    } else if (option == "--trace") {
        settings.server.trace = true;
    } else if (option == "--raise-loopback") {
        settings.raiseLoopback = true;
    } else {
        return false;
    }
    arguments.noValue();
    return true;
}

bool takeValue(Settings& settings, Arguments& arguments)
{
    const std::string_view option = arguments.option();
    if (option == "--family") {
        arguments.value(); // known already
    } else if (option == "--port") {
        settings.ports.push_back(static_cast<std::uint16_t>(arguments.number(1, LARGEST_PORT)));
    } else if (option == "--readers") {
        const unsigned long count = arguments.number(1, MOST_READERS);
        for (unsigned long i = 0; i < count; ++i) {
            settings.ports.push_back(static_cast<std::uint16_t>(sim::VPCD_FIRST_PORT + i));
        }
    } else if (option == "--wait") {
        settings.server.patience = std::chrono::seconds(arguments.number(0, LONGEST_WAIT));
    } else if (option == "--state") {
        settings.server.stateFile = arguments.value();
    } else if (option == "--notice") {
        settings.server.noticeFile = arguments.value();
    } else if (option == "--vanish-after") {
        settings.server.vanishAfter = arguments.number(1, 1000000);
    } else {
        return false;
    }
    return true;
}

// The family decides which options there are, so that it is looked for first.
const Family* chosenFamily(int argc, const char* const* argv)
{
    std::string name(idCardFamily.name);
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (word == "--family" && i + 1 < argc) {
            name = argv[i + 1];
        } else if (word.starts_with("--family=")) {
            name = word.substr(word.find('=') + 1);
        }
    }
    const Family* const family = findFamily(name);
    if (family == nullptr) {
        throw UsageError("there is no family \"" + name + "\"");
    }
    return family;
}

void checkPorts(const Settings& settings)
{
    std::vector<std::uint16_t> sorted = settings.ports;
    std::sort(sorted.begin(), sorted.end());
    if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) {
        throw UsageError("a reader takes one card: the same port is given twice");
    }
    if (!settings.server.stateFile.empty() && settings.ports.size() > 1) {
        throw UsageError("--state keeps one card: use one port");
    }
}

Settings parse(int argc, const char* const* argv)
{
    Settings settings;
    settings.family = chosenFamily(argc, argv);
    settings.card = settings.family->settings();
    Arguments arguments(argc, argv);
    while (arguments.next()) {
        if (!takeSwitch(settings, arguments) && !takeValue(settings, arguments) &&
            !settings.card->take(arguments)) {
            throw UsageError("unknown option " + std::string(arguments.option()));
        }
    }
    if (settings.ports.empty()) {
        settings.ports.push_back(sim::VPCD_FIRST_PORT);
    }
    checkPorts(settings);
    return settings;
}

std::unique_ptr<ServedCard> makeCard(const Settings& settings)
{
    std::unique_ptr<ServedCard> card = settings.card->make();
    const std::filesystem::path& file = settings.server.stateFile;
    if (!file.empty() && std::filesystem::exists(file)) {
        card->restore(sim::readStateFile(file));
    } else if (!file.empty()) {
        sim::writeStateFile(file, card->state());
    }
    return card;
}

void serve(const Settings& settings)
{
    Server server(settings.server);
    for (const std::uint16_t port : settings.ports) {
        server.add(port, makeCard(settings));
    }
    server.run();
}

int run(int argc, const char* const* argv)
{
    const Settings settings = parse(argc, argv);
    if (settings.help) {
        showHelp();
    } else if (settings.raiseLoopback) {
        raiseLoopback();
    } else {
        serve(settings);
    }
    return EXIT_ENDED;
}

int complain(const char* what, ExitCode code)
{
    std::fprintf(stderr, "velt-cardsim: %s\n", what);
    if (code == EXIT_USAGE) {
        std::fputs("velt-cardsim --help lists the options\n", stderr);
    }
    return code;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const UsageError& error) {
        return complain(error.what(), EXIT_USAGE);
    } catch (const NoReader& error) {
        return complain(error.what(), EXIT_NO_READER);
    } catch (const sim::StateError& error) {
        return complain(error.what(), EXIT_STATE);
    } catch (const std::exception& error) {
        return complain(error.what(), EXIT_FAILED);
    }
}
