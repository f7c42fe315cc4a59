#include <voraxis/VrxPayload.h>

#include "AssertionRegex.h"
#include "LogCapture.h"
#include "TestHelpers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <log4cplus/loglevel.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using namespace std::literals;
using ::testing::_;
using ::testing::InSequence;
using ::testing::NiceMock;
using ::testing::Return;
using vrx::Buffer;
using vrx::ByteSpan;
using vrx::PacketType;
using Retcode = vrx::DepayloaderList::ConsumePacketRetcode;
using LogLine = std::pair<log4cplus::LogLevel, std::string>;

constexpr log4cplus::LogLevel debugLevel = log4cplus::DEBUG_LOG_LEVEL;
constexpr log4cplus::LogLevel errorLevel = log4cplus::ERROR_LOG_LEVEL;

using vrx::test::bytes;

const Buffer validPcmHeader = bytes("\x80\xBB\x00\x00\x02\x03"sv);

Buffer sequenceInfo(unsigned int fourcc, const Buffer& codecHeader, unsigned short sequenceNr)
{
    Buffer packet;
    vrx::produceSequenceInfoPacket(packet, fourcc, codecHeader, sequenceNr);
    return packet;
}

Buffer frame(unsigned short sequenceNr, std::uint64_t timestamp, std::uint64_t duration, const Buffer& media)
{
    vrx::Payloader payloader(0);
    Buffer packet;
    payloader.produceFramePacket(packet, sequenceNr, timestamp, duration, media);
    return packet;
}

MATCHER_P(BytesAre, expected, "")
{
    return Buffer(arg.begin(), arg.end()) == expected;
}

// Records what the list asks of it; unwraps like the base class unless told otherwise.
class RecordingDepayloader : public vrx::Depayloader
{
public:
    explicit RecordingDepayloader(unsigned int fourcc) : Depayloader(fourcc)
    {
        ON_CALL(*this, processCodecHeader).WillByDefault(Return(true));
        ON_CALL(*this, unwrapFrame).WillByDefault([this](const ByteSpan& mediaData) {
            return Depayloader::unwrapFrame(mediaData);
        });
    }

    MOCK_METHOD(bool, processCodecHeader, (const ByteSpan&), (override));
    MOCK_METHOD(Buffer, unwrapFrame, (const ByteSpan&), (override));
    MOCK_METHOD(void, reset, (), (override));
};

class DepayloaderListTest : public vrx::test::LogCaptureTest
{
protected:
    std::vector<LogLine> logLines() const
    {
        std::vector<LogLine> lines;
        for (const vrx::test::LogRecord& record : m_log.records())
            lines.emplace_back(record.level, record.message);
        return lines;
    }

    // Declared before the list so that it outlives it; depayloaders local to a test are
    // never reached by the list after the test body.
    vrx::PcmDepayloader m_pcm;
    vrx::DepayloaderList m_list;
};

using DepayloaderListDeathTest = DepayloaderListTest;

// --- SequenceInfo packets ---------------------------------------------------------------

TEST_F(DepayloaderListTest, SequenceInfoSelectsTheRegisteredDepayloader)
{
    m_list.addDepayloader(m_pcm);
    EXPECT_EQ(m_list.getCurrentDepayloader(), nullptr);

    EXPECT_EQ(m_list.consumePacket(sequenceInfo(vrx::PcmFourcc, validPcmHeader, 0x1234)), Retcode::Ok);
    EXPECT_EQ(m_list.getCurrentDepayloader(), &m_pcm);
    EXPECT_EQ(m_list.getCurrentPacketType(), PacketType::SequenceInfo);
    EXPECT_EQ(m_list.getCurrentSequenceNr(), 0x1234);
    EXPECT_EQ(m_pcm.getSampleRate(), 48000U);
    EXPECT_EQ(logLines(),
              (std::vector<LogLine>{
                  {debugLevel, "Consumed SequenceInfo packet; looking for payloader with FourCC \"PCMA\""},
                  {debugLevel, "Matching payloader found"}}));
}

TEST_F(DepayloaderListTest, UnregisteredFourccLeavesNoDepayloaderCurrent)
{
    m_list.addDepayloader(m_pcm);
    ASSERT_EQ(m_list.consumePacket(sequenceInfo(vrx::PcmFourcc, validPcmHeader, 1)), Retcode::Ok);
    m_log.clear();

    EXPECT_EQ(m_list.consumePacket(sequenceInfo(0x53454D41, validPcmHeader, 2)),
              Retcode::NoMatchingDepayloader);
    EXPECT_EQ(m_list.getCurrentDepayloader(), nullptr);
    EXPECT_EQ(m_list.getCurrentSequenceNr(), 2);
    EXPECT_EQ(logLines(),
              (std::vector<LogLine>{
                  {debugLevel, "Consumed SequenceInfo packet; looking for payloader with FourCC \"AMES\""},
                  {debugLevel, "No matching payloader found"}}));
}

TEST_F(DepayloaderListTest, FourccBytesBelowThirtyTwoAreLoggedAsBlanks)
{
    EXPECT_EQ(m_list.consumePacket(bytes("\x01\x00\x00\x00"
                                         "\x1F"
                                         "X"
                                         "\x00"
                                         "\x20"sv)),
              Retcode::NoMatchingDepayloader);
    EXPECT_EQ(
        m_log.count(debugLevel, "Consumed SequenceInfo packet; looking for payloader with FourCC \" X  \""),
        1U);
    m_log.clear();
    EXPECT_EQ(m_list.consumePacket(bytes("\x01\x00\x00\x00"
                                         "!\x01~\x7F"sv)),
              Retcode::NoMatchingDepayloader);
    EXPECT_EQ(m_log.count(debugLevel,
                          "Consumed SequenceInfo packet; looking for payloader with FourCC \"! ~\x7F\""),
              1U);
}

TEST_F(DepayloaderListTest, RefusedCodecHeaderIsAnErrorButTheDepayloaderStaysCurrent)
{
    m_list.addDepayloader(m_pcm);
    EXPECT_EQ(m_list.consumePacket(sequenceInfo(vrx::PcmFourcc, bytes("\x80\xBB\x00\x00\x00\x03"sv), 5)),
              Retcode::Error);
    EXPECT_EQ(m_list.getCurrentDepayloader(), &m_pcm);
    EXPECT_EQ(logLines(),
              (std::vector<LogLine>{
                  {debugLevel, "Consumed SequenceInfo packet; looking for payloader with FourCC \"PCMA\""},
                  {debugLevel, "Matching payloader found"},
                  {errorLevel, "Could not process codec header from VRX SequenceInfo packet"}}));

    // Frames are still unwrapped with it, and a good header alone repairs the stream.
    EXPECT_EQ(m_list.consumePacket(frame(5, 10, 20, bytes("ab"sv))), Retcode::Ok);
    EXPECT_EQ(m_list.getCurrentFrameMediaData(), bytes("ab"sv));
    EXPECT_EQ(m_list.consumePacket(sequenceInfo(vrx::PcmFourcc, validPcmHeader, 6)), Retcode::Ok);
    EXPECT_EQ(m_pcm.getNumChannels(), 2U);
}

TEST_F(DepayloaderListTest, CodecHeaderIsEverythingFromOffsetEight)
{
    NiceMock<RecordingDepayloader> recording(0x11223344);
    m_list.addDepayloader(recording);

    EXPECT_CALL(recording, processCodecHeader(BytesAre(Buffer{})));
    EXPECT_EQ(m_list.consumePacket(sequenceInfo(0x11223344, {}, 1)), Retcode::Ok);
    EXPECT_CALL(recording, processCodecHeader(BytesAre(bytes("\x00\x01\x02"sv))));
    EXPECT_EQ(m_list.consumePacket(sequenceInfo(0x11223344, bytes("\x00\x01\x02"sv), 2)), Retcode::Ok);
}

TEST_F(DepayloaderListTest, ShortSequenceInfoIsAnErrorButUpdatesTypeAndSequenceNumber)
{
    m_list.addDepayloader(m_pcm);
    ASSERT_EQ(m_list.consumePacket(sequenceInfo(vrx::PcmFourcc, validPcmHeader, 1)), Retcode::Ok);
    m_log.clear();

    for (const Buffer& packet : {bytes("\x01\x00\x02\x03"
                                       "P"sv),
                                 bytes("\x01\x00\x02\x03"
                                       "PCM"sv)})
    {
        EXPECT_EQ(m_list.consumePacket(packet), Retcode::Error);
        EXPECT_EQ(m_list.getCurrentPacketType(), PacketType::SequenceInfo);
        EXPECT_EQ(m_list.getCurrentSequenceNr(), 0x0302);
        EXPECT_EQ(m_list.getCurrentDepayloader(), &m_pcm);
    }
    EXPECT_EQ(logLines(),
              (std::vector<LogLine>{{errorLevel, "Could not read VRX SequenceInfo packet FourCC"},
                                    {errorLevel, "Could not read VRX SequenceInfo packet FourCC"}}));
}

// --- Frame packets ------------------------------------------------------------------------

TEST_F(DepayloaderListTest, FrameWithoutSelectedDepayloaderIsRefusedSilently)
{
    m_list.addDepayloader(m_pcm);
    EXPECT_EQ(m_list.consumePacket(frame(7, 1, 2, bytes("abc"sv))), Retcode::NoDepayloaderSelected);
    EXPECT_EQ(m_list.getCurrentPacketType(), PacketType::Frame);
    EXPECT_EQ(m_list.getCurrentSequenceNr(), 7);
    EXPECT_EQ(m_list.getCurrentFrameTimestamp(), 0U);
    EXPECT_TRUE(m_list.getCurrentFrameMediaData().empty());
    EXPECT_TRUE(logLines().empty());
}

TEST_F(DepayloaderListTest, FrameFieldsAndMediaAreTakenOver)
{
    m_list.addDepayloader(m_pcm);
    ASSERT_EQ(m_list.consumePacket(sequenceInfo(vrx::PcmFourcc, validPcmHeader, 3)), Retcode::Ok);
    m_log.clear();

    EXPECT_EQ(m_list.consumePacket(frame(3, 0x0102030405060708, 0xA0B0C0D0E0F00010, Buffer(500, 0x77))),
              Retcode::Ok);
    EXPECT_EQ(m_list.getCurrentPacketType(), PacketType::Frame);
    EXPECT_EQ(m_list.getCurrentFrameTimestamp(), 0x0102030405060708U);
    EXPECT_EQ(m_list.getCurrentFrameDuration(), 0xA0B0C0D0E0F00010U);
    EXPECT_EQ(m_list.getCurrentFrameMediaData(), Buffer(500, 0x77));

    // A smaller later frame replaces the media entirely; an empty one leaves none.
    EXPECT_EQ(m_list.consumePacket(frame(3, 5, 6, bytes("xyz"sv))), Retcode::Ok);
    EXPECT_EQ(m_list.getCurrentFrameMediaData(), bytes("xyz"sv));
    const Buffer emptyFrame = frame(3, 7, 8, {});
    ASSERT_EQ(emptyFrame.size(), 20U);
    EXPECT_EQ(m_list.consumePacket(emptyFrame), Retcode::Ok);
    EXPECT_TRUE(m_list.getCurrentFrameMediaData().empty());
    EXPECT_EQ(m_list.getCurrentFrameDuration(), 8U);
    EXPECT_TRUE(logLines().empty());
}

TEST_F(DepayloaderListTest, MediaIsWhatTheDepayloaderUnwraps)
{
    NiceMock<RecordingDepayloader> recording(0x11223344);
    m_list.addDepayloader(recording);
    ASSERT_EQ(m_list.consumePacket(sequenceInfo(0x11223344, {}, 1)), Retcode::Ok);

    EXPECT_CALL(recording, unwrapFrame(BytesAre(bytes("wire"sv)))).WillOnce(Return(bytes("media"sv)));
    EXPECT_EQ(m_list.consumePacket(frame(1, 2, 3, bytes("wire"sv))), Retcode::Ok);
    EXPECT_EQ(m_list.getCurrentFrameMediaData(), bytes("media"sv));
}

TEST_F(DepayloaderListTest, ShortFramesStoreTheTimestampBeforeCheckingTheDuration)
{
    m_list.addDepayloader(m_pcm);
    ASSERT_EQ(m_list.consumePacket(sequenceInfo(vrx::PcmFourcc, validPcmHeader, 1)), Retcode::Ok);
    ASSERT_EQ(m_list.consumePacket(frame(1, 100, 200, bytes("ab"sv))), Retcode::Ok);
    m_log.clear();

    const Buffer full = frame(4, 0x1111, 0x2222, {});
    EXPECT_EQ(m_list.consumePacket(ByteSpan(full).first(11)), Retcode::Error);
    EXPECT_EQ(m_list.getCurrentFrameTimestamp(), 100U);
    EXPECT_EQ(m_list.getCurrentSequenceNr(), 4);

    for (const std::size_t size : {12U, 15U, 19U})
    {
        EXPECT_EQ(m_list.consumePacket(ByteSpan(full).first(size)), Retcode::Error) << size;
        EXPECT_EQ(m_list.getCurrentFrameTimestamp(), 0x1111U) << size;
        EXPECT_EQ(m_list.getCurrentFrameDuration(), 200U) << size;
        EXPECT_EQ(m_list.getCurrentFrameMediaData(), bytes("ab"sv)) << size;
    }
    const std::string message = "Could not read VRX Frame packet timestamp and duration";
    EXPECT_EQ(logLines(), (std::vector<LogLine>(4, {errorLevel, message})));
}

// --- other type bytes and the size precondition -------------------------------------------

TEST_F(DepayloaderListTest, OtherTypeBytesAreIgnoredAsUnknown)
{
    m_list.addDepayloader(m_pcm);
    ASSERT_EQ(m_list.consumePacket(sequenceInfo(vrx::PcmFourcc, validPcmHeader, 1)), Retcode::Ok);
    ASSERT_EQ(m_list.consumePacket(frame(1, 100, 200, bytes("ab"sv))), Retcode::Ok);
    m_log.clear();

    for (const unsigned char type : {9, 0, 3, 255})
    {
        const Buffer packet = {type, 0, 0x22, 0x11, 0x01, 0x02, 0x03};
        EXPECT_EQ(m_list.consumePacket(packet), Retcode::Ok) << int{type};
        EXPECT_EQ(m_list.getCurrentPacketType(), PacketType::Unknown) << int{type};
        EXPECT_EQ(m_list.getCurrentSequenceNr(), 0x1122) << int{type};
    }
    EXPECT_EQ(m_list.getCurrentDepayloader(), &m_pcm);
    EXPECT_EQ(m_list.getCurrentFrameTimestamp(), 100U);
    EXPECT_EQ(m_list.getCurrentFrameDuration(), 200U);
    EXPECT_EQ(m_list.getCurrentFrameMediaData(), bytes("ab"sv));
    EXPECT_TRUE(logLines().empty());
}

TEST_F(DepayloaderListDeathTest, PacketsOfFourBytesOrFewerStopTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string expected = vrx::test::assertionFailure("packetData.size() > 4") + ".*consumePacket";
    EXPECT_DEATH(m_list.consumePacket(bytes("\x02\x00\x01\x00"sv)), expected);
    EXPECT_DEATH(m_list.consumePacket(ByteSpan{}), expected);
}

// --- registration, out-of-band selection, reset and stealing ------------------------------

TEST_F(DepayloaderListTest, SecondDepayloaderWithTheSameFourccReplacesTheFirst)
{
    NiceMock<RecordingDepayloader> first(vrx::PcmFourcc);
    NiceMock<RecordingDepayloader> second(vrx::PcmFourcc);
    m_list.addDepayloader(first);
    ASSERT_EQ(m_list.consumePacket(sequenceInfo(vrx::PcmFourcc, {}, 1)), Retcode::Ok);

    // Registering does not change the current depayloader; the next SequenceInfo does.
    m_list.addDepayloader(second);
    EXPECT_EQ(m_list.getCurrentDepayloader(), &first);

    EXPECT_CALL(first, processCodecHeader(_)).Times(0);
    EXPECT_CALL(second, processCodecHeader(BytesAre(validPcmHeader))).WillOnce(Return(true));
    EXPECT_EQ(m_list.consumePacket(sequenceInfo(vrx::PcmFourcc, validPcmHeader, 2)), Retcode::Ok);
    EXPECT_EQ(m_list.getCurrentDepayloader(), &second);

    EXPECT_CALL(first, reset()).Times(0);
    EXPECT_CALL(second, reset());
    m_list.reset();
}

TEST_F(DepayloaderListTest, OutOfBandInfoSelectsWithoutAPacketAndLogsNothing)
{
    m_list.addDepayloader(m_pcm);
    ASSERT_EQ(m_list.consumePacket(bytes("\x09\x00\x05\x00\x00"sv)), Retcode::Ok);
    m_log.clear();

    EXPECT_TRUE(m_list.setOutOfBandInfo(vrx::PcmFourcc, validPcmHeader));
    EXPECT_EQ(m_list.getCurrentDepayloader(), &m_pcm);
    EXPECT_EQ(m_pcm.getSampleRate(), 48000U);

    EXPECT_FALSE(m_list.setOutOfBandInfo(vrx::PcmFourcc, bytes("\x44\xAC\x00\x00"sv)));
    EXPECT_EQ(m_list.getCurrentDepayloader(), &m_pcm);
    EXPECT_EQ(m_pcm.getSampleRate(), 44100U);

    EXPECT_FALSE(m_list.setOutOfBandInfo(0x53454D41, validPcmHeader));
    EXPECT_EQ(m_list.getCurrentDepayloader(), nullptr);

    // The facts of the last packet are untouched.
    EXPECT_EQ(m_list.getCurrentPacketType(), PacketType::Unknown);
    EXPECT_EQ(m_list.getCurrentSequenceNr(), 5);
    EXPECT_TRUE(logLines().empty());
}

TEST_F(DepayloaderListTest, ResetForgetsTheStreamAndResetsDepayloadersInFourccOrder)
{
    NiceMock<RecordingDepayloader> high(0x30);
    NiceMock<RecordingDepayloader> low(0x10);
    NiceMock<RecordingDepayloader> middle(0x20);
    m_list.addDepayloader(high);
    m_list.addDepayloader(low);
    m_list.addDepayloader(middle);

    ASSERT_EQ(m_list.consumePacket(sequenceInfo(0x20, {}, 9)), Retcode::Ok);
    ASSERT_EQ(m_list.consumePacket(frame(9, 100, 200, Buffer(300, 0x42))), Retcode::Ok);
    const std::size_t mediaCapacity = m_list.getCurrentFrameMediaData().capacity();

    {
        InSequence inFourccOrder;
        EXPECT_CALL(low, reset());
        EXPECT_CALL(middle, reset());
        EXPECT_CALL(high, reset());
    }
    m_list.reset();

    EXPECT_EQ(m_list.getCurrentDepayloader(), nullptr);
    EXPECT_EQ(m_list.getCurrentPacketType(), PacketType::Unknown);
    EXPECT_EQ(m_list.getCurrentSequenceNr(), 0);
    EXPECT_EQ(m_list.getCurrentFrameTimestamp(), 0U);
    EXPECT_EQ(m_list.getCurrentFrameDuration(), 0U);
    EXPECT_TRUE(m_list.getCurrentFrameMediaData().empty());
    EXPECT_EQ(m_list.getCurrentFrameMediaData().capacity(), mediaCapacity);

    // Registrations survive: frames need a new SequenceInfo, which finds its depayloader.
    EXPECT_EQ(m_list.consumePacket(frame(9, 1, 1, {})), Retcode::NoDepayloaderSelected);
    EXPECT_EQ(m_list.consumePacket(sequenceInfo(0x10, {}, 10)), Retcode::Ok);
    EXPECT_EQ(m_list.getCurrentDepayloader(), &low);
}

TEST_F(DepayloaderListTest, StealingTakesTheMediaBufferItself)
{
    m_list.addDepayloader(m_pcm);
    ASSERT_EQ(m_list.consumePacket(sequenceInfo(vrx::PcmFourcc, validPcmHeader, 1)), Retcode::Ok);
    ASSERT_EQ(m_list.consumePacket(frame(1, 2, 3, bytes("samples"sv))), Retcode::Ok);
    const unsigned char* const storage = m_list.getCurrentFrameMediaData().data();

    const Buffer stolen = m_list.stealCurrentFrameMediaData();
    EXPECT_EQ(stolen, bytes("samples"sv));
    EXPECT_EQ(stolen.data(), storage);
    EXPECT_TRUE(m_list.getCurrentFrameMediaData().empty());
    EXPECT_EQ(m_list.getCurrentFrameMediaData().capacity(), 0U);
}

// --- the PCM pair end to end ----------------------------------------------------------------

TEST_F(DepayloaderListTest, PcmPayloaderPacketsReadBackThroughTheList)
{
    vrx::PcmPayloader payloader;
    payloader.setNewFormat(44100, 6, audioUtils::PcmFormat::F32LE);
    m_list.addDepayloader(m_pcm);

    Buffer packet;
    vrx::produceSequenceInfoPacket(packet, payloader.getFourcc(), payloader.getCodecHeader(), 40000);
    ASSERT_EQ(m_list.consumePacket(packet), Retcode::Ok);
    EXPECT_EQ(m_pcm.getSampleRate(), 44100U);
    EXPECT_EQ(m_pcm.getNumChannels(), 6U);
    EXPECT_EQ(m_pcm.getSampleFormat(), audioUtils::PcmFormat::F32LE);

    const Buffer samples = {0x00, 0x00, 0x80, 0x3F, 0x00, 0x00, 0x80, 0xBF};
    payloader.produceFramePacket(packet, 40000, 123456789, 20833, samples);
    ASSERT_EQ(m_list.consumePacket(packet), Retcode::Ok);
    EXPECT_EQ(m_list.getCurrentSequenceNr(), 40000);
    EXPECT_EQ(m_list.getCurrentFrameTimestamp(), 123456789U);
    EXPECT_EQ(m_list.getCurrentFrameDuration(), 20833U);
    EXPECT_EQ(m_list.getCurrentFrameMediaData(), samples);
}

} // namespace
