#include "sim/cardsim/certificate_options.h"
#include "sim/cardsim/served.h"

#include "sim/cards/id_card.h"
#include "sim/cards/id_card_words.h"
#include "sim/cards/scripted_card.h"

#include <algorithm>

namespace {

constexpr std::string_view OPTIONS =
    R"(  --old-atr, --new-atr      the issue of the card (new)
  --pin PIN                 four characters (1234)
  --retries N               wrong PINs allowed, 1 to 15 (3)
  --keys FIRST,SECOND       each none, fresh, 1024 or 2048 (2048,2048); fresh generates one of
                            2,048 bits, the others stand ready
  --generated-bits N        size of the keys that the card generates (2048)
  --empty-certificates      no certificate on the card
  --certificate1 FILE       certificate of the first key, DER or PEM, or none
  --certificate2 FILE       the same for the second key
  --issuer SHAPE            two, six or seven attributes in the issuer's name (six)
  --data-object HEX         the nine bytes of data object DF01
)";

void setKey(sim::IdCardPosition& position, const std::string& kind)
{
    position.freshKey = kind == "fresh";
    if (kind == "none") {
        position.keyBits = 0;
    } else if (kind == "1024") {
        position.keyBits = 1024;
    } else if (kind == "2048" || kind == "fresh") {
        position.keyBits = 2048;
    } else {
        throw UsageError("--keys takes none, fresh, 1024 or 2048, not \"" + kind + "\"");
    }
}

void setKeys(sim::IdCardOptions& options, const std::string& kinds)
{
    const std::size_t comma = kinds.find(',');
    if (comma == std::string::npos) {
        throw UsageError("--keys takes two values with a comma between them");
    }
    setKey(options.positions[0], kinds.substr(0, comma));
    setKey(options.positions[1], kinds.substr(comma + 1));
}

void setCertificate(sim::IdCardPosition& position, const std::string& path)
{
    position.certificate = path != "none";
    position.certificateDer = position.certificate ? readCertificate(path) : sim::Bytes{};
}

void setDataObject(sim::IdCardOptions& options, const std::string& text)
{
    const bool digits = text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    if (!digits || text.size() != options.cardObject.size() * 2) {
        throw UsageError("--data-object takes 18 hexadecimal digits, not \"" + text + "\"");
    }
    const sim::Bytes bytes = sim::hex(text);
    std::copy(bytes.begin(), bytes.end(), options.cardObject.begin());
}

using ServedIdCard = Served<sim::IdCard, sim::idCardWords, sim::idCardSecretLength>;

class IdCardSettings final : public CardSettings {
public:
    bool take(Arguments& arguments) override { return takeFlag(arguments) || takeValue(arguments); }
    std::unique_ptr<ServedCard> make() const override { return makeServed<ServedIdCard>(options_); }

private:
    bool takeFlag(Arguments& arguments)
    {
        const std::string_view option = arguments.option();
        if (option == "--old-atr") {
            options_.issue = sim::IdCardIssue::Old;
        } else if (option == "--new-atr") {
            options_.issue = sim::IdCardIssue::New;
        } else if (option == "--empty-certificates") {
            options_.positions[0].certificate = options_.positions[1].certificate = false;
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
        } else if (option == "--keys") {
            setKeys(options_, arguments.value());
        } else if (option == "--generated-bits") {
            options_.generatedBits = static_cast<unsigned>(arguments.number(1024, 4096));
        } else if (option == "--certificate1") {
            setCertificate(options_.positions[0], arguments.value());
        } else if (option == "--certificate2") {
            setCertificate(options_.positions[1], arguments.value());
        } else if (option == "--issuer") {
            options_.issuer = issuerOf(arguments.value());
        } else if (option == "--data-object") {
            setDataObject(options_, arguments.value());
        } else {
            return false;
        }
        return true;
    }

    sim::IdCardOptions options_;
};

std::unique_ptr<CardSettings> idCardSettings()
{
    return std::make_unique<IdCardSettings>();
}

} // namespace

const Family idCardFamily{
    .name = "idc", .title = "identity card", .options = OPTIONS, .settings = idCardSettings};
