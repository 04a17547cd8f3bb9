#include "src/objects/cert_block.h"

#include "src/certdata/der_walker.h"

namespace {

using velt::ByteRoom;
using velt::ByteView;

// Copies a result of the walk; returns the length stored.
std::uint64_t store(ByteRoom field, ByteView result, std::int32_t length) noexcept
{
    const std::size_t count = length > 0 ? static_cast<std::size_t>(length) : 0;
    return velt::copyBounded(field, result.first(std::min(count, result.size())));
}

// Kept: a date reads '2', the second digit of the day, two digits of the year, two of the month,
// the first digit of the day; its last byte is not written. For 31 January 2025: "2125013" and 0.
void storeDate(std::span<std::uint8_t, DATE_SIZE> date,
               const std::array<std::uint8_t, 13>& time) noexcept
{
    date[0] = '2';
    date[1] = time[5];
    velt::copyBounded(date.subspan<2, 5>(), ByteView(time).first<5>());
}

} // namespace

void velt::storeCertificateFields(CertAttr& attr) noexcept
{
    parseASN1(attr.value, attr.valueLen);
    attr.issuerLen = store(attr.issuer, ucIssuer, isLen);
    attr.serialLen = store(attr.serial, ucSN, snLen);
    attr.subjectLen = store(attr.subject, ucSubject, sjLen);
    storeDate(attr.startDate, notBefore);
    storeDate(attr.endDate, notAfter);
}
