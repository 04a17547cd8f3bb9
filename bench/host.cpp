#include "bench/host.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>

namespace bench {

void fail(const std::string& what)
{
    std::fprintf(stderr, "bench: %s\n", what.c_str());
    std::exit(EXIT_FAILURE);
}

void require(bool done, const char* what)
{
    if (!done) {
        fail(std::string(what) + " failed");
    }
}

void require(CK_RV result, const char* what)
{
    if (result != CKR_OK) {
        fail(std::string(what) + " failed with " + std::to_string(result));
    }
}

Module::Module(const std::string& path) : library_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL))
{
    if (library_ == nullptr) {
        fail(dlerror());
    }
    const auto getList =
        reinterpret_cast<CK_C_GetFunctionList>(dlsym(library_, "C_GetFunctionList"));
    require(getList != nullptr, "finding C_GetFunctionList");
    require(getList(&list_), "C_GetFunctionList");
    require(list_->C_Initialize(nullptr), "C_Initialize");
}

Module::~Module()
{
    list_->C_Finalize(nullptr);
    dlclose(library_);
}

Session::Session(const Module& ofModule) : module(ofModule)
{
    std::array<CK_SLOT_ID, 16> slots{};
    CK_ULONG count = slots.size();
    require(module->C_GetSlotList(CK_TRUE, slots.data(), &count), "C_GetSlotList");
    require(count > 0, "finding a token");
    slot = slots[0];
    require(
        module->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &handle),
        "C_OpenSession");
}

Session::~Session()
{
    module->C_CloseSession(handle);
}

void Session::login() const
{
    std::array<CK_BYTE, 4> pin{};
    std::copy_n(PIN, pin.size(), pin.begin());
    require(module->C_Login(handle, CKU_USER, pin.data(), pin.size()), "C_Login");
}

void Session::logout() const
{
    require(module->C_Logout(handle), "C_Logout");
}

std::vector<CK_OBJECT_HANDLE> Session::find(std::span<CK_ATTRIBUTE> wanted) const
{
    std::vector<CK_OBJECT_HANDLE> handles(65536);
    CK_ULONG count = 0;
    require(module->C_FindObjectsInit(handle, wanted.data(), wanted.size()), "C_FindObjectsInit");
    require(module->C_FindObjects(handle, handles.data(), handles.size(), &count), "C_FindObjects");
    require(module->C_FindObjectsFinal(handle), "C_FindObjectsFinal");
    handles.resize(count);
    return handles;
}

CK_OBJECT_HANDLE Session::first(CK_OBJECT_CLASS objClass) const
{
    std::array<CK_ATTRIBUTE, 1> wanted{{{CKA_CLASS, &objClass, sizeof objClass}}};
    for (const CK_OBJECT_HANDLE found : find(wanted)) {
        if (objClass == CKO_CERTIFICATE) {
            return found;
        }
        const Bytes type = attribute(found, CKA_KEY_TYPE);
        const CK_KEY_TYPE rsa = CKK_RSA;
        if (type.size() == sizeof rsa && std::memcmp(type.data(), &rsa, sizeof rsa) == 0) {
            return found;
        }
    }
    fail("no object of class " + std::to_string(objClass));
}

Bytes Session::attribute(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const
{
    Bytes value(8192);
    CK_ATTRIBUTE attribute{type, value.data(), value.size()};
    require(module->C_GetAttributeValue(handle, object, &attribute, 1), "C_GetAttributeValue");
    value.resize(attribute.ulValueLen);
    return value;
}

std::size_t Session::sign(CK_OBJECT_HANDLE key, std::span<std::uint8_t> signature) const
{
    // SHA-256 of nothing in particular.
    std::array<CK_BYTE, 51> digestInfo{0x30, 0x31, 0x30, 0x0D, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                       0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
    CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
    CK_ULONG length = signature.size();
    require(module->C_SignInit(handle, &mechanism, key), "C_SignInit");
    require(module->C_Sign(handle, digestInfo.data(), digestInfo.size(), signature.data(), &length),
            "C_Sign");
    return length;
}

void Session::reload() const
{
    require(module->C_DestroyObject(handle, 0), "loading the objects again");
}

} // namespace bench
