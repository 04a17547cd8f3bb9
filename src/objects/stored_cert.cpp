#include "src/objects/stored_cert.h"

#include "src/certdata/gzip.h"
#include "src/core/session.h"
#include "src/objects/cert_block.h"

#include <algorithm>

namespace velt {

bool compressCertificate(CK_SESSION_HANDLE hSession, ByteView der, StoredCertificate& stored,
                         std::uint64_t& error) noexcept
{
    stored.length = static_cast<std::uint32_t>(stored.bytes.size());
    const std::int32_t code = gzip(der.data(), static_cast<std::uint32_t>(der.size()),
                                   stored.bytes.data(), &stored.length);
    if (isConverted(code)) {
        return true;
    }
    error = static_cast<std::uint64_t>(std::int64_t{code});
    if (SessionEntry* session = hSession == 0 ? nullptr : findSession(hSession);
        session != nullptr) {
        session->deviceError = error;
    }
    return false;
}

std::int32_t expandCertificate(ByteView stored, ExpandedCertificate& expanded) noexcept
{
    std::uint64_t length = expanded.bytes.size();
    const std::int32_t code = ungzip(stored.data(), static_cast<std::uint32_t>(stored.size()),
                                     expanded.bytes.data(), &length);
    expanded.length = std::min<std::size_t>(length, expanded.bytes.size());
    return code;
}

void storeCertificate(CertAttr& attr, const ExpandedCertificate& expanded) noexcept
{
    std::ranges::copy(expanded.bytes, attr.value); // whole: zeros behind the certificate
    attr.valueLen = expanded.length;
    storeCertificateFields(attr);
}

} // namespace velt
