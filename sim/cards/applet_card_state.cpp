// State of the simulated tokens with an applet, behind a magic of each family.
//
//     01  wrong PINs allowed       03  PIN, 4 to 10 bytes
//     02  attempts left            04  the objects, as packObjects() lays them out
// From 81 on the families have records of their own.
#include "sim/cards/applet_card.h"

#include <string>
#include <utility>

namespace sim {

namespace {

enum Tag : std::uint8_t { RETRY_LIMIT = 0x01, RETRIES_LEFT = 0x02, PIN = 0x03, OBJECTS = 0x04 };

std::uint8_t byteIn(const StateRecords& records, Tag tag, std::uint8_t least, std::uint8_t most)
{
    const std::uint8_t value = stateRecord(records, tag, 1)[0];
    if (value < least || value > most) {
        throw StateError("the state has a wrong value in record " + std::to_string(tag));
    }
    return value;
}

} // namespace

Bytes AppletCard::state() const
{
    StateRecords records;
    records[RETRY_LIMIT] = {retryLimit_};
    records[RETRIES_LEFT] = {retriesLeft_};
    records[PIN] = Bytes(pin_.begin(), pin_.end());
    records[OBJECTS] = packObjects(objects_);
    packMore(records);
    return packState(stateMagic(), records);
}

void AppletCard::restore(std::span<const std::uint8_t> state)
{
    const StateRecords records = unpackState(stateMagic(), state);
    AppletOptions read;
    read.retryLimit = byteIn(records, RETRY_LIMIT, 1, 15);
    const std::uint8_t left = byteIn(records, RETRIES_LEFT, 0, read.retryLimit);
    const Bytes& pin = stateRecord(records, PIN);
    read.pin.assign(pin.begin(), pin.end());
    read.objects = unpackObjects(stateRecord(records, OBJECTS));
    try {
        check(read.pin, read.retryLimit, *read.objects);
    } catch (const std::invalid_argument& error) {
        throw StateError(std::string("the state is no token's: ") + error.what());
    }
    unpackMore(records);
    retryLimit_ = read.retryLimit;
    retriesLeft_ = left;
    pin_ = read.pin;
    objects_ = std::move(*read.objects);
    changed();
    reset();
}

void AppletCard::save(const std::filesystem::path& path) const
{
    writeStateFile(path, state());
}

void AppletCard::load(const std::filesystem::path& path)
{
    restore(readStateFile(path));
}

} // namespace sim
