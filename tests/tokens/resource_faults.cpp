#include "tests/support/resource_faults.h"

#include <cstdlib>

#include <zlib.h>

namespace {

std::size_t allocationsLeft = 0; // until the one that fails; 0: none fails
int compressionCode = Z_OK;

} // namespace

extern "C" {

// The linker gives calls of calloc() and deflateInit2_() the names with __wrap_, and the functions
// themselves those with __real_.
void* __real_calloc(std::size_t count, std::size_t size);
int __real_deflateInit2_(z_streamp stream, int level, int method, int windowBits, int memLevel,
                         int strategy, const char* version, int streamSize);

void* __wrap_calloc(std::size_t count, std::size_t size)
{
    if (allocationsLeft != 0 && --allocationsLeft == 0) {
        return nullptr;
    }
    return __real_calloc(count, size);
}

int __wrap_deflateInit2_(z_streamp stream, int level, int method, int windowBits, int memLevel,
                         int strategy, const char* version, int streamSize)
{
    if (compressionCode != Z_OK) {
        return compressionCode;
    }
    return __real_deflateInit2_(stream, level, method, windowBits, memLevel, strategy, version,
                                streamSize);
}

} // extern "C"

void velt_test::failNthAllocation(std::size_t n)
{
    allocationsLeft = n;
}

void velt_test::failCompression(int code)
{
    compressionCode = code;
}

void velt_test::stopFailing()
{
    allocationsLeft = 0;
    compressionCode = Z_OK;
}
