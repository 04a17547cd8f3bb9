// The module against the floor: what it sends to a card in one operation, and how long it takes,
// beside the same commands by bare SCardTransmit. Runs inside sim/world/private-pcscd with a card
// of the family. Writes one line of JSON an operation.
//
// The program has an SCardTransmit of its own, which passes on what the module sends and, while
// recording, keeps it; so what is repeated is what was sent, and both ways pay for it alike.
// usage: velt-bench-floor FAMILY MODULE [PAIRS]
#include "bench/host.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <winscard.h>

namespace {

using Clock = std::chrono::steady_clock;
using Transmit = LONG (*)(SCARDHANDLE, const SCARD_IO_REQUEST*, LPCBYTE, DWORD, SCARD_IO_REQUEST*,
                          LPBYTE, LPDWORD);

struct Exchange {
    bench::Bytes command;
    DWORD capacity;
};

bool recording = false;
std::vector<Exchange> recorded;
SCARDHANDLE moduleCard = 0; // the connection of the module's session

Transmit realTransmit()
{
    static const auto function = reinterpret_cast<Transmit>(dlsym(RTLD_NEXT, "SCardTransmit"));
    return function;
}

} // namespace

extern "C" __attribute__((visibility("default"))) LONG
SCardTransmit(SCARDHANDLE hCard, const SCARD_IO_REQUEST* pioSendPci, LPCBYTE pbSendBuffer,
              DWORD cbSendLength, SCARD_IO_REQUEST* pioRecvPci, LPBYTE pbRecvBuffer,
              LPDWORD pcbRecvLength)
{
    if (recording) {
        recorded.push_back({{pbSendBuffer, pbSendBuffer + cbSendLength}, *pcbRecvLength});
    }
    moduleCard = hCard;
    return realTransmit()(hCard, pioSendPci, pbSendBuffer, cbSendLength, pioRecvPci, pbRecvBuffer,
                          pcbRecvLength);
}

namespace {

double microseconds(const std::function<void()>& step)
{
    const auto start = Clock::now();
    step();
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

double median(std::vector<double> values)
{
    std::ranges::sort(values);
    const std::size_t half = values.size() / 2;
    return values.size() % 2 == 1 ? values[half] : (values[half - 1] + values[half]) / 2;
}

struct Operation {
    const char* name;
    std::function<void()> before; // untimed
    std::function<void()> run;
    std::function<void()> after; // untimed
};

// The same bytes through the same function, on the module's own connection.
class Floor {
public:
    Floor(const SCARD_IO_REQUEST* pci, std::vector<Exchange> exchanges)
        : pci_(pci), exchanges_(std::move(exchanges))
    {
    }
    void send()
    {
        for (const Exchange& exchange : exchanges_) {
            DWORD length = exchange.capacity;
            bench::require(SCardTransmit(moduleCard, pci_, exchange.command.data(),
                                         exchange.command.size(), nullptr, reply_.data(),
                                         &length) == SCARD_S_SUCCESS,
                           "SCardTransmit");
        }
    }

private:
    const SCARD_IO_REQUEST* pci_;
    std::vector<Exchange> exchanges_;
    std::array<BYTE, 4096> reply_{};
};

const SCARD_IO_REQUEST* pciOfConnection()
{
    DWORD protocol = 0;
    DWORD state = 0;
    DWORD nameLength = 0;
    DWORD atrLength = 0;
    bench::require(SCardStatus(moduleCard, nullptr, &nameLength, &state, &protocol, nullptr,
                               &atrLength) == SCARD_S_SUCCESS,
                   "SCardStatus");
    return protocol == SCARD_PROTOCOL_T0 ? SCARD_PCI_T0 : SCARD_PCI_T1;
}

std::vector<Exchange> record(const Operation& operation)
{
    for (int round = 0; round < 2; ++round) { // the first one may ask for more
        operation.before();
        recorded.clear();
        recording = true;
        operation.run();
        recording = false;
        operation.after();
    }
    return recorded;
}

// An operation that sends nothing to the card.
void measureAlone(const std::string& family, const Operation& operation)
{
    constexpr std::size_t ROUNDS = 21;
    std::vector<double> times;
    for (std::size_t round = 0; round < ROUNDS; ++round) {
        operation.before();
        times.push_back(microseconds(operation.run));
        operation.after();
    }
    std::printf("{\"family\": \"%s\", \"operation\": \"%s\", \"exchanges\": 0, "
                "\"module_us\": %.1f}\n",
                family.c_str(), operation.name, median(times));
}

// One pair: the operation and its commands right one after the other, either first in turn.
void measure(const std::string& family, const Operation& operation, std::size_t pairs)
{
    const std::vector<Exchange> exchanges = record(operation);
    if (exchanges.empty()) {
        measureAlone(family, operation);
        return;
    }
    Floor floor(pciOfConnection(), exchanges);
    std::vector<double> ofModule;
    std::vector<double> ofFloor;
    std::vector<double> ratios;
    const auto runModule = [&] { ofModule.push_back(microseconds(operation.run)); };
    const auto runFloor = [&] { ofFloor.push_back(microseconds([&floor] { floor.send(); })); };
    for (std::size_t pair = 0; pair < pairs; ++pair) {
        operation.before();
        if (pair % 2 == 0) {
            runModule();
            runFloor();
        } else {
            runFloor();
            runModule();
        }
        operation.after();
        ratios.push_back(ofModule.back() / ofFloor.back());
    }
    std::printf("{\"family\": \"%s\", \"operation\": \"%s\", \"exchanges\": %zu, "
                "\"module_us\": %.1f, \"floor_us\": %.1f, \"ratio\": %.4f}\n",
                family.c_str(), operation.name, exchanges.size(), median(ofModule), median(ofFloor),
                median(ratios));
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        bench::fail("usage: velt-bench-floor FAMILY MODULE [PAIRS]");
    }
    const std::size_t pairs = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 200;
    const bench::Module module(argv[2]);
    const bench::Session session(module);
    const auto nothing = [] {};
    const auto reload = [&session] { session.reload(); };
    reload();
    const CK_OBJECT_HANDLE certificate = session.first(CKO_CERTIFICATE);
    bench::Bytes room(4096);
    const auto readCertificate = [&] {
        CK_ATTRIBUTE value{CKA_VALUE, room.data(), room.size()};
        bench::require(module->C_GetAttributeValue(session.handle, certificate, &value, 1),
                       "C_GetAttributeValue");
    };
    const auto listSlots = [&module] {
        std::array<CK_SLOT_ID, 16> slots{};
        CK_ULONG count = slots.size();
        bench::require(module->C_GetSlotList(CK_TRUE, slots.data(), &count), "C_GetSlotList");
    };
    measure(argv[1], {"slot list", nothing, listSlots, nothing}, pairs);
    reload();
    measure(argv[1],
            {"login", nothing, [&session] { session.login(); }, [&session] { session.logout(); }},
            pairs);
    session.login();
    measure(argv[1], {"object load", nothing, reload, nothing}, pairs);
    measure(argv[1], {"certificate read", reload, readCertificate, nothing}, pairs);
    const CK_OBJECT_HANDLE key = session.first(CKO_PRIVATE_KEY);
    measure(argv[1], {"signature", nothing, [&] { session.sign(key, room); }, nothing}, pairs);
    return 0;
}
