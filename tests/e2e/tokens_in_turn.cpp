// An application that uses every token in turn, without closing the module in between: logs in,
// reads a certificate and signs, forth and back through the readers, then logs out.
//
// usage: velt-e2e-tokens_in_turn MODULE DATA PIN...
// The PINs are those of the slots in their order. DATA is a file with what each token signs. Writes
// the certificate of slot N to certificate-N and the signatures of both visits to signature-N-1 and
// signature-N-2, and prints what each visit found.
#include "tests/e2e/loaded_module.h"

#include <array>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using Buffer = std::vector<CK_BYTE>;

CK_FUNCTION_LIST* module = nullptr;

void require(CK_RV code, const std::string& what)
{
    if (code != CKR_OK) {
        throw std::runtime_error(what + " answers " + std::to_string(code));
    }
}

Buffer readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string& path, const Buffer& bytes)
{
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
}

Buffer attribute(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
{
    CK_ATTRIBUTE wanted{type, nullptr, 0};
    require(module->C_GetAttributeValue(session, object, &wanted, 1), "the size of an attribute");
    Buffer value(wanted.ulValueLen);
    wanted.pValue = value.data();
    require(module->C_GetAttributeValue(session, object, &wanted, 1), "an attribute");
    return value;
}

std::vector<CK_OBJECT_HANDLE> find(CK_SESSION_HANDLE session, std::vector<CK_ATTRIBUTE> search)
{
    std::array<CK_OBJECT_HANDLE, 64> found{};
    CK_ULONG count = 0;
    require(module->C_FindObjectsInit(session, search.data(), search.size()), "C_FindObjectsInit");
    require(module->C_FindObjects(session, found.data(), found.size(), &count), "C_FindObjects");
    require(module->C_FindObjectsFinal(session), "C_FindObjectsFinal");
    return {found.begin(), found.begin() + static_cast<std::ptrdiff_t>(count)};
}

// The first RSA key that has a certificate, and that certificate.
struct Identity {
    CK_OBJECT_HANDLE key = 0;
    Buffer certificate;
};

Identity identity(CK_SESSION_HANDLE session)
{
    CK_OBJECT_CLASS keys = CKO_PRIVATE_KEY;
    CK_OBJECT_CLASS certificates = CKO_CERTIFICATE;
    for (const CK_OBJECT_HANDLE key : find(session, {{CKA_CLASS, &keys, sizeof keys}})) {
        const Buffer type = attribute(session, key, CKA_KEY_TYPE);
        Buffer id = attribute(session, key, CKA_ID);
        const auto found = find(session, {{CKA_CLASS, &certificates, sizeof certificates},
                                          {CKA_ID, id.data(), id.size()}});
        if (type.at(0) == CKK_RSA && found.size() == 1) {
            return {key, attribute(session, found[0], CKA_VALUE)};
        }
    }
    throw std::runtime_error("no RSA key with a certificate");
}

Buffer sign(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key, Buffer data)
{
    CK_MECHANISM rsa{CKM_RSA_PKCS, nullptr, 0};
    require(module->C_SignInit(session, &rsa, key), "C_SignInit");
    Buffer signature(256);
    CK_ULONG length = signature.size();
    require(module->C_Sign(session, data.data(), data.size(), signature.data(), &length), "C_Sign");
    signature.resize(length);
    return signature;
}

std::string modelOf(CK_SLOT_ID slot)
{
    CK_TOKEN_INFO token{};
    require(module->C_GetTokenInfo(slot, &token), "C_GetTokenInfo");
    std::string model(std::begin(token.model), std::end(token.model));
    model.resize(model.find_last_not_of(std::string(" \0", 2)) + 1);
    return model;
}

CK_ULONG listSlots()
{
    std::array<CK_SLOT_ID, 32> slots{};
    CK_ULONG count = slots.size();
    require(module->C_GetSlotList(CK_TRUE, slots.data(), &count), "C_GetSlotList");
    return count;
}

void visit(CK_SLOT_ID slot, std::string pin, const Buffer& data, int number)
{
    listSlots(); // the objects of another token are in their place until then
    CK_SESSION_HANDLE session = 0;
    require(module->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr,
                                  &session),
            "C_OpenSession");
    require(
        module->C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR*>(pin.data()), pin.size()),
        "C_Login");
    const Identity holder = identity(session);
    const std::string suffix = std::to_string(slot);
    writeFile("certificate-" + suffix, holder.certificate);
    writeFile("signature-" + suffix + '-' + std::to_string(number),
              sign(session, holder.key, data));
    std::cout << modelOf(slot) << ": " << find(session, {}).size() << " objects\n";
    require(module->C_Logout(session), "C_Logout");
    require(module->C_CloseSession(session), "C_CloseSession");
}

void visitAll(const Buffer& data, const std::vector<std::string>& pins)
{
    require(module->C_Initialize(nullptr), "C_Initialize");
    if (listSlots() != pins.size()) {
        throw std::runtime_error("there are not as many tokens as PINs");
    }
    for (CK_SLOT_ID slot = 0; slot < pins.size(); ++slot) {
        visit(slot, pins[slot], data, 1);
    }
    for (CK_SLOT_ID slot = pins.size(); slot-- > 0;) {
        visit(slot, pins[slot], data, 2);
    }
    require(module->C_Finalize(nullptr), "C_Finalize");
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4) {
        std::cerr << "usage: velt-e2e-tokens_in_turn MODULE DATA PIN...\n";
        return 2;
    }
    try {
        module = loadModule(argv[1]);
        visitAll(readFile(argv[2]), {argv + 3, argv + argc});
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
