#include "miscutils/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace miscUtils::detail {

void assertionFailed(const char* expression, const char* function, const char* file, int line) noexcept
{
    std::fprintf(stderr, "Assertion \"%s\" failed in %s (%s:%d)\n", expression, function, file, line);
    std::fflush(stderr);
    std::abort();
}

} // namespace miscUtils::detail
