// The commands of the simulated identity card.
#include "sim/cards/answer.h"
#include "sim/cards/id_card.h"

#include <algorithm>
#include <utility>

namespace sim {

namespace {

constexpr std::size_t HEADER_LENGTH = 5;

constexpr std::array<std::uint8_t, 2> MASTER_FILE{0x3F, 0x00};
constexpr std::array<std::uint8_t, 2> CERTIFICATE_DIRECTORY{0x08, 0x01};
constexpr std::array<std::uint8_t, 2> KEY_DIRECTORY{0x01, 0x01};
constexpr std::uint8_t FIRST_FILE = 0x01; // certificate files 0101 and 0102
constexpr std::uint8_t FIRST_PRIVATE_KEY = 0x87;
constexpr std::uint8_t FIRST_PUBLIC_KEY = 0x07;

// What stands before and behind the key reference in the data fields that name a key.
constexpr std::array<std::uint8_t, 4> PUBLIC_KEY_HEAD{0x4D, 0x09, 0xFF, 0xA0};
constexpr std::array<std::uint8_t, 6> PUBLIC_KEY_TAIL{0x05, 0x7F, 0x49, 0x02, 0x81, 0x00};
constexpr std::array<std::uint8_t, 5> ENVIRONMENT_HEAD{0x95, 0x01, 0x40, 0x84, 0x01};
constexpr std::array<std::uint8_t, 3> ENVIRONMENT_TAIL{0x80, 0x01, 0x02};
constexpr std::array<std::uint8_t, 4> GENERATE_HEAD{0xA4, 0x03, 0x84, 0x01};

constexpr std::array<std::uint8_t, 2> ABSENT_KEY{0x4D, 0x00}; // a header list that names nothing
constexpr std::string_view PIN_FILLER = "0000";

// Position of the key that a reference names, if the card has such a position.
std::optional<std::size_t> positionOf(std::uint8_t reference, std::uint8_t first)
{
    if (reference < first || reference - first >= static_cast<int>(ID_CARD_POSITIONS)) {
        return std::nullopt;
    }
    return static_cast<std::size_t>(reference - first);
}

// The reference between a fixed head and tail; nothing if the field is made otherwise.
std::optional<std::uint8_t> referenceIn(std::span<const std::uint8_t> field,
                                        std::span<const std::uint8_t> head,
                                        std::span<const std::uint8_t> tail)
{
    if (field.size() != head.size() + 1 + tail.size() || !same(field.first(head.size()), head) ||
        !same(field.last(tail.size()), tail)) {
        return std::nullopt;
    }
    return field[head.size()];
}

// Tag and a length in the two-byte form, which keeps the template's head at 15 bytes for any key.
void putHeader(Bytes& out, std::span<const std::uint8_t> tag, std::size_t length)
{
    out.insert(out.end(), tag.begin(), tag.end());
    out.insert(out.end(), {0x82, lowByte(length >> 8), lowByte(length)});
}

Bytes publicKeyTemplate(std::uint8_t reference, const Bytes& modulus)
{
    constexpr std::size_t MODULUS_HEADER = 4;
    constexpr std::size_t KEY_HEADER = 5;
    const std::array<std::uint8_t, 3> object{0xFF, 0xA0, reference};
    constexpr std::array<std::uint8_t, 2> publicKey{0x7F, 0x49};
    constexpr std::array<std::uint8_t, 1> modulusTag{0x81};
    Bytes out;
    putHeader(out, object, KEY_HEADER + MODULUS_HEADER + modulus.size());
    putHeader(out, publicKey, MODULUS_HEADER + modulus.size());
    putHeader(out, modulusTag, modulus.size());
    out.insert(out.end(), modulus.begin(), modulus.end());
    return out;
}

} // namespace

// A command with its five header bytes; data are the bytes behind P3.
struct IdCard::Command {
    std::uint8_t p1;
    std::uint8_t p2;
    std::uint8_t p3;
    std::span<const std::uint8_t> data;

    bool parameters(std::uint8_t first, std::uint8_t second) const
    {
        return p1 == first && p2 == second;
    }
    // P3 counts the data, and there is some.
    bool counted() const { return p3 != 0 && data.size() == p3; }
    // P3 is the length wanted, and no data came.
    bool wants() const { return data.empty(); }
    std::size_t wanted() const { return p3 == 0 ? SHORT_MOST : p3; }
    std::size_t offset() const { return (std::size_t{p1} << 8) | p2; }
};

struct IdCard::Instruction {
    std::uint8_t code;
    Bytes (IdCard::*run)(const Command&);
    unsigned long IdCardCounters::*counter;
};

const std::array<IdCard::Instruction, 10> IdCard::INSTRUCTIONS{{
    {0xA4, &IdCard::select, &IdCardCounters::selects},
    {0xB0, &IdCard::readBinary, &IdCardCounters::reads},
    {0xD6, &IdCard::updateBinary, &IdCardCounters::updates},
    {0xCA, &IdCard::getData, &IdCardCounters::dataObjects},
    {0xCB, &IdCard::getPublicKey, &IdCardCounters::publicKeys},
    {0x20, &IdCard::verify, &IdCardCounters::verifies},
    {0x22, &IdCard::setEnvironment, &IdCardCounters::environments},
    {0x88, &IdCard::sign, &IdCardCounters::signCommands},
    {0x46, &IdCard::generate, &IdCardCounters::generations},
    {0xC0, &IdCard::getResponse, &IdCardCounters::getResponses},
}};

Bytes IdCard::transmit(std::span<const std::uint8_t> command)
{
    ++counters_.commands;
    const Bytes waiting = std::exchange(pending_, {});
    if (command.size() < HEADER_LENGTH - 1) {
        return status(WRONG_LENGTH);
    }
    if (command[0] != 0x00) {
        return status(UNKNOWN_CLASS);
    }
    const auto known = std::find_if(INSTRUCTIONS.begin(), INSTRUCTIONS.end(),
                                    [&](const Instruction& i) { return i.code == command[1]; });
    if (known == INSTRUCTIONS.end()) {
        return status(UNKNOWN_INSTRUCTION);
    }
    ++(counters_.*known->counter);
    if (command.size() < HEADER_LENGTH) {
        return status(WRONG_LENGTH);
    }
    if (known->run == &IdCard::getResponse) {
        pending_ = waiting; // the one command that leaves them be
    }
    return (this->*known->run)(
        {command[2], command[3], command[4], command.subspan(HEADER_LENGTH)});
}

// Keeps the data for GET RESPONSE and says how many bytes there are, 00 for 256 and more.
Bytes IdCard::answerLater(Bytes data)
{
    pending_ = std::move(data);
    return {MORE_DATA, lowByte(std::min(pending_.size(), SHORT_MOST))};
}

Bytes IdCard::getResponse(const Command& command)
{
    if (!command.parameters(0x00, 0x00) || !command.wants()) {
        pending_.clear();
        return status(command.wants() ? WRONG_PARAMETERS : WRONG_LENGTH);
    }
    if (pending_.empty()) {
        return status(CONDITIONS);
    }
    const std::size_t ready = std::min(pending_.size(), SHORT_MOST);
    if (command.wanted() > ready) {
        return {EXACT_LENGTH, lowByte(ready)};
    }
    const auto end = pending_.begin() + static_cast<std::ptrdiff_t>(command.wanted());
    Bytes answer(pending_.begin(), end);
    pending_.erase(pending_.begin(), end);
    const Bytes closing = pending_.empty()
                              ? status(DONE)
                              : Bytes{MORE_DATA, lowByte(std::min(pending_.size(), SHORT_MOST))};
    answer.insert(answer.end(), closing.begin(), closing.end());
    return answer;
}

Bytes IdCard::select(const Command& command)
{
    constexpr std::uint8_t NO_RESPONSE = 0x0C;
    if (command.p1 > 0x02 || command.p2 != NO_RESPONSE) {
        return status(WRONG_PARAMETERS);
    }
    if (!command.counted() || command.data.size() != 2) {
        return status(WRONG_LENGTH);
    }
    if (command.p1 == 0x00) {
        return same(command.data, MASTER_FILE) ? enter(Directory::Master) : status(FILE_NOT_FOUND);
    }
    return command.p1 == 0x01 ? selectDirectory(command) : selectFile(command);
}

Bytes IdCard::enter(Directory directory)
{
    directory_ = directory;
    openFile_.reset();
    signingKey_.reset();
    return status(DONE);
}

// Directories are found from the master file alone.
Bytes IdCard::selectDirectory(const Command& command)
{
    if (directory_ == Directory::Master && same(command.data, CERTIFICATE_DIRECTORY)) {
        return enter(Directory::Certificates);
    }
    if (directory_ == Directory::Master && same(command.data, KEY_DIRECTORY)) {
        return enter(Directory::Keys);
    }
    return status(FILE_NOT_FOUND);
}

Bytes IdCard::selectFile(const Command& command)
{
    const std::optional<std::size_t> position = positionOf(command.data[1], FIRST_FILE);
    if (directory_ != Directory::Certificates || command.data[0] != 0x01 || !position) {
        return status(FILE_NOT_FOUND);
    }
    openFile_ = position;
    return status(DONE);
}

Bytes IdCard::readBinary(const Command& command)
{
    if ((command.p1 & SHORT_FILE_IDENTIFIER) != 0) {
        return status(WRONG_PARAMETERS);
    }
    if (!command.wants()) {
        return status(WRONG_LENGTH);
    }
    if (!openFile_) {
        return status(NO_CURRENT_FILE);
    }
    const std::span<const std::uint8_t> content = places_[*openFile_].file;
    if (command.offset() >= content.size()) {
        return status(WRONG_OFFSET);
    }
    const auto rest = content.subspan(command.offset());
    return rest.size() < command.wanted() ? shortAnswer(rest, command.p3 == 0)
                                          : with(rest.first(command.wanted()), DONE);
}

// A length of 00 asks for whatever there is, so that fewer than 256 bytes deserve no warning.
Bytes IdCard::shortAnswer(std::span<const std::uint8_t> rest, bool anyLength) const
{
    if (shortRead_ == ShortRead::WrongLength) {
        return {EXACT_LENGTH, lowByte(rest.size())};
    }
    const bool warned = shortRead_ == ShortRead::Warning && !anyLength;
    return with(rest, warned ? FILE_ENDS_EARLY : DONE);
}

Bytes IdCard::updateBinary(const Command& command)
{
    if ((command.p1 & SHORT_FILE_IDENTIFIER) != 0) {
        return status(WRONG_PARAMETERS);
    }
    // A length byte of 00 with 256 bytes behind it is taken as 256.
    if (command.data.size() != command.wanted()) {
        return status(WRONG_LENGTH);
    }
    if (!openFile_) {
        return status(NO_CURRENT_FILE);
    }
    if (!verified_) {
        return status(SECURITY_STATUS);
    }
    Bytes& content = places_[*openFile_].file;
    if (command.offset() >= content.size()) {
        return status(WRONG_OFFSET);
    }
    if (command.data.size() > content.size() - command.offset()) {
        return status(FILE_FULL);
    }
    std::copy(command.data.begin(), command.data.end(),
              content.begin() + static_cast<std::ptrdiff_t>(command.offset()));
    ++revision_;
    return status(DONE);
}

Bytes IdCard::getData(const Command& command)
{
    if (!command.wants()) {
        return status(WRONG_LENGTH);
    }
    if (!command.parameters(0xDF, 0x01) || directory_ != Directory::Master) {
        return status(OBJECT_NOT_FOUND);
    }
    if (command.p3 != cardObject_.size()) {
        return {EXACT_LENGTH, lowByte(cardObject_.size())};
    }
    return with(cardObject_, DONE);
}

Bytes IdCard::getPublicKey(const Command& command)
{
    if (!command.parameters(0x3F, 0xFF)) {
        return status(WRONG_PARAMETERS);
    }
    if (!command.counted()) {
        return status(WRONG_LENGTH);
    }
    const auto reference = referenceIn(command.data, PUBLIC_KEY_HEAD, PUBLIC_KEY_TAIL);
    if (!reference) {
        return status(WRONG_DATA);
    }
    const auto position = positionOf(*reference, FIRST_PUBLIC_KEY);
    if (directory_ != Directory::Keys || !position) {
        return status(OBJECT_NOT_FOUND);
    }
    const RsaKey& asked = places_[*position].key;
    return answerLater(asked ? publicKeyTemplate(*reference, asked.modulus())
                             : Bytes(ABSENT_KEY.begin(), ABSENT_KEY.end()));
}

Bytes IdCard::verify(const Command& command)
{
    if (!command.parameters(0x00, 0x02)) {
        return status(WRONG_PARAMETERS);
    }
    const std::string whole = pin_ + std::string(PIN_FILLER);
    if (!command.counted() || command.data.size() != whole.size()) {
        return status(WRONG_LENGTH);
    }
    if (directory_ != Directory::Master) {
        return status(OBJECT_NOT_FOUND);
    }
    if (retriesLeft_ == 0) {
        return status(PIN_BLOCKED);
    }
    verified_ = same(command.data, Bytes(whole.begin(), whole.end()));
    const std::uint8_t left = verified_ ? retryLimit_ : static_cast<std::uint8_t>(retriesLeft_ - 1);
    revision_ += left != retriesLeft_ ? 1U : 0U;
    retriesLeft_ = left;
    return status(verified_ ? DONE : WRONG_PIN + left);
}

Bytes IdCard::setEnvironment(const Command& command)
{
    if (!command.parameters(0x41, 0xA4)) {
        return status(WRONG_PARAMETERS);
    }
    if (!command.counted()) {
        return status(WRONG_LENGTH);
    }
    const auto reference = referenceIn(command.data, ENVIRONMENT_HEAD, ENVIRONMENT_TAIL);
    if (!reference) {
        return status(WRONG_DATA);
    }
    if (directory_ != Directory::Keys) {
        return status(CONDITIONS);
    }
    const auto position = positionOf(*reference, FIRST_PRIVATE_KEY);
    if (!position || !places_[*position].key) {
        return status(OBJECT_NOT_FOUND);
    }
    signingKey_ = position;
    return status(DONE);
}

Bytes IdCard::sign(const Command& command)
{
    if (!command.parameters(0x02, 0x00)) {
        return status(WRONG_PARAMETERS);
    }
    if (!command.counted()) {
        return status(WRONG_LENGTH);
    }
    if (!verified_) {
        return status(SECURITY_STATUS);
    }
    if (!signingKey_) {
        return status(CONDITIONS);
    }
    const RsaKey& key = places_[*signingKey_].key;
    if (command.data.size() > key.signCapacity()) {
        return status(WRONG_LENGTH);
    }
    ++counters_.signatures;
    return answerLater(key.sign(command.data));
}

Bytes IdCard::generate(const Command& command)
{
    if (!command.parameters(0x02, 0x00)) {
        return status(WRONG_PARAMETERS);
    }
    if (!command.counted()) {
        return status(WRONG_LENGTH);
    }
    const auto reference = referenceIn(command.data, GENERATE_HEAD, {});
    if (!reference) {
        return status(WRONG_DATA);
    }
    if (directory_ != Directory::Keys) {
        return status(CONDITIONS);
    }
    if (!verified_) {
        return status(SECURITY_STATUS);
    }
    const auto position = positionOf(*reference, FIRST_PRIVATE_KEY);
    if (!position) {
        return status(OBJECT_NOT_FOUND);
    }
    setKey(*position, RsaKey::generate(generatedBits_));
    return status(DONE);
}

} // namespace sim
