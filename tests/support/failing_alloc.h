// Allocations of the module's own objects: counted, and made to fail. Programs with these functions
// link a copy of the objects whose malloc, calloc, realloc, free and strdup are renamed, so that
// the tests' and the stand-in's own allocations are neither counted nor refused.
#pragma once

#include <cstddef>

namespace velt_test::alloc {

// From now on nothing fails and the count starts at 0.
void clear();

// The n-th allocation from now on fails (1 is the next), or that one and all behind it.
void failNth(std::size_t n);
void failFrom(std::size_t n);

// Allocations asked for since the last of the calls above, refused ones included.
std::size_t asked();

// Allocations refused since then.
std::size_t refused();

// Blocks that the module holds now, and whether an address is the start of one.
std::size_t held();
bool isHeld(const void* block);

} // namespace velt_test::alloc
