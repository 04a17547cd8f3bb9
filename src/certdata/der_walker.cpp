#include "src/certdata/der_walker.h"

#include "src/certdata/der_item.h"

#include <charconv>

std::array<std::uint8_t, 64> ucSN;
std::int32_t snLen;
std::array<std::uint8_t, 1024> ucIssuer;
std::int32_t isLen;
std::array<std::uint8_t, 1024> ucSubject;
std::int32_t sjLen;
std::array<std::uint8_t, 13> notBefore;
std::array<std::uint8_t, 13> notAfter;
std::array<std::uint8_t, 642> sIssuer;
std::array<std::uint8_t, 898> sSubject;
std::uint64_t bufIndex;
std::uint64_t bufLength;
std::int32_t fPos;
std::int32_t cIndex;
std::int32_t atribInd;
std::array<char, 128> lastOID;
std::uint8_t isEmail;

namespace {

using velt::ByteRoom;
using velt::ByteView;
using velt::DerInput;
using velt::DerItem;
using velt::DerResult;

// Values of cIndex at which fields are taken; recognised items bring the walk from one to the next.
constexpr std::int32_t AT_SERIAL = 1; // also the algorithm and the issuer
constexpr std::int32_t FIRST_ISSUER_TEXT = 2;
constexpr std::int32_t LAST_ISSUER_TEXT = 7;
constexpr std::int32_t AT_NOT_BEFORE = 7;
constexpr std::int32_t AT_NOT_AFTER = 8;
constexpr std::int32_t AT_SUBJECT = 9;
constexpr std::int32_t FIRST_SUBJECT_TEXT = 10;
constexpr std::int32_t LAST_SUBJECT_TEXT = 17;
constexpr std::int32_t ISSUER_CAPTURES = 2; // the algorithm, then the name that replaces it

constexpr std::size_t CLEARED_NAME = 512;
constexpr std::size_t MAX_TEXT = 128;
constexpr std::size_t EMAIL_SLOT = 770;
constexpr std::int64_t MAX_IDENTIFIER = 32;
constexpr std::size_t ATTRIBUTE_DIGIT = 6; // in "2.5.4.n" the position of n
constexpr char EMAIL_ADDRESS[] = "1.2.840.113549.1.9.1";

constexpr std::int64_t MIN_WALKED_OCTETS = 5; // octets of a BIT STRING that may hold an item
constexpr std::int32_t MAX_PEEKED_TAG = 49;

// A nested run lies behind a header of two octets at least, and a header that ends the encoding
// opens none: no certificate buffer holds more open runs than this.
constexpr std::size_t MAX_ENCODING = 4096;
constexpr std::size_t MAX_RUNS = MAX_ENCODING / 2;

struct Run {
    std::uint64_t end; // position behind a run of definite length
    bool indefinite;
};

std::array<Run, MAX_RUNS> runs; // the open ones, outermost first
std::size_t openRuns;

constexpr std::int32_t NO_SLOT = -1;
constexpr char ANY = '*';

// Where the text of a name attribute goes, by two characters of its dotted identifier.
struct TextSlot {
    char digit;
    char next;
    std::int32_t issuer;
    std::int32_t subject;
};

// Kept: the country's slot has two bytes, a longer one runs on into the state's.
constexpr std::array<TextSlot, 9> TEXT_SLOTS{{
    {.digit = '6', .next = ANY, .issuer = 0, .subject = 0},          // country
    {.digit = '8', .next = ANY, .issuer = 2, .subject = 2},          // state or province
    {.digit = '7', .next = ANY, .issuer = 130, .subject = 130},      // locality
    {.digit = '1', .next = '0', .issuer = 258, .subject = NO_SLOT},  // organisation
    {.digit = '1', .next = '1', .issuer = 386, .subject = NO_SLOT},  // organisational unit
    {.digit = '3', .next = ANY, .issuer = 514, .subject = 258},      // common name
    {.digit = '4', .next = '2', .issuer = NO_SLOT, .subject = 386},  // given name
    {.digit = '4', .next = '\0', .issuer = NO_SLOT, .subject = 514}, // surname
    {.digit = '5', .next = ANY, .issuer = NO_SLOT, .subject = 642},  // serial number
}};

// Octets read or skipped; what is only looked at does not count.
void advance(std::uint64_t count)
{
    bufIndex += count;
    fPos = static_cast<std::int32_t>(static_cast<std::uint32_t>(fPos) +
                                     static_cast<std::uint32_t>(count));
}

void advanceContent(std::int64_t length)
{
    advance(static_cast<std::uint64_t>(length));
}

// Header and content, as far as the field reaches; returns the length stored.
std::int32_t storeItem(ByteRoom field, const DerItem& item, ByteView content)
{
    const std::size_t header = velt::copyBounded(field, {item.header.data(), item.headerSize});
    return static_cast<std::int32_t>(header + velt::copyBounded(field.subspan(header), content));
}

void keepName(const DerItem& item, ByteView content)
{
    if (cIndex == AT_SERIAL && atribInd < ISSUER_CAPTURES) {
        ++atribInd;
        velt::fill(ByteRoom{ucIssuer}.first(CLEARED_NAME), 0);
        isLen = storeItem(ucIssuer, item, content);
    }
    if (cIndex == AT_SUBJECT && atribInd == ISSUER_CAPTURES) {
        ++atribInd;
        sjLen = storeItem(ucSubject, item, content);
    }
}

// A one-byte INTEGER before another one is the version before the serial number. Kept: wherever it
// stands.
void keepInteger(const DerItem& item, ByteView content, std::uint8_t following)
{
    if (cIndex == AT_SERIAL) {
        snLen = storeItem(ucSN, item, content);
    }
    if (item.length == 1 && following == velt::DER_INTEGER) {
        ++cIndex;
    }
}

// Appends to the `used` characters of lastOID; a text that does not fit is cut.
std::size_t appendArc(std::size_t used, std::uint64_t arc)
{
    std::array<char, 24> text{'.'};
    char* const digits = used == 0 ? text.data() : text.data() + 1;
    const char* const end = std::to_chars(digits, text.data() + text.size(), arc).ptr;
    const std::size_t length = static_cast<std::size_t>(end - text.data());
    const std::size_t count = std::min(length, lastOID.size() - 1 - used);
    std::copy_n(text.data(), count, lastOID.data() + used);
    return used + count;
}

// Kept: what stands in lastOID behind the new terminator still counts where a rule looks there.
void keepIdentifier(ByteView content)
{
    std::size_t used = 0;
    std::uint64_t arc = 0;
    for (const std::uint8_t octet : content) {
        arc = (arc << 7) | (octet & 0x7F);
        if ((octet & 0x80) != 0) {
            continue;
        }
        if (used == 0) {
            const std::uint64_t first = std::min<std::uint64_t>(arc / 40, 2);
            used = appendArc(used, first);
            arc -= first * 40;
        }
        used = appendArc(used, arc);
        arc = 0;
    }
    lastOID[used] = '\0';
}

// Kept: one character decides where more would, so 2.5.4.100 and 2.5.4.420 count as well.
bool isNameAttribute()
{
    if (lastOID[0] != '2' || lastOID[2] != '5' || lastOID[4] != '4') {
        return false;
    }
    const char digit = lastOID[ATTRIBUTE_DIGIT];
    const char next = lastOID[ATTRIBUTE_DIGIT + 1];
    return (digit >= '3' && digit <= '8' && next == '\0') ||
           (digit == '1' && (next == '0' || next == '1')) || (digit == '4' && next == '2');
}

// Kept: the separators and what follows the text are not looked at, so 1.2.840.113549.1.9.15
// passes.
bool isEmailAddress()
{
    for (std::size_t i = 0; i + 1 < sizeof EMAIL_ADDRESS; ++i) {
        if (EMAIL_ADDRESS[i] != '.' && lastOID[i] != EMAIL_ADDRESS[i]) {
            return false;
        }
    }
    return true;
}

void applyIdentifier(const DerItem& item, ByteView content)
{
    if (item.length > MAX_IDENTIFIER) {
        velt::endOnLongIdentifier(item.length);
    }
    keepIdentifier(content);
    // A certificate without a version leaves cIndex at 0 and thereby every field empty.
    if (cIndex >= AT_SERIAL && isNameAttribute()) {
        ++cIndex;
    }
    if (isEmailAddress()) {
        isEmail = 1;
    }
}

void storeText(ByteRoom field, std::int32_t slot, ByteView text)
{
    if (slot != NO_SLOT) {
        const ByteRoom room = field.subspan(static_cast<std::size_t>(slot));
        velt::copyBounded(room.first(std::min(room.size(), MAX_TEXT)), text);
    }
}

void keepText(ByteView text)
{
    const char digit = lastOID[ATTRIBUTE_DIGIT];
    const char next = lastOID[ATTRIBUTE_DIGIT + 1];
    for (const TextSlot& slot : TEXT_SLOTS) {
        if (slot.digit != digit || (slot.next != ANY && slot.next != next)) {
            continue;
        }
        if (cIndex >= FIRST_ISSUER_TEXT && cIndex <= LAST_ISSUER_TEXT) {
            storeText(sIssuer, slot.issuer, text);
        }
        if (cIndex >= FIRST_SUBJECT_TEXT && cIndex <= LAST_SUBJECT_TEXT) {
            storeText(sSubject, slot.subject, text);
        }
    }
}

void keepEmail(ByteView text)
{
    if (isEmail == 1) {
        storeText(sSubject, EMAIL_SLOT, text);
        isEmail = 0;
    }
}

void keepNotBefore(ByteView time)
{
    if (cIndex == AT_NOT_BEFORE) {
        velt::copyBounded(notBefore, time);
        ++cIndex;
    }
}

void keepNotAfter(ByteView time)
{
    if (cIndex == AT_NOT_AFTER) {
        velt::copyBounded(notAfter, time);
        ++cIndex;
    }
}

void applyPrimitive(const DerItem& item, ByteView content, std::uint8_t following)
{
    switch (item.tag) {
    case velt::DER_INTEGER:
    case velt::DER_ENUMERATED:
        return keepInteger(item, content, following);
    case velt::DER_OBJECT_IDENTIFIER:
        return applyIdentifier(item, content);
    case velt::DER_OBJECT_DESCRIPTOR:
    case velt::DER_UTF8_STRING:
    case velt::DER_NUMERIC_STRING:
    case velt::DER_PRINTABLE_STRING:
    case velt::DER_VIDEOTEX_STRING:
    case velt::DER_GRAPHIC_STRING:
    case velt::DER_VISIBLE_STRING:
    case velt::DER_GENERAL_STRING:
    case velt::DER_UNIVERSAL_STRING:
        return keepText(content);
    case velt::DER_IA5_STRING:
        return keepEmail(content);
    case velt::DER_UTC_TIME:
        keepNotAfter(content);
        return keepNotBefore(content);
    case velt::DER_GENERALIZED_TIME:
        // Kept: one GeneralizedTime fills both fields.
        keepNotBefore(content);
        return keepNotAfter(content);
    default:
        return;
    }
}

// False when there is no record left, which takes an encoding longer than any certificate buffer.
bool enterRun(std::int64_t length, bool indefinite)
{
    if (openRuns == runs.size()) {
        return false;
    }
    runs[openRuns++] = {bufIndex + static_cast<std::uint64_t>(length), indefinite};
    return true;
}

bool isPeekable(const DerItem& item)
{
    return item.tag > velt::DER_END_OF_CONTENTS && item.tag <= MAX_PEEKED_TAG;
}

// Two headers one right after the other behind that of an indefinite SEQUENCE at `position`.
bool opensSequence(const DerInput& input, std::uint64_t position, std::int64_t length)
{
    DerItem item;
    for (int i = 0; i < 2; ++i) {
        if (velt::decodeHeader(input, position, item) != DerResult::ITEM || !isPeekable(item)) {
            return false;
        }
        position += item.headerSize;
    }
    return item.length < length;
}

// Whether `length` octets of content from here on look like an item.
bool encapsulates(const DerInput& input, std::int64_t length)
{
    DerItem item;
    if (velt::decodeHeader(input, bufIndex, item) != DerResult::ITEM || !isPeekable(item)) {
        return false;
    }
    const std::uint8_t itemClass = item.id & velt::DER_CLASS_BITS;
    if (itemClass != 0 && itemClass != velt::DER_CONTEXT) {
        return false;
    }
    const bool primitive = (item.id & velt::DER_CONSTRUCTED) == 0;
    const bool sequence = item.id == velt::DER_CONSTRUCTED && item.tag == velt::DER_SEQUENCE;
    const bool set = item.id == velt::DER_CONSTRUCTED && item.tag == velt::DER_SET;
    if (item.length == length - item.headerSize && (primitive || sequence || set)) {
        return true;
    }
    return sequence && item.indefinite && opensSequence(input, bufIndex + item.headerSize, length);
}

bool walkContents(const DerInput& input, std::int64_t length)
{
    if (encapsulates(input, length)) {
        return enterRun(length, false);
    }
    advanceContent(length);
    return true;
}

bool walkPrimitive(const DerInput& input, const DerItem& item)
{
    const bool universal = item.id == 0;
    if (universal && item.tag == velt::DER_OCTET_STRING) {
        return walkContents(input, item.length);
    }
    if (universal && item.tag == velt::DER_BIT_STRING && item.length - 1 >= MIN_WALKED_OCTETS) {
        advance(1); // the count of unused bits
        return walkContents(input, item.length - 1);
    }
    const ByteView content = input.content(bufIndex, item.length);
    advanceContent(item.length);
    if (universal) {
        applyPrimitive(item, content, input.octet(bufIndex));
    }
    return true;
}

// False when the whole walk ends.
bool walkItem(const DerInput& input)
{
    DerItem item;
    const DerResult result = velt::decodeHeader(input, bufIndex, item);
    advance(item.headerSize);
    if (result == DerResult::BAD_LENGTH) {
        velt::endOnBadHeader(fPos, item);
    }
    if (result == DerResult::ENDED) {
        return false;
    }
    if (item.length < 0) {
        velt::endOnNegativeLength(item);
    }
    if ((item.id & velt::DER_CONSTRUCTED) != 0) {
        if (item.id == velt::DER_CONSTRUCTED) {
            keepName(item, input.content(bufIndex, item.length));
        }
        return enterRun(item.length, item.indefinite);
    }
    const bool endOfContents =
        item.id == 0 && item.tag == velt::DER_END_OF_CONTENTS && item.length == 0;
    if (endOfContents && runs[openRuns - 1].indefinite) {
        --openRuns;
        return true;
    }
    return walkPrimitive(input, item);
}

void walk(const DerInput& input)
{
    openRuns = 0;
    bool goesOn = enterRun(static_cast<std::int64_t>(input.length), false);
    while (goesOn && openRuns > 0) {
        const Run& run = runs[openRuns - 1];
        if (!run.indefinite && bufIndex >= run.end) {
            --openRuns;
        } else {
            goesOn = walkItem(input);
        }
    }
}

void resetResults()
{
    snLen = 0;
    isLen = 0;
    sjLen = 0;
    velt::fill(ucSN, 0);
    velt::fill(notBefore, 0);
    velt::fill(notAfter, 0);
    velt::fill(sIssuer, 0);
    velt::fill(sSubject, 0);
    // Kept: the second halves keep what an earlier certificate left there.
    velt::fill(ByteRoom{ucSubject}.first(CLEARED_NAME), 0);
    velt::fill(ByteRoom{ucIssuer}.first(CLEARED_NAME), 0);
}

} // namespace

std::int32_t parseASN1(std::span<const std::uint8_t> buffer, std::uint64_t length) noexcept
{
    bufLength = length;
    bufIndex = 0;
    cIndex = 0;
    isEmail = 0;
    atribInd = 0;
    lastOID.fill('\0');
    resetResults();
    walk({.buffer = buffer, .length = bufLength});
    return 0;
}
