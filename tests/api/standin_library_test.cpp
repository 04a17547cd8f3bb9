// The PC/SC stand-in as a shared library: loaded under libpcsclite's name, it offers the whole API
// over the same readers that the test controls.
#include "sim/pcsc/standin.h"

#include <winscard.h>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <memory>

namespace {

struct Closer {
    void operator()(void* library) const { dlclose(library); }
};

// Finds the library only if it is loaded already, as one that a module needs is.
std::unique_ptr<void, Closer> loaded()
{
    return std::unique_ptr<void, Closer>(dlopen("libpcsclite.so.1", RTLD_NOW | RTLD_NOLOAD));
}

TEST(StandInLibrary, ExportsEveryFunctionAndObjectOfTheApi)
{
    const auto library = loaded();
    ASSERT_NE(library, nullptr) << dlerror();
    for (const char* name : {"SCardEstablishContext", "SCardReleaseContext", "SCardIsValidContext",
                             "SCardConnect",          "SCardReconnect",      "SCardDisconnect",
                             "SCardBeginTransaction", "SCardEndTransaction", "SCardStatus",
                             "SCardGetStatusChange",  "SCardControl",        "SCardTransmit",
                             "SCardListReaderGroups", "SCardListReaders",    "SCardFreeMemory",
                             "SCardCancel",           "SCardGetAttrib",      "SCardSetAttrib",
                             "pcsc_stringify_error",  "g_rgSCardT0Pci",      "g_rgSCardT1Pci",
                             "g_rgSCardRawPci"}) {
        EXPECT_NE(dlsym(library.get(), name), nullptr) << name;
    }
}

TEST(StandInLibrary, SharesItsReadersWithTheTest)
{
    sim::pcsc::reset();
    sim::pcsc::plugReader("Reader A");
    const auto library = loaded();
    ASSERT_NE(library, nullptr) << dlerror();
    void* const establishAddress = dlsym(library.get(), "SCardEstablishContext");
    void* const listAddress = dlsym(library.get(), "SCardListReaders");
    const auto establish = reinterpret_cast<decltype(&SCardEstablishContext)>(establishAddress);
    const auto list = reinterpret_cast<decltype(&SCardListReaders)>(listAddress);
    SCARDCONTEXT context = 0;
    ASSERT_EQ(establish(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context), SCARD_S_SUCCESS);
    char names[16];
    DWORD length = sizeof names;
    EXPECT_EQ(list(context, nullptr, names, &length), SCARD_S_SUCCESS);
    EXPECT_EQ(std::string(names, length), std::string("Reader A\0\0", 10));
    EXPECT_EQ(sim::pcsc::openContexts(), 1u);
    sim::pcsc::reset();
}

} // namespace
