#include "sim/cardsim/applet_family.h"

#include "sim/cards/jacarta.h"

namespace {

using ServedJacarta = Served<sim::Jacarta, sim::Jacarta::words, sim::Jacarta::secretLength>;

class JacartaSettings final : public CardSettings {
public:
    bool take(Arguments& arguments) override { return settings_.take(arguments, options_); }
    std::unique_ptr<ServedCard> make() const override
    {
        return makeApplet<ServedJacarta>(settings_, options_);
    }

private:
    AppletSettings settings_;
    sim::JacartaOptions options_;
};

std::unique_ptr<CardSettings> jacartaSettings()
{
    return std::make_unique<JacartaSettings>();
}

} // namespace

const Family jacartaFamily{
    .name = "jc", .title = "JaCarta", .options = APPLET_OPTIONS, .settings = jacartaSettings};
