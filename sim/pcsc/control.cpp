#include "sim/pcsc/world.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>

namespace sim::pcsc {

using detail::Event;
using detail::Lock;
using detail::Reader;
using detail::world;

static void require(bool held, const char* what, std::string_view reader)
{
    if (!held) {
        throw std::logic_error(std::string(what) + ": " + std::string(reader));
    }
}

// Takes the card out; the caller lets go of it when the mutex is free again.
static std::shared_ptr<Card> empty(Reader& reader)
{
    std::shared_ptr<Card> card = std::move(reader.card);
    reader.card.reset();
    reader.atr.clear();
    reader.offered = 0;
    reader.protocol = 0;
    reader.powered = false;
    return card;
}

void reset()
{
    detail::World& w = world();
    clearPlans();
    decltype(w.readers) readers;
    decltype(w.connections) connections;
    const Lock lock(w.mutex);
    w.service = true;
    w.logging = true;
    w.plugAndPlay = true;
    w.readers.swap(readers);
    w.connections.swap(connections);
    w.contexts.clear();
    w.log.clear();
}

void plugReader(std::string_view name)
{
    const Lock lock(world().mutex);
    require(!name.empty() && name.find('\0') == std::string_view::npos, "no reader name", name);
    require(!detail::findReader(name), "reader is there already", name);
    auto reader = std::make_shared<Reader>();
    reader->name = name;
    world().readers.push_back(std::move(reader));
}

void unplugReader(std::string_view name)
{
    std::shared_ptr<Card> card;
    const Lock lock(world().mutex);
    const std::shared_ptr<Reader> reader = detail::findReader(name);
    require(reader != nullptr, "no such reader", name);
    card = empty(*reader);
    reader->plugged = false;
    std::erase(world().readers, reader);
}

void insertCard(std::string_view readerName, std::shared_ptr<Card> card)
{
    require(card != nullptr, "no card", readerName);
    Bytes atr;
    unsigned long offered = 0;
    {
        const auto serial = detail::cardLock(*card);
        atr = card->atr();
        offered = card->protocol();
    }
    const Lock lock(world().mutex);
    const std::shared_ptr<Reader> reader = detail::findReader(readerName);
    require(reader != nullptr, "no such reader", readerName);
    require(!reader->card, "reader has a card already", readerName);
    reader->card = std::move(card);
    reader->atr = std::move(atr);
    reader->offered = offered;
    ++reader->events;
}

void removeCard(std::string_view readerName)
{
    std::shared_ptr<Card> card;
    const Lock lock(world().mutex);
    const std::shared_ptr<Reader> reader = detail::findReader(readerName);
    require(reader != nullptr, "no such reader", readerName);
    require(reader->card != nullptr, "reader has no card", readerName);
    card = empty(*reader);
    ++reader->events;
    detail::tell(*reader, Event::Removed);
}

void setPlugAndPlay(bool supported)
{
    const Lock lock(world().mutex);
    world().plugAndPlay = supported;
}

void setServiceRunning(bool running)
{
    world().service = running;
}

static void plan(detail::Plans& plans, std::size_t n, Action action)
{
    if (n == 0) {
        throw std::logic_error("calls are counted from 1");
    }
    plans.actions.emplace(plans.calls + n, std::move(action));
    ++world().pending;
}

void onNth(Function function, std::size_t n, Action action)
{
    const Lock lock(world().mutex);
    plan(world().plans[function], n, std::move(action));
}

void onNthOfAny(std::size_t n, Action action)
{
    const Lock lock(world().mutex);
    plan(world().plansOfAny, n, std::move(action));
}

void clearPlans()
{
    decltype(world().plans) plans;
    detail::Plans plansOfAny;
    const Lock lock(world().mutex);
    world().plans.swap(plans);
    std::swap(world().plansOfAny, plansOfAny);
    world().pending = 0;
}

std::size_t pendingPlans()
{
    return world().pending;
}

void failNth(Function function, std::size_t n, long result)
{
    Action action;
    action.result = result;
    onNth(function, n, std::move(action));
}

void replyNth(std::size_t n, Bytes reply)
{
    Action action;
    action.reply = std::move(reply);
    onNth(Function::Transmit, n, std::move(action));
}

std::vector<Call> calls()
{
    const Lock lock(world().mutex);
    return world().log;
}

std::vector<Call> calls(Function function)
{
    const Lock lock(world().mutex);
    std::vector<Call> chosen;
    std::copy_if(world().log.begin(), world().log.end(), std::back_inserter(chosen),
                 [function](const Call& call) { return call.function == function; });
    return chosen;
}

std::size_t callCount()
{
    const Lock lock(world().mutex);
    return world().log.size();
}

void clearCalls()
{
    const Lock lock(world().mutex);
    world().log.clear();
}

std::vector<Bytes> sentCommands()
{
    const Lock lock(world().mutex);
    std::vector<Bytes> commands;
    for (const Call& call : world().log) {
        if (call.function == Function::Transmit) {
            commands.push_back(call.sent);
        }
    }
    return commands;
}

static std::string inHex(const Bytes& bytes)
{
    constexpr std::string_view DIGITS = "0123456789ABCDEF";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 15];
    }
    return text;
}

static std::string describe(const Call& call)
{
    std::string line = inHex(call.sent) + " (" + std::to_string(call.capacity) + ") -> ";
    if (call.result == SCARD_S_SUCCESS) {
        return line + inHex(call.received) + "\n";
    }
    std::array<char, 32> code{};
    std::snprintf(code.data(), code.size(), "error %08lX\n",
                  static_cast<unsigned long>(call.result) & 0xFFFFFFFFUL);
    return line + code.data();
}

std::string describeCalls()
{
    const Lock lock(world().mutex);
    std::string text;
    for (const Call& call : world().log) {
        if (call.function == Function::Transmit) {
            text += describe(call);
        }
    }
    return text;
}

std::size_t openContexts()
{
    const Lock lock(world().mutex);
    return world().contexts.size();
}

std::size_t openCards()
{
    const Lock lock(world().mutex);
    return world().connections.size();
}

void setLogging(bool on)
{
    world().logging = on;
}

} // namespace sim::pcsc
