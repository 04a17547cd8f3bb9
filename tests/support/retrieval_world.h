// What tests of attribute retrieval share: one object of each class with a value of its own in
// every field, and reads that check the buffer around them.
#pragma once

#include "src/objects/retrieval.h"
#include "tests/support/messages.h"
#include "tests/support/object_world.h"

#include <algorithm>
#include <cstring>
#include <optional>

namespace velt_test::objects {

constexpr CK_ULONG NOT_SERVED = ~CK_ULONG{0};
constexpr std::uint8_t UNTOUCHED = 0xC3;
constexpr CK_ATTRIBUTE_TYPE VENDOR_FLAG = 0xCE534352;
constexpr CK_KEY_TYPE VENDOR_KEY = 0x84B5A001;

// A number as the host reads it.
inline Bytes number(std::uint64_t value)
{
    Bytes bytes(sizeof value);
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

// `size` bytes that count up from `first`, zero left out.
inline Bytes series(std::uint8_t first, std::size_t size)
{
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>(1 + (first + i) % 255);
    }
    return bytes;
}

// What one read of one attribute did. `buffer` is empty for a read without one.
struct Answer {
    CK_RV result = 0;
    CK_ULONG length = 0;
    Bytes buffer;
    bool operator==(const Answer&) const = default;
};

inline void PrintTo(const Answer& answer, std::ostream* out)
{
    *out << "result " << answer.result << ", length " << answer.length << ", buffer";
    for (const std::uint8_t byte : answer.buffer) {
        *out << ' ' << unsigned{byte};
    }
}

class RetrievalWorld : public ObjectWorld {
protected:
    static constexpr CK_OBJECT_HANDLE CERTIFICATE = 1;
    static constexpr CK_OBJECT_HANDLE PUBLIC_KEY = 2;
    static constexpr CK_OBJECT_HANDLE PRIVATE_KEY = 3;
    static constexpr CK_OBJECT_HANDLE GOST_PUBLIC_KEY = 4;
    static constexpr std::size_t TABLE_SIZE = 6; // the rest stays empty

    void SetUp() override
    {
        ObjectWorld::SetUp();
        makeTable(TABLE_SIZE);
        fillEntry(addCertificate("certificate"), 0x10);
        fillCertificate(certificate());
        fillEntry(addPublicKey("public key"), 0x20);
        fillPublicKey(publicKey());
        fillEntry(addPrivateKey("private key"), 0x30);
        fillPrivateKey(*velt::privateKeyOf(velt::entryOf(PRIVATE_KEY)));
        fillEntry(addPublicKey("GOST key"), 0x40);
        fillPublicKey(gostKey());
        gostKey().keyType = VENDOR_KEY;
    }

    static CertAttr& certificate() { return *velt::certificateOf(velt::entryOf(CERTIFICATE)); }
    static PubKeyAttr& publicKey() { return *velt::publicKeyOf(velt::entryOf(PUBLIC_KEY)); }
    static PubKeyAttr& gostKey() { return *velt::publicKeyOf(velt::entryOf(GOST_PUBLIC_KEY)); }

    // Reads one attribute into a buffer that holds `room` bytes, or into none. The bytes behind
    // the room are part of the answer.
    Answer read(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_TYPE type, std::optional<std::size_t> room,
                CK_ULONG statedWithout = 0) const
    {
        constexpr std::size_t BEHIND = 4;
        Answer answer;
        answer.buffer.assign(room ? *room + BEHIND : 0, UNTOUCHED);
        CK_ATTRIBUTE attribute{type, room ? answer.buffer.data() : nullptr,
                               room.value_or(statedWithout)};
        answer.result = VELT_GetAttributeValue(session(), hObject, &attribute, 1);
        answer.length = attribute.ulValueLen;
        EXPECT_EQ(type, attribute.type);
        EXPECT_EQ(room ? answer.buffer.data() : nullptr, attribute.pValue);
        return answer;
    }

    // The value of an attribute that must be served.
    Bytes valueOf(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_TYPE type) const
    {
        constexpr std::size_t PLENTY = 5000;
        Answer answer = read(hObject, type, PLENTY);
        EXPECT_EQ(CKR_OK, answer.result) << "attribute " << type;
        if (answer.result != CKR_OK) {
            return {};
        }
        EXPECT_TRUE(std::all_of(answer.buffer.begin() + static_cast<std::ptrdiff_t>(answer.length),
                                answer.buffer.end(),
                                [](std::uint8_t byte) { return byte == UNTOUCHED; }));
        answer.buffer.resize(answer.length);
        return answer.buffer;
    }

    // What every read reports first.
    static std::vector<std::string> opening(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_TYPE type)
    {
        return {numbered("GetAttributeValue Attribute type = ", type),
                numbered("GetAttributeValue hObject = ", hObject)};
    }

private:
    static void fillEntry(ObjectEntry& entry, std::uint8_t base)
    {
        entry.isPrivate = static_cast<std::uint8_t>(base + 1);
        entry.isToken = static_cast<std::uint8_t>(base + 2);
        entry.isModifiable = static_cast<std::uint8_t>(base + 3);
        put(entry.id, series(static_cast<std::uint8_t>(base + 4), ID_SIZE));
    }

    static void fillCertificate(CertAttr& attr)
    {
        attr.certType = 0x0102030405060708;
        attr.trusted = 0x51;
        attr.category = 0x61;
        put(attr.startDate, series(0x60, 8));
        put(attr.endDate, series(0x70, 8));
        put(attr.value, series(0x80, 900));
        attr.valueLen = 900;
        put(attr.issuer, series(0x90, 120));
        attr.issuerLen = 120;
        put(attr.serial, series(0xA0, 18));
        attr.serialLen = 18;
        put(attr.subject, series(0xB0, 140));
        attr.subjectLen = 140;
    }

    static void fillPublicKey(PubKeyAttr& attr)
    {
        attr.keyType = CKK_RSA;
        attr.derive = 0x71;
        attr.local = 0x72;
        attr.encrypt = 0x73;
        attr.verify = 0x74;
        attr.verifyRecover = 0x75;
        attr.wrap = 0x76;
        attr.trusted = 0x77;
        put(attr.modulus, series(0xC0, 128));
        attr.modulusBits = 1024;
        put(attr.publicExponent, Bytes{1, 0, 1, 9, 9});
        attr.publicExponentLen = 3;
        put(attr.value, series(0xD0, 64));
        attr.valueLen = 64;
    }

    static void fillPrivateKey(PrivKeyAttr& attr)
    {
        attr.keyType = 0x1112131415161718;
        attr.derive = 0x81;
        attr.local = 0x82;
        attr.sensitive = 0x83;
        attr.decrypt = 0x84;
        attr.sign = 0x85;
        attr.signRecover = 0x86;
        attr.unwrap = 0x87;
        attr.extractable = 0x88;
        attr.alwaysSensitive = 0x89;
        attr.neverExtractable = 0x8A;
        attr.wrapWithTrusted = 0x8B;
        attr.alwaysAuthenticate = 0x8C;
    }
};

} // namespace velt_test::objects
