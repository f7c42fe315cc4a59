// The PCM sample formats: names, ALSA's names, and how each stores its samples.

#include <audioutils/PcmFormat.h>

#include <gtest/gtest.h>

#include <tuple>

namespace audioUtils {
namespace {

TEST(PcmFormat, NamesAndLayoutsOfEveryFormat)
{
    struct Case
    {
        PcmFormat format;
        const char *name, *alsaName;
        unsigned int bytes;
        bool isFloat, isUnsigned, isBigEndian;
    };
    const Case cases[] = {
        {PcmFormat::S8, "S8", "S8", 1, false, false, false},
        {PcmFormat::U8, "U8", "U8", 1, false, true, false},
        {PcmFormat::S16LE, "S16LE", "S16_LE", 2, false, false, false},
        {PcmFormat::S16BE, "S16BE", "S16_BE", 2, false, false, true},
        {PcmFormat::U16LE, "U16LE", "U16_LE", 2, false, true, false},
        {PcmFormat::U16BE, "U16BE", "U16_BE", 2, false, true, true},
        {PcmFormat::S24LE, "S24LE", "S24_3LE", 3, false, false, false},
        {PcmFormat::S24BE, "S24BE", "S24_3BE", 3, false, false, true},
        {PcmFormat::S32LE, "S32LE", "S32_LE", 4, false, false, false},
        {PcmFormat::S32BE, "S32BE", "S32_BE", 4, false, false, true},
        {PcmFormat::F32LE, "F32LE", "FLOAT_LE", 4, true, false, false},
        {PcmFormat::F32BE, "F32BE", "FLOAT_BE", 4, true, false, true},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.name);
        const PcmSampleLayout layout = getSampleLayout(c.format);
        EXPECT_EQ(std::tuple(layout.bytesPerSample, layout.isFloat, layout.isUnsigned, layout.isBigEndian),
                  std::tuple(c.bytes, c.isFloat, c.isUnsigned, c.isBigEndian));
        EXPECT_EQ(toString(c.format), std::string(c.name));
        std::string lowerCase = c.alsaName;
        for (char& letter : lowerCase)
            letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
        for (const std::string& name : {std::string(c.name), std::string(c.alsaName), lowerCase})
            EXPECT_EQ(toPcmFormat(name), c.format) << name;
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
