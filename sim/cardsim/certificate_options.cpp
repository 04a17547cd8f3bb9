#include "sim/cardsim/certificate_options.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

sim::Bytes readCertificate(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file || std::filesystem::is_directory(path)) {
        throw UsageError("cannot read certificate " + path);
    }
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    const std::unique_ptr<BIO, decltype(&BIO_free)> bio(
        BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), BIO_free);
    const bool pem = text.starts_with("-----");
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(
        pem ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)
            : d2i_X509_bio(bio.get(), nullptr),
        X509_free);
    if (!certificate) {
        throw UsageError("no certificate in " + path);
    }
    if (!pem) {
        return {text.begin(), text.end()};
    }
    unsigned char* der = nullptr;
    const int length = i2d_X509(certificate.get(), &der);
    sim::Bytes bytes(der, der + std::max(length, 0));
    OPENSSL_free(der);
    return bytes;
}

sim::NameAttributes issuerOf(const std::string& shape)
{
    if (shape == "two") {
        return sim::shortIssuer();
    }
    if (shape == "six") {
        return sim::defaultIssuer();
    }
    if (shape == "seven") {
        return sim::longIssuer();
    }
    throw UsageError("--issuer takes two, six or seven, not \"" + shape + "\"");
}
