#include "miscutils/MiscUtils.h"

#include <cstring>
#include <ctime>

namespace miscUtils {

namespace {

// strerror_r comes in two flavours depending on feature macros: the GNU one returns the text
// (which may or may not live in the buffer), the XSI one fills the buffer and returns 0.
[[maybe_unused]] const char* errorText(char* result, const char*)
{
    return result;
}
[[maybe_unused]] const char* errorText(int result, const char* buffer)
{
    return result == 0 ? buffer : nullptr;
}

} // namespace

TimeValue getMonotonicSysclockTime()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<TimeValue>(now.tv_sec) * 1000000000ULL + static_cast<TimeValue>(now.tv_nsec);
}

std::string strerror_r_safe(int errorNumber)
{
    char buffer[256] = {};
    const char* text = errorText(strerror_r(errorNumber, buffer, sizeof(buffer)), buffer);
    if (text == nullptr)
        return "Unknown error " + std::to_string(errorNumber);
    return text;
}

} // namespace miscUtils
