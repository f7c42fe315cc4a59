#include <audioutils/PcmFormat.h>

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

using audioUtils::PcmFormat;

TEST(PcmFormat, TwelveDistinctNamedFormatsWithTheirSampleWidths)
{
    std::set<std::string> names;
    for (std::uint32_t value = 0; value < audioUtils::PcmFormatCount; ++value)
    {
        const auto format = static_cast<PcmFormat>(value);
        names.insert(audioUtils::toString(format));
        EXPECT_GE(audioUtils::getBytesPerSample(format), 1U) << value;
        EXPECT_LE(audioUtils::getBytesPerSample(format), 4U) << value;
    }
    EXPECT_EQ(names.size(), 12U);
    EXPECT_EQ(names.count("unknown"), 0U);

    EXPECT_STREQ(audioUtils::toString(PcmFormat::S16LE), "S16LE");
    EXPECT_EQ(audioUtils::getBytesPerSample(PcmFormat::S16LE), 2U);
    EXPECT_STREQ(audioUtils::toString(PcmFormat::F32LE), "F32LE");
    EXPECT_EQ(audioUtils::getBytesPerSample(PcmFormat::F32LE), 4U);
    EXPECT_EQ(audioUtils::getBytesPerSample(PcmFormat::S24BE), 3U);
}

TEST(PcmFormat, ValuesBeyondTheEnumerationAreUnknown)
{
    EXPECT_STREQ(audioUtils::toString(static_cast<PcmFormat>(12)), "unknown");
    EXPECT_EQ(audioUtils::getBytesPerSample(static_cast<PcmFormat>(255)), 0U);
}

} // namespace
