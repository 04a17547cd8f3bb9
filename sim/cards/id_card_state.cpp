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

constexpr std::string_view kMagic = "VELTIDC1";

enum Tag : std::uint8_t {
    kIssue = 0x01,
    kShortReads = 0x02,
    kRetryLimit = 0x03,
    kRetriesLeft = 0x04,
    kPin = 0x05,
    kCardObject = 0x06,
    kGeneratedBits = 0x07,
    kFirstKey = 0x11,
    kFirstFile = 0x21,
};

constexpr std::size_t kPinLength = 4;
constexpr std::size_t kCardObjectLength = 9;
constexpr std::size_t kLargestFile = 0x8000;

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
    if (content.size() > kLargestFile) {
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
    records[kIssue] = {static_cast<std::uint8_t>(issue_)};
    records[kShortReads] = {static_cast<std::uint8_t>(shortRead_)};
    records[kRetryLimit] = {retryLimit_};
    records[kRetriesLeft] = {retriesLeft_};
    records[kPin] = Bytes(pin_.begin(), pin_.end());
    records[kCardObject] = cardObject_;
    records[kGeneratedBits] = {static_cast<std::uint8_t>(generatedBits_ >> 8),
                               static_cast<std::uint8_t>(generatedBits_ & 0xFFu)};
    for (std::size_t position = 0; position < kIdCardPositions; ++position) {
        if (places_[position].key) {
            records[tagAt(kFirstKey, position)] = places_[position].key.privateDer();
        }
        records[tagAt(kFirstFile, position)] = places_[position].file;
    }
    return packState(kMagic, records);
}

void IdCard::restore(std::span<const std::uint8_t> state)
{
    const StateRecords records = unpackState(kMagic, state);
    IdCard read = *this;
    read.issue_ = static_cast<IdCardIssue>(byteIn(records, kIssue, 1));
    read.shortRead_ = static_cast<ShortRead>(byteIn(records, kShortReads, 2));
    read.retryLimit_ = byteIn(records, kRetryLimit, 15);
    read.retriesLeft_ = byteIn(records, kRetriesLeft, read.retryLimit_);
    const Bytes& pin = stateRecord(records, kPin, kPinLength);
    read.pin_.assign(pin.begin(), pin.end());
    read.cardObject_ = stateRecord(records, kCardObject, kCardObjectLength);
    const Bytes& bits = stateRecord(records, kGeneratedBits, 2);
    read.generatedBits_ = static_cast<unsigned>(bits[0] << 8) | bits[1];
    for (std::size_t position = 0; position < kIdCardPositions; ++position) {
        read.setKey(position, keyIn(records, tagAt(kFirstKey, position)));
        read.setFile(position, fileIn(records, tagAt(kFirstFile, position)));
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
