// What the modules that we compare ourselves with need in order to do the same work.
#pragma once

#include "bench/host.h"
#include "sim/cards/card.h"

#include <memory>
#include <string>

namespace bench {

// OpenSC: a PIV card (NIST SP 800-73-4) that answers from memory and computes nothing. NULL for a
// module that needs no card.
std::shared_ptr<sim::Card> peerCard(const std::string& provider);

// SoftHSM: two RSA key pairs of 2,048 bits with a certificate each, as on the ID card, unless they
// are there.
void fillToken(const Session& session);

} // namespace bench
