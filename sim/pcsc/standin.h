// Control of the stand-in for libpcsclite: which readers and cards there are, what was called, and
// which calls go wrong. The stand-in exports the SCard* functions of winscard.h; it never waits,
// whatever timeout it is given (where the service would wait for another's transaction to end, it
// answers SCARD_E_SHARING_VIOLATION). All functions may be called from any thread, those that
// change something also by a card while it answers. Nonsense (a card for a reader that is not
// there, a second one for a reader that has one) throws std::logic_error.
#pragma once

#include "sim/cards/card.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim::pcsc {

enum class Function {
    EstablishContext,
    ReleaseContext,
    IsValidContext,
    ListReaders,
    GetStatusChange,
    Connect,
    Disconnect,
    Transmit,
    Other, // the rest of winscard.h (Reconnect, Status, BeginTransaction, ...)
};

// One reader state of a GetStatusChange call.
struct StateRecord {
    std::string reader;
    unsigned long currentState = 0; // as the caller passed it
    unsigned long eventState = 0;   // as the stand-in returned it
    Bytes atr;                      // as returned
    bool operator==(const StateRecord&) const = default;
};

// One call, with what went in and what came out.
struct Call {
    Function function = Function::Other;
    long result = 0;                 // as returned to the caller
    unsigned long context = 0;       // given, or handed out by EstablishContext
    unsigned long card = 0;          // card handle given, or handed out by Connect
    std::string reader;              // Connect: the name; Transmit, Disconnect: the handle's reader
    unsigned long scope = 0;         // EstablishContext
    unsigned long shareMode = 0;     // Connect
    unsigned long protocols = 0;     // Connect: preferred; Transmit: the protocol in the send PCI
    unsigned long disposition = 0;   // Disconnect
    unsigned long timeout = 0;       // GetStatusChange
    bool bufferGiven = false;        // ListReaders: a name buffer; Transmit: a receive PCI
    unsigned long capacity = 0;      // ListReaders, Transmit: the length on entry; GetStatusChange:
                                     // the number of states
    Bytes sent;                      // Transmit: the command
    Bytes received;                  // Transmit: the bytes put into the caller's buffer
    std::vector<StateRecord> states; // GetStatusChange; none if there were more than 16
};

// What happens instead of, or around, one call. Fields left out change nothing. A call that fails
// by plan leaves lengths and handles as the service leaves them when it fails. What `before` does
// to the readers of a GetStatusChange happens while its caller waits.
struct Action {
    std::function<void()> before;             // runs first (for example: removes the card)
    std::optional<long> result;               // the call is not carried out and returns this
    std::optional<Bytes> reply;               // Transmit: returned verbatim, the card is not asked
    std::function<Bytes(const Bytes&)> alter; // Transmit: changes the card's reply
    std::optional<unsigned long> protocol;    // Connect: told to the caller instead of the card's
};

// Back to the start: service running, plug-and-play on, no readers, no contexts, nothing planned,
// empty log.
void reset();

// Readers appear at the end of the list; names are unique. Unplugging takes the card along.
void plugReader(std::string_view name);
void unplugReader(std::string_view name);
// A card's ATR and protocol are read when it is inserted and when it is reset.
void insertCard(std::string_view reader, std::shared_ptr<Card> card);
void removeCard(std::string_view reader);

// Whether the service knows the pseudo-reader that reports readers coming and going. If so, it
// refuses a GetStatusChange with an unknown name (SCARD_E_UNKNOWN_READER, nothing written), as
// pcsc-lite 1.9.9 does; if not, it is an older one, which marks each unknown name in its state
// (UNKNOWN, UNAVAILABLE and, unless known before, CHANGED).
void setPlugAndPlay(bool supported);

// A stopped service answers every call with SCARD_E_NO_SERVICE. Contexts and card handles outlive
// the stop, except those released meanwhile.
void setServiceRunning(bool running);

// Plans an action for the n-th call (1 is the next) of one function, or of any function. Where
// several meet in one call, all `before` and `alter` run and the first of each other kind counts.
void onNth(Function function, std::size_t n, Action action);
void onNthOfAny(std::size_t n, Action action);
void clearPlans();
std::size_t pendingPlans(); // actions whose call has not come yet

// Shorthands.
void failNth(Function function, std::size_t n, long result);
void replyNth(std::size_t n, Bytes reply); // the n-th Transmit

// The log: everything since the last clearing, oldest first.
std::vector<Call> calls();
std::vector<Call> calls(Function function);
std::size_t callCount();
void clearCalls();

// The commands of all Transmit calls in the log, and "command (capacity) -> reply" lines for
// messages of failed tests.
std::vector<Bytes> sentCommands();
std::string describeCalls();

// How many contexts and card handles are open now.
std::size_t openContexts();
std::size_t openCards();

// The log grows with every call; a program that makes very many calls turns it off.
void setLogging(bool on);

} // namespace sim::pcsc
