// A token family of the tests' own: records what the core asks of each operation and answers what
// the test told it to.
#pragma once

#include "src/core/token_driver.h"
#include "src/front/state.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace velt_test::fake {

// One call of an operation. Pointers are kept as they came.
struct Asked {
    std::string operation;
    CK_ULONG session = 0; // or the slot
    std::vector<const void*> pointers;
    std::vector<CK_ULONG> numbers;
    bool reloadPending = false; // the reload flag while the operation ran
    bool tableGiven = false;    // the first argument was the table in use
    bool operator==(const Asked&) const = default;
};

struct World {
    std::map<std::string, CK_RV> answers; // 0 for what is not told
    std::vector<Asked> asked;
};

inline World& world()
{
    static World instance;
    return instance;
}

inline CK_RV note(const char* operation, const TokenDriver* table, CK_ULONG session,
                  std::vector<const void*> pointers, std::vector<CK_ULONG> numbers)
{
    world().asked.push_back({operation, session, std::move(pointers), std::move(numbers),
                             (oiFlags & RELOAD_OBJECTS) != 0, table == &stVELTTokens});
    const auto found = world().answers.find(operation);
    return found == world().answers.end() ? CKR_OK : found->second;
}

inline CK_RV getTokenInfo(TokenDriver* table, CK_SLOT_ID slot, CK_TOKEN_INFO* info) noexcept
{
    return note("GetTokenInfo", table, slot, {info}, {});
}

inline CK_RV getMechanismList(TokenDriver* table, CK_MECHANISM_TYPE* list, CK_ULONG* count) noexcept
{
    return note("GetMechanismList", table, 0, {list, count}, {});
}

inline CK_RV login(TokenDriver* table, CK_SESSION_HANDLE session, CK_UTF8CHAR* pin,
                   CK_ULONG length) noexcept
{
    return note("Login", table, session, {pin}, {length});
}

inline CK_RV logout(TokenDriver* table, CK_SESSION_HANDLE session) noexcept
{
    return note("Logout", table, session, {}, {});
}

inline CK_RV objectsInit(TokenDriver* table, CK_SESSION_HANDLE session) noexcept
{
    return note("ObjectsInit", table, session, {}, {});
}

inline CK_RV createObject(TokenDriver* table, CK_SESSION_HANDLE session, CK_ATTRIBUTE* attributes,
                          CK_ULONG count, CK_OBJECT_HANDLE* object) noexcept
{
    return note("CreateObject", table, session, {attributes, object}, {count});
}

inline CK_RV generateKeyPair(TokenDriver* table, CK_SESSION_HANDLE session, CK_MECHANISM* mechanism,
                             CK_ATTRIBUTE* publicTemplate, CK_ULONG publicCount,
                             CK_ATTRIBUTE* privateTemplate, CK_ULONG privateCount,
                             CK_OBJECT_HANDLE* publicKey, CK_OBJECT_HANDLE* privateKey) noexcept
{
    return note("GenerateKeyPair", table, session,
                {mechanism, publicTemplate, privateTemplate, publicKey, privateKey},
                {publicCount, privateCount});
}

inline CK_RV signInit(TokenDriver* table, CK_SESSION_HANDLE session, CK_MECHANISM* mechanism,
                      CK_OBJECT_HANDLE key) noexcept
{
    return note("SignInit", table, session, {mechanism}, {key});
}

inline CK_RV sign(TokenDriver* table, CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG length,
                  CK_BYTE* signature, CK_ULONG* signatureLength) noexcept
{
    return note("Sign", table, session, {data, signature, signatureLength}, {length});
}

inline CK_RV destroyObject(TokenDriver* table, CK_SESSION_HANDLE session,
                           CK_OBJECT_HANDLE object) noexcept
{
    return note("DestroyObject", table, session, {}, {object});
}

inline CK_RV generateRandom(TokenDriver* table, CK_SESSION_HANDLE session, CK_BYTE* bytes,
                            CK_ULONG length) noexcept
{
    return note("GenerateRandom", table, session, {bytes}, {length});
}

inline CK_RV getPublicKey(TokenDriver* table, CK_SESSION_HANDLE session,
                          CK_OBJECT_HANDLE object) noexcept
{
    return note("GetPublicKey", table, session, {}, {object});
}

inline CK_RV getCertificate(TokenDriver* table, CK_SESSION_HANDLE session,
                            CK_OBJECT_HANDLE object) noexcept
{
    return note("GetCertificate", table, session, {}, {object});
}

// The table as a family of this code would fill it.
inline TokenDriver driver(std::uint64_t type)
{
    return {.type = type,
            .GetTokenInfo = getTokenInfo,
            .GetMechanismList = getMechanismList,
            .Login = login,
            .Logout = logout,
            .ObjectsInit = objectsInit,
            .CreateObject = createObject,
            .GenerateKeyPair = generateKeyPair,
            .SignInit = signInit,
            .Sign = sign,
            .DestroyObject = destroyObject,
            .GenerateRandom = generateRandom,
            .GetPublicKey = getPublicKey,
            .GetCertificate = getCertificate};
}

// A table whose operations were never filled.
inline TokenDriver emptyDriver(std::uint64_t type)
{
    TokenDriver table{};
    table.type = type;
    return table;
}

} // namespace velt_test::fake
