// Times a signature and attribute reads through the built module. The card answers from memory and
// the stand-in keeps no log, so what is timed is the module and the way through PC/SC's functions.
#include "sim/pcsc/standin.h"
#include "src/front/pkcs11.h"
#include "tests/support/memory_card.h"

#include <benchmark/benchmark.h>

#include <dlfcn.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

constexpr CK_OBJECT_HANDLE CERTIFICATE = 1;
constexpr CK_OBJECT_HANDLE PRIVATE_KEY = 3;

void require(bool done, const char* step)
{
    if (!done) {
        std::fprintf(stderr, "velt-bench: %s failed\n", step);
        std::exit(EXIT_FAILURE);
    }
}

// The module with one session on the card.
class Host {
public:
    Host()
    {
        sim::pcsc::reset();
        sim::pcsc::setLogging(false);
        sim::pcsc::plugReader("Bench Reader 00 00");
        sim::pcsc::insertCard("Bench Reader 00 00", std::make_shared<velt_test::MemoryCard>());
        void* const library = dlopen(VELT_MODULE, RTLD_NOW | RTLD_LOCAL);
        require(library != nullptr, "loading " VELT_MODULE);
        const auto getList =
            reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
        require(getList != nullptr && getList(&p11) == CKR_OK, "C_GetFunctionList");
        require(p11->C_Initialize(nullptr) == CKR_OK, "C_Initialize");
        CK_SLOT_ID slot = 0;
        CK_ULONG count = 1;
        require(p11->C_GetSlotList(CK_TRUE, &slot, &count) == CKR_OK && count == 1,
                "C_GetSlotList");
        require(p11->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session) == CKR_OK,
                "C_OpenSession");
    }

    ~Host()
    {
        p11->C_CloseSession(session);
        p11->C_Finalize(nullptr);
    }

    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    CK_FUNCTION_LIST* p11 = nullptr;
    CK_SESSION_HANDLE session = 0;
};

void signature(benchmark::State& state)
{
    const Host host;
    CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
    std::array<CK_BYTE, 51> digestInfo{0x30, 0x31};
    std::array<CK_BYTE, 256> result{};
    for ([[maybe_unused]] auto round : state) {
        CK_ULONG length = result.size();
        const bool done = host.p11->C_SignInit(host.session, &mechanism, PRIVATE_KEY) == CKR_OK &&
                          host.p11->C_Sign(host.session, digestInfo.data(), digestInfo.size(),
                                           result.data(), &length) == CKR_OK &&
                          length == result.size();
        require(done, "a signature");
        benchmark::DoNotOptimize(result);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(signature)->Name("C_SignInit + C_Sign");

void oneAttribute(benchmark::State& state)
{
    const Host host;
    CK_BYTE id = 0;
    for ([[maybe_unused]] auto round : state) {
        CK_ATTRIBUTE attribute{CKA_ID, &id, sizeof id};
        require(host.p11->C_GetAttributeValue(host.session, CERTIFICATE, &attribute, 1) == CKR_OK &&
                    attribute.ulValueLen == 1,
                "reading CKA_ID");
        benchmark::DoNotOptimize(id);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(oneAttribute)->Name("C_GetAttributeValue, one attribute");

void fiveAttributes(benchmark::State& state)
{
    const Host host;
    std::array<CK_BYTE, 1> id{};
    std::array<CK_BYTE, 64> serial{};
    std::array<CK_BYTE, 1024> issuer{};
    std::array<CK_BYTE, 1024> subject{};
    std::array<CK_BYTE, 4096> value{};
    for ([[maybe_unused]] auto round : state) {
        std::array<CK_ATTRIBUTE, 5> attributes{{
            {CKA_VALUE, value.data(), value.size()},
            {CKA_ISSUER, issuer.data(), issuer.size()},
            {CKA_SERIAL_NUMBER, serial.data(), serial.size()},
            {CKA_SUBJECT, subject.data(), subject.size()},
            {CKA_ID, id.data(), id.size()},
        }};
        require(host.p11->C_GetAttributeValue(host.session, CERTIFICATE, attributes.data(),
                                              attributes.size()) == CKR_OK &&
                    attributes[0].ulValueLen > 0 && attributes[3].ulValueLen > 0,
                "reading a certificate");
        benchmark::DoNotOptimize(value);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(fiveAttributes)->Name("C_GetAttributeValue, five attributes of a certificate");

} // namespace

BENCHMARK_MAIN();
