// A session on a listed slot, a driver whose operations are the test's own, and an object table
// that the test fills.
#pragma once

#include "sim/cards/card.h"
#include "sim/pcsc/standin.h"
#include "src/core/bytes.h"
#include "src/core/readers.h"
#include "src/core/session.h"
#include "src/core/token_driver.h"
#include "src/front/lock.h"
#include "src/front/pkcs11.h"
#include "src/front/state.h"
#include "src/objects/object_table.h"
#include "src/objects/search.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velt_test::objects {

using Bytes = std::vector<std::uint8_t>;

// A card that is recognised by its ATR and refuses every command.
class MuteCard final : public sim::Card {
public:
    explicit MuteCard(sim::Bytes atrBytes) : atr_(std::move(atrBytes)) {}
    sim::Bytes atr() const override { return atr_; }
    unsigned long protocol() const override { return SCARD_PROTOCOL_T0; }
    void reset() override {}
    sim::Bytes transmit(std::span<const std::uint8_t>) override { return {0x6F, 0x00}; }

private:
    sim::Bytes atr_;
};

const sim::Bytes ATR_OF_ID_CARD{0x3B, 0x77, 0x18, 0x00, 0x00, 0x4B,
                                0x41, 0x53, 0x41, 0x4B, 0x49, 0x44};

// One call of a driver operation; `argument` is the object handle, 0 where there is none.
struct DriverCall {
    std::string operation;
    CK_SESSION_HANDLE hSession = 0;
    std::uint64_t argument = 0;
    bool operator==(const DriverCall&) const = default;
};

inline void PrintTo(const DriverCall& call, std::ostream* out)
{
    *out << call.operation << "(" << call.hSession << ", " << call.argument << ")";
}

// The test's own driver: what was called, and what each call then does.
struct ScriptedDriver {
    std::vector<DriverCall> calls;
    std::function<CK_RV()> objectsInit = [] { return CKR_OK; };
    std::function<CK_RV(std::uint64_t)> getPublicKey = [](std::uint64_t) { return CKR_OK; };
    std::function<CK_RV(std::uint64_t)> getCertificate = [](std::uint64_t) { return CKR_OK; };
};

inline ScriptedDriver scripted;

inline CK_RV scriptedObjectsInit(TokenDriver* table, CK_SESSION_HANDLE hSession) noexcept
{
    EXPECT_EQ(&stVELTTokens, table);
    scripted.calls.push_back({"ObjectsInit", hSession, 0});
    return scripted.objectsInit();
}

inline CK_RV scriptedGetPublicKey(TokenDriver* table, CK_SESSION_HANDLE hSession,
                                  CK_OBJECT_HANDLE hObject) noexcept
{
    EXPECT_EQ(&stVELTTokens, table);
    scripted.calls.push_back({"GetPublicKey", hSession, hObject});
    return scripted.getPublicKey(hObject);
}

inline CK_RV scriptedGetCertificate(TokenDriver* table, CK_SESSION_HANDLE hSession,
                                    CK_OBJECT_HANDLE hObject) noexcept
{
    EXPECT_EQ(&stVELTTokens, table);
    scripted.calls.push_back({"GetCertificate", hSession, hObject});
    return scripted.getCertificate(hObject);
}

// Copies `bytes` to the start of `field` and zeroes the rest of it.
inline void put(std::span<std::uint8_t> field, std::span<const std::uint8_t> bytes)
{
    ASSERT_LE(bytes.size(), field.size());
    std::ranges::fill(field, std::uint8_t{0});
    velt::copyBounded(field, bytes);
}

inline Bytes bytesOf(std::string_view text)
{
    return {text.begin(), text.end()};
}

// While one lives, an entry has no block.
class WithoutBlock {
public:
    explicit WithoutBlock(ObjectEntry& entry)
        : entry_(entry), block_(std::exchange(entry.attrs, nullptr))
    {
    }
    ~WithoutBlock() { entry_.attrs = block_; }
    WithoutBlock(const WithoutBlock&) = delete;
    WithoutBlock& operator=(const WithoutBlock&) = delete;

private:
    ObjectEntry& entry_;
    void* block_;
};

class ObjectWorld : public ::testing::Test {
protected:
    static constexpr const char* READER = "Reader A";

    void SetUp() override
    {
        scripted = {};
        sim::pcsc::reset();
        sim::pcsc::plugReader(READER);
        sim::pcsc::insertCard(READER, std::make_shared<MuteCard>(ATR_OF_ID_CARD));
        startModule();
        open_ = openSession(0);
        scripted.calls.clear();
    }

    void TearDown() override
    {
        if (velt::isInitialised()) {
            EXPECT_EQ(CKR_OK, C_Finalize(nullptr));
        }
        EXPECT_TRUE(velt::rebuildObjects(0));
        bFindInit = 0;
        ulTCount = 0;
        stVELTTokens = {};
    }

    // Initialises the module, lists the slots and puts the test's operations into the driver table.
    static void startModule()
    {
        ASSERT_EQ(CKR_OK, C_Initialize(nullptr));
        listSlots();
        stVELTTokens = {};
        stVELTTokens.type = TOKEN_IDC;
        stVELTTokens.ObjectsInit = scriptedObjectsInit;
        stVELTTokens.GetPublicKey = scriptedGetPublicKey;
        stVELTTokens.GetCertificate = scriptedGetCertificate;
    }

    // Refreshes the reader table as C_GetSlotList does. The object table counts as current after.
    static void listSlots()
    {
        CK_ULONG count = 0;
        ASSERT_EQ(CKR_OK, VELT_GetSlotList(CK_FALSE, nullptr, &count));
        oiFlags = 0;
    }

    static CK_SESSION_HANDLE openSession(CK_SLOT_ID slotID)
    {
        CK_SESSION_HANDLE handle = 0;
        EXPECT_EQ(CKR_OK, VELT_OpenSession(slotID, CKF_SERIAL_SESSION, nullptr, nullptr, &handle));
        EXPECT_EQ(sessCount, handle);
        return handle;
    }

    // The session opened at the start.
    CK_SESSION_HANDLE session() const { return open_; }

    // Starts a table of empty entries.
    static void makeTable(std::size_t entries) { ASSERT_TRUE(velt::rebuildObjects(entries)); }

    // Fills the next entry; the table must have room.
    static ObjectEntry& addObject(CK_OBJECT_CLASS objClass, std::string_view label = "")
    {
        ObjectEntry& entry = *velt::entryAt(ulObjCount);
        ++ulObjCount;
        entry.handle = ulObjCount;
        entry.familyCode = FAMILY_CODE_IDC;
        entry.objClass = objClass;
        entry.isToken = 1;
        put(entry.label, bytesOf(label));
        return entry;
    }

    static ObjectEntry& addCertificate(std::string_view label = "")
    {
        ObjectEntry& entry = addObject(CKO_CERTIFICATE, label);
        EXPECT_NE(nullptr, velt::attachCertificate(entry));
        return entry;
    }

    static ObjectEntry& addPublicKey(std::string_view label = "")
    {
        ObjectEntry& entry = addObject(CKO_PUBLIC_KEY, label);
        EXPECT_NE(nullptr, velt::attachPublicKey(entry));
        return entry;
    }

    static ObjectEntry& addPrivateKey(std::string_view label = "")
    {
        ObjectEntry& entry = addObject(CKO_PRIVATE_KEY, label);
        EXPECT_NE(nullptr, velt::attachPrivateKey(entry));
        return entry;
    }

private:
    CK_SESSION_HANDLE open_ = 0;
};

} // namespace velt_test::objects
