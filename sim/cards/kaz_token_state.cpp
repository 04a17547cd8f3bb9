// State of the simulated KAZTOKEN: records behind the magic "VELTKTC1".
//
//     01  end of files (0 bare, 1 wrong offset)     05  PIN
//     02  status of a wrong PIN, 2 bytes            06  status of a blocked PIN, 2 bytes
//     03  attempts allowed                          07  generated GOST keys (0 2001, 1 2012)
//     04  attempts left                             10  the files
#include "sim/cards/kaz_token.h"

#include "sim/cards/answer.h"
#include "sim/cards/state_file.h"

#include <string>

namespace sim {

namespace {

constexpr std::string_view MAGIC = "VELTKTC1";

enum Tag : std::uint8_t {
    END_OF_FILE = 0x01,
    WRONG_PIN_STATUS = 0x02,
    RETRY_LIMIT = 0x03,
    RETRIES_LEFT = 0x04,
    PIN = 0x05,
    BLOCKED_PIN_STATUS = 0x06,
    GENERATED_GOST = 0x07,
    FILES = 0x10,
};

std::uint8_t byteIn(const StateRecords& records, Tag tag, std::uint8_t most)
{
    const std::uint8_t value = stateRecord(records, tag, 1)[0];
    if (value > most) {
        throw StateError("the state has a wrong value in record " + std::to_string(tag));
    }
    return value;
}

Bytes numberRecord(std::uint16_t value)
{
    return {lowByte(value >> 8), lowByte(value)};
}

std::uint16_t numberIn(const StateRecords& records, Tag tag)
{
    const Bytes& value = stateRecord(records, tag, 2);
    return static_cast<std::uint16_t>((value[0] << 8) | value[1]);
}

KazFiles filesIn(const StateRecords& records)
{
    try {
        return unpackKazFiles(stateRecord(records, FILES));
    } catch (const StateError&) {
        throw;
    } catch (const std::runtime_error& error) {
        throw StateError(std::string("the state has unreadable files: ") + error.what());
    }
}

} // namespace

Bytes KazToken::state() const
{
    StateRecords records;
    records[END_OF_FILE] = {static_cast<std::uint8_t>(endOfFile_)};
    records[WRONG_PIN_STATUS] = numberRecord(wrongPin_);
    records[RETRY_LIMIT] = {retryLimit_};
    records[RETRIES_LEFT] = {retriesLeft_};
    records[PIN] = Bytes(pin_.begin(), pin_.end());
    records[BLOCKED_PIN_STATUS] = numberRecord(blockedPin_);
    records[GENERATED_GOST] = {static_cast<std::uint8_t>(generatedGost_)};
    records[FILES] = packKazFiles(files_);
    return packState(MAGIC, records);
}

void KazToken::restore(std::span<const std::uint8_t> state)
{
    const StateRecords records = unpackState(MAGIC, state);
    KazToken read = *this;
    read.endOfFile_ = static_cast<EndOfFile>(byteIn(records, END_OF_FILE, 1));
    read.wrongPin_ = numberIn(records, WRONG_PIN_STATUS);
    read.retryLimit_ = byteIn(records, RETRY_LIMIT, 15);
    read.retriesLeft_ = byteIn(records, RETRIES_LEFT, read.retryLimit_);
    const Bytes& pin = stateRecord(records, PIN);
    read.pin_.assign(pin.begin(), pin.end());
    read.blockedPin_ = numberIn(records, BLOCKED_PIN_STATUS);
    read.generatedGost_ = static_cast<GostAlgorithm>(byteIn(records, GENERATED_GOST, 1));
    read.files_ = filesIn(records);
    ++read.revision_;
    read.reset();
    *this = std::move(read);
}

void KazToken::save(const std::filesystem::path& path) const
{
    writeStateFile(path, state());
}

void KazToken::load(const std::filesystem::path& path)
{
    restore(readStateFile(path));
}

} // namespace sim
