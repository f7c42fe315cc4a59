#include "audioutils/PcmFormat.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace audioUtils {

namespace {

struct FormatDescription
{
    const char* name;
    const char* alsaName;
    PcmSampleLayout layout; // bytes, float, unsigned, big-endian
};

constexpr std::array<FormatDescription, PcmFormatCount> formatDescriptions{{
    {"S8", "S8", {1, false, false, false}},
    {"U8", "U8", {1, false, true, false}},
    {"S16LE", "S16_LE", {2, false, false, false}},
    {"S16BE", "S16_BE", {2, false, false, true}},
    {"U16LE", "U16_LE", {2, false, true, false}},
    {"U16BE", "U16_BE", {2, false, true, true}},
    {"S24LE", "S24_3LE", {3, false, false, false}},
    {"S24BE", "S24_3BE", {3, false, false, true}},
    {"S32LE", "S32_LE", {4, false, false, false}},
    {"S32BE", "S32_BE", {4, false, false, true}},
    {"F32LE", "FLOAT_LE", {4, true, false, false}},
    {"F32BE", "FLOAT_BE", {4, true, false, true}},
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
    return description != nullptr ? description->layout : PcmSampleLayout{};
}

} // namespace audioUtils
