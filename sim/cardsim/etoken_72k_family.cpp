#include "sim/cardsim/applet_family.h"

#include "sim/cards/etoken_72k.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace {

using ServedEtoken72k = Served<sim::Etoken72k, sim::Etoken72k::words, sim::Etoken72k::secretLength>;

constexpr std::string_view OWN_OPTIONS =
    R"(  --serial TEXT             serial number, 1 to 21 characters (ET72K-00421)
  --unterminated-names      names are sent without a zero byte behind them
)";

// Those of both applets, then the eToken's own, terminated.
constexpr auto ALL_OPTIONS = [] {
    std::array<char, APPLET_OPTIONS.size() + OWN_OPTIONS.size() + 1> text{};
    std::ranges::copy(OWN_OPTIONS, std::ranges::copy(APPLET_OPTIONS, text.begin()).out);
    return text;
}();

class Etoken72kSettings final : public CardSettings {
public:
    bool take(Arguments& arguments) override
    {
        const std::string_view option = arguments.option();
        if (option == "--serial") {
            options_.serial = arguments.value();
            return true;
        }
        if (option == "--unterminated-names") {
            options_.terminatedNames = false;
            arguments.noValue();
            return true;
        }
        return settings_.take(arguments, options_);
    }
    std::unique_ptr<ServedCard> make() const override
    {
        return makeApplet<ServedEtoken72k>(settings_, options_);
    }

private:
    AppletSettings settings_;
    sim::Etoken72kOptions options_;
};

std::unique_ptr<CardSettings> etoken72kSettings()
{
    return std::make_unique<Etoken72kSettings>();
}

} // namespace

const Family etoken72kFamily{.name = "et72k",
                             .title = "eToken 72K",
                             .options = {ALL_OPTIONS.data(), ALL_OPTIONS.size() - 1},
                             .settings = etoken72kSettings};
