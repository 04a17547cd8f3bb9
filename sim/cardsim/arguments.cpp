#include "sim/cardsim/arguments.h"

#include <charconv>

Arguments::Arguments(int argc, const char* const* argv) : words_(argv + 1, argv + argc) {}

bool Arguments::next()
{
    if (at_ == words_.size()) {
        return false;
    }
    option_ = words_[at_++];
    if (!option_.starts_with("--")) {
        throw UsageError("not an option: " + option_);
    }
    const std::size_t equals = option_.find('=');
    hasAttached_ = equals != std::string::npos;
    attached_ = hasAttached_ ? option_.substr(equals + 1) : std::string();
    option_.resize(hasAttached_ ? equals : option_.size());
    return true;
}

std::string Arguments::value()
{
    if (hasAttached_) {
        return attached_;
    }
    if (at_ == words_.size()) {
        throw UsageError(option_ + " needs a value");
    }
    return words_[at_++];
}

unsigned long Arguments::number(unsigned long least, unsigned long most)
{
    return parseNumber(value(), least, most, option_);
}

void Arguments::noValue() const
{
    if (hasAttached_) {
        throw UsageError(option_ + " takes no value");
    }
}

unsigned long parseNumber(const std::string& text, unsigned long least, unsigned long most,
                          std::string_view what)
{
    unsigned long number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || number < least || number > most) {
        throw UsageError(std::string(what) + " takes a number from " + std::to_string(least) +
                         " to " + std::to_string(most) + ", not \"" + text + "\"");
    }
    return number;
}
