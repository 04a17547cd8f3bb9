#include "sim/cards/applet_card.h"

#include "sim/cards/scripted_card.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace sim {

namespace {

constexpr unsigned long PROTOCOL_T1 = 2;
constexpr std::size_t SHORTEST_PIN = 4;
constexpr std::size_t LONGEST_PIN = 10;
constexpr std::uint8_t MOST_RETRIES = 15;
constexpr std::size_t MOST_OBJECTS = 512;
constexpr std::size_t LONGEST_CONTAINER = 0xFFFF; // what two bytes of length can tell
constexpr unsigned GENERATED_BITS = 2048;

constexpr std::size_t HEADER_LENGTH = 5;
constexpr std::size_t EXTENDED_HEADER_LENGTH = 7;
constexpr std::uint8_t ISO_CLASS = 0x00;
constexpr std::uint8_t APPLET_CLASS = 0x80;
constexpr std::uint8_t SELECT = 0xA4;
constexpr std::uint8_t VERIFY = 0x10;

bool same(std::span<const std::uint8_t> left, std::span<const std::uint8_t> right)
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end());
}

// The data of a short command; nothing if it is of another form.
std::optional<std::span<const std::uint8_t>> shortData(std::span<const std::uint8_t> command)
{
    if (command.size() <= HEADER_LENGTH || command.size() != HEADER_LENGTH + command[4]) {
        return std::nullopt;
    }
    return command.subspan(HEADER_LENGTH);
}

std::optional<std::span<const std::uint8_t>> extendedData(std::span<const std::uint8_t> command)
{
    if (command.size() <= EXTENDED_HEADER_LENGTH || command[4] != 0x00 ||
        command.size() != EXTENDED_HEADER_LENGTH + std::size_t{command[5]} * 256 + command[6]) {
        return std::nullopt;
    }
    return command.subspan(EXTENDED_HEADER_LENGTH);
}

void checkObjects(const AppletObjects& objects)
{
    if (objects.size() > MOST_OBJECTS) {
        throw std::invalid_argument("the token keeps at most 512 objects");
    }
    for (auto object = objects.begin(); object != objects.end(); ++object) {
        if (object->name.empty() || object->name.size() > APPLET_LONGEST_NAME) {
            throw std::invalid_argument("an object's name has between 1 and 20 bytes");
        }
        if (std::any_of(objects.begin(), object,
                        [&](const AppletObject& other) { return other.name == object->name; })) {
            throw std::invalid_argument("two objects have the same name");
        }
        if (object->container.size() > LONGEST_CONTAINER) {
            throw std::invalid_argument("a container has at most 65535 bytes");
        }
    }
}

// What stands in a block of type 1: 00 01, bytes of FF, 00, and this.
std::optional<std::span<const std::uint8_t>> blockContent(std::span<const std::uint8_t> block)
{
    if (block.size() < 3 || block[0] != 0x00 || block[1] != 0x01) {
        return std::nullopt;
    }
    const auto end = std::find_if(block.begin() + 2, block.end(),
                                  [](std::uint8_t byte) { return byte != 0xFF; });
    if (end == block.end() || *end != 0x00) {
        return std::nullopt;
    }
    return block.subspan(static_cast<std::size_t>(end - block.begin()) + 1);
}

} // namespace

AppletCard::AppletCard(const AppletOptions& options, AppletObjects usualObjects)
    : retryLimit_(options.retryLimit),
      retriesLeft_(options.retryLimit),
      pin_(options.pin),
      objects_(options.objects.value_or(std::move(usualObjects)))
{
    check(pin_, retryLimit_, objects_);
}

void AppletCard::check(const std::string& pin, unsigned retryLimit, const AppletObjects& objects)
{
    if (pin.size() < SHORTEST_PIN || pin.size() > LONGEST_PIN) {
        throw std::invalid_argument("the token's PIN has between 4 and 10 characters");
    }
    if (retryLimit == 0 || retryLimit > MOST_RETRIES) {
        throw std::invalid_argument("the token allows between 1 and 15 wrong PINs");
    }
    checkObjects(objects);
}

unsigned long AppletCard::protocol() const
{
    return PROTOCOL_T1;
}

void AppletCard::reset()
{
    enter(Session::Unselected);
}

void AppletCard::enter(Session session)
{
    session_ = session;
    forget();
}

void AppletCard::setObjects(AppletObjects objects)
{
    checkObjects(objects);
    objects_ = std::move(objects);
    forget();
    changed();
}

const AppletObject* AppletCard::object(std::span<const std::uint8_t> name) const
{
    const auto found = std::find_if(objects_.begin(), objects_.end(),
                                    [&](const AppletObject& o) { return same(o.name, name); });
    return found == objects_.end() ? nullptr : &*found;
}

bool AppletCard::means(Data sent, const Bytes& name) const
{
    return same(sent, name);
}

AppletObject* AppletCard::find(Data name)
{
    const auto found = std::find_if(objects_.begin(), objects_.end(),
                                    [&](const AppletObject& o) { return means(name, o.name); });
    return found == objects_.end() ? nullptr : &*found;
}

AppletObject* AppletCard::find(Data name, AppletPart part)
{
    AppletObject* const found = find(name);
    return found != nullptr && found->has(part) ? found : nullptr;
}

unsigned AppletCard::missing(AppletPart part)
{
    return part == AppletPart::Certificate ? NO_CERTIFICATE : NO_KEY;
}

// Telling the commands apart.

Bytes AppletCard::transmit(Data command)
{
    ++counters_.commands;
    if (command.size() < HEADER_LENGTH) {
        return status(WRONG_LENGTH);
    }
    if (command[0] == ISO_CLASS) {
        return command[1] == SELECT ? select(command) : status(UNKNOWN_INSTRUCTION);
    }
    if (command[0] != APPLET_CLASS) {
        return status(UNKNOWN_CLASS);
    }
    return session_ == Session::Unselected ? status(CONDITIONS) : carryOut(command);
}

Bytes AppletCard::select(Data command)
{
    if (command[2] != 0x04 || command[3] != 0x00) {
        return status(WRONG_PARAMETERS);
    }
    const auto name = shortData(command);
    if (!name) {
        return status(WRONG_LENGTH);
    }
    if (!same(*name, identifier())) {
        return status(APPLET_NOT_FOUND);
    }
    enter(Session::Selected);
    return status(DONE);
}

Bytes AppletCard::carryOut(Data command)
{
    bool instructionKnown = false;
    for (const Instruction& row : instructions()) {
        if (row.code != command[1]) {
            continue;
        }
        instructionKnown = true;
        if (row.p1 != command[2] || row.p2 != command[3]) {
            continue;
        }
        const bool empty = command.size() == HEADER_LENGTH && command[4] == 0x00;
        const auto data =
            row.form == Form::Empty
                ? (empty ? std::optional(Data{}) : std::nullopt)
                : (row.form == Form::Short ? shortData(command) : extendedData(command));
        if (!data) {
            return status(WRONG_LENGTH);
        }
        if (session_ == Session::Selected && row.run != &AppletCard::initialise) {
            return status(CONDITIONS);
        }
        return (this->*row.run)(*data);
    }
    return status(instructionKnown ? WRONG_PARAMETERS : UNKNOWN_INSTRUCTION);
}

std::string AppletCard::words(std::span<const Instruction> known, Data command)
{
    if (command.size() < HEADER_LENGTH) {
        return "incomplete command";
    }
    if (command[0] == ISO_CLASS && command[1] == SELECT) {
        return "select applet " + toHex(command.subspan(HEADER_LENGTH));
    }
    for (const Instruction& row : known) {
        if (command[0] != APPLET_CLASS || row.code != command[1] || row.p1 != command[2] ||
            row.p2 != command[3]) {
            continue;
        }
        const std::size_t header =
            row.form == Form::Extended ? EXTENDED_HEADER_LENGTH : HEADER_LENGTH;
        const std::size_t at = header + row.nameAt;
        std::string words(row.words);
        if (row.nameAt != 0) {
            const bool whole = at < command.size() && command[at] < command.size() - at;
            words.push_back(' ');
            words += whole ? toHex(command.subspan(at + 1, command[at])) : "(missing)";
        }
        return words;
    }
    return "unknown command";
}

std::size_t AppletCard::secretLength(std::span<const std::uint8_t> command)
{
    return command.size() > HEADER_LENGTH && command[1] == VERIFY ? command.size() - HEADER_LENGTH
                                                                  : 0;
}

// Commands of both families.

Bytes AppletCard::initialise(Data /*data*/)
{
    enter(Session::Initialised);
    return status(DONE);
}

Bytes AppletCard::verify(Data data)
{
    ++counters_.verifies;
    if (retriesLeft_ == 0) {
        return status(PIN_BLOCKED);
    }
    const bool right = same(data, Bytes(pin_.begin(), pin_.end()));
    const std::uint8_t left = right ? retryLimit_ : static_cast<std::uint8_t>(retriesLeft_ - 1);
    if (right) {
        session_ = Session::User;
    } else {
        enter(Session::Initialised);
    }
    if (left != retriesLeft_) {
        changed();
    }
    retriesLeft_ = left;
    return status(right ? DONE : WRONG_PIN);
}

Bytes AppletCard::countObjects(Data /*data*/)
{
    return with(number16(objects_.size()));
}

// Positions are sent as one byte behind a byte of 00.
Bytes AppletCard::nameObject(Data data)
{
    if (data.size() != 2 || data[0] != 0x00) {
        return status(WRONG_DATA);
    }
    return data[1] < objects_.size() ? with(spokenName(objects_[data[1]].name))
                                     : status(NO_SUCH_POSITION);
}

Bytes AppletCard::probePart(Data data)
{
    const auto asked = namedBehindZero(data, 2);
    constexpr std::uint8_t LAST_PART = 3;
    if (!asked || asked->rest[0] != 0x00 || asked->rest[1] > LAST_PART) {
        return status(WRONG_DATA);
    }
    const auto part = static_cast<AppletPart>(asked->rest[1]);
    return status(find(asked->name, part) != nullptr ? DONE : missing(part));
}

AppletObject* AppletCard::placeFor(Data name, AppletPart part, unsigned& refusal)
{
    if (name.size() > APPLET_LONGEST_NAME) {
        refusal = WRONG_DATA;
        return nullptr;
    }
    if (needsLogin()) {
        refusal = NOT_LOGGED_IN;
        return nullptr;
    }
    AppletObject* const found = find(name);
    const bool gost = part == AppletPart::GostPrivate;
    if (found != nullptr && (found->has(part) || (gost && found->has(AppletPart::GostPublic)))) {
        refusal = NAME_TAKEN;
        return nullptr;
    }
    if (found == nullptr && objects_.size() == MOST_OBJECTS) {
        refusal = NO_ROOM;
        return nullptr;
    }
    ++counters_.generations;
    changed();
    if (found == nullptr) {
        AppletObject fresh;
        fresh.name.assign(name.begin(), name.end());
        objects_.push_back(std::move(fresh));
    }
    return found != nullptr ? found : &objects_.back();
}

// The number of bits twice, then the name of the pair.
Bytes AppletCard::generateRsa(Data data)
{
    constexpr std::size_t SIZES = 4;
    if (data.size() < SIZES || numberAt(data, 0) != GENERATED_BITS ||
        numberAt(data, 2) != GENERATED_BITS) {
        return status(WRONG_DATA);
    }
    const auto asked = nameIn(data.subspan(SIZES));
    if (!asked || !asked->rest.empty()) {
        return status(WRONG_DATA);
    }
    unsigned refusal = 0;
    AppletObject* const object = placeFor(asked->name, AppletPart::Rsa, refusal);
    if (object == nullptr) {
        return status(refusal);
    }
    object->rsa = RsaKey::generate(GENERATED_BITS);
    return status(DONE);
}

Bytes AppletCard::generateGost(Data data)
{
    constexpr std::size_t KIND = 2;
    constexpr unsigned USUAL_KIND = 0x0100;
    if (data.size() < KIND || numberAt(data, 0) != USUAL_KIND) {
        return status(WRONG_DATA);
    }
    const auto asked = nameIn(data.subspan(KIND));
    if (!asked || !asked->rest.empty()) {
        return status(WRONG_DATA);
    }
    unsigned refusal = 0;
    AppletObject* const object = placeFor(asked->name, AppletPart::GostPrivate, refusal);
    if (object == nullptr) {
        return status(refusal);
    }
    object->gost = GostKey::generate(GostAlgorithm::Gost2012_256);
    object->gostPrivate = object->gostPublic = true;
    return status(DONE);
}

Bytes AppletCard::destroy(Data data)
{
    const auto asked = namedBehindZero(data);
    if (!asked) {
        return status(WRONG_DATA);
    }
    if (needsLogin()) {
        return status(NOT_LOGGED_IN);
    }
    const AppletObject* const object = find(asked->name);
    if (object == nullptr) {
        return status(NO_KEY);
    }
    objects_.erase(objects_.begin() + (object - objects_.data()));
    forget();
    changed();
    return status(DONE);
}

// Building stones.

std::optional<AppletCard::Named> AppletCard::nameIn(Data data)
{
    if (data.empty() || data[0] == 0 || data[0] >= data.size()) {
        return std::nullopt;
    }
    return Named{data.subspan(1, data[0]), data.subspan(std::size_t{1} + data[0])};
}

std::optional<AppletCard::Named> AppletCard::namedBehindZero(Data data, std::size_t rest)
{
    if (data.empty() || data[0] != 0x00) {
        return std::nullopt;
    }
    const auto named = nameIn(data.subspan(1));
    return named && named->rest.size() == rest ? named : std::nullopt;
}

std::optional<Bytes> AppletCard::signBlock(const RsaKey& key, Data block)
{
    const auto content = blockContent(block);
    const bool whole = key.modulusSize() == block.size();
    if (!content || (!whole && content->size() > key.signCapacity())) {
        return std::nullopt;
    }
    ++counters_.signatures;
    return whole ? key.raise(block) : key.sign(*content);
}

Bytes AppletCard::signReversed(const GostKey& key, Data reversedDigest)
{
    ++counters_.signatures;
    return halvesReversed(key.sign(Bytes(reversedDigest.rbegin(), reversedDigest.rend())));
}

Bytes AppletCard::status(unsigned value)
{
    return number16(value);
}

Bytes AppletCard::with(Data data, unsigned value)
{
    Bytes answer(data.begin(), data.end());
    const Bytes end = status(value);
    answer.insert(answer.end(), end.begin(), end.end());
    return answer;
}

Bytes AppletCard::number16(std::size_t value)
{
    return {static_cast<std::uint8_t>((value >> 8) & 0xFFU),
            static_cast<std::uint8_t>(value & 0xFFU)};
}

std::size_t AppletCard::numberAt(Data data, std::size_t at)
{
    return static_cast<std::size_t>(data[at] << 8) | data[at + 1];
}

Bytes AppletCard::halvesReversed(Data bytes)
{
    Bytes turned(bytes.begin(), bytes.end());
    const auto middle = turned.begin() + static_cast<std::ptrdiff_t>(turned.size() / 2);
    std::reverse(turned.begin(), middle);
    std::reverse(middle, turned.end());
    return turned;
}

} // namespace sim
