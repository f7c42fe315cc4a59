#pragma once

#include <miscutils/Export.h>

#include <cstdint>
#include <string>

namespace miscUtils {

/// A point in time or a duration, in nanoseconds.
using TimeValue = std::uint64_t;

/// Current reading of CLOCK_MONOTONIC in nanoseconds: the clock that every process on the
/// host shares, so a sender's frame timestamps can be compared with it directly.
VRX_EXPORT TimeValue getMonotonicSysclockTime();

/// Thread-safe text of an errno value (unlike strerror, safe to call from any thread).
VRX_EXPORT std::string strerror_r_safe(int errorNumber);

} // namespace miscUtils
