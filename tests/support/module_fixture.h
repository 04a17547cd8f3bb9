// Tests through the built module: it is loaded from its file and called through its function
// list, over the stand-in for PC/SC.
#pragma once

#include "sim/pcsc/standin.h"
#include "src/front/pkcs11.h"
#include "tests/support/codes.h"
#include "tests/support/fields.h"
#include "tests/support/known_cards.h"
#include "tests/support/messages.h"
#include "tests/support/paths.h"
#include "tests/support/refresh_messages.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>
#include <vector>

namespace velt_test {

namespace pcsc = sim::pcsc;

constexpr CK_FLAGS READ_ONLY = CKF_SERIAL_SESSION;
constexpr CK_FLAGS READ_WRITE = CKF_SERIAL_SESSION | CKF_RW_SESSION;
constexpr CK_SESSION_HANDLE NO_HANDLE = 0xD15EA5ED; // what an untouched handle still holds

// The built module in this process.
class Module {
public:
    explicit Module(const std::string& path) : library_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL))
    {
        if (library_ == nullptr) {
            throw std::runtime_error(dlerror());
        }
        CK_FUNCTION_LIST* list = nullptr;
        const auto getList = symbol<CK_C_GetFunctionList>("C_GetFunctionList");
        if (getList == nullptr || getList(&list) != CKR_OK || list == nullptr) {
            throw std::runtime_error("no function list");
        }
        list_ = reinterpret_cast<const VeltFunctionList*>(list);
    }

    // Loaded once a process and never unloaded.
    static const Module& shared()
    {
        static const Module module{velt_test::builtModule};
        return module;
    }

    // A second instance with state of its own, as if it had just been loaded. Never unloaded.
    static Module fresh()
    {
        namespace fs = std::filesystem;
        static int copies = 0;
        const fs::path copy =
            fs::path(velt_test::buildDirectory) /
            ("module-copy-" + std::to_string(getpid()) + "-" + std::to_string(++copies) + ".so");
        fs::copy_file(velt_test::builtModule, copy, fs::copy_options::overwrite_existing);
        Module module{copy.string()};
        fs::remove(copy);
        return module;
    }

    const VeltFunctionList& list() const { return *list_; }

    // An exported symbol, or NULL.
    template <class Pointer>
    Pointer symbol(const char* name) const
    {
        return reinterpret_cast<Pointer>(dlsym(library_, name));
    }

private:
    void* library_;
    const VeltFunctionList* list_ = nullptr;
};

class ModuleTest : public ::testing::Test {
protected:
    ModuleTest() : ModuleTest(Module::shared()) {}
    explicit ModuleTest(Module instance)
        : module(instance), list(module.list()), p11(module.list().standard)
    {
    }

    void SetUp() override { pcsc::reset(); }

    // Leaves the module finalised and without readers, whatever the test did.
    void TearDown() override
    {
        pcsc::reset();
        const CK_RV initialised = p11.C_Initialize(nullptr);
        EXPECT_TRUE(initialised == CKR_OK || initialised == CKR_CRYPTOKI_ALREADY_INITIALIZED)
            << codeName(initialised);
        EXPECT_RV(CKR_OK, list.C_SetSCContext(0));
        CK_ULONG count = 0;
        EXPECT_RV(CKR_OK, p11.C_GetSlotList(CK_FALSE, nullptr, &count));
        EXPECT_EQ(0U, count);
        EXPECT_RV(CKR_OK, p11.C_Finalize(nullptr));
    }

    void initialise() { ASSERT_RV(CKR_OK, p11.C_Initialize(nullptr)); }

    // A reader at the end of the list, with a card in it unless `card` is empty.
    static void plug(std::string_view reader, std::shared_ptr<sim::Card> card = nullptr)
    {
        pcsc::plugReader(reader);
        if (card != nullptr) {
            pcsc::insertCard(reader, std::move(card));
        }
    }

    // One C_GetSlotList call with room for every reader.
    std::vector<CK_SLOT_ID> slots(CK_BBOOL tokenPresent = CK_FALSE)
    {
        std::vector<CK_SLOT_ID> ids(512);
        CK_ULONG count = ids.size();
        EXPECT_RV(CKR_OK, p11.C_GetSlotList(tokenPresent, ids.data(), &count));
        EXPECT_LE(count, ids.size());
        ids.resize(count < ids.size() ? count : 0);
        return ids;
    }

    // Refreshes the module's view of the readers.
    void refresh()
    {
        CK_ULONG count = 0;
        ASSERT_RV(CKR_OK, p11.C_GetSlotList(CK_FALSE, nullptr, &count));
    }

    CK_SLOT_INFO slotInfo(CK_SLOT_ID slot)
    {
        CK_SLOT_INFO info{};
        EXPECT_RV(CKR_OK, p11.C_GetSlotInfo(slot, &info));
        return info;
    }

    CK_SESSION_HANDLE open(CK_SLOT_ID slot, CK_FLAGS flags = READ_WRITE)
    {
        CK_SESSION_HANDLE session = NO_HANDLE;
        EXPECT_RV(CKR_OK, p11.C_OpenSession(slot, flags, nullptr, nullptr, &session));
        EXPECT_NE(NO_HANDLE, session);
        return session;
    }

    CK_SESSION_INFO sessionInfo(CK_SESSION_HANDLE session)
    {
        CK_SESSION_INFO info{};
        EXPECT_RV(CKR_OK, p11.C_GetSessionInfo(session, &info));
        return info;
    }

    CK_RV login(CK_SESSION_HANDLE session, std::string_view pin, CK_USER_TYPE user = CKU_USER)
    {
        std::vector<CK_UTF8CHAR> bytes(pin.begin(), pin.end());
        bytes.push_back(0xEE); // never part of the PIN
        return p11.C_Login(session, user, bytes.data(), pin.size());
    }

    const Module module;
    const VeltFunctionList& list;
    const CK_FUNCTION_LIST& p11;
};

// The same on an instance of the module that nobody has called before.
class FreshModuleTest : public ModuleTest {
protected:
    FreshModuleTest() : ModuleTest(Module::fresh()) {}
};

} // namespace velt_test
