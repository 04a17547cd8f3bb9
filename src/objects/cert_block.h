// Filling a certificate's block from its DER encoding, the same way for every token family.
#pragma once

#include "src/core/bytes.h"
#include "src/objects/attr_blocks.h"

namespace velt {

// Walks the certificate in `attr.value` (attr.valueLen bytes, zeros behind them) and stores serial,
// issuer, subject and the two dates. Malformed data can end the process (see der_walker.h).
void storeCertificateFields(CertAttr& attr) noexcept;

} // namespace velt
