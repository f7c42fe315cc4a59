#pragma once

// How failed system and nanomsg calls are logged: the error text, then the number in
// parentheses, e.g. `LOG4CPLUS_ERROR(logger, "Could not poll: " << ErrnoText{errno});`.
// Private to the library.

#include "miscutils/MiscUtils.h"

#include <ostream>

namespace miscUtils::detail {

struct ErrnoText
{
    int errorNumber;
};

inline std::ostream& operator<<(std::ostream& stream, const ErrnoText& text)
{
    return stream << strerror_r_safe(text.errorNumber) << " (" << text.errorNumber << ")";
}

} // namespace miscUtils::detail
