#include "sim/pcsc/world.h"

#include <algorithm>
#include <array>

namespace sim::pcsc::detail {

World& world()
{
    static World* const only = new World;
    return *only;
}

std::unique_lock<std::recursive_mutex> cardLock(const Card& card)
{
    static std::array<std::recursive_mutex, 64>& locks = *new std::array<std::recursive_mutex, 64>;
    return std::unique_lock(locks[std::hash<const Card*>{}(&card) / 16 % locks.size()]);
}

std::shared_ptr<Reader> findReader(std::string_view name)
{
    for (const auto& reader : world().readers) {
        if (reader->name == name) {
            return reader;
        }
    }
    return nullptr;
}

Connection* findConnection(SCARDHANDLE handle)
{
    const auto found = world().connections.find(handle);
    return found == world().connections.end() ? nullptr : &found->second;
}

LONG checkReader(const Connection& connection, SCARDHANDLE handle)
{
    const Reader& reader = *connection.reader;
    if (!reader.plugged) {
        return SCARD_E_READER_UNAVAILABLE;
    }
    if (reader.holder != 0 && reader.holder != handle) {
        return SCARD_E_SHARING_VIOLATION; // the service would wait for the end of the transaction
    }
    switch (connection.event) {
    case Event::Reset:
        return SCARD_W_RESET_CARD;
    case Event::Removed:
        return SCARD_W_REMOVED_CARD;
    case Event::None:
        break;
    }
    return SCARD_S_SUCCESS;
}

std::string readerName(SCARDHANDLE handle)
{
    if (!world().logging) {
        return {};
    }
    const Lock lock(world().mutex);
    const Connection* const connection = findConnection(handle);
    return connection != nullptr ? connection->reader->name : std::string();
}

void tell(const Reader& reader, Event event)
{
    for (auto& [handle, connection] : world().connections) {
        if (connection.reader.get() == &reader) {
            connection.event = event;
        }
    }
}

void unlockReader(Reader& reader, SCARDHANDLE handle)
{
    if (reader.holder == handle) {
        reader.holder = 0;
        reader.depth = 0;
    }
}

void closeConnection(SCARDHANDLE handle)
{
    const auto found = world().connections.find(handle);
    Reader& reader = *found->second.reader;
    unlockReader(reader, handle);
    reader.sharing = reader.sharing == EXCLUSIVE ? 0 : reader.sharing - 1;
    world().connections.erase(found);
}

// Resets the card in the reader and reads its ATR again; onlyUnpowered spares a card that another
// thread has powered meanwhile.
static void startCard(Lock& lock, const std::shared_ptr<Reader>& reader, bool onlyUnpowered)
{
    const std::shared_ptr<Card> card = reader->card;
    if (!card || (onlyUnpowered && reader->powered)) {
        return;
    }
    lock.unlock();
    const auto serial = cardLock(*card);
    lock.lock();
    if (reader->card != card || (onlyUnpowered && reader->powered)) {
        return;
    }
    const unsigned long events = reader->events; // the card may leave and come back meanwhile
    lock.unlock();
    card->reset();
    Bytes atr = card->atr();
    const unsigned long offered = card->protocol();
    lock.lock();
    if (reader->card == card && reader->events == events) {
        reader->atr = std::move(atr);
        reader->offered = offered;
        reader->powered = true;
    }
}

void powerUp(Lock& lock, const std::shared_ptr<Reader>& reader)
{
    startCard(lock, reader, true);
}

void resetCard(Lock& lock, const std::shared_ptr<Reader>& reader)
{
    tell(*reader, Event::Reset);
    reader->protocol = 0;
    startCard(lock, reader, false);
}

Entry::Entry(Function function, Before when) : function_(function)
{
    World& w = world();
    if (w.pending != 0) {
        const Lock lock(w.mutex);
        take(w.plans[function]);
        take(w.plansOfAny);
    }
    if (when == Before::Now) {
        runBefore();
    }
}

void Entry::take(Plans& plans)
{
    ++plans.calls;
    const auto [begin, end] = plans.actions.equal_range(plans.calls);
    for (auto next = begin; next != end; ++next) {
        Action& action = next->second;
        if (action.before) {
            before_.push_back(std::move(action.before));
        }
        if (action.alter) {
            alterations_.push_back(std::move(action.alter));
        }
        if (action.result && !answer_) {
            answer_ = action.result;
            planned_ = true;
        }
        if (action.reply && !reply_) {
            reply_ = std::move(action.reply);
        }
        if (action.protocol && !protocol_) {
            protocol_ = action.protocol;
        }
        --world().pending;
    }
    plans.actions.erase(begin, end);
}

void Entry::runBefore()
{
    for (const auto& action : before_) {
        action();
    }
    if (!answer_ && !world().service) {
        answer_ = SCARD_E_NO_SERVICE;
    }
}

Bytes Entry::altered(Bytes reply) const
{
    for (const auto& alter : alterations_) {
        reply = alter(reply);
    }
    return reply;
}

void Entry::append(Call call)
{
    const Lock lock(world().mutex);
    world().log.push_back(std::move(call));
}

} // namespace sim::pcsc::detail
