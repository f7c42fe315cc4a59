#include "PcmSamples.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace vrxTools {

using audioUtils::PcmFormat;

namespace {

using Layout = audioUtils::PcmSampleLayout;

std::uint32_t readBits(const unsigned char* bytes, const Layout& layout)
{
    std::uint32_t bits = 0;
    for (unsigned int i = 0; i < layout.bytesPerSample; ++i)
        bits = (bits << 8) | bytes[layout.isBigEndian ? i : layout.bytesPerSample - 1 - i];
    return bits;
}

void writeBits(std::uint32_t bits, unsigned char* bytes, const Layout& layout)
{
    for (unsigned int i = 0; i < layout.bytesPerSample; ++i)
        bytes[layout.isBigEndian ? layout.bytesPerSample - 1 - i : i] =
            static_cast<unsigned char>(bits >> (8 * i));
}

} // namespace

std::int32_t readIntSample(const unsigned char* bytes, PcmFormat format)
{
    const Layout layout = audioUtils::getSampleLayout(format);
    std::uint32_t bits = readBits(bytes, layout) << (32 - 8 * layout.bytesPerSample);
    // Unsigned samples are offset binary: flipping the top bit makes them two's complement.
    if (layout.isUnsigned)
        bits ^= 0x80000000u;
    return static_cast<std::int32_t>(bits);
}

void writeIntSample(std::int32_t value, PcmFormat format, unsigned char* bytes)
{
    const Layout layout = audioUtils::getSampleLayout(format);
    std::uint32_t bits = static_cast<std::uint32_t>(value);
    if (layout.isUnsigned)
        bits ^= 0x80000000u;
    writeBits(bits >> (32 - 8 * layout.bytesPerSample), bytes, layout);
}

float readFloatSample(const unsigned char* bytes, PcmFormat format)
{
    return std::bit_cast<float>(readBits(bytes, audioUtils::getSampleLayout(format)));
}

void writeFloatSample(float value, PcmFormat format, unsigned char* bytes)
{
    writeBits(std::bit_cast<std::uint32_t>(value), bytes, audioUtils::getSampleLayout(format));
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

} // namespace vrxTools
