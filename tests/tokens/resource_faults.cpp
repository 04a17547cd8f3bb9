#include "tests/support/resource_faults.h"

#include <zlib.h>

namespace {

int compressionCode = Z_OK;

} // namespace

extern "C" {

// The linker gives calls of deflateInit2_() the name with __wrap_, and the function itself the one
// with __real_.
int __real_deflateInit2_(z_streamp stream, int level, int method, int windowBits, int memLevel,
                         int strategy, const char* version, int streamSize);

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

void velt_test::failCompression(int code)
{
    compressionCode = code;
}

void velt_test::stopFailing()
{
    compressionCode = Z_OK;
}
