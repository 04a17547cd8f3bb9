// The simulated KAZTOKEN's commands on its PIN and its keys.
#include "sim/cards/answer.h"
#include "sim/cards/kaz_token.h"
#include "sim/cards/kaz_token_command.h"
#include "sim/cards/openssl_error.h"

#include <utility>

#include <openssl/rand.h>

namespace sim {

namespace {

constexpr std::array<std::uint8_t, 5> RSA_ENVIRONMENT{0x95, 0x01, 0x40, 0x84, 0x01};
constexpr std::array<std::uint8_t, 5> GOST_ENVIRONMENT{0x91, 0x01, 0x40, 0x84, 0x01};
constexpr std::uint8_t RSA_LENGTH_WANTED = 0x00;
constexpr std::uint8_t GOST_LENGTH_WANTED = 0x40;
constexpr std::uint8_t GOST_KEY_WANTED = 0x42;
constexpr unsigned GENERATED_BITS = 2048;

Bytes turned(std::span<const std::uint8_t> bytes)
{
    return {bytes.rbegin(), bytes.rend()};
}

// 00 01, any number of FF, 00: what must stand before the data.
bool isSignatureBlock(std::span<const std::uint8_t> block)
{
    if (block.size() < 3 || block[0] != 0x00 || block[1] != 0x01) {
        return false;
    }
    const auto end = std::find_if(block.begin() + 2, block.end(),
                                  [](std::uint8_t byte) { return byte != 0xFF; });
    return end != block.end() && *end == 0x00;
}

unsigned withAttempts(unsigned wrongPin, unsigned left)
{
    if ((wrongPin & 0x000FU) == 0) {
        return wrongPin | left;
    }
    return (wrongPin & 0x0F00U) == 0 ? wrongPin | (left << 8) : wrongPin;
}

} // namespace

Bytes KazToken::verify(const Command& command)
{
    if (!command.parameters(0x00, 0x02)) {
        return status(WRONG_PARAMETERS);
    }
    if (!command.onlyData()) {
        return status(WRONG_LENGTH);
    }
    if (retriesLeft_ == 0) {
        return status(blockedPin_);
    }
    verified_ = same(command.data, Bytes(pin_.begin(), pin_.end()));
    const std::uint8_t left = verified_ ? retryLimit_ : static_cast<std::uint8_t>(retriesLeft_ - 1);
    revision_ += left != retriesLeft_ ? 1U : 0U;
    retriesLeft_ = left;
    return status(verified_ ? DONE : withAttempts(wrongPin_, left));
}

Bytes KazToken::logOut(const Command& command)
{
    if (!command.parameters(0x00, 0x00)) {
        return status(WRONG_PARAMETERS);
    }
    if (!command.bare()) {
        return status(WRONG_LENGTH);
    }
    verified_ = false;
    return status(DONE);
}

Bytes KazToken::setEnvironment(const Command& command)
{
    signingKey_.reset();
    if (!command.parameters(0x41, 0xB6)) {
        return status(WRONG_PARAMETERS);
    }
    if (!command.onlyData() || command.data.size() != RSA_ENVIRONMENT.size() + 1) {
        return status(WRONG_LENGTH);
    }
    const auto head = command.data.first(RSA_ENVIRONMENT.size());
    const bool wantsRsa = same(head, RSA_ENVIRONMENT);
    if (!wantsRsa && !same(head, GOST_ENVIRONMENT)) {
        return status(WRONG_DATA);
    }
    const std::uint8_t id = command.data.back();
    if (wantsRsa ? !rsaKey(id) : !gostKey(id)) {
        return status(OBJECT_NOT_FOUND);
    }
    signingKey_ = id;
    return status(DONE);
}

Bytes KazToken::sign(const Command& command)
{
    const Bytes before = std::exchange(chained_, {});
    if (!command.parameters(0x9E, 0x9A)) {
        return status(WRONG_PARAMETERS);
    }
    if (!verified_) {
        return status(SECURITY_STATUS);
    }
    if (!signingKey_) {
        return status(CONDITIONS);
    }
    if (const RsaKey rsa = rsaKey(*signingKey_)) {
        chained_ = before;
        return signWithRsa(command, rsa);
    }
    const GostKey gost = gostKey(*signingKey_);
    return gost ? signWithGost(command, gost) : status(OBJECT_NOT_FOUND);
}

// The first part comes chained and must leave room for a second, which completes the block.
Bytes KazToken::signWithRsa(const Command& command, const RsaKey& key)
{
    Bytes block = std::exchange(chained_, {});
    const bool first = command.cla == kaz_class::CHAINED;
    if (first != block.empty()) {
        return status(CONDITIONS);
    }
    if (first) {
        if (!command.onlyData() || command.data.size() >= key.modulusSize()) {
            return status(WRONG_LENGTH);
        }
        chained_.assign(command.data.begin(), command.data.end());
        return status(DONE);
    }
    block.insert(block.end(), command.data.begin(), command.data.end());
    if (command.le != RSA_LENGTH_WANTED || block.size() != key.modulusSize()) {
        return status(WRONG_LENGTH);
    }
    const Bytes ordered = turned(block);
    if (!isSignatureBlock(ordered)) {
        return status(WRONG_DATA);
    }
    ++counters_.signatures;
    return with(turned(key.raise(ordered)), DONE);
}

Bytes KazToken::signWithGost(const Command& command, const GostKey& key)
{
    if (command.cla == kaz_class::CHAINED) {
        return status(NO_CHAINING);
    }
    if (command.data.size() != GOST_DIGEST_SIZE || command.le != GOST_LENGTH_WANTED) {
        return status(WRONG_LENGTH);
    }
    ++counters_.signatures;
    return with(key.sign(command.data), DONE);
}

// P1 80 makes a pair in the key files that were created for it, 81 gives its public key.
Bytes KazToken::keyPair(const Command& command)
{
    if (command.p1 != 0x80 && command.p1 != 0x81) {
        return status(WRONG_PARAMETERS);
    }
    if (command.p1 == 0x80 ? !command.bare() : !command.onlyWants()) {
        return status(WRONG_LENGTH);
    }
    return command.p1 == 0x80 ? generate(command.p2) : publicKey(command.p2, command);
}

Bytes KazToken::generate(std::uint8_t id)
{
    KazFile* const privateFile = kazFind(files_, kazPairFile(0x6001, id));
    KazFile* const publicFile = kazFind(files_, kazPairFile(0x6002, id));
    if (privateFile == nullptr || publicFile == nullptr) {
        return status(OBJECT_NOT_FOUND);
    }
    if (!allows(privateFile->need(KazFile::Act::Update)) ||
        !allows(publicFile->need(KazFile::Act::Update))) {
        return status(SECURITY_STATUS);
    }
    if (privateFile->key || publicFile->key || privateFile->keyKind != publicFile->keyKind) {
        return status(CONDITIONS);
    }
    KazKey key;
    if (privateFile->keyKind == KAZ_RSA) {
        key.rsa = RsaKey::generate(GENERATED_BITS);
    } else {
        key.gost = GostKey::generate(generatedGost_);
    }
    privateFile->key = publicFile->key = key;
    ++revision_;
    return status(DONE);
}

Bytes KazToken::publicKey(std::uint8_t id, const Command& command) const
{
    const KazFile* const held = kazFind(files_, kazPairFile(0x6002, id));
    if (held == nullptr || !held->key) {
        return status(OBJECT_NOT_FOUND);
    }
    if (command.le != (held->key.rsa ? RSA_LENGTH_WANTED : GOST_KEY_WANTED)) {
        return status(WRONG_LENGTH);
    }
    return with(held->key.rsa ? turned(held->key.rsa.modulus()) : held->key.gost.publicKey(), DONE);
}

// A command like the others. NOLINTNEXTLINE(readability-convert-member-functions-to-static)
Bytes KazToken::challenge(const Command& command)
{
    if (!command.parameters(0x00, 0x00)) {
        return status(WRONG_PARAMETERS);
    }
    if (!command.onlyWants()) {
        return status(WRONG_LENGTH);
    }
    Bytes random(command.wanted());
    require(RAND_bytes(random.data(), static_cast<int>(random.size())), "random numbers");
    return with(random, DONE);
}

} // namespace sim
