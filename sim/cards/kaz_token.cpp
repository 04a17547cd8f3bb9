#include "sim/cards/kaz_token.h"

#include "sim/cards/gzip_member.h"
#include "sim/cards/scripted_card.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace sim {

namespace {

constexpr std::array<std::uint8_t, 12> ATR{0x3B, 0x88, 0x01, 0x4B, 0x41, 0x5A,
                                           0x54, 0x4F, 0x4B, 0x45, 0x4E, 0x82};
constexpr unsigned long PROTOCOL_T1 = 2;

constexpr std::uint8_t MOST_RETRIES = 15; // the counter has four bits
constexpr std::size_t LONGEST_PIN = 16;

constexpr std::uint16_t MASTER_FILE = 0x3F00;
constexpr std::uint16_t APPLICATION = 0x1000;
constexpr std::uint16_t LIST = 0x1010; // also its directory
constexpr std::array<std::uint8_t, 4> LIST_HEADER{0x01, 0x00, 0x00, 0x10};
constexpr std::string_view LABEL_HEAD = "a1b2c3d4e5f60718293a4b5c6d7e8f";

// The pairs of a kind take the two keys that stand ready in turns.
KazKey keyFor(const KazPair& pair, std::size_t position)
{
    const bool first = position % 2 == 0;
    KazKey key;
    switch (pair.kind) {
    case KazKeyKind::Rsa1024:
        key.rsa = pair.fresh
                      ? RsaKey::generate(1024)
                      : RsaKey::fromTestKey(first ? TestKey::First1024 : TestKey::Second1024);
        break;
    case KazKeyKind::Rsa2048:
        key.rsa = pair.fresh
                      ? RsaKey::generate(2048)
                      : RsaKey::fromTestKey(first ? TestKey::First2048 : TestKey::Second2048);
        break;
    case KazKeyKind::Gost2001:
        key.gost = pair.fresh ? GostKey::generate(GostAlgorithm::Gost2001)
                              : GostKey::fromTestKey(first ? GostTestKey::First2001
                                                           : GostTestKey::Second2001);
        break;
    case KazKeyKind::Gost2012:
        key.gost = pair.fresh ? GostKey::generate(GostAlgorithm::Gost2012_256)
                              : GostKey::fromTestKey(first ? GostTestKey::First2012
                                                           : GostTestKey::Second2012);
        break;
    }
    return key;
}

Bytes certificateFor(std::uint8_t id, const KazKey& key, const NameAttributes& issuer)
{
    const std::string number = toHex({&id, 1});
    CertificateRequest request;
    request.issuer = issuer;
    request.subject = {{"C", "KZ"},
                       {"CN", "Velt Token Holder " + number},
                       {"SN", "Holder"},
                       {"GN", "Token"},
                       {"serialNumber", "IIN0000000000" + number}};
    request.serial = {0x5A, 0x20, 0x38, 0x6C, id, 0x77, 0x1D, 0xA3, 0xF6, 0x29};
    return key.rsa ? issueCertificate(key.rsa, request) : issueCertificate(key.gost, request);
}

std::string labelOf(const KazPair& pair)
{
    std::string label(LABEL_HEAD);
    for (const char digit : toHex({&pair.id, 1})) {
        label += static_cast<char>(std::tolower(digit));
    }
    return pair.label.value_or(label);
}

Bytes listOf(const std::vector<KazPair>& pairs)
{
    Bytes list(LIST_HEADER.begin(), LIST_HEADER.end());
    for (const KazPair& pair : pairs) {
        const std::string label = labelOf(pair);
        list.push_back(pair.id);
        list.insert(list.end(), label.begin(), label.end());
        list.push_back(0x00);
    }
    return list;
}

void checkOptions(const KazTokenOptions& options)
{
    if (options.pin.empty() || options.pin.size() > LONGEST_PIN) {
        throw std::invalid_argument("the token's PIN has between 1 and 16 characters");
    }
    if (options.retryLimit == 0 || options.retryLimit > MOST_RETRIES) {
        throw std::invalid_argument("the token allows between 1 and 15 wrong PINs");
    }
    for (std::size_t i = 0; i < options.pairs.size(); ++i) {
        const auto others = std::span(options.pairs).subspan(i + 1);
        if (std::any_of(others.begin(), others.end(),
                        [&](const KazPair& other) { return other.id == options.pairs[i].id; })) {
            throw std::invalid_argument("two pairs of the token have the same ID");
        }
    }
}

} // namespace

KazToken::KazToken(const KazTokenOptions& options)
    : endOfFile_(options.endOfFile),
      wrongPin_(options.wrongPin),
      blockedPin_(options.blockedPin),
      retryLimit_(options.retryLimit),
      retriesLeft_(options.retryLimit),
      pin_(options.pin),
      generatedGost_(options.generatedGost)
{
    checkOptions(options);
    files_.emplace(KazPath{}, kazDirectory(MASTER_FILE));
    kazAdd(files_, {}, kazDirectory(APPLICATION));
    kazAdd(files_, {APPLICATION}, kazDirectory(0x1000));
    for (const std::uint16_t directory : KazPath{0x6001, 0x6002, 0x6004}) {
        kazAdd(files_, {APPLICATION, 0x1000}, kazDirectory(directory));
    }
    std::array<std::size_t, 4> positions{};
    for (const KazPair& pair : options.pairs) {
        addPair(pair, positions.at(static_cast<std::size_t>(pair.kind))++, options.issuer);
    }
    if (options.listDirectory) {
        kazAdd(files_, {APPLICATION}, kazDirectory(LIST));
        if (options.list) {
            setList(listOf(options.pairs));
        }
    }
    revision_ = 0;
}

void KazToken::addPair(const KazPair& pair, std::size_t position, const NameAttributes& issuer)
{
    const KazKey key = keyFor(pair, position);
    const std::uint8_t keyKind = key.rsa ? KAZ_RSA : KAZ_GOST;
    if (pair.keys) {
        for (const std::uint16_t directory : KazPath{0x6001, 0x6002}) {
            kazAdd(files_, {APPLICATION, 0x1000, directory}, kazKeyFile(pair.id, keyKind, key));
        }
    }
    if (pair.file) {
        setFile(kazPairFile(0x6004, pair.id), *pair.file);
    } else if (!pair.certificateDer.empty()) {
        setFile(kazPairFile(0x6004, pair.id), gzipMember(pair.certificateDer));
    } else if (pair.certificate) {
        setFile(kazPairFile(0x6004, pair.id), gzipMember(certificateFor(pair.id, key, issuer)));
    }
}

Bytes KazToken::atr() const
{
    return {ATR.begin(), ATR.end()};
}

unsigned long KazToken::protocol() const
{
    return PROTOCOL_T1;
}

void KazToken::reset()
{
    directory_.clear();
    file_.reset();
    signingKey_.reset();
    chained_.clear();
    verified_ = false;
}

std::optional<Bytes> KazToken::list() const
{
    return file({APPLICATION, LIST, LIST});
}

void KazToken::setList(const Bytes& content)
{
    if (!hasFile({APPLICATION, LIST})) {
        kazAdd(files_, {APPLICATION}, kazDirectory(LIST));
    }
    setFile({APPLICATION, LIST, LIST}, content);
}

void KazToken::removeList()
{
    removeFile({APPLICATION, LIST, LIST});
}

std::optional<Bytes> KazToken::file(const KazPath& path) const
{
    const KazFile* const found = kazFind(files_, path);
    if (found == nullptr || found->kind != KazFile::Kind::Transparent) {
        return std::nullopt;
    }
    return found->content;
}

void KazToken::setFile(const KazPath& path, Bytes content)
{
    kazAdd(files_, {path.begin(), path.end() - 1}, kazTransparent(path.back(), std::move(content)));
    ++revision_;
}

void KazToken::removeFile(const KazPath& path)
{
    kazRemove(files_, path);
    ++revision_;
}

RsaKey KazToken::rsaKey(std::uint8_t id) const
{
    const KazFile* const held = kazFind(files_, kazPairFile(0x6001, id));
    return held != nullptr ? held->key.rsa : RsaKey{};
}

GostKey KazToken::gostKey(std::uint8_t id) const
{
    const KazFile* const held = kazFind(files_, kazPairFile(0x6001, id));
    return held != nullptr ? held->key.gost : GostKey{};
}

Bytes KazToken::certificate(std::uint8_t id) const
{
    const std::optional<Bytes> member = file(kazPairFile(0x6004, id));
    if (!member) {
        return {};
    }
    try {
        return gzipContent(*member);
    } catch (const std::runtime_error&) {
        return {};
    }
}

} // namespace sim
