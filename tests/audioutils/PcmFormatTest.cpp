// The PCM sample formats: names, ALSA's names, and how each stores its samples.

#include <audioutils/PcmFormat.h>

#include <gtest/gtest.h>

#include <tuple>

namespace audioUtils {
namespace {

// Each name says the layout: F for float, U for unsigned, BE for big-endian, then the bits.
TEST(PcmFormat, NamesAndLayoutsOfEveryFormat)
{
    const std::string names[] = {"S8",    "U8",    "S16LE", "S16BE", "U16LE", "U16BE",
                                 "S24LE", "S24BE", "S32LE", "S32BE", "F32LE", "F32BE"};
    const std::string alsaNames[] = {"S8",      "U8",      "S16_LE", "S16_BE", "U16_LE",   "U16_BE",
                                     "S24_3LE", "S24_3BE", "S32_LE", "S32_BE", "FLOAT_LE", "FLOAT_BE"};
    for (std::uint32_t value = 0; value < PcmFormatCount; ++value)
    {
        const std::string& name = names[value];
        SCOPED_TRACE(name);
        const PcmSampleLayout layout = getSampleLayout(PcmFormat{value});
        EXPECT_EQ(
            std::tuple(layout.bytesPerSample * 8, layout.isFloat, layout.isUnsigned, layout.isBigEndian),
            std::tuple(std::stoul(name.substr(1)), name[0] == 'F', name[0] == 'U', name.ends_with("BE")));
        EXPECT_EQ(toString(PcmFormat{value}), name);
        std::string lowerCase = alsaNames[value];
        for (char& letter : lowerCase)
            letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
        for (const std::string& known : {name, alsaNames[value], lowerCase})
            EXPECT_EQ(toPcmFormat(known), PcmFormat{value}) << known;
    }
    const PcmSampleLayout none = getSampleLayout(PcmFormat{PcmFormatCount});
    EXPECT_EQ(std::tuple(none.bytesPerSample, none.isFloat, none.isUnsigned, none.isBigEndian),
              std::tuple(0u, false, false, false));
    // ALSA's S24_LE is 24 bits in 4 bytes: taking it for S24LE would misread every sample.
    for (const char* name : {"", "S24_LE", "S16", "S16LE ", "S16_LEX", "FLOAT", "F32"})
        EXPECT_EQ(toPcmFormat(name), std::nullopt) << name;
}

} // namespace
} // namespace audioUtils
