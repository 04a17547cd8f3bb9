#include "sim/cardsim/certificate_options.h"
#include "sim/cardsim/served.h"

#include "sim/cards/kaz_token.h"
#include "sim/cards/kaz_token_words.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr std::string_view OPTIONS =
    R"(  --pin PIN                 1 to 16 characters (123456)
  --retries N               wrong PINs allowed, 1 to 15 (3)
  --wrong-pin-status HEX    status of a wrong PIN (C063); the attempts left replace a 0 at the end,
                            or else a 0 in second place
  --blocked-pin-status HEX  status of every PIN once none are left (6983)
  --pairs LIST              key pairs with IDs from 1, separated by commas, or none: each rsa2048,
                            rsa1024, gost2012 or gost2001, which stand ready, or fresh- before it
                            (rsa2048,gost2012,rsa1024, of which the last has no certificate)
  --empty-certificates      no certificate on the token
  --certificate N=FILE      certificate of pair N, DER or PEM, or none
  --issuer SHAPE            two, six or seven attributes in the issuer's name (six)
  --no-list                 no list of the pairs
  --no-list-directory       nor the directory for it
  --end-of-file ANSWER      what reading at the very end of a file brings: bare or 6B00 (bare)
)";

using ServedKazToken = Served<sim::KazToken, sim::kazTokenWords, sim::kazTokenSecretLength>;

sim::KazPair pairOf(std::string kind, std::size_t position)
{
    constexpr std::string_view FRESH = "fresh-";
    constexpr std::pair<std::string_view, sim::KazKeyKind> KINDS[] = {
        {"rsa2048", sim::KazKeyKind::Rsa2048},
        {"rsa1024", sim::KazKeyKind::Rsa1024},
        {"gost2012", sim::KazKeyKind::Gost2012},
        {"gost2001", sim::KazKeyKind::Gost2001},
    };
    sim::KazPair pair;
    pair.id = static_cast<std::uint8_t>(position + 1);
    const std::string asked = kind;
    pair.fresh = kind.starts_with(FRESH);
    kind.erase(0, pair.fresh ? FRESH.size() : 0);
    const auto known = std::find_if(std::begin(KINDS), std::end(KINDS),
                                    [&](const auto& entry) { return entry.first == kind; });
    if (known == std::end(KINDS)) {
        throw UsageError("--pairs takes rsa2048, rsa1024, gost2012 and gost2001, not \"" + asked +
                         "\"");
    }
    pair.kind = known->second;
    return pair;
}

std::vector<sim::KazPair> pairsOf(const std::string& list)
{
    constexpr std::size_t MOST = 254;
    std::vector<sim::KazPair> pairs;
    for (std::size_t at = 0; list != "none" && at <= list.size();) {
        const std::size_t end = std::min(list.find(',', at), list.size());
        pairs.push_back(pairOf(list.substr(at, end - at), pairs.size()));
        at = end + 1;
    }
    if (pairs.size() > MOST) {
        throw UsageError("--pairs takes at most 254 pairs");
    }
    return pairs;
}

std::uint16_t statusOf(const std::string& text, std::string_view option)
{
    unsigned value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, 16);
    if (error != std::errc() || stop != end || text.size() != 4) {
        throw UsageError(std::string(option) + " takes four hexadecimal digits, not \"" + text +
                         "\"");
    }
    return static_cast<std::uint16_t>(value);
}

sim::EndOfFile endOfFileOf(const std::string& answer)
{
    if (answer != "bare" && answer != "6B00") {
        throw UsageError("--end-of-file takes bare or 6B00, not \"" + answer + "\"");
    }
    return answer == "bare" ? sim::EndOfFile::Bare : sim::EndOfFile::WrongOffset;
}

class KazTokenSettings final : public CardSettings {
public:
    bool take(Arguments& arguments) override { return takeFlag(arguments) || takeValue(arguments); }
    std::unique_ptr<ServedCard> make() const override
    {
        sim::KazTokenOptions options = options_;
        for (sim::KazPair& pair : options.pairs) {
            pair.certificate = pair.certificate && !emptyCertificates_;
        }
        for (const auto& [number, path] : certificates_) {
            if (number > options.pairs.size()) {
                throw UsageError("--certificate: there is no pair " + std::to_string(number));
            }
            sim::KazPair& pair = options.pairs[number - 1];
            pair.certificate = path != "none";
            pair.certificateDer = pair.certificate ? readCertificate(path) : sim::Bytes{};
        }
        return makeServed<ServedKazToken>(options);
    }

private:
    bool takeFlag(Arguments& arguments)
    {
        const std::string_view option = arguments.option();
        if (option == "--empty-certificates") {
            emptyCertificates_ = true;
        } else if (option == "--no-list") {
            options_.list = false;
        } else if (option == "--no-list-directory") {
            options_.listDirectory = false;
        } else {
            return false;
        }
        arguments.noValue();
        return true;
    }

    bool takeValue(Arguments& arguments)
    {
        const std::string_view option = arguments.option();
        if (option == "--pin") {
            options_.pin = arguments.value();
        } else if (option == "--retries") {
            options_.retryLimit = static_cast<std::uint8_t>(arguments.number(1, 15));
        } else if (option == "--wrong-pin-status") {
            options_.wrongPin = statusOf(arguments.value(), option);
        } else if (option == "--blocked-pin-status") {
            options_.blockedPin = statusOf(arguments.value(), option);
        } else if (option == "--pairs") {
            options_.pairs = pairsOf(arguments.value());
        } else if (option == "--certificate") {
            takeCertificate(arguments.value());
        } else if (option == "--issuer") {
            options_.issuer = issuerOf(arguments.value());
        } else if (option == "--end-of-file") {
            options_.endOfFile = endOfFileOf(arguments.value());
        } else {
            return false;
        }
        return true;
    }

    void takeCertificate(const std::string& value)
    {
        const std::size_t equals = value.find('=');
        if (equals == std::string::npos) {
            throw UsageError("--certificate takes the number of a pair, = and a file");
        }
        certificates_.emplace_back(parseNumber(value.substr(0, equals), 1, 254, "--certificate"),
                                   value.substr(equals + 1));
    }

    sim::KazTokenOptions options_;
    bool emptyCertificates_ = false;
    std::vector<std::pair<unsigned long, std::string>> certificates_;
};

std::unique_ptr<CardSettings> kazTokenSettings()
{
    return std::make_unique<KazTokenSettings>();
}

} // namespace

const Family kazTokenFamily{
    .name = "kt", .title = "KAZTOKEN", .options = OPTIONS, .settings = kazTokenSettings};
