// What a certificate costs on its way from the token to its attributes: expanding it, and the walk
// that takes the fields out.
// usage: velt-bench-certificates [Google Benchmark's options]
#include "bench/host.h"
#include "sim/cards/gzip_member.h"
#include "sim/cards/rsa_key.h"
#include "sim/cards/test_ca.h"
#include "sim/cards/test_keys.h"
#include "src/certdata/der_walker.h"
#include "src/objects/cert_block.h"
#include "src/objects/stored_cert.h"

#include <benchmark/benchmark.h>

#include <memory>

namespace {

// A real certificate of about `size` bytes, and exactly that with what a longer unit's name adds.
sim::Bytes certificateOf(std::size_t size)
{
    const sim::RsaKey key =
        sim::RsaKey::fromTestKey(size < 900 ? sim::TestKey::First1024 : sim::TestKey::First2048);
    sim::CertificateRequest request;
    request.issuer = size < 900 ? sim::shortIssuer() : sim::defaultIssuer();
    request.subject = {{"C", "KZ"}, {"CN", "Card Holder"}};
    sim::Bytes der = sim::issueCertificate(key, request);
    // Names from a fixed sequence, so that the content does not compress away.
    std::uint32_t state = 1;
    while (der.size() + 16 < size) {
        std::string unit;
        const std::size_t wanted = std::min<std::size_t>(48, size - der.size() - 13);
        while (unit.size() < wanted) {
            state = state * 1664525U + 1013904223U;
            unit.push_back(static_cast<char>('a' + (state >> 24) % 26));
        }
        request.subject.push_back({"OU", unit});
        der = sim::issueCertificate(key, request);
    }
    return der;
}

void expand(benchmark::State& state)
{
    const sim::Bytes stored =
        sim::gzipMember(certificateOf(static_cast<std::size_t>(state.range(0))));
    const auto expanded = std::make_unique<velt::ExpandedCertificate>();
    for ([[maybe_unused]] auto round : state) {
        bench::require(velt::isConverted(velt::expandCertificate(stored, *expanded)), "expanding");
    }
    state.counters["bytes"] = static_cast<double>(expanded->length);
}

void walk(benchmark::State& state)
{
    const sim::Bytes der = certificateOf(static_cast<std::size_t>(state.range(0)));
    const auto attr = std::make_unique<CertAttr>();
    std::ranges::copy(der, attr->value);
    attr->valueLen = der.size();
    for ([[maybe_unused]] auto round : state) {
        velt::storeCertificateFields(*attr);
        benchmark::DoNotOptimize(attr->subjectLen);
    }
    bench::require(attr->serialLen > 0, "taking the fields");
    state.counters["bytes"] = static_cast<double>(der.size());
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    for (const std::int64_t size : {600, 1000, 1500, 2000, 2500, 3000}) {
        benchmark::RegisterBenchmark("expanding a certificate", expand)->Arg(size);
        benchmark::RegisterBenchmark("taking a certificate's fields", walk)->Arg(size);
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
