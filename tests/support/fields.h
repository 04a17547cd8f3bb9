// What a call wrote to the caller's memory, and that it wrote no more.
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>

namespace velt_test {

// Text of a blank-padded field, padding included.
template <std::size_t Size>
std::string text(const unsigned char (&field)[Size])
{
    return {reinterpret_cast<const char*>(field), Size};
}

inline std::string paddedTo(std::size_t size, std::string_view text)
{
    std::string field(text);
    field.resize(size, ' ');
    return field;
}

// A structure with bytes of a known value behind it, all of them preset.
template <class Record>
struct Guarded {
    static constexpr unsigned char SENTINEL = 0xA5;

    Guarded() { std::fill(std::begin(bytes), std::end(bytes), SENTINEL); }

    Record* get() { return reinterpret_cast<Record*>(bytes); }
    Record* operator->() { return get(); }

    bool isUntouched() const { return isSentinelFrom(0); }
    bool endIsUntouched() const { return isSentinelFrom(sizeof(Record)); }

private:
    bool isSentinelFrom(std::size_t from) const
    {
        return std::all_of(std::begin(bytes) + from, std::end(bytes),
                           [](unsigned char byte) { return byte == SENTINEL; });
    }

    alignas(Record) unsigned char bytes[sizeof(Record) + 64];
};

} // namespace velt_test
