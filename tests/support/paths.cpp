#include "tests/support/paths.h"

namespace velt_test {

const char* const builtModule = VELT_BUILT_MODULE;
const char* const buildDirectory = VELT_BUILD_DIRECTORY;

} // namespace velt_test
