// An application whose card is pulled while it works learns so from plain return codes, and goes on
// with another card without starting again.
//
// usage: velt-e2e-mid_session MODULE PULL REINSERT
// PULL and REINSERT are shell commands that take the card (PIN 1234) out of the first reader and
// put one into it.
#include "tests/e2e/loaded_module.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

CK_FUNCTION_LIST* module = nullptr;
int failures = 0;

void expect(const std::string& what, CK_ULONG got, CK_ULONG expected)
{
    std::cout << what << ": 0x" << std::hex << got << std::dec << '\n';
    if (got != expected) {
        std::cout << "    expected 0x" << std::hex << expected << std::dec << '\n';
        ++failures;
    }
}

// Lists the slots with a token, as an application does now and then.
CK_ULONG tokens()
{
    std::array<CK_SLOT_ID, 8> slots{};
    CK_ULONG count = slots.size();
    if (module->C_GetSlotList(CK_TRUE, slots.data(), &count) != CKR_OK) {
        throw std::runtime_error("C_GetSlotList failed");
    }
    return count;
}

// The PC/SC service notices a card in its own time: asked directly, so that the module's own view
// stays as it is.
void command(const std::string& text, bool presentAfterwards)
{
    if (std::system(text.c_str()) != 0) { // NOLINT(cert-env33-c)
        throw std::runtime_error(text + " failed");
    }
    SCARDCONTEXT context = 0;
    if (SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context) != SCARD_S_SUCCESS) {
        throw std::runtime_error("there is no PC/SC service");
    }
    std::array<char, 1024> names{};
    DWORD length = names.size();
    SCardListReaders(context, nullptr, names.data(), &length);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (bool present = !presentAfterwards; present != presentAfterwards;) {
        SCARD_READERSTATE state{};
        state.szReader = names.data(); // the first reader
        SCardGetStatusChange(context, 0, &state, 1);
        present = (state.dwEventState & SCARD_STATE_PRESENT) != 0;
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("the service does not notice: " + text);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    SCardReleaseContext(context);
}

CK_SESSION_HANDLE openAndLogIn(const std::string& when)
{
    CK_SESSION_HANDLE session = 0;
    expect(
        when + "C_OpenSession",
        module->C_OpenSession(0, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session),
        CKR_OK);
    std::array<CK_UTF8CHAR, 4> pin{'1', '2', '3', '4'};
    expect(when + "C_Login", module->C_Login(session, CKU_USER, pin.data(), pin.size()), CKR_OK);
    return session;
}

CK_OBJECT_HANDLE findPrivateKey(CK_SESSION_HANDLE session)
{
    CK_OBJECT_CLASS wanted = CKO_PRIVATE_KEY;
    CK_ATTRIBUTE byClass{CKA_CLASS, &wanted, sizeof wanted};
    CK_OBJECT_HANDLE key = 0;
    CK_ULONG found = 0;
    if (module->C_FindObjectsInit(session, &byClass, 1) != CKR_OK ||
        module->C_FindObjects(session, &key, 1, &found) != CKR_OK ||
        module->C_FindObjectsFinal(session) != CKR_OK || found != 1) {
        throw std::runtime_error("no private key on the card");
    }
    return key;
}

CK_RV signInit(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key)
{
    CK_MECHANISM rsa{CKM_RSA_PKCS, nullptr, 0};
    return module->C_SignInit(session, &rsa, key);
}

CK_RV sign(CK_SESSION_HANDLE session)
{
    std::array<CK_BYTE, 35> data{};
    data.fill(0x5A);
    std::array<CK_BYTE, 256> signature{};
    CK_ULONG length = signature.size();
    return module->C_Sign(session, data.data(), data.size(), signature.data(), &length);
}

CK_RV sessionInfo(CK_SESSION_HANDLE session)
{
    CK_SESSION_INFO info{};
    return module->C_GetSessionInfo(session, &info);
}

CK_RV readLabel(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object)
{
    std::array<CK_BYTE, 50> text{};
    CK_ATTRIBUTE label{CKA_LABEL, text.data(), text.size()};
    return module->C_GetAttributeValue(session, object, &label, 1);
}

void beforeTheNextListing(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key)
{
    const std::string when = "card pulled, not listed anew: ";
    expect(when + "C_Sign", sign(session), CKR_DEVICE_ERROR);
    expect(when + "C_Sign, still pending", sign(session), CKR_DEVICE_ERROR);
    expect(when + "C_GetSessionInfo", sessionInfo(session), CKR_OK);
    expect(when + "C_GetAttributeValue of a label", readLabel(session, key), CKR_OK);
    CK_SESSION_HANDLE another = 0;
    expect(when + "C_OpenSession",
           module->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &another),
           CKR_DEVICE_ERROR);
}

void afterTheNextListing(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key)
{
    const std::string when = "card pulled, listed anew: ";
    expect(when + "tokens", tokens(), 0);
    expect(when + "C_Sign", sign(session), CKR_TOKEN_NOT_PRESENT);
    expect(when + "C_GetSessionInfo", sessionInfo(session), CKR_DEVICE_REMOVED);
    expect(when + "C_GetAttributeValue of a label", readLabel(session, key), CKR_OK);
    expect(when + "C_FindObjectsInit", module->C_FindObjectsInit(session, nullptr, 0),
           CKR_TOKEN_NOT_PRESENT);
    CK_TOKEN_INFO token{};
    expect(when + "C_GetTokenInfo", module->C_GetTokenInfo(0, &token), CKR_TOKEN_NOT_PRESENT);
    CK_SESSION_HANDLE another = 0;
    expect(when + "C_OpenSession",
           module->C_OpenSession(0, CKF_SERIAL_SESSION, nullptr, nullptr, &another),
           CKR_TOKEN_NOT_PRESENT);
}

void withAnotherCard(CK_SESSION_HANDLE old)
{
    const std::string when = "card put back: ";
    expect(when + "tokens", tokens(), 1);
    const CK_SESSION_HANDLE session = openAndLogIn(when);
    expect(when + "C_SignInit", signInit(session, findPrivateKey(session)), CKR_OK);
    expect(when + "C_Sign on the old session", sign(old), CKR_DEVICE_ERROR);
    expect(when + "C_Sign on the new session", sign(session), CKR_OK);
    expect(when + "C_CloseSession of the new session", module->C_CloseSession(session), CKR_OK);
}

void story(const std::string& pull, const std::string& reinsert)
{
    expect("C_Initialize", module->C_Initialize(nullptr), CKR_OK);
    expect("tokens", tokens(), 1);
    const CK_SESSION_HANDLE session = openAndLogIn("");
    const CK_OBJECT_HANDLE key = findPrivateKey(session);
    expect("C_SignInit", signInit(session, key), CKR_OK);
    expect("C_Sign", sign(session), CKR_OK);
    expect("C_SignInit", signInit(session, key), CKR_OK);

    command(pull, false);
    beforeTheNextListing(session, key);
    afterTheNextListing(session, key);
    command(reinsert, true);
    withAnotherCard(session);
    expect("C_Finalize", module->C_Finalize(nullptr), CKR_OK);
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> arguments(argv, argv + argc);
    if (arguments.size() != 4) {
        std::cerr << "usage: velt-e2e-mid_session MODULE PULL REINSERT\n";
        return 2;
    }
    try {
        module = loadModule(argv[1]);
        story(arguments[2], arguments[3]);
    } catch (const std::exception& error) {
        std::cout << error.what() << '\n';
        ++failures;
    }
    return failures == 0 ? 0 : 1;
}
