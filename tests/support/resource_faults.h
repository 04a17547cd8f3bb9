// Makes the compressor fail in the module, in programs linked with its wrapper (CMakeLists.txt).
#pragma once

namespace velt_test {

// Every deflateInit2_ from now on returns the code.
void failCompression(int code);

void stopFailing();

} // namespace velt_test
