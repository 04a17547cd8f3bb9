// Whole certificates through the walk: the shapes that issuers give them, cut ones, damaged ones.
#include "src/certdata/der_walker.h"

#include <cstdlib>
#include <random>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/certificates.h"
#include "tests/support/der.h"

namespace {

using namespace velt_test;

Bytes trimmed(Bytes field)
{
    while (!field.empty() && field.back() == 0) {
        field.pop_back();
    }
    return field;
}

template <std::size_t Size>
std::string textAt(const std::array<std::uint8_t, Size>& field, std::size_t position,
                   std::size_t length = 128)
{
    const Bytes bytes = trimmed(slot(field, position, length));
    return {bytes.begin(), bytes.end()};
}

std::string timeText(const std::array<std::uint8_t, 13>& field)
{
    return textAt(field, 0, field.size());
}

CertificateSpec fullSpec()
{
    CertificateSpec spec;
    spec.issuer = FULL_ISSUER;
    spec.subject = FULL_SUBJECT;
    spec.extensions = {{NID_basic_constraints, "critical,CA:FALSE"},
                       {NID_key_usage, "critical,digitalSignature,nonRepudiation"},
                       {NID_subject_key_identifier, "hash"},
                       {NID_ext_key_usage, "clientAuth,emailProtection"},
                       {NID_subject_alt_name, "email:other@velt.example,DNS:velt.example"},
                       {NID_crl_distribution_points, "URI:http://velt.example/ca.crl"}};
    return spec;
}

TEST(DerCertificate, OfVersion3WithSixIssuerAttributesGivesEveryField)
{
    for (const char* key : {"EC", "RSA"}) {
        CertificateSpec spec = fullSpec();
        spec.key = key;
        const Certificate certificate = makeCertificate(spec);
        ASSERT_EQ(walk(certificate.der), 0);
        EXPECT_EQ(stored(ucSN, snLen), certificate.serial);
        EXPECT_EQ(stored(ucIssuer, isLen), certificate.issuer);
        EXPECT_EQ(stored(ucSubject, sjLen), certificate.subject);
        EXPECT_EQ(timeText(notBefore), "250131120000Z");
        EXPECT_EQ(timeText(notAfter), "350228235959Z");
        EXPECT_EQ(textAt(sIssuer, 0, 130), "KZAbai");
        EXPECT_EQ(textAt(sIssuer, 130), "Semey");
        EXPECT_EQ(textAt(sIssuer, 258), "Velt Trust");
        EXPECT_EQ(textAt(sIssuer, 386), "Test CA");
        EXPECT_EQ(textAt(sIssuer, 514), "Velt Test CA");
        EXPECT_EQ(textAt(sSubject, 0, 130), "KZAlmaty region");
        EXPECT_EQ(textAt(sSubject, 130), "Talgar");
        EXPECT_EQ(textAt(sSubject, 258), "Holder Example");
        EXPECT_EQ(textAt(sSubject, 386), "Given");
        EXPECT_EQ(textAt(sSubject, 514), "Holder");
        EXPECT_EQ(textAt(sSubject, 642), "IIN000000000000");
        EXPECT_EQ(textAt(sSubject, 770), "holder@velt.example");
        EXPECT_EQ(atribInd, 3);
        EXPECT_EQ(cIndex, 16);
        EXPECT_EQ(bufIndex, certificate.der.size());
    }
}

TEST(DerCertificate, OfVersion1LeavesEverythingEmpty)
{
    CertificateSpec spec = fullSpec();
    spec.version = 1;
    spec.extensions.clear();
    spec.subject.pop_back(); // the e-mail address is kept whatever the counter says
    ASSERT_EQ(walk(makeCertificate(spec).der), 0);
    EXPECT_EQ(cIndex, 0);
    EXPECT_EQ(snLen, 0);
    EXPECT_EQ(isLen, 0);
    EXPECT_EQ(sjLen, 0);
    EXPECT_EQ(slot(ucSN, 0, 64), Bytes(64));
    EXPECT_EQ(slot(ucIssuer, 0, 512), Bytes(512));
    EXPECT_EQ(slot(ucSubject, 0, 512), Bytes(512));
    EXPECT_EQ(slot(notBefore, 0, 13), Bytes(13));
    EXPECT_EQ(slot(notAfter, 0, 13), Bytes(13));
    EXPECT_EQ(slot(sIssuer, 0, 642), Bytes(642));
    EXPECT_EQ(slot(sSubject, 0, 898), Bytes(898));
}

// What is kept depends on how many of the issuer's attributes count.
struct IssuerCase {
    std::size_t attributes;
    const char* notBefore;
    const char* notAfter;
    bool subjectIsTaken;
};

TEST(DerCertificate, ShiftsItsFieldsWithTheNumberOfIssuerAttributes)
{
    const NameEntries entries{
        {"C", V_ASN1_PRINTABLESTRING, "KZ"}, {"ST", V_ASN1_UTF8STRING, "S"},
        {"L", V_ASN1_UTF8STRING, "L"},       {"O", V_ASN1_UTF8STRING, "O"},
        {"OU", V_ASN1_UTF8STRING, "U"},      {"CN", V_ASN1_UTF8STRING, "N"},
        {"GN", V_ASN1_UTF8STRING, "G"},      {"SN", V_ASN1_UTF8STRING, "F"},
    };
    const std::vector<IssuerCase> cases{
        {1, "", "", false},
        {2, "", "", false},
        {3, "", "", false},
        {4, "", "", false},
        {5, "", "", false},
        {6, "250131120000Z", "350228235959Z", true},
        {7, "", "250131120000Z", true},
        {8, "", "", true},
    };
    for (const IssuerCase& one : cases) {
        CertificateSpec spec = fullSpec();
        spec.issuer.assign(entries.begin(),
                           entries.begin() + static_cast<std::ptrdiff_t>(one.attributes));
        spec.subject = {{"CN", V_ASN1_UTF8STRING, "Holder"}};
        const Certificate certificate = makeCertificate(spec);
        ASSERT_EQ(walk(certificate.der), 0);
        EXPECT_EQ(stored(ucSN, snLen), certificate.serial) << one.attributes;
        EXPECT_EQ(stored(ucIssuer, isLen), certificate.issuer) << one.attributes;
        EXPECT_EQ(timeText(notBefore), one.notBefore) << one.attributes;
        EXPECT_EQ(timeText(notAfter), one.notAfter) << one.attributes;
        if (one.attributes == 8) {
            // The counter stands at 9 when the validity comes.
            const Bytes validity =
                sequence({item(0x17, text(spec.notBefore)), item(0x17, text(spec.notAfter))});
            EXPECT_EQ(stored(ucSubject, sjLen), validity);
        } else {
            EXPECT_EQ(stored(ucSubject, sjLen), one.subjectIsTaken ? certificate.subject : Bytes{})
                << one.attributes;
        }
        // At counters up to 7 the subject's name still goes to the issuer's slot.
        const bool subjectCountsAsIssuer = one.attributes <= 5;
        EXPECT_EQ(textAt(sIssuer, 514), subjectCountsAsIssuer ? "Holder" : "N") << one.attributes;
        EXPECT_EQ(textAt(sSubject, 258), one.subjectIsTaken ? "Holder" : "") << one.attributes;
    }
}

TEST(DerCertificate, CountsOnlyTheIssuerAttributesItKnows)
{
    CertificateSpec spec = fullSpec();
    spec.issuer = {
        {"DC", V_ASN1_IA5STRING, "velt"},  {"C", V_ASN1_PRINTABLESTRING, "KZ"},
        {"title", V_ASN1_UTF8STRING, "T"}, {"ST", V_ASN1_UTF8STRING, "S"},
        {"L", V_ASN1_UTF8STRING, "L"},     {"street", V_ASN1_UTF8STRING, "Street 1"},
        {"O", V_ASN1_UTF8STRING, "O"},     {"OU", V_ASN1_UTF8STRING, "U"},
        {"CN", V_ASN1_UTF8STRING, "N"},    {"emailAddress", V_ASN1_IA5STRING, "ca@velt.example"},
    };
    spec.subject.pop_back();
    const Certificate certificate = makeCertificate(spec);
    ASSERT_EQ(walk(certificate.der), 0);
    EXPECT_EQ(timeText(notBefore), "250131120000Z");
    EXPECT_EQ(timeText(notAfter), "350228235959Z");
    EXPECT_EQ(stored(ucSubject, sjLen), certificate.subject);
    EXPECT_EQ(textAt(sSubject, 770), "ca@velt.example"); // from whichever name it comes
}

TEST(DerCertificate, SkipsTextsOfOtherStringTypes)
{
    CertificateSpec spec = fullSpec();
    spec.issuer[2].stringType = V_ASN1_BMPSTRING;
    spec.issuer[2].value = std::string("\0S\0e", 4);
    spec.issuer[5].stringType = V_ASN1_T61STRING;
    ASSERT_EQ(walk(makeCertificate(spec).der), 0);
    EXPECT_EQ(textAt(sIssuer, 130), "");
    EXPECT_EQ(textAt(sIssuer, 514), "");
    EXPECT_EQ(textAt(sIssuer, 386), "Test CA");
    EXPECT_EQ(timeText(notBefore), "250131120000Z"); // they count nevertheless
}

TEST(DerCertificate, StoresTextsOfEightSubjectAttributes)
{
    CertificateSpec spec = fullSpec();
    spec.extensions.clear();
    spec.subject.clear();
    for (const char* name : {"a1", "b2", "c3", "d4", "e5", "f6", "g7"}) {
        spec.subject.push_back({"CN", V_ASN1_UTF8STRING, name});
    }
    spec.subject.push_back({"SN", V_ASN1_UTF8STRING, "eighth"});
    spec.subject.push_back({"L", V_ASN1_UTF8STRING, "ninth"});
    ASSERT_EQ(walk(makeCertificate(spec).der), 0);
    EXPECT_EQ(cIndex, 18);
    EXPECT_EQ(textAt(sSubject, 258), "g7");
    EXPECT_EQ(textAt(sSubject, 514), "eighth");
    EXPECT_EQ(textAt(sSubject, 130), "");
}

TEST(DerCertificate, WithGeneralizedTimesFillsBothFromTheFirst)
{
    CertificateSpec spec = fullSpec();
    spec.notBefore = "20500131120000Z";
    spec.notAfter = "20600228235959Z";
    const Certificate certificate = makeCertificate(spec);
    ASSERT_EQ(walk(certificate.der), 0);
    EXPECT_EQ(timeText(notBefore), "2050013112000");
    EXPECT_EQ(timeText(notAfter), "2050013112000");
    EXPECT_EQ(stored(ucSubject, sjLen), certificate.subject);
}

TEST(DerCertificate, ThatEndsIn2050HasOneTimeOfEachKind)
{
    CertificateSpec spec = fullSpec();
    spec.notAfter = "20500228235959Z";
    ASSERT_EQ(walk(makeCertificate(spec).der), 0);
    EXPECT_EQ(timeText(notBefore), "250131120000Z");
    EXPECT_EQ(timeText(notAfter), "2050022823595");
}

TEST(DerCertificate, CountsAttributesInsideItsExtensions)
{
    CertificateSpec spec = fullSpec();
    spec.subject = {{"CN", V_ASN1_UTF8STRING, "Holder"}};
    const Bytes directory = sequence(
        {attribute(SURNAME, 0x0C, text("Inside")), attribute(LOCALITY, 0x13, text("Extension"))});
    spec.rawExtensions = {{"1.3.6.1.4.1.99999.1", directory}};
    ASSERT_EQ(walk(makeCertificate(spec).der), 0);
    EXPECT_EQ(cIndex, 9 + 3);
    EXPECT_EQ(textAt(sSubject, 514), "Inside");
    EXPECT_EQ(textAt(sSubject, 130), "Extension");
    // Content that is no item is skipped.
    spec.rawExtensions = {{"1.3.6.1.4.1.99999.1", join({directory, {0x00}})}};
    ASSERT_EQ(walk(makeCertificate(spec).der), 0);
    EXPECT_EQ(cIndex, 9 + 1);
    EXPECT_EQ(textAt(sSubject, 514), "");
}

TEST(DerCertificate, WithNamesLongerThanTheFieldsIsCut)
{
    CertificateSpec spec = fullSpec();
    spec.extensions.clear();
    spec.subject.clear();
    for (int i = 0; i < 8; ++i) {
        spec.subject.push_back({"CN", V_ASN1_UTF8STRING, std::string(60U, 'x')});
        spec.subject.push_back({"OU", V_ASN1_UTF8STRING, std::string(64U, 'y')});
    }
    for (NameEntry& entry : spec.issuer) {
        entry.value += std::string(entry.type == std::string("C") ? 0 : 300, 'z');
    }
    const Certificate certificate = makeCertificate(spec);
    ASSERT_GT(certificate.issuer.size(), 1024U);
    ASSERT_GT(certificate.subject.size(), 1024U);
    ASSERT_LT(certificate.der.size(), CERTIFICATE_BUFFER);
    ASSERT_EQ(walk(certificate.der), 0);
    EXPECT_EQ(isLen, 1024);
    EXPECT_EQ(slot(ucIssuer, 0, 1024), zeroPadded(certificate.issuer, 1024));
    EXPECT_EQ(sjLen, 1024);
    EXPECT_EQ(slot(ucSubject, 0, 1024), zeroPadded(certificate.subject, 1024));
    EXPECT_EQ(textAt(sIssuer, 258), "Velt Trust" + std::string(118, 'z'));
}

TEST(DerCertificate, CutAnywhereKeepsWhatCameBefore)
{
    const Bytes whole = makeCertificate(fullSpec()).der;
    ASSERT_EQ(walk(whole), 0);
    const Bytes serial = stored(ucSN, snLen);
    const Bytes issuer = stored(ucIssuer, isLen);
    const Bytes subject = stored(ucSubject, sjLen);
    const std::int32_t lastCount = cIndex;
    std::int32_t count = 0;
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        const Bytes prefix(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        ASSERT_EQ(walkWithoutSlack(prefix), 0);
        ASSERT_EQ(walk(prefix), 0);
        EXPECT_GE(cIndex, count) << "the counter falls back at " << length;
        count = cIndex;
        EXPECT_TRUE(snLen == 0 || snLen == static_cast<std::int32_t>(serial.size()));
        if (sjLen != 0) {
            // Kept as soon as its header is there; what was cut off reads as zeros.
            Bytes expected = subject;
            const Bytes kept = stored(ucSubject, sjLen);
            ASSERT_EQ(kept.size(), expected.size());
            const auto cut = std::mismatch(kept.begin(), kept.end(), expected.begin()).first;
            EXPECT_EQ(Bytes(cut, kept.end()), Bytes(static_cast<std::size_t>(kept.end() - cut)));
            EXPECT_EQ(stored(ucSN, snLen), serial);
            EXPECT_EQ(stored(ucIssuer, isLen), issuer);
        }
    }
    EXPECT_EQ(count, lastCount);
}

// Damaged certificates are walked in children, since some of them end the process.
struct Progress {
    std::uint32_t next;   // of the case to be walked
    std::uint32_t walked; // cases that came to an end
};

Bytes damaged(const Bytes& whole, std::uint32_t seed)
{
    std::mt19937 random(seed);
    Bytes bytes = whole;
    const std::uint32_t changes = 1 + random() % 8;
    for (std::uint32_t i = 0; i < changes; ++i) {
        bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
    }
    if (random() % 4 == 0) {
        bytes.resize(random() % bytes.size());
    }
    return bytes;
}

void walkDamaged(const Bytes& whole, Progress& progress, std::uint32_t cases)
{
    while (progress.next < cases) {
        const Bytes bytes = damaged(whole, progress.next++);
        const bool bounded = walk(bytes) == 0 && walkWithoutSlack(bytes) == 0 && snLen <= 64 &&
                             isLen <= 1024 && sjLen <= 1024;
        progress.walked += bounded ? 1 : 0;
    }
}

// The standard error of a child that walks on from `progress`; `status` as waitpid gives it.
std::string errorsOfChild(const Bytes& whole, Progress& progress, std::uint32_t cases, int& status)
{
    int ends[2];
    if (pipe(ends) != 0) {
        throw std::runtime_error("no pipe");
    }
    const pid_t child = fork();
    if (child == 0) {
        // The status is what counts; what the process registered for its end takes long.
        on_exit([](int code, void*) { _exit(code); }, nullptr);
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        close(ends[1]);
        fPos = 0;
        walkDamaged(whole, progress, cases);
        _exit(0);
    }
    close(ends[1]);
    std::string errors;
    char part[512];
    for (ssize_t count = 0; (count = read(ends[0], part, sizeof part)) > 0;) {
        errors.append(part, static_cast<std::size_t>(count));
    }
    close(ends[0]);
    waitpid(child, &status, 0);
    return errors;
}

TEST(DerCertificate, DamagedAnywhereIsWalkedOrEndsTheProcessWithItsMessage)
{
    constexpr std::uint32_t CASES = 800;
    const Bytes whole = makeCertificate(fullSpec()).der;
    auto* const progress = static_cast<Progress*>(
        mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(static_cast<void*>(progress), MAP_FAILED);
    std::uint32_t fatal = 0;
    while (progress->next < CASES) {
        const std::uint32_t before = progress->next;
        int status = 0;
        const std::string errors = errorsOfChild(whole, *progress, CASES, status);
        ASSERT_TRUE(WIFEXITED(status)) << "case " << progress->next - 1;
        if (WEXITSTATUS(status) == 0) {
            EXPECT_EQ(errors, "");
            break;
        }
        ASSERT_GT(progress->next, before);
        ASSERT_EQ(WEXITSTATUS(status), 1) << errors;
        ASSERT_THAT(errors,
                    ::testing::AnyOf(
                        ::testing::MatchesRegex("\nError: Invalid data encountered at position "
                                                "-?[0-9]+:( [0-9A-F][0-9A-F])+\\.\n"),
                        ::testing::MatchesRegex(
                            "\nError: Object identifier length [0-9]+ too large\\.\n")));
        ++fatal;
    }
    EXPECT_GT(fatal, 0U);
    EXPECT_EQ(progress->walked + fatal, CASES);
    munmap(progress, sizeof(Progress));
}

} // namespace
