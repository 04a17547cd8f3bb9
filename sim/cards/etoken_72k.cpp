#include "sim/cards/etoken_72k.h"

#include <algorithm>
#include <stdexcept>

namespace sim {

namespace {

constexpr std::array<std::uint8_t, 14> ATR{0x3B, 0xD5, 0x18, 0x00, 0x81, 0x31, 0xFE,
                                           0x7D, 0x80, 0x73, 0xC8, 0x21, 0x10, 0xF4};
constexpr std::array<std::uint8_t, 10> APPLET{0x00, 0x00, 0x00, 0x00, 0x00,
                                              0x00, 0x01, 0x02, 0x03, 0x00};
constexpr std::size_t SERIAL_FIELD = 21;
constexpr std::uint8_t STATUS_BYTE = 0x90; // what a host counts along behind an unterminated name
constexpr std::array<std::uint8_t, 4> EXPONENT{0x00, 0x01, 0x00, 0x01};

enum Tag : std::uint8_t { SERIAL = 0x81, TERMINATED_NAMES = 0x82 };

Bytes bytesOf(std::string_view text)
{
    return {text.begin(), text.end()};
}

} // namespace

AppletObjects etoken72kObjects(const NameAttributes& issuer)
{
    AppletObject rsa{bytesOf("velt-rsa-01\xD7")};
    rsa.rsa = RsaKey::fromTestKey(TestKey::Second2048);
    rsa.setCertificate(certificateFor(rsa, "Velt Holder RSA", issuer));
    AppletObject gost{bytesOf("velt-gost")};
    gost.gost = GostKey::fromTestKey(GostTestKey::Second2012);
    gost.setCertificate(certificateFor(gost, "Velt Holder GOST", issuer));
    AppletObject old{bytesOf("short")};
    old.rsa = RsaKey::fromTestKey(TestKey::First1024);
    return {rsa, gost, old};
}

Etoken72k::Etoken72k(const Etoken72kOptions& options)
    : AppletCard(options, options.objects ? AppletObjects{} : etoken72kObjects(options.issuer)),
      serial_(options.serial),
      terminatedNames_(options.terminatedNames)
{
    if (serial_.empty() || serial_.size() > SERIAL_FIELD) {
        throw std::invalid_argument("the token's serial number has between 1 and 21 bytes");
    }
}

Bytes Etoken72k::atr() const
{
    return {ATR.begin(), ATR.end()};
}

AppletCard::Data Etoken72k::identifier() const
{
    return APPLET;
}

std::string Etoken72k::words(std::span<const std::uint8_t> command)
{
    return AppletCard::words(table(), command);
}

std::span<const AppletCard::Instruction> Etoken72k::table()
{
    using Self = Etoken72k;
    static const std::array<Instruction, 22> TABLE{{
        {0x15, 0x20, 0x00, Form::Empty, &Self::initialise, "log out and initialise"},
        {0x15, 0x10, 0x00, Form::Empty, handler(&Self::serialNumber), "read the serial number"},
        {0x10, 0x20, 0x00, Form::Short, &Self::verify, "verify the PIN"},
        {0x12, 0x22, 0x00, Form::Empty, &Self::countObjects, "count the objects"},
        {0x12, 0x21, 0x00, Form::Short, &Self::nameObject, "name an object"},
        {0x12, 0x44, 0x00, Form::Short, &Self::probePart, "look for a part of", 1},
        {0x12, 0x47, 0x00, Form::Short, handler(&Self::rsaKeySize), "read size of RSA key", 3},
        {0x12, 0x47, 0x01, Form::Short, handler(&Self::rsaModulusPiece), "read piece of RSA key",
         3},
        {0x11, 0x21, 0x00, Form::Short, handler(&Self::gostFirstHalf), "read half of GOST key", 1},
        {0x11, 0x24, 0x00, Form::Short, handler(&Self::gostSecondHalf), "read rest of GOST key", 1},
        {0x12, 0x43, 0x00, Form::Short, handler(&Self::chooseCertificate), "choose certificate", 1},
        {0x12, 0x41, 0x00, Form::Short, handler(&Self::readCertificate),
         "read the certificate or its size"},
        {0x12, 0x40, 0x00, Form::Short, handler(&Self::writeCertificate),
         "write a certificate or its size"},
        {0x12, 0x42, 0x00, Form::Short, handler(&Self::bindCertificate), "bind the certificate to",
         1},
        {0x12, 0x49, 0x00, Form::Short, handler(&Self::uploadPiece), "upload a piece to sign"},
        {0x14, 0x52, 0x77, Form::Short, handler(&Self::signRsa), "sign with RSA key", 3},
        {0x12, 0x48, 0x00, Form::Short, handler(&Self::signaturePiece), "read the signature"},
        {0x14, 0x10, 0x00, Form::Short, handler(&Self::signGost), "sign with GOST key", 1},
        {0x11, 0x25, 0x00, Form::Empty, handler(&Self::signatureSecondHalf),
         "read the rest of the signature"},
        {0x11, 0x26, 0x00, Form::Short, &Self::generateRsa, "generate RSA key pair", 4},
        {0x11, 0x20, 0x00, Form::Short, &Self::generateGost, "generate GOST key pair", 2},
        {0x12, 0x30, 0x00, Form::Short, &Self::destroy, "delete object", 1},
    }};
    return TABLE;
}

void Etoken72k::forget()
{
    chosen_.reset();
    written_.reset();
    writtenLength_ = 0;
    uploaded_.reset();
    rsaSignature_.reset();
    gostRest_.reset();
}

void Etoken72k::packMore(StateRecords& records) const
{
    records[SERIAL] = bytesOf(serial_);
    records[TERMINATED_NAMES] = {static_cast<std::uint8_t>(terminatedNames_ ? 1 : 0)};
}

void Etoken72k::unpackMore(const StateRecords& records)
{
    const Bytes& serial = stateRecord(records, SERIAL);
    const std::uint8_t terminated = stateRecord(records, TERMINATED_NAMES, 1)[0];
    if (serial.empty() || serial.size() > SERIAL_FIELD || terminated > 1) {
        throw StateError("the state has a wrong serial number or kind of names");
    }
    serial_.assign(serial.begin(), serial.end());
    terminatedNames_ = terminated == 1;
}

// Names and numbers.

Bytes Etoken72k::spokenName(const Bytes& name) const
{
    Bytes spoken = name;
    if (terminatedNames_) {
        spoken.push_back(0x00);
    }
    return spoken;
}

bool Etoken72k::means(Data sent, const Bytes& name) const
{
    const bool counted =
        !terminatedNames_ && sent.size() == name.size() + 1 && sent.back() == STATUS_BYTE;
    return AppletCard::means(counted ? sent.first(name.size()) : sent, name);
}

Bytes Etoken72k::serialNumber(Data /*data*/)
{
    Bytes field = bytesOf(serial_);
    field.resize(SERIAL_FIELD);
    return with(field);
}

// At most 32 bytes from an offset that is a multiple of that and lies within the whole.
Bytes Etoken72k::piece(const Bytes& whole, std::size_t offset)
{
    if (offset % PIECE_SIZE != 0 || offset >= whole.size()) {
        return status(WRONG_OFFSET);
    }
    return with(Data(whole).subspan(offset, std::min(PIECE_SIZE, whole.size() - offset)));
}

// Public keys.

// Two bytes of 00, then 00 and the name. The size in bits comes with the public exponent.
Bytes Etoken72k::rsaKeySize(Data data)
{
    if (data.size() < 2 || numberAt(data, 0) != 0) {
        return status(WRONG_DATA);
    }
    const auto asked = namedBehindZero(data.subspan(2));
    if (!asked) {
        return status(WRONG_DATA);
    }
    const AppletObject* const object = find(asked->name, AppletPart::Rsa);
    if (object == nullptr) {
        return status(NO_KEY);
    }
    Bytes answer = number16(object->rsa.bits());
    answer.insert(answer.end(), EXPONENT.begin(), EXPONENT.end());
    return with(answer);
}

Bytes Etoken72k::rsaModulusPiece(Data data)
{
    const auto asked = data.size() < 2 ? std::nullopt : namedBehindZero(data.subspan(2));
    if (!asked) {
        return status(WRONG_DATA);
    }
    const AppletObject* const object = find(asked->name, AppletPart::Rsa);
    return object == nullptr ? status(NO_KEY) : piece(object->rsa.modulus(), numberAt(data, 0));
}

Bytes Etoken72k::gostHalf(Data data, std::size_t from)
{
    const auto asked = namedBehindZero(data);
    if (!asked) {
        return status(WRONG_DATA);
    }
    const AppletObject* const object = find(asked->name, AppletPart::GostPublic);
    if (object == nullptr) {
        return status(NO_KEY);
    }
    return with(Data(halvesReversed(object->gost.publicKey())).subspan(from, GOST_HALF));
}

Bytes Etoken72k::gostFirstHalf(Data data)
{
    return gostHalf(data, 0);
}

Bytes Etoken72k::gostSecondHalf(Data data)
{
    return gostHalf(data, GOST_HALF);
}

// Certificates.

Bytes Etoken72k::chooseCertificate(Data data)
{
    const auto asked = namedBehindZero(data);
    if (!asked) {
        return status(WRONG_DATA);
    }
    const AppletObject* const object = find(asked->name, AppletPart::Certificate);
    if (object == nullptr) {
        chosen_.reset();
        return status(NO_CERTIFICATE);
    }
    chosen_ = object->container;
    return status(DONE);
}

// 00 00 asks for the size; 00 20 and an offset for a piece of 32 bytes.
Bytes Etoken72k::readCertificate(Data data)
{
    const bool size = data.size() == 2 && numberAt(data, 0) == 0;
    if (!size && (data.size() != 4 || numberAt(data, 0) != PIECE_SIZE)) {
        return status(WRONG_DATA);
    }
    if (!chosen_) {
        return status(CONDITIONS);
    }
    return size ? with(number16(chosen_->size())) : piece(*chosen_, numberAt(data, 2));
}

// 00 00 and a length announce a container; 00, a length from 1 to 32 and so many bytes follow.
Bytes Etoken72k::writeCertificate(Data data)
{
    const bool announces = data.size() == 4 && numberAt(data, 0) == 0;
    const bool appends =
        data.size() >= 3 && numberAt(data, 0) == data.size() - 2 && data.size() - 2 <= PIECE_SIZE;
    if (!announces && !appends) {
        return status(WRONG_DATA);
    }
    if (needsLogin()) {
        return status(NOT_LOGGED_IN);
    }
    return announces ? announce(numberAt(data, 2)) : append(data.subspan(2));
}

Bytes Etoken72k::announce(std::size_t length)
{
    if (length == 0 || length > LARGEST_CONTAINER) {
        return status(length == 0 ? WRONG_DATA : NO_ROOM);
    }
    written_ = Bytes(length);
    writtenLength_ = 0;
    return status(DONE);
}

Bytes Etoken72k::append(Data bytes)
{
    if (!written_) {
        return status(CONDITIONS);
    }
    if (bytes.size() > written_->size() - writtenLength_) {
        return status(NO_ROOM);
    }
    std::copy(bytes.begin(), bytes.end(),
              written_->begin() + static_cast<std::ptrdiff_t>(writtenLength_));
    writtenLength_ += bytes.size();
    return status(DONE);
}

Bytes Etoken72k::bindCertificate(Data data)
{
    const auto asked = namedBehindZero(data);
    if (!asked) {
        return status(WRONG_DATA);
    }
    if (needsLogin()) {
        return status(NOT_LOGGED_IN);
    }
    if (!written_ || writtenLength_ + 1 < written_->size()) {
        return status(CONDITIONS);
    }
    AppletObject* const object = find(asked->name);
    if (object == nullptr) {
        return status(NO_KEY);
    }
    object->container = *written_;
    written_.reset();
    chosen_.reset();
    changed();
    return status(DONE);
}

// Signatures.

Bytes Etoken72k::uploadPiece(Data data)
{
    if (data.size() != 2 + PIECE_SIZE || data[0] != 0x00 || data[1] % PIECE_SIZE != 0) {
        return status(WRONG_DATA);
    }
    if (needsLogin()) {
        return status(NOT_LOGGED_IN);
    }
    std::copy(data.begin() + 2, data.end(), block_.begin() + data[1]);
    uploaded_.set(data[1] / PIECE_SIZE);
    return status(DONE);
}

// Two bytes of the block's length, then 00 and the name. The block is used up.
Bytes Etoken72k::signRsa(Data data)
{
    const auto asked = data.size() < 2 ? std::nullopt : namedBehindZero(data.subspan(2));
    if (!asked || numberAt(data, 0) != BLOCK_SIZE) {
        return status(WRONG_DATA);
    }
    if (needsLogin()) {
        return status(NOT_LOGGED_IN);
    }
    if (!uploaded_.all()) {
        return status(CONDITIONS);
    }
    const AppletObject* const object = find(asked->name, AppletPart::Rsa);
    if (object == nullptr) {
        return status(NO_KEY);
    }
    rsaSignature_ = signBlock(object->rsa, block_);
    uploaded_.reset();
    return status(rsaSignature_ ? DONE : WRONG_DATA);
}

Bytes Etoken72k::signaturePiece(Data data)
{
    if (data.size() != 2) {
        return status(WRONG_DATA);
    }
    return rsaSignature_ ? piece(*rsaSignature_, numberAt(data, 0)) : status(CONDITIONS);
}

// Answers with the first half and keeps the second until it is asked for.
Bytes Etoken72k::signGost(Data data)
{
    const auto asked = namedBehindZero(data, GOST_DIGEST_SIZE);
    if (!asked) {
        return status(WRONG_DATA);
    }
    if (needsLogin()) {
        return status(NOT_LOGGED_IN);
    }
    const AppletObject* const object = find(asked->name, AppletPart::GostPrivate);
    if (object == nullptr) {
        return status(NO_KEY);
    }
    const Bytes signature = signReversed(object->gost, asked->rest);
    gostRest_ = Bytes(signature.begin() + GOST_HALF, signature.end());
    return with(Data(signature).first(GOST_HALF));
}

Bytes Etoken72k::signatureSecondHalf(Data /*data*/)
{
    if (!gostRest_) {
        return status(CONDITIONS);
    }
    const Bytes rest = *gostRest_;
    gostRest_.reset();
    return with(rest);
}

} // namespace sim
