#pragma once

#include <string>
#include <string_view>

namespace vrx::test {

/// Death-test regex for a failed MISCUTILS_ASSERT whose expression is exactly `expression`
/// (the closing quote is part of the pattern, so a longer expression does not match).
inline std::string assertionFailure(std::string_view expression)
{
    constexpr std::string_view metaCharacters = "\\^$.|?*+()[]{}";
    std::string pattern = "Assertion \"";
    for (const char character : expression)
    {
        if (metaCharacters.find(character) != std::string_view::npos)
            pattern += '\\';
        pattern += character;
    }
    pattern += "\" failed in ";
    return pattern;
}

} // namespace vrx::test
