#include "sim/cards/kaz_token_files.h"

#include "sim/cards/answer.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace sim {

namespace {

using Security = std::array<std::uint8_t, 15>;

// What each byte stands for: KazFile::Act names the ones that the token heeds.
constexpr Security DIRECTORY_SECURITY{0x43, 0x02, 0x02, 0x00, 0x00, 0x00, 0x00, 0xFF};
constexpr Security FILE_SECURITY{0x42, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x02};

constexpr std::uint16_t DIRECTORY_SIZE = 0x0010;
constexpr std::uint16_t GOST_SIZE = 0x0040;
constexpr std::uint16_t RSA_SIZE = 0x0100; // of the keys that the token generates
constexpr std::size_t LARGEST_FILE = 0x7FFF;
constexpr std::size_t DEEPEST = 8;

constexpr std::uint8_t PARAMETERS_TAG = 0x62;
constexpr std::uint8_t SIZE_TAG = 0x80;
constexpr std::uint8_t KIND_TAG = 0x82;
constexpr std::uint8_t ID_TAG = 0x83;
constexpr std::uint8_t KEY_TAG = 0x85;
constexpr std::uint8_t SECURITY_TAG = 0x86;

void putNumber(Bytes& out, std::size_t value)
{
    out.push_back(lowByte(value >> 8));
    out.push_back(lowByte(value));
}

void putElement(Bytes& out, std::uint8_t tag, std::span<const std::uint8_t> value)
{
    out.push_back(tag);
    out.push_back(lowByte(value.size()));
    out.insert(out.end(), value.begin(), value.end());
}

void putNumberElement(Bytes& out, std::uint8_t tag, std::size_t value)
{
    Bytes number;
    putNumber(number, value);
    putElement(out, tag, number);
}

void putKeyKind(Bytes& out, std::uint8_t keyKind)
{
    putElement(out, KEY_TAG, std::array<std::uint8_t, 6>{keyKind});
}

// A walk over bytes that ends in an exception where they do.
class Cursor {
public:
    explicit Cursor(std::span<const std::uint8_t> bytes) : rest_(bytes) {}
    bool atEnd() const { return rest_.empty(); }
    std::span<const std::uint8_t> take(std::size_t count)
    {
        if (count > rest_.size()) {
            throw std::runtime_error("the files end early");
        }
        const auto taken = rest_.first(count);
        rest_ = rest_.subspan(count);
        return taken;
    }
    std::uint8_t byte() { return take(1)[0]; }
    std::uint16_t number()
    {
        const auto two = take(2);
        return static_cast<std::uint16_t>((two[0] << 8) | two[1]);
    }
    // The value of the element that must come next; its length must be this.
    std::span<const std::uint8_t> element(std::uint8_t tag, std::size_t length)
    {
        if (byte() != tag || byte() != length) {
            throw std::runtime_error("not the element expected");
        }
        return take(length);
    }
    std::uint16_t numberElement(std::uint8_t tag) { return Cursor(element(tag, 2)).number(); }

private:
    std::span<const std::uint8_t> rest_;
};

KazFile::Kind kindOf(std::uint8_t code)
{
    for (const KazFile::Kind kind :
         {KazFile::Kind::Transparent, KazFile::Kind::Key, KazFile::Kind::Directory}) {
        if (static_cast<std::uint8_t>(kind) == code) {
            return kind;
        }
    }
    throw std::runtime_error("no such kind of file");
}

Security securityIn(Cursor& cursor)
{
    const auto bytes = cursor.take(Security{}.size());
    Security security{};
    std::copy(bytes.begin(), bytes.end(), security.begin());
    return security;
}

// The parameters without the outer tag and length.
KazFile parsedParameters(Cursor cursor)
{
    KazFile file;
    const auto kind = cursor.element(KIND_TAG, 2);
    file.kind = kindOf(kind[0]);
    file.size = cursor.numberElement(SIZE_TAG);
    file.id = cursor.numberElement(ID_TAG);
    bool fits = kind[1] == 0x00;
    if (file.kind == KazFile::Kind::Key) {
        const auto keyKind = cursor.element(KEY_TAG, 6);
        file.keyKind = keyKind[0];
        fits = fits && same(keyKind, std::array<std::uint8_t, 6>{file.keyKind});
    }
    Cursor security(cursor.element(SECURITY_TAG, Security{}.size()));
    file.security = securityIn(security);
    if (!fits || !cursor.atEnd()) {
        throw std::runtime_error("not the parameters expected");
    }
    return file;
}

bool wellMade(const KazFile& file)
{
    switch (file.kind) {
    case KazFile::Kind::Directory:
        return file.size == DIRECTORY_SIZE && file.security == DIRECTORY_SECURITY;
    case KazFile::Kind::Transparent:
        return file.size <= LARGEST_FILE && file.security == FILE_SECURITY;
    case KazFile::Kind::Key:
        return ((file.keyKind == KAZ_RSA && file.size == RSA_SIZE) ||
                (file.keyKind == KAZ_GOST && file.size == GOST_SIZE)) &&
               file.security == FILE_SECURITY;
    }
    return false;
}

void pack(Bytes& out, const KazFile& file)
{
    putNumber(out, file.id);
    out.push_back(static_cast<std::uint8_t>(file.kind));
    putNumber(out, file.size);
    out.push_back(file.keyKind);
    out.insert(out.end(), file.security.begin(), file.security.end());
    const Bytes key = file.key.rsa    ? file.key.rsa.privateDer()
                      : file.key.gost ? file.key.gost.privateDer()
                                      : Bytes{};
    const Bytes& body = file.kind == KazFile::Kind::Key ? key : file.content;
    putNumber(out, body.size());
    out.insert(out.end(), body.begin(), body.end());
    putNumber(out, file.children.size());
    for (const KazFile& child : file.children) {
        pack(out, child);
    }
}

KazFile unpack(Cursor& cursor, std::size_t depth)
{
    if (depth > DEEPEST) {
        throw std::runtime_error("the files are nested too deeply");
    }
    KazFile file;
    file.id = cursor.number();
    file.kind = kindOf(cursor.byte());
    file.size = cursor.number();
    file.keyKind = cursor.byte();
    file.security = securityIn(cursor);
    const auto body = cursor.take(cursor.number());
    if (file.kind != KazFile::Kind::Key) {
        file.content.assign(body.begin(), body.end());
    } else if (!body.empty() && file.keyKind == KAZ_RSA) {
        file.key.rsa = RsaKey::fromDer(body);
    } else if (!body.empty()) {
        file.key.gost = GostKey::fromDer(body);
    }
    for (std::size_t count = cursor.number(); count > 0; --count) {
        file.children.push_back(unpack(cursor, depth + 1));
    }
    return file;
}

} // namespace

KazFile* KazFile::child(std::uint16_t wanted)
{
    const auto found = std::find_if(children.begin(), children.end(),
                                    [&](const KazFile& file) { return file.id == wanted; });
    return found == children.end() ? nullptr : &*found;
}

const KazFile* KazFile::child(std::uint16_t wanted) const
{
    const auto found = std::find_if(children.begin(), children.end(),
                                    [&](const KazFile& file) { return file.id == wanted; });
    return found == children.end() ? nullptr : &*found;
}

KazFile kazDirectory(std::uint16_t id)
{
    KazFile file;
    file.id = id;
    file.size = DIRECTORY_SIZE;
    file.security = DIRECTORY_SECURITY;
    return file;
}

KazFile kazTransparent(std::uint16_t id, Bytes content)
{
    if (content.size() > LARGEST_FILE) {
        throw std::invalid_argument("a file of the token has at most 32767 bytes");
    }
    KazFile file;
    file.kind = KazFile::Kind::Transparent;
    file.id = id;
    file.size = static_cast<std::uint16_t>(content.size());
    file.security = FILE_SECURITY;
    file.content = std::move(content);
    return file;
}

KazFile kazKeyFile(std::uint16_t id, std::uint8_t keyKind, KazKey key)
{
    KazFile file;
    file.kind = KazFile::Kind::Key;
    file.id = id;
    file.size = key.rsa ? static_cast<std::uint16_t>(key.rsa.modulusSize()) : GOST_SIZE;
    file.keyKind = keyKind;
    file.security = FILE_SECURITY;
    file.key = std::move(key);
    return file;
}

KazFile* kazFind(KazFile& master, std::span<const std::uint16_t> path)
{
    KazFile* at = &master;
    for (const std::uint16_t step : path) {
        at = at != nullptr ? at->child(step) : nullptr;
    }
    return at;
}

const KazFile* kazFind(const KazFile& master, std::span<const std::uint16_t> path)
{
    const KazFile* at = &master;
    for (const std::uint16_t step : path) {
        at = at != nullptr ? at->child(step) : nullptr;
    }
    return at;
}

Bytes kazControlParameters(const KazFile& file)
{
    Bytes inner;
    putNumberElement(inner, SIZE_TAG, file.size);
    putNumberElement(inner, KIND_TAG, static_cast<std::size_t>(file.kind) << 8);
    if (file.kind == KazFile::Kind::Key) {
        putKeyKind(inner, file.keyKind);
    }
    putNumberElement(inner, ID_TAG, file.id);
    putElement(inner, SECURITY_TAG, file.security);
    Bytes out;
    putElement(out, PARAMETERS_TAG, inner);
    return out;
}

std::optional<KazFile> kazFileToCreate(std::span<const std::uint8_t> parameters)
{
    try {
        Cursor cursor(parameters);
        if (parameters.size() < 2 || parameters[1] != parameters.size() - 2) {
            return std::nullopt;
        }
        KazFile file =
            parsedParameters(Cursor(cursor.element(PARAMETERS_TAG, parameters.size() - 2)));
        if (!wellMade(file)) {
            return std::nullopt;
        }
        if (file.kind == KazFile::Kind::Transparent) {
            file.content.resize(file.size);
        }
        return file;
    } catch (const std::runtime_error&) {
        return std::nullopt;
    }
}

Bytes packKazFiles(const KazFile& master)
{
    Bytes out;
    pack(out, master);
    return out;
}

KazFile unpackKazFiles(std::span<const std::uint8_t> packed)
{
    Cursor cursor(packed);
    KazFile master = unpack(cursor, 0);
    if (!cursor.atEnd()) {
        throw std::runtime_error("something stands behind the files");
    }
    return master;
}

} // namespace sim
