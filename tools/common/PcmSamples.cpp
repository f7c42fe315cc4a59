#include "PcmSamples.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cmath>

namespace vrxTools {

namespace {

using audioUtils::PcmFormat;

struct Layout
{
    unsigned int width; // bytes
    bool bigEndian;
    bool isUnsigned;
};

Layout layoutOf(PcmFormat format)
{
    const unsigned int width = audioUtils::getBytesPerSample(format);
    switch (format)
    {
    case PcmFormat::U8:
    case PcmFormat::U16LE: return {width, false, true};
    case PcmFormat::U16BE: return {width, true, true};
    case PcmFormat::S16BE:
    case PcmFormat::S24BE:
    case PcmFormat::S32BE:
    case PcmFormat::F32BE: return {width, true, false};
    default: return {width, false, false};
    }
}

std::uint32_t readBits(const unsigned char* bytes, const Layout& layout)
{
    std::uint32_t bits = 0;
    for (unsigned int i = 0; i < layout.width; ++i)
        bits = (bits << 8) | bytes[layout.bigEndian ? i : layout.width - 1 - i];
    return bits;
}

void writeBits(std::uint32_t bits, unsigned char* bytes, const Layout& layout)
{
    for (unsigned int i = 0; i < layout.width; ++i)
        bytes[layout.bigEndian ? layout.width - 1 - i : i] = static_cast<unsigned char>(bits >> (8 * i));
}

} // namespace

bool isFloatFormat(PcmFormat format)
{
    return format == PcmFormat::F32LE || format == PcmFormat::F32BE;
}

std::int32_t readIntSample(const unsigned char* bytes, PcmFormat format)
{
    const Layout layout = layoutOf(format);
    std::uint32_t bits = readBits(bytes, layout) << (32 - 8 * layout.width);
    // Unsigned samples are offset binary: flipping the top bit makes them two's complement.
    if (layout.isUnsigned)
        bits ^= 0x80000000u;
    return static_cast<std::int32_t>(bits);
}

void writeIntSample(std::int32_t value, PcmFormat format, unsigned char* bytes)
{
    const Layout layout = layoutOf(format);
    std::uint32_t bits = static_cast<std::uint32_t>(value);
    if (layout.isUnsigned)
        bits ^= 0x80000000u;
    writeBits(bits >> (32 - 8 * layout.width), bytes, layout);
}

float readFloatSample(const unsigned char* bytes, PcmFormat format)
{
    return std::bit_cast<float>(readBits(bytes, layoutOf(format)));
}

void writeFloatSample(float value, PcmFormat format, unsigned char* bytes)
{
    writeBits(std::bit_cast<std::uint32_t>(value), bytes, layoutOf(format));
}

void accumulatePeaks(std::span<const unsigned char> samples, PcmFormat format, std::span<float> peaks)
{
    const std::size_t width = audioUtils::getBytesPerSample(format);
    const std::size_t channels = peaks.size();
    if (width == 0 || channels == 0)
        return;
    const std::size_t frames = samples.size() / (width * channels);
    const bool floats = isFloatFormat(format);
    const unsigned char* sample = samples.data();
    for (std::size_t frame = 0; frame < frames; ++frame)
    {
        for (std::size_t channel = 0; channel < channels; ++channel, sample += width)
        {
            const float value = floats ? readFloatSample(sample, format)
                                       : static_cast<float>(readIntSample(sample, format)) / 2147483648.0f;
            peaks[channel] = std::max(peaks[channel], std::fabs(value));
        }
    }
}

std::optional<PcmFormat> parsePcmFormat(std::string_view name)
{
    for (std::uint32_t value = 0; value < audioUtils::PcmFormatCount; ++value)
    {
        const auto format = static_cast<PcmFormat>(value);
        const std::string_view known = audioUtils::toString(format);
        if (std::equal(name.begin(), name.end(), known.begin(), known.end(),
                       [](char a, char b) { return std::toupper(static_cast<unsigned char>(a)) == b; }))
            return format;
    }
    return std::nullopt;
}

} // namespace vrxTools
