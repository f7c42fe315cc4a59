#pragma once

#include <miscutils/Export.h>

#include <cstdint>
#include <optional>
#include <string_view>

namespace audioUtils {

/// Concrete PCM sample formats: signedness or float, width and byte order. The values are
/// carried on the wire as one byte, so they are fixed.
enum class PcmFormat : std::uint32_t
{
    S8 = 0,     ///< signed 8 bit
    U8 = 1,     ///< unsigned 8 bit
    S16LE = 2,  ///< signed 16 bit, little-endian
    S16BE = 3,  ///< signed 16 bit, big-endian
    U16LE = 4,  ///< unsigned 16 bit, little-endian
    U16BE = 5,  ///< unsigned 16 bit, big-endian
    S24LE = 6,  ///< signed 24 bit in 3 bytes, little-endian
    S24BE = 7,  ///< signed 24 bit in 3 bytes, big-endian
    S32LE = 8,  ///< signed 32 bit, little-endian
    S32BE = 9,  ///< signed 32 bit, big-endian
    F32LE = 10, ///< IEEE 754 32-bit float, little-endian
    F32BE = 11, ///< IEEE 754 32-bit float, big-endian
};

/// Number of distinct formats; every value below it is a valid PcmFormat.
inline constexpr std::uint32_t PcmFormatCount = 12;

/// Short name such as "S16LE"; "unknown" for a value outside the enumeration.
VRX_EXPORT const char* toString(PcmFormat format);

/// The format a name stands for: the short name of toString, or the name ALSA's tools (aplay,
/// arecord) give it ("S16_LE", "S24_3BE", "FLOAT_LE"), in any letter case. nullopt for any other
/// name; ALSA's "S24_LE" (24 bits in 4 bytes) is none of these formats.
VRX_EXPORT std::optional<PcmFormat> toPcmFormat(std::string_view name);

/// Bytes one sample of one channel occupies; 0 for a value outside the enumeration.
VRX_EXPORT unsigned int getBytesPerSample(PcmFormat format);

/// How one sample is stored, for code that converts samples.
struct PcmSampleLayout
{
    unsigned int bytesPerSample = 0;
    bool isFloat = false;    ///< IEEE 754; otherwise an integer
    bool isUnsigned = false; ///< an integer in offset binary: silence is half the range
    bool isBigEndian = false;
};

/// The layout of `format`; all zero for a value outside the enumeration.
VRX_EXPORT PcmSampleLayout getSampleLayout(PcmFormat format);

} // namespace audioUtils
