// A PKCS#11 module under measurement, loaded and used as a host does. Whatever fails ends the
// program: a figure of a call that did nothing is none.
#pragma once

#include "src/front/pkcs11.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace bench {

using Bytes = std::vector<std::uint8_t>;

inline constexpr const char* PIN = "1234"; // of every card and token in the measurements

[[noreturn]] void fail(const std::string& what);
void require(bool done, const char* what);
void require(CK_RV result, const char* what); // CKR_OK, that is

// The module of a file, initialised; finalised and unloaded at the end.
class Module {
public:
    explicit Module(const std::string& path);
    ~Module();
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    CK_FUNCTION_LIST* operator->() const { return list_; }

private:
    void* library_;
    CK_FUNCTION_LIST* list_ = nullptr;
};

// A read-write session on the first slot with a token.
class Session {
public:
    explicit Session(const Module& module);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const Module& module;
    CK_SLOT_ID slot = 0;
    CK_SESSION_HANDLE handle = 0;

    void login() const;
    void logout() const;
    std::vector<CK_OBJECT_HANDLE> find(std::span<CK_ATTRIBUTE> wanted) const;
    // The first one of its class; for keys, with the type RSA.
    CK_OBJECT_HANDLE first(CK_OBJECT_CLASS objClass) const;
    Bytes attribute(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const;
    // Signs a DigestInfo with CKM_RSA_PKCS; returns the signature's length.
    std::size_t sign(CK_OBJECT_HANDLE key, std::span<std::uint8_t> signature) const;
    // Makes the module load the token's objects again: the destruction of no object.
    void reload() const;
};

} // namespace bench
