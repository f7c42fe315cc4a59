#pragma once

#include <miscutils/Export.h>

namespace miscUtils::detail {

/// Reports a failed assertion on stderr (expression text, function signature, source
/// location) and aborts the process.
[[noreturn]] VRX_EXPORT void assertionFailed(const char* expression, const char* function, const char* file,
                                             int line) noexcept;

} // namespace miscUtils::detail

/// Checks a precondition or invariant in every build type, Release included: a broken one
/// stops the process with the expression exactly as written.
#define MISCUTILS_ASSERT(expression)                                                                         \
    (static_cast<bool>(expression)                                                                           \
         ? static_cast<void>(0)                                                                              \
         : ::miscUtils::detail::assertionFailed(#expression, __PRETTY_FUNCTION__, __FILE__, __LINE__))
