// A packed object is a run of fields, each with two bytes of length before it, the most significant
// first: the name, the RSA key (PKCS#8), the GOST key (PKCS#8), one byte with bit 0 for a private
// and bit 1 for a public GOST part, and the container. A key that is not there has length 0.
#include "sim/cards/applet_object.h"

#include "sim/cards/gzip_member.h"
#include "sim/cards/state_file.h"

#include <algorithm>
#include <stdexcept>

namespace sim {

namespace {

constexpr std::size_t LENGTH_SIZE = 2;
constexpr std::uint8_t PRIVATE_BIT = 0x01;
constexpr std::uint8_t PUBLIC_BIT = 0x02;

void putField(Bytes& out, std::span<const std::uint8_t> field)
{
    out.push_back(static_cast<std::uint8_t>(field.size() >> 8));
    out.push_back(static_cast<std::uint8_t>(field.size() & 0xFFU));
    out.insert(out.end(), field.begin(), field.end());
}

Bytes takeField(std::span<const std::uint8_t>& packed)
{
    if (packed.size() < LENGTH_SIZE) {
        throw StateError("the state ends inside an object");
    }
    const std::size_t length = static_cast<std::size_t>(packed[0] << 8) | packed[1];
    packed = packed.subspan(LENGTH_SIZE);
    if (length > packed.size()) {
        throw StateError("the state ends inside an object");
    }
    const auto field = packed.first(length);
    packed = packed.subspan(length);
    return {field.begin(), field.end()};
}

template <class Key>
Key keyIn(const Bytes& der)
{
    try {
        return der.empty() ? Key{} : Key::fromDer(der);
    } catch (const std::runtime_error& error) {
        throw StateError(std::string("the state has an unreadable key: ") + error.what());
    }
}

AppletObject takeObject(std::span<const std::uint8_t>& packed)
{
    AppletObject object;
    object.name = takeField(packed);
    if (object.name.empty() || object.name.size() > APPLET_LONGEST_NAME) {
        throw StateError("the state has an object with a name of a wrong length");
    }
    object.rsa = keyIn<RsaKey>(takeField(packed));
    object.gost = keyIn<GostKey>(takeField(packed));
    const Bytes halves = takeField(packed);
    if (halves.size() != 1 || halves[0] > (PRIVATE_BIT | PUBLIC_BIT)) {
        throw StateError("the state has a wrong set of parts");
    }
    object.gostPrivate = (halves[0] & PRIVATE_BIT) != 0;
    object.gostPublic = (halves[0] & PUBLIC_BIT) != 0;
    object.container = takeField(packed);
    return object;
}

} // namespace

bool AppletObject::has(AppletPart part) const
{
    switch (part) {
    case AppletPart::GostPrivate:
        return gost && gostPrivate;
    case AppletPart::GostPublic:
        return gost && gostPublic;
    case AppletPart::Certificate:
        return !container.empty();
    case AppletPart::Rsa:
        return static_cast<bool>(rsa);
    }
    return false;
}

bool AppletObject::empty() const
{
    return !has(AppletPart::GostPrivate) && !has(AppletPart::GostPublic) &&
           !has(AppletPart::Certificate) && !has(AppletPart::Rsa);
}

Bytes AppletObject::certificate() const
{
    try {
        return container.empty() ? Bytes{} : gzipContent(container);
    } catch (const std::runtime_error&) {
        return {};
    }
}

void AppletObject::setCertificate(std::span<const std::uint8_t> der)
{
    container = gzipMember(der);
}

Bytes certificateFor(const AppletObject& object, const std::string& holder,
                     const NameAttributes& issuer)
{
    CertificateRequest request;
    request.issuer = issuer;
    request.subject = {{"C", "KZ"}, {"CN", holder}, {"SN", "Holder"}, {"GN", "Token"}};
    request.serial = {0x5A, 0x33};
    request.serial.insert(request.serial.end(), object.name.begin(), object.name.end());
    request.serial.resize(std::min<std::size_t>(request.serial.size(), 10));
    return object.rsa ? issueCertificate(object.rsa, request)
                      : issueCertificate(object.gost, request);
}

Bytes packObjects(const AppletObjects& objects)
{
    Bytes packed;
    for (const AppletObject& object : objects) {
        putField(packed, object.name);
        putField(packed, object.rsa ? object.rsa.privateDer() : Bytes{});
        putField(packed, object.gost ? object.gost.privateDer() : Bytes{});
        const std::uint8_t halves = static_cast<std::uint8_t>(
            (object.gostPrivate ? PRIVATE_BIT : 0) | (object.gostPublic ? PUBLIC_BIT : 0));
        putField(packed, std::span(&halves, 1));
        putField(packed, object.container);
    }
    return packed;
}

AppletObjects unpackObjects(std::span<const std::uint8_t> packed)
{
    AppletObjects objects;
    while (!packed.empty()) {
        objects.push_back(takeObject(packed));
    }
    return objects;
}

} // namespace sim
