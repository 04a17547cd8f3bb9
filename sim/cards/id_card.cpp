#include "sim/cards/id_card.h"

#include "sim/cards/gzip_member.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace sim {

namespace {

constexpr std::array<std::uint8_t, 12> OLD_ATR{0x3B, 0x77, 0x18, 0x00, 0x00, 0x4B,
                                               0x41, 0x53, 0x41, 0x4B, 0x49, 0x44};
constexpr std::array<std::uint8_t, 13> NEW_ATR{0x3B, 0x39, 0x19, 0x00, 0x53, 0x4F, 0x4D,
                                               0x41, 0x44, 0x53, 0x33, 0x30, 0x31};
constexpr unsigned long PROTOCOL_T0 = 1;

constexpr std::size_t PIN_LENGTH = 4;
constexpr std::uint8_t MOST_RETRIES = 15; // the counter has four bits in 63 Cx
constexpr std::size_t LARGEST_FILE = 0x8000;

RsaKey keyFor(std::size_t position, unsigned bits, bool fresh)
{
    if (!fresh && bits == 2048) {
        return RsaKey::fromTestKey(position == 0 ? TestKey::First2048 : TestKey::Second2048);
    }
    if (!fresh && bits == 1024) {
        return RsaKey::fromTestKey(position == 0 ? TestKey::First1024 : TestKey::Second1024);
    }
    return RsaKey::generate(bits);
}

Bytes certificateFor(std::size_t position, const RsaKey& key, const NameAttributes& issuer)
{
    CertificateRequest request;
    request.issuer = issuer;
    request.subject = {{"C", "KZ"},
                       {"CN", position == 0 ? "Velt Holder One" : "Velt Holder Two"},
                       {"SN", "Holder"},
                       {"GN", position == 0 ? "One" : "Two"},
                       {"serialNumber", position == 0 ? "IIN000000000001" : "IIN000000000002"}};
    request.serial = {0x4D, 0x10, 0x27, 0x5B, static_cast<std::uint8_t>(0x31 + position),
                      0x66, 0x0C, 0x92, 0xE5, 0x18};
    return issueCertificate(key, request);
}

void checkOptions(const IdCardOptions& options)
{
    if (options.pin.size() != PIN_LENGTH) {
        throw std::invalid_argument("the card's PIN has four characters");
    }
    if (options.retryLimit == 0 || options.retryLimit > MOST_RETRIES) {
        throw std::invalid_argument("the card allows between 1 and 15 wrong PINs");
    }
    if (options.fileSize < 2 || options.fileSize > LARGEST_FILE) {
        throw std::invalid_argument("a certificate file has between 2 and 32768 bytes");
    }
}

} // namespace

IdCard::IdCard(const IdCardOptions& options)
    : issue_(options.issue),
      shortRead_(options.shortRead),
      generatedBits_(options.generatedBits),
      retryLimit_(options.retryLimit),
      retriesLeft_(options.retryLimit),
      pin_(options.pin),
      cardObject_(options.cardObject.begin(), options.cardObject.end())
{
    checkOptions(options);
    for (std::size_t position = 0; position < ID_CARD_POSITIONS; ++position) {
        const IdCardPosition& wanted = options.positions[position];
        Place& place = places_[position];
        place.file.resize(options.fileSize);
        if (wanted.keyBits != 0) {
            place.key = keyFor(position, wanted.keyBits, wanted.freshKey);
        }
        if (wanted.file) {
            setFile(position, *wanted.file);
        } else if (!wanted.certificateDer.empty()) {
            setCertificate(position, wanted.certificateDer);
        } else if (wanted.certificate) {
            const RsaKey key = place.key ? place.key : keyFor(position, 2048, false);
            setCertificate(position, certificateFor(position, key, options.issuer));
        }
    }
    revision_ = 0;
}

Bytes IdCard::atr() const
{
    return issue_ == IdCardIssue::Old ? Bytes(OLD_ATR.begin(), OLD_ATR.end())
                                      : Bytes(NEW_ATR.begin(), NEW_ATR.end());
}

unsigned long IdCard::protocol() const
{
    return PROTOCOL_T0;
}

void IdCard::reset()
{
    directory_ = Directory::None;
    openFile_.reset();
    signingKey_.reset();
    verified_ = false;
    pending_.clear();
}

Bytes IdCard::modulus(std::size_t position) const
{
    const RsaKey& held = key(position);
    return held ? held.modulus() : Bytes{};
}

void IdCard::setKey(std::size_t position, RsaKey key)
{
    places_.at(position).key = std::move(key);
    ++revision_;
}

void IdCard::setFile(std::size_t position, Bytes content)
{
    if (content.size() > LARGEST_FILE) {
        throw std::invalid_argument("a certificate file has at most 32768 bytes");
    }
    places_.at(position).file = std::move(content);
    ++revision_;
}

Bytes IdCard::certificate(std::size_t position) const
{
    const Bytes& content = file(position);
    if (content.size() < 2) {
        return {};
    }
    const std::size_t length = static_cast<std::size_t>(content[0] << 8) | content[1];
    if (length == 0 || length > content.size() - 2) {
        return {};
    }
    try {
        return gzipContent(std::span(content).subspan(2, length));
    } catch (const std::runtime_error&) {
        return {};
    }
}

void IdCard::setCertificate(std::size_t position, std::span<const std::uint8_t> der)
{
    Bytes& content = places_.at(position).file;
    const Bytes member = gzipMember(der);
    if (content.size() < 2 || member.size() > content.size() - 2) {
        throw std::invalid_argument("the certificate does not fit into its file");
    }
    std::fill(content.begin(), content.end(), std::uint8_t{0});
    content[0] = static_cast<std::uint8_t>(member.size() >> 8);
    content[1] = static_cast<std::uint8_t>(member.size() & 0xFFU);
    std::copy(member.begin(), member.end(), content.begin() + 2);
    ++revision_;
}

} // namespace sim
