#include <voraxis/VrxPayload.h>

#include "AssertionRegex.h"

#include "TestHelpers.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace std::literals;
using audioUtils::PcmFormat;
using vrx::Buffer;
using vrx::ByteSpan;
using vrx::PacketType;

using vrx::test::bytes;

// --- packet type and common header -----------------------------------------------------

TEST(PacketType, ToStringNamesTheTypesAndDummyBeyondTheEnumeration)
{
    EXPECT_EQ(vrx::toString(PacketType::Unknown), "unknown");
    EXPECT_EQ(vrx::toString(PacketType::SequenceInfo), "sequenceInfo");
    EXPECT_EQ(vrx::toString(PacketType::Frame), "frame");
    for (const std::uint32_t value : {4U, 7U, 255U, 0xFFFFFFFFU})
        EXPECT_EQ(vrx::toString(static_cast<PacketType>(value)), "<dummy>") << value;
}

TEST(PacketTypeDeathTest, CountIsNotAPacketType)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(vrx::toString(PacketType::Count), vrx::test::assertionFailure("false") + ".*toString");
}

TEST(PacketHeader, TypeComesFromByteZeroOnly)
{
    EXPECT_EQ(vrx::parsePacketType(bytes("\x01"sv)), PacketType::SequenceInfo);
    EXPECT_EQ(vrx::parsePacketType(bytes("\x02\x01\x01\x01"sv)), PacketType::Frame);
    for (const unsigned char type : {0, 3, 9, 255})
        EXPECT_EQ(vrx::parsePacketType(Buffer{type, 1, 2}), PacketType::Unknown) << int{type};
}

TEST(PacketHeader, SequenceNumberIsBytesTwoAndThreeLittleEndian)
{
    EXPECT_EQ(vrx::parsePacketSequenceNr(bytes("\xFF\xFF\x02\x01"sv)), 258);
    EXPECT_EQ(vrx::parsePacketSequenceNr(bytes("\x01\x00\xEF\xBE\x07\x07"sv)), 0xBEEF);
}

TEST(PacketHeaderDeathTest, ParsersStopOnTooShortPackets)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(vrx::parsePacketType(ByteSpan{}),
                 vrx::test::assertionFailure("packetData.size() >= 1") + ".*parsePacketType");
    EXPECT_DEATH(vrx::parsePacketSequenceNr(bytes("\x02\x00\x01"sv)),
                 vrx::test::assertionFailure("packetData.size() >= 4") + ".*parsePacketSequenceNr");
}

// --- SequenceInfo and Frame layouts -----------------------------------------------------

TEST(SequenceInfoPacket, HeaderFourccAndCodecHeaderInOrder)
{
    Buffer packet;
    vrx::produceSequenceInfoPacket(packet, vrx::PcmFourcc, {}, 258);
    EXPECT_EQ(packet, bytes("\x01\x00\x02\x01"
                            "PCMA"sv));

    vrx::produceSequenceInfoPacket(packet, 0x04030201, bytes("\x80\xBB\x00\x00\x02\x03"sv), 0xFFFF);
    EXPECT_EQ(packet, bytes("\x01\x00\xFF\xFF"
                            "\x01\x02\x03\x04"
                            "\x80\xBB\x00\x00\x02\x03"sv));
}

TEST(FramePacket, TwentyByteHeaderThenMedia)
{
    vrx::Payloader payloader(vrx::PcmFourcc);
    Buffer packet;
    payloader.produceFramePacket(packet, 1, 1, 2, bytes("\x0A\x0B\x0C"sv));
    EXPECT_EQ(packet, bytes("\x02\x00\x01\x00"
                            "\x01\x00\x00\x00\x00\x00\x00\x00"
                            "\x02\x00\x00\x00\x00\x00\x00\x00"
                            "\x0A\x0B\x0C"sv));

    payloader.produceFramePacket(packet, 0xBEEF, 0x0807060504030201ULL, 0xF1F2F3F4F5F6F7F8ULL, {});
    EXPECT_EQ(packet, bytes("\x02\x00\xEF\xBE"
                            "\x01\x02\x03\x04\x05\x06\x07\x08"
                            "\xF8\xF7\xF6\xF5\xF4\xF3\xF2\xF1"sv));
}

TEST(PacketBuffer, SmallerPacketAfterLargerOneIsExactAndStorageIsReused)
{
    vrx::PcmPayloader payloader;
    Buffer packet;
    payloader.produceFramePacket(packet, 9, 100, 200, Buffer(1000, 0xEE));
    ASSERT_EQ(packet.size(), 1020U);
    const unsigned char* const storage = packet.data();
    const std::size_t capacity = packet.capacity();

    payloader.produceFramePacket(packet, 1, 1, 2, bytes("\x0A\x0B\x0C"sv));
    EXPECT_EQ(packet.size(), 23U);
    EXPECT_EQ(Buffer(packet.begin() + 20, packet.end()), bytes("\x0A\x0B\x0C"sv));

    vrx::produceSequenceInfoPacket(packet, vrx::PcmFourcc, {}, 258);
    EXPECT_EQ(packet, bytes("\x01\x00\x02\x01"
                            "PCMA"sv));

    payloader.produceFramePacket(packet, 9, 100, 200, Buffer(1000, 0x11));
    EXPECT_EQ(packet.size(), 1020U);
    EXPECT_EQ(packet.back(), 0x11);

    // Once grown to the largest packet, producing never reallocates.
    EXPECT_EQ(packet.data(), storage);
    EXPECT_EQ(packet.capacity(), capacity);
}

// --- derived payloaders -----------------------------------------------------------------

// Transforms media: a 2-byte length prefix, then every byte inverted. Records how the base
// class drives it.
class InvertingPayloader : public vrx::Payloader
{
public:
    InvertingPayloader() : Payloader(0x31565249) {}

    std::size_t getSizeForWrappedFrame(const ByteSpan& mediaData) const override
    {
        m_calls.push_back("getSizeForWrappedFrame");
        return mediaData.size() + 2;
    }

    void wrapFrame(Buffer& packet, std::size_t packetOffset, const ByteSpan& mediaData) override
    {
        m_calls.push_back("wrapFrame");
        m_packetSizeSeenByWrap = packet.size();
        m_headerSeenByWrap.assign(packet.begin(), packet.begin() + 4);
        packet.at(packetOffset) = static_cast<unsigned char>(mediaData.size());
        packet.at(packetOffset + 1) = static_cast<unsigned char>(mediaData.size() >> 8);
        for (std::size_t index = 0; index < mediaData.size(); ++index)
            packet.at(packetOffset + 2 + index) = static_cast<unsigned char>(~mediaData[index]);
    }

    mutable std::vector<std::string> m_calls;
    std::size_t m_packetSizeSeenByWrap = 0;
    Buffer m_headerSeenByWrap;
};

TEST(DerivedPayloader, SizesTheBufferFirstThenWrapsBehindTheHeader)
{
    InvertingPayloader payloader;
    Buffer packet(500, 0x55);
    payloader.produceFramePacket(packet, 3, 4, 5, bytes("\x00\x0F\xF0"sv));

    EXPECT_EQ(payloader.m_calls, (std::vector<std::string>{"getSizeForWrappedFrame", "wrapFrame"}));
    EXPECT_EQ(payloader.m_packetSizeSeenByWrap, 25U);
    EXPECT_EQ(payloader.m_headerSeenByWrap, bytes("\x02\x00\x03\x00"sv));
    EXPECT_EQ(packet, bytes("\x02\x00\x03\x00"
                            "\x04\x00\x00\x00\x00\x00\x00\x00"
                            "\x05\x00\x00\x00\x00\x00\x00\x00"
                            "\x03\x00"
                            "\xFF\xF0\x0F"sv));
}

// Claims less room than the media needs but keeps the base class's copying wrapFrame.
class UnderSizingPayloader : public vrx::Payloader
{
public:
    UnderSizingPayloader() : Payloader(0) {}
    std::size_t getSizeForWrappedFrame(const ByteSpan& mediaData) const override
    {
        return mediaData.size() - 1;
    }
};

TEST(PayloaderDeathTest, WrapFrameRefusesMediaBeyondThePacketEnd)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string expected =
        vrx::test::assertionFailure("(packetOffset + mediaData.size()) <= packet.size()") +
        ".*Payloader::wrapFrame";
    UnderSizingPayloader underSizing;
    Buffer packet;
    EXPECT_DEATH(underSizing.produceFramePacket(packet, 1, 1, 1, bytes("abc"sv)), expected);

    vrx::Payloader base(0);
    Buffer exactFit(23, 0);
    base.wrapFrame(exactFit, 20, bytes("xyz"sv));
    EXPECT_EQ(Buffer(exactFit.begin() + 20, exactFit.end()), bytes("xyz"sv));
    EXPECT_DEATH(base.wrapFrame(exactFit, 21, bytes("xyz"sv)), expected);
}

// --- PCM payloading -----------------------------------------------------------------------

TEST(PcmFourcc, ReadsPcmaInMemory)
{
    EXPECT_EQ(vrx::PcmFourcc, 0x414D4350U);
    char inMemory[4];
    std::memcpy(inMemory, &vrx::PcmFourcc, sizeof inMemory);
    EXPECT_EQ(std::string_view(inMemory, sizeof inMemory), "PCMA");
    EXPECT_EQ(vrx::PcmPayloader().getFourcc(), vrx::PcmFourcc);
    EXPECT_EQ(vrx::PcmDepayloader().getFourcc(), vrx::PcmFourcc);
}

TEST(PcmPayloader, SetNewFormatReplacesTheSixByteCodecHeader)
{
    vrx::PcmPayloader payloader;
    EXPECT_TRUE(payloader.getCodecHeader().empty());

    payloader.setNewFormat(48000, 2, static_cast<PcmFormat>(3));
    EXPECT_EQ(payloader.getCodecHeader(), bytes("\x80\xBB\x00\x00\x02\x03"sv));

    // More than 255 channels are truncated, not refused; nothing is validated here.
    payloader.setNewFormat(44100, 300, PcmFormat::F32LE);
    EXPECT_EQ(payloader.getCodecHeader(), bytes("\x44\xAC\x00\x00\x2C\x0A"sv));
    payloader.setNewFormat(0, 0, static_cast<PcmFormat>(0x1FF));
    EXPECT_EQ(payloader.getCodecHeader(), bytes("\x00\x00\x00\x00\x00\xFF"sv));
}

TEST(PcmDepayloader, StartsWithZerosAndReadsBackWhatThePayloaderWrote)
{
    vrx::PcmDepayloader depayloader;
    EXPECT_EQ(depayloader.getSampleRate(), 0U);
    EXPECT_EQ(depayloader.getNumChannels(), 0U);
    EXPECT_EQ(depayloader.getSampleFormat(), PcmFormat{0});

    vrx::PcmPayloader payloader;
    payloader.setNewFormat(0x12345678, 300, PcmFormat::S24BE);
    EXPECT_TRUE(depayloader.processCodecHeader(payloader.getCodecHeader()));
    EXPECT_EQ(depayloader.getSampleRate(), 0x12345678U);
    EXPECT_EQ(depayloader.getNumChannels(), 44U);
    EXPECT_EQ(depayloader.getSampleFormat(), PcmFormat::S24BE);
}

// Starts from an accepted 48000 Hz / 2 channels / format 3 header so that the partial stores
// of later headers are visible.
class PcmCodecHeader : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_depayloader.processCodecHeader(bytes("\x80\xBB\x00\x00\x02\x03"sv)));
        expectStored(48000, 2, 3);
    }

    void expectStored(unsigned int sampleRate, unsigned int numChannels, std::uint32_t format)
    {
        EXPECT_EQ(m_depayloader.getSampleRate(), sampleRate);
        EXPECT_EQ(m_depayloader.getNumChannels(), numChannels);
        EXPECT_EQ(m_depayloader.getSampleFormat(), static_cast<PcmFormat>(format));
    }

    vrx::PcmDepayloader m_depayloader;
};

TEST_F(PcmCodecHeader, FewerThanFourBytesStoreNothing)
{
    const Buffer header = bytes("\x44\xAC\x00\x00\x01\x0A"sv);
    for (std::size_t size = 0; size < 4; ++size)
    {
        EXPECT_FALSE(m_depayloader.processCodecHeader(ByteSpan(header).first(size))) << size;
        expectStored(48000, 2, 3);
    }
}

TEST_F(PcmCodecHeader, FourBytesStoreOnlyTheRate)
{
    EXPECT_FALSE(m_depayloader.processCodecHeader(bytes("\x44\xAC\x00\x00"sv)));
    expectStored(44100, 2, 3);
}

TEST_F(PcmCodecHeader, FiveBytesStoreRateAndChannelsButNotTheFormat)
{
    EXPECT_FALSE(m_depayloader.processCodecHeader(bytes("\x44\xAC\x00\x00\x01"sv)));
    expectStored(44100, 1, 3);
}

TEST_F(PcmCodecHeader, ZeroRateOrChannelsAreStoredButRefused)
{
    EXPECT_FALSE(m_depayloader.processCodecHeader(bytes("\x00\x00\x00\x00\x01\x0A"sv)));
    expectStored(0, 1, 10);
    EXPECT_FALSE(m_depayloader.processCodecHeader(bytes("\x44\xAC\x00\x00\x00\x0B"sv)));
    expectStored(44100, 0, 11);
}

TEST_F(PcmCodecHeader, FormatElevenIsTheLastAccepted)
{
    EXPECT_TRUE(m_depayloader.processCodecHeader(bytes("\x44\xAC\x00\x00\x01\x0B"sv)));
    expectStored(44100, 1, 11);
    EXPECT_FALSE(m_depayloader.processCodecHeader(bytes("\x80\xBB\x00\x00\x02\x0C"sv)));
    expectStored(48000, 2, 12);
    EXPECT_FALSE(m_depayloader.processCodecHeader(bytes("\x80\xBB\x00\x00\x02\xFF"sv)));
    expectStored(48000, 2, 255);
}

TEST_F(PcmCodecHeader, BytesAfterTheSixthAreIgnored)
{
    EXPECT_TRUE(m_depayloader.processCodecHeader(bytes("\x22\x56\x00\x00\x06\x02\x00\xFF\x07"sv)));
    expectStored(22050, 6, 2);
}

TEST_F(PcmCodecHeader, ResetKeepsTheFormat)
{
    m_depayloader.reset();
    expectStored(48000, 2, 3);
}

} // namespace
