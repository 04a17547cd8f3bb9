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
constexpr std::uint16_t MASTER_FILE = 0x3F00;

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

void pack(Bytes& out, const KazPath& path, const KazFile& file)
{
    out.push_back(lowByte(path.size()));
    for (const std::uint16_t step : path) {
        putNumber(out, step);
    }
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
}

KazKey keyOf(std::uint8_t keyKind, std::span<const std::uint8_t> der)
{
    KazKey key;
    if (!der.empty() && keyKind == KAZ_RSA) {
        key.rsa = RsaKey::fromDer(der);
    } else if (!der.empty()) {
        key.gost = GostKey::fromDer(der);
    }
    return key;
}

KazPath pathIn(Cursor& cursor)
{
    KazPath path;
    for (std::size_t steps = cursor.byte(); steps > 0; --steps) {
        path.push_back(cursor.number());
    }
    return path;
}

KazFile fileIn(Cursor& cursor, std::uint16_t id)
{
    KazFile file;
    file.id = id;
    file.kind = kindOf(cursor.byte());
    file.size = cursor.number();
    file.keyKind = cursor.byte();
    file.security = securityIn(cursor);
    const auto body = cursor.take(cursor.number());
    if (file.kind == KazFile::Kind::Key) {
        file.key = keyOf(file.keyKind, body);
    } else {
        file.content.assign(body.begin(), body.end());
    }
    return file;
}

bool isDirectory(const KazFiles& files, const KazPath& path)
{
    const KazFile* const file = kazFind(files, path);
    return file != nullptr && file->kind == KazFile::Kind::Directory;
}

} // namespace

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

KazFile* kazFind(KazFiles& files, const KazPath& path)
{
    const auto found = files.find(path);
    return found == files.end() ? nullptr : &found->second;
}

const KazFile* kazFind(const KazFiles& files, const KazPath& path)
{
    const auto found = files.find(path);
    return found == files.end() ? nullptr : &found->second;
}

KazPath kazBelow(KazPath directory, std::uint16_t id)
{
    directory.push_back(id);
    return directory;
}

void kazAdd(KazFiles& files, const KazPath& directory, KazFile file)
{
    if (!isDirectory(files, directory)) {
        throw std::invalid_argument("the token has no directory for this file");
    }
    const KazPath path = kazBelow(directory, file.id);
    files.insert_or_assign(path, std::move(file));
}

void kazRemove(KazFiles& files, const KazPath& path)
{
    std::erase_if(files, [&](const auto& entry) {
        return entry.first.size() >= path.size() &&
               std::equal(path.begin(), path.end(), entry.first.begin());
    });
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

Bytes packKazFiles(const KazFiles& files)
{
    Bytes out;
    for (const auto& [path, file] : files) {
        pack(out, path, file);
    }
    return out;
}

// Directories come before what is below them: paths are in order.
KazFiles unpackKazFiles(std::span<const std::uint8_t> packed)
{
    KazFiles files;
    Cursor cursor(packed);
    do {
        const KazPath path = pathIn(cursor);
        const bool placed = path.empty() ? files.empty()
                                         : isDirectory(files, {path.begin(), path.end() - 1}) &&
                                               !files.contains(path);
        KazFile file = fileIn(cursor, path.empty() ? MASTER_FILE : path.back());
        if (!placed || (path.empty() && file.kind != KazFile::Kind::Directory)) {
            throw std::runtime_error("a file has no place");
        }
        files.emplace(path, std::move(file));
    } while (!cursor.atEnd());
    return files;
}

} // namespace sim
