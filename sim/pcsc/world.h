// The state behind the stand-in: readers, contexts, connections, planned actions and the log.
// Two kinds of locks: the world's mutex guards everything here; a card's own lock serialises what
// one card answers. A card's lock is never requested while the world's mutex is held.
#pragma once

#include "sim/pcsc/standin.h"

#include <winscard.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace sim::pcsc::detail {

inline constexpr const char* PNP_READER = "\\\\?PnP?\\Notification";
inline constexpr long EXCLUSIVE = -1; // Reader::sharing of an exclusive connection

struct Reader {
    std::string name;
    bool plugged = true;
    std::shared_ptr<Card> card; // null: empty
    Bytes atr;
    unsigned long offered = 0;  // the card's protocol
    unsigned long protocol = 0; // in use since a connection chose it; 0: none yet
    bool powered = false;
    unsigned long events = 0; // insertions and removals
    long sharing = 0;         // open connections, or EXCLUSIVE
    SCARDHANDLE holder = 0;   // of the transaction
    unsigned long depth = 0;  // transactions the holder began
};

// What happened to a card behind a connection's back; the connection is refused until it ends or
// reconnects.
enum class Event { None, Reset, Removed };

struct Connection {
    SCARDCONTEXT context = 0;
    std::shared_ptr<Reader> reader;
    Event event = Event::None;
};

// Actions that wait for their call, by the number of the call.
struct Plans {
    std::size_t calls = 0;
    std::multimap<std::size_t, Action> actions;
};

struct World {
    std::mutex mutex;
    std::atomic<bool> service{true};
    std::atomic<bool> logging{true};
    std::atomic<std::size_t> pending{
        0}; // planned actions; calls are counted only while there are some
    bool plugAndPlay = true;
    std::vector<std::shared_ptr<Reader>> readers;
    std::unordered_set<SCARDCONTEXT> contexts;
    std::unordered_map<SCARDHANDLE, Connection> connections;
    std::map<Function, Plans> plans;
    Plans plansOfAny;
    std::vector<Call> log;
    SCARDCONTEXT lastContext = 0x0C000000; // numbers are never used twice and are not neighbours
    SCARDHANDLE lastHandle = 0x0D000000;
};

inline constexpr long NUMBER_STEP = 16;

using Lock = std::unique_lock<std::mutex>;

// Lives as long as the process: hosts call in while they exit.
World& world();

// The lock under which one card answers, taken without the world's mutex.
std::unique_lock<std::recursive_mutex> cardLock(const Card& card);

// The functions below need the world's mutex.
std::shared_ptr<Reader> findReader(std::string_view name);
Connection* findConnection(SCARDHANDLE handle);
LONG checkReader(const Connection& connection, SCARDHANDLE handle); // why a call is refused, or 0
void tell(const Reader& reader, Event event);
void closeConnection(SCARDHANDLE handle);
void unlockReader(Reader& reader, SCARDHANDLE handle);

// The name of the connection's reader, for the log; takes the mutex itself.
std::string readerName(SCARDHANDLE handle);

// These two let go of the world's mutex while the card works.
void powerUp(Lock& lock, const std::shared_ptr<Reader>& reader);
void resetCard(Lock& lock, const std::shared_ptr<Reader>& reader);

// One call of the API: counts it, takes what is planned for it, and logs it at its end.
class Entry {
public:
    enum class Before { Now, Later };

    // Later: the caller runs runBefore() itself, before anything else of this call.
    explicit Entry(Function function, Before when = Before::Now);

    // Set: the call is not carried out and returns this, planned or because the service is stopped.
    const std::optional<LONG>& answer() const { return answer_; }
    bool planned() const { return planned_; }

    std::optional<Bytes>& reply() { return reply_; }
    const std::optional<unsigned long>& protocol() const { return protocol_; }
    bool altersReply() const { return !alterations_.empty(); }
    Bytes altered(Bytes reply) const;
    bool hasBefore() const { return !before_.empty(); }
    void runBefore();

    // Returns rv; describe(Call&) fills in what this function's record holds.
    template <typename Describe>
    LONG finish(LONG rv, Describe describe) const
    {
        if (world().logging) {
            Call call;
            call.function = function_;
            call.result = rv;
            describe(call);
            append(std::move(call));
        }
        return rv;
    }

private:
    void take(Plans& plans);
    static void append(Call call);

    Function function_;
    std::optional<LONG> answer_;
    bool planned_ = false;
    std::optional<Bytes> reply_;
    std::optional<unsigned long> protocol_;
    std::vector<std::function<void()>> before_;
    std::vector<std::function<Bytes(const Bytes&)>> alterations_;
};

inline unsigned long number(LONG handle)
{
    return static_cast<unsigned long>(handle);
}

} // namespace sim::pcsc::detail
