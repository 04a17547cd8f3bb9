#include "sim/cards/jacarta.h"

#include "sim/cards/openssl_error.h"

#include <openssl/rand.h>

namespace sim {

namespace {

constexpr std::array<std::uint8_t, 22> ATR{0x3B, 0xDC, 0x18, 0xFF, 0x81, 0x91, 0xFE, 0x1F,
                                           0xC3, 0x80, 0x73, 0xC8, 0x21, 0x13, 0x66, 0x01,
                                           0x06, 0x11, 0x59, 0x00, 0x01, 0x28};
constexpr std::array<std::uint8_t, 12> APPLET{0xA0, 0x00, 0x67, 0x61, 0x6D, 0x6D,
                                              0x61, 0x74, 0x65, 0x63, 0x68, 0x00};
constexpr std::size_t MOST_RANDOM = 256;
constexpr std::size_t LENGTH_SIZE = 2;

} // namespace

AppletObjects jacartaObjects(const NameAttributes& issuer)
{
    AppletObject rsa{{0x8E, 0x51, 0x00, 0x3D, 0xC4, 0x72, 0x1F, 0xA6, 0x90, 0x0B, 0xE7, 0x58, 0x23,
                      0xDA, 0x6C, 0x04}};
    rsa.rsa = RsaKey::fromTestKey(TestKey::First2048);
    rsa.setCertificate(certificateFor(rsa, "Velt Holder RSA", issuer));
    AppletObject gost{{'g', 'o', 's', 't', '-', '0', '1'}};
    gost.gost = GostKey::fromTestKey(GostTestKey::First2012);
    gost.setCertificate(certificateFor(gost, "Velt Holder GOST", issuer));
    return {rsa, gost};
}

Jacarta::Jacarta(const JacartaOptions& options)
    : AppletCard(options, options.objects ? AppletObjects{} : jacartaObjects(options.issuer))
{
}

Bytes Jacarta::atr() const
{
    return {ATR.begin(), ATR.end()};
}

AppletCard::Data Jacarta::identifier() const
{
    return APPLET;
}

std::string Jacarta::words(std::span<const std::uint8_t> command)
{
    return AppletCard::words(table(), command);
}

std::span<const AppletCard::Instruction> Jacarta::table()
{
    static const std::array<Instruction, 15> TABLE{{
        {0x15, 0x20, 0x00, Form::Empty, &Jacarta::initialise, "log out and initialise"},
        {0x10, 0x21, 0x00, Form::Short, &Jacarta::verify, "verify the PIN"},
        {0x12, 0x22, 0x00, Form::Empty, &Jacarta::countObjects, "count the objects"},
        {0x12, 0x21, 0x00, Form::Short, &Jacarta::nameObject, "name an object"},
        {0x12, 0x24, 0x00, Form::Short, &Jacarta::probePart, "look for a part of", 1},
        {0x12, 0x25, 0x00, Form::Short, handler(&Jacarta::rsaPublicKey), "read RSA key", 1},
        {0x11, 0x21, 0x00, Form::Short, handler(&Jacarta::gostPublicKey), "read GOST key", 1},
        {0x12, 0x28, 0x00, Form::Short, handler(&Jacarta::readCertificate), "read certificate", 1},
        {0x12, 0x27, 0x00, Form::Extended, handler(&Jacarta::writeCertificate), "write certificate",
         3},
        {0x14, 0x23, 0x24, Form::Extended, handler(&Jacarta::signRsa), "sign with RSA key", 1},
        {0x14, 0x20, 0x00, Form::Short, handler(&Jacarta::signGost), "sign with GOST key", 1},
        {0x14, 0x31, 0x00, Form::Short, handler(&Jacarta::random), "make random bytes"},
        {0x11, 0x23, 0x00, Form::Short, &Jacarta::generateRsa, "generate RSA key pair", 4},
        {0x11, 0x20, 0x00, Form::Short, &Jacarta::generateGost, "generate GOST key pair", 2},
        {0x12, 0x23, 0x00, Form::Short, &Jacarta::destroy, "delete object", 1},
    }};
    return TABLE;
}

// A header of three bytes (82 and the length), then the modulus.
Bytes Jacarta::rsaPublicKey(Data data)
{
    const auto asked = namedBehindZero(data);
    if (!asked) {
        return status(WRONG_DATA);
    }
    const AppletObject* const object = find(asked->name, AppletPart::Rsa);
    if (object == nullptr) {
        return status(NO_KEY);
    }
    const Bytes modulus = object->rsa.modulus();
    Bytes answer{0x82};
    for (const Bytes& part : {number16(modulus.size()), modulus}) {
        answer.insert(answer.end(), part.begin(), part.end());
    }
    return with(answer);
}

Bytes Jacarta::gostPublicKey(Data data)
{
    const auto asked = namedBehindZero(data);
    if (!asked) {
        return status(WRONG_DATA);
    }
    const AppletObject* const object = find(asked->name, AppletPart::GostPublic);
    return object == nullptr ? status(NO_KEY) : with(halvesReversed(object->gost.publicKey()));
}

Bytes Jacarta::readCertificate(Data data)
{
    const auto asked = namedBehindZero(data);
    if (!asked) {
        return status(WRONG_DATA);
    }
    const AppletObject* const object = find(asked->name, AppletPart::Certificate);
    return object == nullptr ? status(NO_CERTIFICATE) : with(object->container);
}

// Two bytes of the container's length, the name, the container.
Bytes Jacarta::writeCertificate(Data data)
{
    if (data.size() < LENGTH_SIZE || numberAt(data, 0) == 0) {
        return status(WRONG_DATA);
    }
    const std::size_t length = numberAt(data, 0);
    const auto asked = namedBehindZero(data.subspan(LENGTH_SIZE), length);
    if (!asked) {
        return status(WRONG_DATA);
    }
    if (length > LARGEST_CONTAINER) {
        return status(NO_ROOM);
    }
    if (needsLogin()) {
        return status(NOT_LOGGED_IN);
    }
    AppletObject* const object = find(asked->name);
    if (object == nullptr) {
        return status(NO_KEY);
    }
    object->container.assign(asked->rest.begin(), asked->rest.end());
    changed();
    return status(DONE);
}

// The name, two bytes of the block's length, the block.
Bytes Jacarta::signRsa(Data data)
{
    const auto asked = namedBehindZero(data, LENGTH_SIZE + BLOCK_SIZE);
    if (!asked || numberAt(asked->rest, 0) != BLOCK_SIZE) {
        return status(WRONG_DATA);
    }
    if (needsLogin()) {
        return status(NOT_LOGGED_IN);
    }
    const AppletObject* const object = find(asked->name, AppletPart::Rsa);
    if (object == nullptr) {
        return status(NO_KEY);
    }
    const auto signature = signBlock(object->rsa, asked->rest.subspan(LENGTH_SIZE));
    return signature ? with(*signature) : status(WRONG_DATA);
}

Bytes Jacarta::signGost(Data data)
{
    const auto asked = namedBehindZero(data, GOST_DIGEST_SIZE);
    if (!asked) {
        return status(WRONG_DATA);
    }
    if (needsLogin()) {
        return status(NOT_LOGGED_IN);
    }
    const AppletObject* const object = find(asked->name, AppletPart::GostPrivate);
    return object == nullptr ? status(NO_KEY) : with(signReversed(object->gost, asked->rest));
}

Bytes Jacarta::random(Data data)
{
    if (data.size() != LENGTH_SIZE || numberAt(data, 0) > MOST_RANDOM) {
        return status(WRONG_DATA);
    }
    if (needsLogin()) {
        return status(NOT_LOGGED_IN);
    }
    Bytes bytes(numberAt(data, 0));
    require(RAND_bytes(bytes.data(), static_cast<int>(bytes.size())), "random bytes");
    return with(bytes);
}

} // namespace sim
