// A walk over the command line.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// The command line is wrong; what() says how.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Options are "--name", "--name value" or "--name=value".
class Arguments {
public:
    Arguments(int argc, const char* const* argv);

    bool next(); // goes to the next option; false behind the last
    std::string_view option() const { return option_; }
    // The option's value. An option that takes none must not be followed by "=".
    std::string value();
    unsigned long number(unsigned long least, unsigned long most);
    void noValue() const;

private:
    std::vector<std::string> words_;
    std::size_t at_ = 0;
    std::string option_;
    std::string attached_;
    bool hasAttached_ = false;
};

// A whole number within bounds; what names it in the message.
unsigned long parseNumber(const std::string& text, unsigned long least, unsigned long most,
                          std::string_view what);
