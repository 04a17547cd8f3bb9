#include "bench/operations.h"

#include <array>
#include <memory>

namespace bench {

namespace {

void nothing() {}

// Buffers for the attributes that clients read to show a certificate.
struct CertificateRoom {
    std::array<CK_BYTE, 8> id{};
    std::array<CK_BYTE, 64> serial{};
    std::array<CK_BYTE, 1024> issuer{};
    std::array<CK_BYTE, 1024> subject{};
    std::array<CK_BYTE, 4096> value{};
};

void readFive(const Session& session, CK_OBJECT_HANDLE certificate, CertificateRoom& room)
{
    std::array<CK_ATTRIBUTE, 5> attributes{{
        {CKA_VALUE, room.value.data(), room.value.size()},
        {CKA_ISSUER, room.issuer.data(), room.issuer.size()},
        {CKA_SERIAL_NUMBER, room.serial.data(), room.serial.size()},
        {CKA_SUBJECT, room.subject.data(), room.subject.size()},
        {CKA_ID, room.id.data(), room.id.size()},
    }};
    require(session.module->C_GetAttributeValue(session.handle, certificate, attributes.data(),
                                                attributes.size()),
            "reading a certificate");
    require(attributes[0].ulValueLen > 0 && attributes[3].ulValueLen > 0, "finding its content");
}

// The certificate with the ID of a key, as a client looks for it.
void search(const Session& session, CK_BYTE id)
{
    CK_OBJECT_CLASS objClass = CKO_CERTIFICATE;
    std::array<CK_ATTRIBUTE, 2> wanted{{
        {CKA_CLASS, &objClass, sizeof objClass},
        {CKA_ID, &id, sizeof id},
    }};
    std::array<CK_OBJECT_HANDLE, 16> found{};
    CK_ULONG count = 0;
    const Module& p11 = session.module;
    require(p11->C_FindObjectsInit(session.handle, wanted.data(), wanted.size()),
            "C_FindObjectsInit");
    require(p11->C_FindObjects(session.handle, found.data(), found.size(), &count),
            "C_FindObjects");
    require(p11->C_FindObjectsFinal(session.handle), "C_FindObjectsFinal");
    require(count > 0, "finding the certificate");
}

Operation signature(const Session& session, CK_OBJECT_HANDLE key, TapeCard* card)
{
    const auto room = std::make_shared<std::array<CK_BYTE, 512>>();
    const auto run = [&session, key, room] {
        require(session.sign(key, *room) >= 128, "finding the signature");
    };
    const auto prepare = [run, card] {
        if (card != nullptr) {
            tape(*card, run);
        }
    };
    return {"C_SignInit + C_Sign", prepare, run};
}

} // namespace

void tape(TapeCard& card, const std::function<void()>& operation)
{
    card.stop();
    operation(); // the first time may ask for more
    card.record();
    operation();
    card.play();
}

std::vector<Operation> commonOperations(const Session& session, TapeCard* card)
{
    const CK_OBJECT_HANDLE certificate = session.first(CKO_CERTIFICATE);
    const CK_OBJECT_HANDLE key = session.first(CKO_PRIVATE_KEY);
    const CK_BYTE id = session.attribute(certificate, CKA_ID).at(0);
    const auto room = std::make_shared<CertificateRoom>();
    readFive(session, certificate, *room); // may have to read the card
    std::vector<Operation> operations;
    operations.push_back({"C_GetInfo", nothing, [&session] {
                              CK_INFO info;
                              require(session.module->C_GetInfo(&info), "C_GetInfo");
                          }});
    operations.push_back({"C_GetSessionInfo", nothing, [&session] {
                              CK_SESSION_INFO info;
                              require(session.module->C_GetSessionInfo(session.handle, &info),
                                      "C_GetSessionInfo");
                          }});
    operations.push_back({"C_GetTokenInfo", nothing, [&session] {
                              CK_TOKEN_INFO info;
                              require(session.module->C_GetTokenInfo(session.slot, &info),
                                      "C_GetTokenInfo");
                          }});
    operations.push_back({"C_GetAttributeValue, one", nothing, [&session, certificate, room] {
                              CK_ATTRIBUTE attribute{CKA_ID, room->id.data(), room->id.size()};
                              require(session.module->C_GetAttributeValue(
                                          session.handle, certificate, &attribute, 1),
                                      "reading an ID");
                          }});
    operations.push_back(
        {"C_GetAttributeValue, five of a certificate", nothing,
         [&session, certificate, room] { readFive(session, certificate, *room); }});
    operations.push_back({"C_FindObjectsInit, C_FindObjects, C_FindObjectsFinal", nothing,
                          [&session, id] { search(session, id); }});
    operations.push_back(signature(session, key, card));
    return operations;
}

std::vector<Operation> cardOperations(const Session& session, TapeCard& card)
{
    const auto load = [&session] { session.reload(); };
    const CK_OBJECT_HANDLE certificate = session.first(CKO_CERTIFICATE);
    const auto room = std::make_shared<CertificateRoom>();
    const auto loadAndRead = [&session, load, certificate, room] {
        load();
        readFive(session, certificate, *room);
    };
    return {
        {"object load", [&card, load] { tape(card, load); }, load},
        {"object load and first certificate", [&card, loadAndRead] { tape(card, loadAndRead); },
         loadAndRead},
    };
}

} // namespace bench
