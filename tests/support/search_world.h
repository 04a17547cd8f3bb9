// What tests of the object search share: templates, steps that check their outputs, and tables.
#pragma once

#include "tests/support/messages.h"
#include "tests/support/object_world.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

namespace velt_test::objects {

using Handles = std::vector<CK_OBJECT_HANDLE>;

constexpr CK_OBJECT_HANDLE SENTINEL = 0xA5A5A5A5A5A5A5A5;
constexpr CK_SESSION_HANDLE NEVER_ISSUED = 0x7FFFFFFF;
constexpr CK_ATTRIBUTE_TYPE UNKNOWN_ATTRIBUTE = CKA_APPLICATION;

// A search template with the values it points to.
class Template {
public:
    Template& add(CK_ATTRIBUTE_TYPE type, Bytes value)
    {
        values_.push_back(std::make_shared<Bytes>(std::move(value)));
        Bytes& kept = *values_.back();
        attributes_.push_back({type, kept.data(), kept.size()});
        return *this;
    }
    Template& addNull(CK_ATTRIBUTE_TYPE type, CK_ULONG length = 0)
    {
        attributes_.push_back({type, nullptr, length});
        return *this;
    }
    Template& addClass(CK_OBJECT_CLASS objClass)
    {
        Bytes value(sizeof objClass);
        std::memcpy(value.data(), &objClass, sizeof objClass);
        return add(CKA_CLASS, std::move(value));
    }
    // States another length than the value has.
    Template& withLength(CK_ULONG length)
    {
        attributes_.back().ulValueLen = length;
        return *this;
    }
    std::vector<CK_ATTRIBUTE> attributes() const { return attributes_; }

private:
    std::vector<std::shared_ptr<Bytes>> values_;
    std::vector<CK_ATTRIBUTE> attributes_;
};

inline Template empty()
{
    return {};
}

inline Template certificates()
{
    return Template{}.addClass(CKO_CERTIFICATE);
}

class SearchWorld : public ObjectWorld {
protected:
    CK_RV init(const Template& search) const
    {
        std::vector<CK_ATTRIBUTE> attributes = search.attributes();
        return VELT_FindObjectsInit(session(), attributes.data(), attributes.size());
    }

    // One step; what it handed out. Nothing behind that may be written.
    Handles next(CK_ULONG limit, std::size_t room)
    {
        Handles handles(room + 1, SENTINEL);
        CK_ULONG count = NEVER_ISSUED;
        EXPECT_EQ(CKR_OK, VELT_FindObjects(session(), handles.data(), limit, &count));
        EXPECT_LE(count, room);
        EXPECT_TRUE(std::all_of(handles.begin() + static_cast<std::ptrdiff_t>(count), handles.end(),
                                [](CK_OBJECT_HANDLE handle) { return handle == SENTINEL; }));
        handles.resize(count);
        return handles;
    }

    // A whole search in one step.
    Handles find(const Template& search)
    {
        EXPECT_EQ(CKR_OK, init(search));
        Handles found = next(0, 1000);
        EXPECT_EQ(CKR_OK, VELT_FindObjectsFinal(session()));
        return found;
    }

    // A certificate whose fields are all there.
    static CertAttr& addLoadedCertificate(std::string_view label = "")
    {
        CertAttr& attr = *velt::certificateOf(&addCertificate(label));
        setField(attr.value, attr.valueLen, {0x30, 0x01});
        setField(attr.issuer, attr.issuerLen, {0x30, 0x02});
        setField(attr.subject, attr.subjectLen, {0x30, 0x03});
        setField(attr.serial, attr.serialLen, {0x02, 0x04});
        return attr;
    }

    static void setField(std::span<std::uint8_t> field, std::uint64_t& length, const Bytes& bytes)
    {
        put(field, bytes);
        length = bytes.size();
    }

    // Ten objects: two of each kind with and without a label, in a table of twelve entries.
    static void makeMixedTable()
    {
        makeTable(12);
        addLoadedCertificate("one"); // 1
        addPublicKey("one");         // 2
        addPrivateKey("one");        // 3
        addLoadedCertificate();      // 4
        addPublicKey();              // 5
        addPrivateKey();             // 6
        addPrivateKey("two").isPrivate = 1;
        addPublicKey("two").isModifiable = 1;
        addPublicKey("two").isToken = 0;
        addPublicKey("two").id[0] = 0x87;
    }
};

} // namespace velt_test::objects
