// What VRAX_ASSERT does when its condition is false.
#include "vrax/vraxassert.h"

#include <cstdio>
#include <cstdlib>

void vraxAssertFailed(const char* expression, const char* file, int line)
{
    std::fprintf(stderr, "ASSERT: \"%s\" in file %s, line %d\n", expression, file, line);
    std::fflush(stderr);
    std::abort();
}
