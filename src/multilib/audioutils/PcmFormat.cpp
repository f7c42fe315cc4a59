#include "audioutils/PcmFormat.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace audioUtils {

namespace {

// Signed integer little-endian samples have none of these traits.
enum Traits : unsigned
{
    Signed = 0,
    Unsigned = 1,
    Float = 2,
    BigEndian = 4,
};

struct FormatDescription
{
    const char* name;
    const char* alsaName;
    unsigned int bytesPerSample;
    unsigned int traits;
};

constexpr std::array<FormatDescription, PcmFormatCount> formatDescriptions{{
    {"S8", "S8", 1, Signed},
    {"U8", "U8", 1, Unsigned},
    {"S16LE", "S16_LE", 2, Signed},
    {"S16BE", "S16_BE", 2, Signed | BigEndian},
    {"U16LE", "U16_LE", 2, Unsigned},
    {"U16BE", "U16_BE", 2, Unsigned | BigEndian},
    {"S24LE", "S24_3LE", 3, Signed},
    {"S24BE", "S24_3BE", 3, Signed | BigEndian},
    {"S32LE", "S32_LE", 4, Signed},
    {"S32BE", "S32_BE", 4, Signed | BigEndian},
    {"F32LE", "FLOAT_LE", 4, Float},
    {"F32BE", "FLOAT_BE", 4, Float | BigEndian},
}};

const FormatDescription* describe(PcmFormat format)
{
    const auto index = static_cast<std::uint32_t>(format);
    return index < formatDescriptions.size() ? &formatDescriptions[index] : nullptr;
}

bool equalIgnoringCase(std::string_view name, std::string_view known)
{
    return std::equal(name.begin(), name.end(), known.begin(), known.end(), [](char a, char b) {
        return std::toupper(static_cast<unsigned char>(a)) == static_cast<unsigned char>(b);
    });
}

} // namespace

const char* toString(PcmFormat format)
{
    const FormatDescription* description = describe(format);
    return description != nullptr ? description->name : "unknown";
}

std::optional<PcmFormat> toPcmFormat(std::string_view name)
{
    for (std::uint32_t index = 0; index < PcmFormatCount; ++index)
        if (equalIgnoringCase(name, formatDescriptions[index].name) ||
            equalIgnoringCase(name, formatDescriptions[index].alsaName))
            return PcmFormat{index};
    return std::nullopt;
}

unsigned int getBytesPerSample(PcmFormat format)
{
    return getSampleLayout(format).bytesPerSample;
}

PcmSampleLayout getSampleLayout(PcmFormat format)
{
    const FormatDescription* description = describe(format);
    if (description == nullptr)
        return {};
    const unsigned int traits = description->traits;
    return {description->bytesPerSample, (traits & Float) != 0, (traits & Unsigned) != 0,
            (traits & BigEndian) != 0};
}

} // namespace audioUtils
