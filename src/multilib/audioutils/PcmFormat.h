#pragma once

#include <miscutils/Export.h>

#include <cstdint>

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

/// Bytes one sample of one channel occupies; 0 for a value outside the enumeration.
VRX_EXPORT unsigned int getBytesPerSample(PcmFormat format);

} // namespace audioUtils
