// A session on a scripted card of one of the two applet families, which keep their keys and
// certificates as named objects and differ in what an Applet says. What both do alike is tested
// once, in tests/tokens/applets.
#pragma once

#include "src/core/token_driver.h"
#include "tests/support/certificate_templates.h"
#include "tests/support/token_fixture.h"

namespace velt_test {

// The type codes of what the card can hold under one name.
enum Part : std::uint8_t {
    GOST_PRIVATE = 0,
    GOST_PUBLIC = 1,
    CERTIFICATE = 2,
    RSA_PAIR = 3,
};

constexpr CK_KEY_TYPE GOST_KEY_TYPE = 0x84B5A001;
constexpr std::string_view NO_SUCH_PART = "64 28";

// A name on the card, and which parts are under it.
struct Named {
    Bytes name;
    std::vector<Part> parts;

    bool has(Part part) const { return std::ranges::find(parts, part) != parts.end(); }
};

// `00 n N`, by which a command names its object, behind its length.
inline Bytes counted(const Bytes& name)
{
    return Bytes{std::uint8_t(name.size() + 2), 0x00, std::uint8_t(name.size())} + name;
}

// A family: its operations and their state, and where its commands are its own.
struct Applet {
    std::string name; // the first word of its messages
    std::string_view atr;
    const TokenDriver& operations;
    std::uint64_t (*selectApplet)(CK_SESSION_HANDLE);
    std::uint8_t& selected;
    CK_MECHANISM& signMechanism;
    std::uint64_t& signKey;
    std::vector<ExchangeStep> selection; // fails: which step ends it
    std::uint8_t pinReference;           // P1 of VERIFY
    std::size_t nameCapacity;
    Bytes nameEnd;      // what the card sends behind a name
    std::uint8_t probe; // P1 of the check for a part
    std::uint8_t deletion;
    CK_MECHANISM_TYPE gostSign; // as SignInit takes it
    // Messages without the first word, empty where there are none.
    std::string noObjects; // a load that finds no names
    std::string labelTooLong;
    std::string idLength;
    std::string unknownType;
    // The exchanges that read and that write what is stored of a certificate.
    std::vector<ExchangeStep> (*reading)(const Bytes& name, const Bytes& stored);
    std::vector<ExchangeStep> (*writing)(const Bytes& name, const Bytes& stored);
};

class AppletTest : public TokenTest {
protected:
    explicit AppletTest(const Applet& itsFamily) : family(itsFamily) {}

    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(insert(family.atr));
        begin();
    }

    // The applet is selected, and nothing loaded.
    void begin()
    {
        start();
        family.selected = 1;
        family.signMechanism = {};
        family.signKey = 0;
    }

    // The message, if there is one.
    std::vector<std::string> toldIf(const std::string& text) const
    {
        return text.empty() ? std::vector<std::string>{} : std::vector{told(text)};
    }
    // A message of the family.
    std::string told(const std::string& text) const { return family.name + ' ' + text; }
    std::string told(const std::string& text, std::uint64_t number) const
    {
        return numbered(told(text), number);
    }

    Bytes probeFor(const Bytes& name, Part part) const
    {
        return Bytes{0x80,
                     0x12,
                     family.probe,
                     0x00,
                     std::uint8_t(name.size() + 4),
                     0x00,
                     std::uint8_t(name.size())} +
               name + Bytes{0x00, part};
    }
    static Bytes getName(std::size_t position)
    {
        return hex("80 12 21 00 02 00") + Bytes{std::uint8_t(position & 0xFF)};
    }

    void expectSteps(const std::vector<ExchangeStep>& steps)
    {
        for (const ExchangeStep& step : steps) {
            expect(step.command, step.reply, step.capacity);
        }
    }
    void expectSelection() { expectSteps(family.selection); }
    void expectCount(std::size_t count)
    {
        expect(hex("80 12 22 00 00"), bigEndian(count) + hex(OK), 4);
    }
    void expectName(std::size_t position, const Bytes& name)
    {
        expect(getName(position), name + family.nameEnd + hex(OK), family.nameCapacity);
    }
    void expectProbe(const Named& object, Part part)
    {
        expect(probeFor(object.name, part), hex(object.has(part) ? OK : NO_SUCH_PART), 258);
    }
    void expectProbes(const Named& object)
    {
        for (const Part part : {GOST_PRIVATE, GOST_PUBLIC, CERTIFICATE, RSA_PAIR}) {
            expectProbe(object, part);
        }
    }
    void expectLoad(const std::vector<Named>& objects)
    {
        expectCount(objects.size());
        for (std::size_t i = 0; i < objects.size(); ++i) {
            expectName(i, objects[i].name);
            expectProbes(objects[i]);
        }
    }
    CK_RV loadObjects() { return family.operations.ObjectsInit(table, session); }
    void load(const std::vector<Named>& objects)
    {
        expectLoad(objects);
        ASSERT_EQ(0U, loadObjects());
        expectAllExchanged();
        mark.reset();
    }
    std::vector<std::string> loadTold(std::size_t entries) const
    {
        return {told("ObjectsInit Objects Count = ", entries), told("ObjectsInit CKR_OK")};
    }

    // What is made of the name at a position of the card's list, as entries from `first` on; the
    // number of the entry behind them.
    static std::size_t expectEntries(std::size_t first, std::size_t position, const Named& object)
    {
        std::size_t next = first;
        for (const Part part : {GOST_PRIVATE, GOST_PUBLIC, CERTIFICATE, RSA_PAIR}) {
            if (!object.has(part)) {
                continue;
            }
            switch (part) {
            case GOST_PRIVATE:
                expectPrivateKey(next++, position, object.name, GOST_KEY_TYPE);
                break;
            case GOST_PUBLIC:
                expectPublicKey(next++, position, object.name, GOST_KEY_TYPE);
                break;
            case CERTIFICATE:
                expectCertificateEntry(next++, position, object.name);
                break;
            case RSA_PAIR:
                expectPublicKey(next++, position, object.name, CKK_RSA);
                expectPrivateKey(next++, position, object.name, CKK_RSA);
                break;
            }
        }
        return next;
    }
    static void expectPrivateKey(std::size_t entry, std::size_t position, const Bytes& name,
                                 CK_KEY_TYPE type)
    {
        SCOPED_TRACE(entry);
        expectEntry(entry, position, name, CKO_PRIVATE_KEY);
        PrivKeyAttr block = privKeyAttrTempl;
        block.keyType = type;
        expectBlock(entry, &block, sizeof block);
    }
    static void expectPublicKey(std::size_t entry, std::size_t position, const Bytes& name,
                                CK_KEY_TYPE type)
    {
        SCOPED_TRACE(entry);
        expectEntry(entry, position, name, CKO_PUBLIC_KEY);
        PubKeyAttr block = pubKeyAttrTempl;
        block.keyType = type;
        expectBlock(entry, &block, sizeof block);
    }
    static void expectCertificateEntry(std::size_t entry, std::size_t position, const Bytes& name)
    {
        SCOPED_TRACE(entry);
        expectEntry(entry, position, name, CKO_CERTIFICATE);
        expectBlock(entry, &certAttrTempl, sizeof certAttrTempl);
    }
    // Both families write 4.
    static void expectEntry(std::size_t entry, std::size_t position, const Bytes& name,
                            CK_OBJECT_CLASS objClass)
    {
        const ObjectEntry* made = velt::entryAt(entry);
        ASSERT_TRUE(velt::isLive(made));
        EXPECT_EQ(entry + 1, made->handle);
        EXPECT_EQ(4U, made->familyCode);
        EXPECT_EQ(objClass, made->objClass);
        EXPECT_EQ(objClass == CKO_PRIVATE_KEY ? 1 : 0, made->isPrivate);
        EXPECT_EQ(1, made->isToken);
        EXPECT_EQ(0, made->isModifiable);
        EXPECT_EQ(padded(labelOf(name), LABEL_SIZE),
                  Bytes(std::begin(made->label), std::end(made->label)));
        EXPECT_EQ(padded(name, CARD_NAME_SIZE),
                  Bytes(std::begin(made->cardName), std::end(made->cardName)));
        EXPECT_EQ(name.size(), made->cardNameLen);
        EXPECT_EQ(padded({std::uint8_t(position & 0xFF)}, ID_SIZE),
                  Bytes(std::begin(made->id), std::end(made->id)));
    }
    static void expectBlock(std::size_t entry, const void* block, std::size_t size)
    {
        ASSERT_TRUE(velt::isLive(velt::entryAt(entry)));
        EXPECT_EQ(0, std::memcmp(block, velt::entryAt(entry)->attrs, size));
    }
    static Bytes padded(Bytes bytes, std::size_t size)
    {
        bytes.resize(size);
        return bytes;
    }
    // A name in upper-case hexadecimal, as characters.
    static Bytes labelOf(const Bytes& name)
    {
        static constexpr std::string_view DIGITS = "0123456789ABCDEF";
        Bytes label;
        for (const std::uint8_t byte : name) {
            label.push_back(static_cast<std::uint8_t>(DIGITS[byte >> 4]));
            label.push_back(static_cast<std::uint8_t>(DIGITS[byte & 0xF]));
        }
        return label;
    }

    // 64 reply bytes turned round within each half.
    static Bytes turned(const Bytes& bytes)
    {
        Bytes out(64);
        for (std::size_t k = 0; k < 32; ++k) {
            out[k] = bytes.at(31 - k);
            out[32 + k] = bytes.at(63 - k);
        }
        return out;
    }
    static Bytes reversed(const Bytes& bytes) { return {bytes.rbegin(), bytes.rend()}; }

    // The block of an RSA signature.
    static Bytes paddedBlock(const Bytes& data)
    {
        return hex("00 01") + Bytes(253 - data.size(), 0xFF) + Bytes{0x00} + data;
    }

    CK_RV getPublicKey(CK_OBJECT_HANDLE handle)
    {
        return family.operations.GetPublicKey(table, session, handle);
    }
    CK_RV getCertificate(CK_OBJECT_HANDLE handle)
    {
        return family.operations.GetCertificate(table, session, handle);
    }
    CK_RV destroy(CK_OBJECT_HANDLE handle)
    {
        return family.operations.DestroyObject(table, session, handle);
    }
    CK_RV login(std::string_view pin)
    {
        std::vector<CK_UTF8CHAR> exact(pin.begin(), pin.end());
        exact.reserve(1);
        return family.operations.Login(table, session, exact.data(), exact.size());
    }

    CK_RV signInit(CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key)
    {
        CK_MECHANISM mechanism{type, nullptr, 0};
        return family.operations.SignInit(table, session, &mechanism, key);
    }
    void init(CK_MECHANISM_TYPE type, CK_OBJECT_HANDLE key)
    {
        ASSERT_EQ(CKR_OK, signInit(type, key));
        mark.reset();
    }
    CK_RV sign(const Bytes& data, CK_ULONG room = 512)
    {
        Bytes exact = data;
        exact.shrink_to_fit();
        exact.reserve(1);
        signature.assign(room + 8, SENTINEL);
        length = room;
        return family.operations.Sign(table, session, exact.data(), exact.size(), signature.data(),
                                      &length);
    }
    // The signature, its length, and nothing written behind it.
    void expectSignature(const Bytes& wanted, std::size_t room = 512)
    {
        EXPECT_EQ(wanted.size(), length);
        EXPECT_EQ(wanted + Bytes(room + 8 - wanted.size(), SENTINEL), signature);
    }
    void expectNoSignature(std::size_t room = 512)
    {
        EXPECT_EQ(room, length);
        EXPECT_EQ(Bytes(room + 8, SENTINEL), signature);
    }

    CK_RV create(std::vector<Attribute> attributes)
    {
        auto rows = asTemplate(attributes);
        CK_OBJECT_HANDLE handle = 4711;
        const CK_RV result =
            family.operations.CreateObject(table, session, rows.data(), rows.size(), &handle);
        EXPECT_EQ(4711U, handle); // not told
        return result;
    }
    CK_RV createNamed(const Bytes& name, const Bytes& value)
    {
        return create(
            {classIs(CKO_CERTIFICATE), onToken(1), {CKA_LABEL, labelOf(name)}, {CKA_VALUE, value}});
    }
    CK_RV createAt(std::uint8_t id, const Bytes& value)
    {
        return create({classIs(CKO_CERTIFICATE), onToken(1), {CKA_VALUE, value}, {CKA_ID, {id}}});
    }

    CK_RV generate(CK_MECHANISM_TYPE type)
    {
        CK_MECHANISM mechanism{type, nullptr, 0};
        publicHandle = 4711;
        privateHandle = 4712;
        return family.operations.GenerateKeyPair(table, session, &mechanism, nullptr, 0, nullptr, 0,
                                                 &publicHandle, &privateHandle);
    }

    const Applet& family;
    Bytes signature;
    CK_ULONG length = 0;
    CK_OBJECT_HANDLE publicHandle = 0;
    CK_OBJECT_HANDLE privateHandle = 0;
};

} // namespace velt_test
