// Times single calls of a module. The card answers from a tape and the stand-in for PC/SC keeps no
// log, so what is timed is the module, and with the row "bare SCardTransmit" what is not.
// usage: velt-bench-calls FAMILY|softhsm|opensc MODULE [Google Benchmark's options]
#include "bench/operations.h"
#include "bench/peers.h"

#include <benchmark/benchmark.h>

#include <winscard.h>

#include <array>
#include <memory>
#include <string_view>

namespace {

using namespace bench;

void measure(const std::string& name, const Operation& operation)
{
    benchmark::RegisterBenchmark(name.c_str(), [operation](benchmark::State& state) {
        operation.prepare();
        for ([[maybe_unused]] auto round : state) {
            operation.run();
        }
    });
}

// The commands of a tape without a module between them and PC/SC.
class BareCard {
public:
    explicit BareCard(std::vector<TapeCard::Step> steps) : steps_(std::move(steps))
    {
        require(SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context_) ==
                    SCARD_S_SUCCESS,
                "SCardEstablishContext");
        DWORD protocol = 0;
        require(SCardConnect(context_, "Bench Reader 00 00", SCARD_SHARE_SHARED,
                             SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, &card_,
                             &protocol) == SCARD_S_SUCCESS,
                "SCardConnect");
        pci_ = protocol == SCARD_PROTOCOL_T0 ? SCARD_PCI_T0 : SCARD_PCI_T1;
    }
    ~BareCard() { SCardReleaseContext(context_); }
    BareCard(const BareCard&) = delete;
    BareCard& operator=(const BareCard&) = delete;

    void send()
    {
        for (const TapeCard::Step& step : steps_) {
            DWORD length = reply_.size();
            require(SCardTransmit(card_, pci_, step.command.data(), step.command.size(), nullptr,
                                  reply_.data(), &length) == SCARD_S_SUCCESS,
                    "SCardTransmit");
        }
    }

private:
    std::vector<TapeCard::Step> steps_;
    SCARDCONTEXT context_ = 0;
    SCARDHANDLE card_ = 0;
    const SCARD_IO_REQUEST* pci_ = nullptr;
    std::array<BYTE, 2050> reply_{};
};

void measureBare(const std::string& provider, TapeCard& card, const Operation& signature)
{
    const auto bare = std::make_shared<std::unique_ptr<BareCard>>();
    const auto prepare = [bare, &card, signature] {
        signature.prepare();
        *bare = std::make_unique<BareCard>(card.tape());
    };
    measure("bare SCardTransmit of a signature/" + provider,
            {"", prepare, [bare] { (*bare)->send(); }});
}

void runFamily(const std::string& path, const Family& family)
{
    const std::shared_ptr<TapeCard> card = makeTapeCard(family);
    insertAlone(card);
    const Module module(path);
    const Session session(module);
    session.login();
    const std::string provider = "velt " + std::string(family.name);
    std::vector<Operation> operations = commonOperations(session, card.get());
    measureBare(provider, *card, operations.back());
    for (Operation& operation : cardOperations(session, *card)) {
        operations.push_back(std::move(operation));
    }
    for (const Operation& operation : operations) {
        measure(operation.name + "/" + provider, operation);
    }
    benchmark::RunSpecifiedBenchmarks();
    card->stop();
}

void runPeer(const std::string& path, const std::string& name)
{
    if (const std::shared_ptr<sim::Card> card = peerCard(name)) {
        insertAlone(card);
    }
    const Module module(path);
    const Session session(module);
    session.login();
    if (name == "softhsm") {
        fillToken(session);
    }
    for (const Operation& operation : commonOperations(session, nullptr)) {
        measure(operation.name + "/" + name, operation);
    }
    benchmark::RunSpecifiedBenchmarks();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        fail("usage: velt-bench-calls FAMILY|softhsm|opensc MODULE [options of Google Benchmark]");
    }
    const std::string provider = argv[1];
    const std::string path = argv[2];
    argv[2] = argv[0];
    argc -= 2;
    benchmark::Initialize(&argc, argv + 2);
    if (const Family* const family = findFamily(provider)) {
        runFamily(path, *family);
    } else {
        runPeer(path, provider);
    }
    return 0;
}
