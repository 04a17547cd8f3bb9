// Where this build lies. Apart from the tests, so that their objects are the same in every tree.
#pragma once

namespace velt_test {

extern const char* const builtModule; // velt-pkcs11.so
extern const char* const buildDirectory;

} // namespace velt_test
