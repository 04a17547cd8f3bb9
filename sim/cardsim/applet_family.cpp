#include "sim/cardsim/applet_family.h"

#include "sim/cardsim/certificate_options.h"

#include "sim/cards/scripted_card.h"

namespace {

constexpr std::string_view FRESH = "fresh-";
constexpr std::string_view WITH_CERTIFICATE = "+certificate";

std::vector<std::string> splitAtCommas(const std::string& list)
{
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (std::size_t comma = list.find(','); comma != std::string::npos;
         comma = list.find(',', start)) {
        parts.push_back(list.substr(start, comma - start));
        start = comma + 1;
    }
    parts.push_back(list.substr(start));
    return parts;
}

sim::Bytes nameOf(const std::string& text)
{
    const bool digits = text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    if (text.empty() || !digits || text.size() % 2 != 0) {
        throw UsageError("--names takes hexadecimal names, not \"" + text + "\"");
    }
    return sim::hex(text);
}

sim::Bytes usualName(std::size_t position)
{
    const std::string name = "object-" + std::to_string(position + 1);
    return {name.begin(), name.end()};
}

// Of each kind two keys stand ready, which objects take in turns.
enum class Choice { First, Second, Fresh };

sim::RsaKey rsaKey(Choice choice, unsigned bits)
{
    using sim::TestKey;
    const bool first = choice == Choice::First;
    if (choice == Choice::Fresh) {
        return sim::RsaKey::generate(bits);
    }
    return sim::RsaKey::fromTestKey(bits == 2048
                                        ? (first ? TestKey::First2048 : TestKey::Second2048)
                                        : (first ? TestKey::First1024 : TestKey::Second1024));
}

sim::GostKey gostKey(Choice choice, sim::GostAlgorithm algorithm)
{
    using sim::GostTestKey;
    const bool first = choice == Choice::First;
    if (choice == Choice::Fresh) {
        return sim::GostKey::generate(algorithm);
    }
    return sim::GostKey::fromTestKey(
        algorithm == sim::GostAlgorithm::Gost2001
            ? (first ? GostTestKey::First2001 : GostTestKey::Second2001)
            : (first ? GostTestKey::First2012 : GostTestKey::Second2012));
}

void putKey(sim::AppletObject& object, const std::string& asked, std::size_t position)
{
    const bool fresh = asked.starts_with(FRESH);
    const std::string kind = asked.substr(fresh ? FRESH.size() : 0);
    const Choice choice =
        fresh ? Choice::Fresh : (position % 2 == 0 ? Choice::First : Choice::Second);
    if (kind == "rsa2048") {
        object.rsa = rsaKey(choice, 2048);
    } else if (kind == "rsa1024") {
        object.rsa = rsaKey(choice, 1024);
    } else if (kind == "gost2012") {
        object.gost = gostKey(choice, sim::GostAlgorithm::Gost2012_256);
    } else if (kind == "gost2001") {
        object.gost = gostKey(choice, sim::GostAlgorithm::Gost2001);
    } else {
        throw UsageError("--objects takes rsa2048, rsa1024, gost2012 and gost2001, not \"" + asked +
                         "\"");
    }
}

sim::AppletObject objectOf(std::string kind, sim::Bytes name, std::size_t position,
                           const sim::NameAttributes& issuer)
{
    sim::AppletObject object{std::move(name)};
    const bool certified = kind.ends_with(WITH_CERTIFICATE);
    kind.resize(kind.size() - (certified ? WITH_CERTIFICATE.size() : 0));
    putKey(object, kind, position);
    if (certified) {
        object.setCertificate(certificateFor(object, "Velt Holder", issuer));
    }
    return object;
}

} // namespace

bool AppletSettings::take(Arguments& arguments, sim::AppletOptions& options)
{
    const std::string_view option = arguments.option();
    if (option == "--pin") {
        options.pin = arguments.value();
    } else if (option == "--retries") {
        options.retryLimit = static_cast<std::uint8_t>(arguments.number(1, 15));
    } else if (option == "--issuer") {
        options.issuer = issuerOf(arguments.value());
    } else if (option == "--objects") {
        kinds_ = arguments.value();
    } else if (option == "--names") {
        names_ = arguments.value();
    } else {
        return false;
    }
    return true;
}

void AppletSettings::finish(sim::AppletOptions& options) const
{
    if (kinds_.empty()) {
        if (!names_.empty()) {
            throw UsageError("--names needs --objects");
        }
        return;
    }
    const std::vector<std::string> kinds =
        kinds_ == "none" ? std::vector<std::string>{} : splitAtCommas(kinds_);
    const std::vector<std::string> names =
        names_.empty() ? std::vector<std::string>{} : splitAtCommas(names_);
    if (!names.empty() && names.size() != kinds.size()) {
        throw UsageError("--names and --objects have different numbers of entries");
    }
    options.objects.emplace();
    for (std::size_t i = 0; i < kinds.size(); ++i) {
        options.objects->push_back(
            objectOf(kinds[i], names.empty() ? usualName(i) : nameOf(names[i]), i, options.issuer));
    }
}
