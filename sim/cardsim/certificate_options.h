// Options on certificates that several families have.
#pragma once

#include "sim/cardsim/arguments.h"

#include "sim/cards/test_ca.h"

#include <string>

// The certificate in a file, in DER: as it stands there, or out of PEM.
sim::Bytes readCertificate(const std::string& path);

// The issuer that --issuer two, six or seven means.
sim::NameAttributes issuerOf(const std::string& shape);
