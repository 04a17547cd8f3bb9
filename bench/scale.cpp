// How the cost of calls grows with what there is: objects, sessions, readers, threads. Over the
// stand-in for PC/SC, with cards that answer from memory.
// usage: velt-bench-scale MODULE [Google Benchmark's options]
#include "bench/host.h"
#include "bench/many_names_card.h"
#include "bench/tape_card.h"
#include "sim/cards/gzip_member.h"
#include "sim/cards/id_card.h"
#include "sim/pcsc/standin.h"

#include <benchmark/benchmark.h>

#include <array>
#include <memory>
#include <optional>

namespace {

using namespace bench;

constexpr std::size_t OBJECTS_PER_NAME = 3;
std::string modulePath;

// A session on a token with that many names; made anew for every benchmark.
class NamedToken {
public:
    explicit NamedToken(benchmark::State& state) : names(static_cast<std::size_t>(state.range(0)))
    {
        insertAlone(
            std::make_shared<ManyNamesCard>(names, sim::gzipMember(sim::IdCard().certificate(0))));
        module.emplace(modulePath);
        session.emplace(*module);
        require(session->find({}).size() == names * OBJECTS_PER_NAME, "loading all objects");
    }

    std::size_t names;
    std::optional<Module> module;
    std::optional<Session> session;
    std::vector<CK_OBJECT_HANDLE> room = std::vector<CK_OBJECT_HANDLE>(65536);
};

// All objects, `batch` at a time; returns their number.
std::size_t findAll(NamedToken& token, std::span<CK_ATTRIBUTE> wanted, CK_ULONG batch)
{
    const Module& p11 = *token.module;
    const CK_SESSION_HANDLE session = token.session->handle;
    std::size_t total = 0;
    CK_ULONG count = 0;
    require(p11->C_FindObjectsInit(session, wanted.data(), wanted.size()), "C_FindObjectsInit");
    do {
        require(p11->C_FindObjects(session, token.room.data(), batch, &count), "C_FindObjects");
        total += count;
    } while (count == batch);
    require(p11->C_FindObjectsFinal(session), "C_FindObjectsFinal");
    return total;
}

void findAllAtOnce(benchmark::State& state)
{
    NamedToken token(state);
    for ([[maybe_unused]] auto round : state) {
        require(findAll(token, {}, token.room.size()) == token.names * OBJECTS_PER_NAME, "finding");
    }
    state.SetComplexityN(state.range(0));
}

// As clients do that ask for one handle after the other.
void findOneByOne(benchmark::State& state)
{
    NamedToken token(state);
    for ([[maybe_unused]] auto round : state) {
        require(findAll(token, {}, 1) == token.names * OBJECTS_PER_NAME, "finding");
    }
    state.SetComplexityN(state.range(0));
}

void findCertificates(benchmark::State& state)
{
    NamedToken token(state);
    CK_OBJECT_CLASS objClass = CKO_CERTIFICATE;
    CK_BYTE id = 0;
    std::array<CK_ATTRIBUTE, 2> wanted{
        {{CKA_CLASS, &objClass, sizeof objClass}, {CKA_ID, &id, sizeof id}}};
    for ([[maybe_unused]] auto round : state) {
        require(findAll(token, wanted, 16) >= 1, "finding");
    }
    state.SetComplexityN(state.range(0));
}

void readLabels(benchmark::State& state)
{
    NamedToken token(state);
    const std::vector<CK_OBJECT_HANDLE> objects = token.session->find({});
    std::array<CK_BYTE, 128> label{};
    for ([[maybe_unused]] auto round : state) {
        for (const CK_OBJECT_HANDLE object : objects) {
            CK_ATTRIBUTE attribute{CKA_LABEL, label.data(), label.size()};
            require(
                (*token.module)->C_GetAttributeValue(token.session->handle, object, &attribute, 1),
                "reading a label");
        }
    }
    state.SetComplexityN(state.range(0));
}

// With the stand-in's part: five exchanges a name.
void loadObjects(benchmark::State& state)
{
    const NamedToken token(state);
    for ([[maybe_unused]] auto round : state) {
        token.session->reload();
    }
    state.SetComplexityN(state.range(0));
}

void names(const char* name, void (*function)(benchmark::State&))
{
    auto* const registered = benchmark::RegisterBenchmark(name, function);
    registered->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->Arg(10000);
}

void insertIdCard()
{
    insertAlone(makeTapeCard(idCardFamily));
}

// One round asks all sessions.
void sessionInfo(benchmark::State& state)
{
    insertIdCard();
    const Module module(modulePath);
    std::vector<std::unique_ptr<Session>> sessions;
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        sessions.push_back(std::make_unique<Session>(module));
    }
    CK_SESSION_INFO info;
    for ([[maybe_unused]] auto round : state) {
        for (const std::unique_ptr<Session>& session : sessions) {
            require(module->C_GetSessionInfo(session->handle, &info), "C_GetSessionInfo");
        }
    }
}

void openAndClose(benchmark::State& state)
{
    insertIdCard();
    std::vector<CK_SESSION_HANDLE> sessions(static_cast<std::size_t>(state.range(0)));
    for ([[maybe_unused]] auto round : state) {
        state.PauseTiming(); // a module never forgets a session before it is finalised
        const Module module(modulePath);
        const Session first(module); // loads the objects
        state.ResumeTiming();
        for (CK_SESSION_HANDLE& session : sessions) {
            require(
                module->C_OpenSession(first.slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session),
                "C_OpenSession");
        }
        for (const CK_SESSION_HANDLE session : sessions) {
            require(module->C_CloseSession(session), "C_CloseSession");
        }
    }
}

// The listing of all slots and the description of each, with an ID card in every reader.
void listSlots(benchmark::State& state)
{
    sim::pcsc::reset();
    sim::pcsc::setLogging(false);
    const auto readers = static_cast<std::size_t>(state.range(0));
    for (std::size_t i = 0; i < readers; ++i) {
        const std::string name = "Bench Reader " + std::to_string(i);
        sim::pcsc::plugReader(name);
        sim::pcsc::insertCard(name, makeTapeCard(idCardFamily));
    }
    const Module module(modulePath);
    std::array<CK_SLOT_ID, 16> slots{};
    CK_SLOT_INFO slotInfo;
    CK_TOKEN_INFO tokenInfo;
    for ([[maybe_unused]] auto round : state) {
        CK_ULONG count = slots.size();
        require(module->C_GetSlotList(CK_TRUE, slots.data(), &count), "C_GetSlotList");
        require(count == readers, "finding all readers");
        for (std::size_t i = 0; i < count; ++i) {
            require(module->C_GetSlotInfo(slots[i], &slotInfo), "C_GetSlotInfo");
            require(module->C_GetTokenInfo(slots[i], &tokenInfo), "C_GetTokenInfo");
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        fail("usage: velt-bench-scale MODULE [options of Google Benchmark]");
    }
    modulePath = argv[1];
    argv[1] = argv[0];
    argc -= 1;
    benchmark::Initialize(&argc, argv + 1);
    names("search, all at once", findAllAtOnce);
    names("search, one by one", findOneByOne);
    names("search for certificates with an ID", findCertificates);
    names("CKA_LABEL of every object", readLabels);
    names("object load", loadObjects);
    for (const std::int64_t count : {1, 4, 16, 64}) {
        benchmark::RegisterBenchmark("C_GetSessionInfo of every session", sessionInfo)->Arg(count);
        benchmark::RegisterBenchmark("opening and closing sessions", openAndClose)->Arg(count);
    }
    for (std::int64_t count = 1; count <= 15; ++count) {
        benchmark::RegisterBenchmark("listing and describing slots", listSlots)->Arg(count);
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
