// What the families with an applet share in velt-cardsim: their options and how they are served.
#pragma once

#include "sim/cardsim/served.h"

#include "sim/cards/applet_card.h"

// The options that every such family has, for the help.
inline constexpr std::string_view APPLET_OPTIONS =
    R"(  --pin PIN                 4 to 10 characters (1234)
  --retries N               wrong PINs allowed, 1 to 15 (3)
  --objects LIST            instead of what the token brings, separated by commas, or none: each
                            rsa2048, rsa1024, gost2012 or gost2001, which stand ready, or fresh-
                            before it, and +certificate behind it if it has one
  --names LIST              their names, in hexadecimal, 1 to 20 bytes each, separated by commas
  --issuer SHAPE            two, six or seven attributes in the issuers' names (six)
)";

// Takes what the command line says about objects until all of it is known.
class AppletSettings {
public:
    // False if the option is none of these.
    bool take(Arguments& arguments, sim::AppletOptions& options);
    // Throws UsageError if names and objects do not fit together.
    void finish(sim::AppletOptions& options) const;

private:
    std::string kinds_;
    std::string names_;
};

// The card that options and objects make, served.
template <class ServedKind, class Options>
std::unique_ptr<ServedCard> makeApplet(const AppletSettings& settings, Options options)
{
    settings.finish(options);
    return makeServed<ServedKind>(options);
}
