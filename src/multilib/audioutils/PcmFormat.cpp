#include "audioutils/PcmFormat.h"

#include <array>

namespace audioUtils {

namespace {

struct FormatDescription
{
    const char* name;
    unsigned int bytesPerSample;
};

constexpr std::array<FormatDescription, PcmFormatCount> formatDescriptions{{
    {"S8", 1},
    {"U8", 1},
    {"S16LE", 2},
    {"S16BE", 2},
    {"U16LE", 2},
    {"U16BE", 2},
    {"S24LE", 3},
    {"S24BE", 3},
    {"S32LE", 4},
    {"S32BE", 4},
    {"F32LE", 4},
    {"F32BE", 4},
}};

const FormatDescription* describe(PcmFormat format)
{
    const auto index = static_cast<std::uint32_t>(format);
    return index < formatDescriptions.size() ? &formatDescriptions[index] : nullptr;
}

} // namespace

const char* toString(PcmFormat format)
{
    const FormatDescription* description = describe(format);
    return description != nullptr ? description->name : "unknown";
}

unsigned int getBytesPerSample(PcmFormat format)
{
    const FormatDescription* description = describe(format);
    return description != nullptr ? description->bytesPerSample : 0;
}

} // namespace audioUtils
