// Another program that uses the tokens: it connects to each card and keeps the connection, without
// sending anything, until it is ended. The service powers a card off that nobody has used for some
// seconds; with this program it does not.
//
// usage: velt-e2e-hold_readers FILE, which is made once all cards are held
#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>

#include <unistd.h>
#include <winscard.h>

namespace {

bool holdAll(SCARDCONTEXT context)
{
    std::array<char, 4096> names{};
    DWORD length = names.size();
    if (SCardListReaders(context, nullptr, names.data(), &length) != SCARD_S_SUCCESS) {
        return false;
    }
    for (const char* name = names.data(); *name != '\0'; name += std::strlen(name) + 1) {
        SCARDHANDLE card = 0;
        DWORD protocol = 0;
        const LONG result = SCardConnect(context, name, SCARD_SHARE_SHARED,
                                         SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, &card, &protocol);
        if (result != SCARD_S_SUCCESS && result != static_cast<LONG>(SCARD_E_NO_SMARTCARD)) {
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    SCARDCONTEXT context = 0;
    if (argc != 2 ||
        SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context) != SCARD_S_SUCCESS) {
        std::cerr << "usage: velt-e2e-hold_readers FILE, where a PC/SC service is\n";
        return EXIT_FAILURE;
    }
    if (!holdAll(context) || !std::ofstream(argv[1])) {
        std::cerr << "cannot hold the cards\n";
        return EXIT_FAILURE;
    }
    pause();
    return EXIT_SUCCESS;
}
