// Templates for C_CreateObject, and contents of a chosen compressed size.
#pragma once

#include "tests/support/idc_certificates.h"
#include "tests/support/idc_fixture.h"

#include <cstring>
#include <stdexcept>

namespace velt_test {

// A template attribute whose value lives in the object, in memory of exactly its size.
struct Attribute {
    CK_ATTRIBUTE_TYPE type;
    Bytes content;
};

inline Bytes number(std::uint64_t value)
{
    Bytes bytes(sizeof value);
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

inline Attribute classIs(std::uint64_t objClass)
{
    return {CKA_CLASS, number(objClass)};
}

inline Attribute onToken(std::uint8_t flag)
{
    return {CKA_TOKEN, {flag}};
}

inline std::vector<CK_ATTRIBUTE> asTemplate(std::vector<Attribute>& attributes)
{
    std::vector<CK_ATTRIBUTE> rows;
    for (Attribute& attribute : attributes) {
        attribute.content.shrink_to_fit();
        rows.push_back({attribute.type, attribute.content.data(), attribute.content.size()});
    }
    return rows;
}

// Content of which gzip makes exactly `size` bytes.
inline Bytes contentCompressingTo(std::size_t size)
{
    const Bytes noise = pattern(size);
    for (std::size_t count = size < 64 ? 0 : size - 64; count <= size; ++count) {
        const Bytes content = slice(noise, 0, count);
        if (gzipMember(content).size() == size) {
            return content;
        }
    }
    throw std::logic_error("no content gives this size");
}

} // namespace velt_test
