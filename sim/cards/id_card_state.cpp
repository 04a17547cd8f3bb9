// State of the simulated identity card: records behind the magic "VELTIDC1".
//
//     01  issue (0 old, 1 new)         06  DF01, 9 bytes
//     02  short reads (0, 1, 2)        07  size of generated keys in bits, 2 bytes
//     03  attempts allowed             11, 12  keys 87 and 88 (PKCS#8); missing without a key
//     04  attempts left                21, 22  files 0101 and 0102
//     05  PIN, 4 bytes
#include "sim/cards/id_card.h"

#include "sim/cards/state_file.h"

#include <string>

namespace sim {

namespace {

constexpr std::string_view MAGIC = "VELTIDC1";

enum Tag : std::uint8_t {
    ISSUE = 0x01,
    SHORT_READS = 0x02,
    RETRY_LIMIT = 0x03,
    RETRIES_LEFT = 0x04,
    PIN = 0x05,
    CARD_OBJECT = 0x06,
    GENERATED_BITS = 0x07,
    FIRST_KEY = 0x11,
    FIRST_FILE = 0x21,
};

constexpr std::size_t PIN_LENGTH = 4;
constexpr std::size_t CARD_OBJECT_LENGTH = 9;
constexpr std::size_t LARGEST_FILE = 0x8000;

std::uint8_t tagAt(Tag first, std::size_t position)
{
    return static_cast<std::uint8_t>(first + position);
}

std::uint8_t byteIn(const StateRecords& records, Tag tag, std::uint8_t most)
{
    const std::uint8_t value = stateRecord(records, tag, 1)[0];
    if (value > most) {
        throw StateError("the state has a wrong value in record " + std::to_string(tag));
    }
    return value;
}

const Bytes& fileIn(const StateRecords& records, std::uint8_t tag)
{
    const Bytes& content = stateRecord(records, tag);
    if (content.size() > LARGEST_FILE) {
        throw StateError("the state has a file that is too large");
    }
    return content;
}

RsaKey keyIn(const StateRecords& records, std::uint8_t tag)
{
    const auto record = records.find(tag);
    if (record == records.end()) {
        return {};
    }
    try {
        return RsaKey::fromDer(record->second);
    } catch (const std::runtime_error& error) {
        throw StateError(std::string("the state has an unreadable key: ") + error.what());
    }
}

} // namespace

Bytes IdCard::state() const
{
    StateRecords records;
    records[ISSUE] = {static_cast<std::uint8_t>(issue_)};
    records[SHORT_READS] = {static_cast<std::uint8_t>(shortRead_)};
    records[RETRY_LIMIT] = {retryLimit_};
    records[RETRIES_LEFT] = {retriesLeft_};
    records[PIN] = Bytes(pin_.begin(), pin_.end());
    records[CARD_OBJECT] = cardObject_;
    records[GENERATED_BITS] = {static_cast<std::uint8_t>(generatedBits_ >> 8),
                               static_cast<std::uint8_t>(generatedBits_ & 0xFFU)};
    for (std::size_t position = 0; position < ID_CARD_POSITIONS; ++position) {
        if (places_[position].key) {
            records[tagAt(FIRST_KEY, position)] = places_[position].key.privateDer();
        }
        records[tagAt(FIRST_FILE, position)] = places_[position].file;
    }
    return packState(MAGIC, records);
}

void IdCard::restore(std::span<const std::uint8_t> state)
{
    const StateRecords records = unpackState(MAGIC, state);
    IdCard read = *this;
    read.issue_ = static_cast<IdCardIssue>(byteIn(records, ISSUE, 1));
    read.shortRead_ = static_cast<ShortRead>(byteIn(records, SHORT_READS, 2));
    read.retryLimit_ = byteIn(records, RETRY_LIMIT, 15);
    read.retriesLeft_ = byteIn(records, RETRIES_LEFT, read.retryLimit_);
    const Bytes& pin = stateRecord(records, PIN, PIN_LENGTH);
    read.pin_.assign(pin.begin(), pin.end());
    read.cardObject_ = stateRecord(records, CARD_OBJECT, CARD_OBJECT_LENGTH);
    const Bytes& bits = stateRecord(records, GENERATED_BITS, 2);
    read.generatedBits_ = static_cast<unsigned>(bits[0] << 8) | bits[1];
    for (std::size_t position = 0; position < ID_CARD_POSITIONS; ++position) {
        read.setKey(position, keyIn(records, tagAt(FIRST_KEY, position)));
        read.setFile(position, fileIn(records, tagAt(FIRST_FILE, position)));
    }
    read.reset();
    *this = std::move(read);
}

void IdCard::save(const std::filesystem::path& path) const
{
    writeStateFile(path, state());
}

void IdCard::load(const std::filesystem::path& path)
{
    restore(readStateFile(path));
}

} // namespace sim
