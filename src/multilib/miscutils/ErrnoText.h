#pragma once

// How failed system and nanomsg calls are logged: the error text, then the number in
// parentheses, e.g. `LOG4CPLUS_ERROR(logger, "Could not poll: " << ErrnoText{errno});`.
// Private to the library.

#include "miscutils/MiscUtils.h"

#include <ostream>
#include <string>

namespace miscUtils::detail {

struct ErrnoText
{
    int errorNumber;
};

inline std::string toString(const ErrnoText& text)
{
    return strerror_r_safe(text.errorNumber) + " (" + std::to_string(text.errorNumber) + ")";
}

inline std::ostream& operator<<(std::ostream& stream, const ErrnoText& text)
{
    return stream << toString(text);
}

} // namespace miscUtils::detail
