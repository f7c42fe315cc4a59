#pragma once

// One PCM sample in any of the twelve wire formats, read and written as a full-scale 32-bit
// integer or as a float: the two forms in which libsndfile reads and writes files losslessly.
// How each format stores its samples is the library's fact (audioUtils::getSampleLayout).

#include <audioutils/PcmFormat.h>

#include <cstdint>
#include <span>

namespace vrxTools {

/// True for the IEEE float formats, whose samples are read and written as floats.
inline bool isFloatFormat(audioUtils::PcmFormat format)
{
    return audioUtils::getSampleLayout(format).isFloat;
}

/// An integer sample scaled to the full signed 32-bit range, as libsndfile's int interface
/// takes it: S16 0x1234 reads as 0x12340000, U8 0x80 as 0. Integer formats only.
std::int32_t readIntSample(const unsigned char* bytes, audioUtils::PcmFormat format);
/// The inverse of readIntSample; the bits below the format's width are dropped.
void writeIntSample(std::int32_t value, audioUtils::PcmFormat format, unsigned char* bytes);

/// Float formats only.
float readFloatSample(const unsigned char* bytes, audioUtils::PcmFormat format);
void writeFloatSample(float value, audioUtils::PcmFormat format, unsigned char* bytes);

/// Raises `peaks[c]` to the largest magnitude of channel c in `samples` (interleaved), where
/// 1.0 is full scale. Trailing bytes that make no whole sample frame are ignored.
void accumulatePeaks(std::span<const unsigned char> samples, audioUtils::PcmFormat format,
                     std::span<float> peaks);

} // namespace vrxTools
