// Stream packets and the payloading classes: the packet header, SequenceInfo and Frame layouts,
// the PCM pair, and the preconditions of them all. (A payloader of its own is built against
// the installed library in tests/install/consumer.)

#include "TestHelpers.h"

#include <voraxis/VrxPayload.h>

namespace vrx::test {
namespace {

using namespace std::literals;

TEST(PacketHeader, TypeIsByte0AndTheSequenceNumberBytes2And3LittleEndian)
{
    const PacketType types[] = {PacketType::Unknown, PacketType::SequenceInfo, PacketType::Frame,
                                PacketType::Unknown};
    for (const unsigned char type : {0, 1, 2, 3})
        EXPECT_EQ(parsePacketType(Buffer{type, 1, 2}), types[type]) << int{type};
    EXPECT_EQ(toString(PacketType{4}), "<dummy>");
    EXPECT_EQ(parsePacketSequenceNr(bytes("\x01\x00\xEF\xBE\x07"sv)), 0xBEEF);
    EXPECT_EQ(parseSequenceInfoFourcc(bytes("\x01\x00\x01\x00PCMA"sv)), PcmFourcc);
}

// Each packet overwrites a buffer that held a larger one: exactly, and in the same storage.
TEST(StreamPackets, LayoutsAreExactAlsoInTheStorageOfALargerPacket)
{
    Payloader plain(0);
    const std::function<void(Buffer&)> produce[] = {
        [](Buffer& p) { produceSequenceInfoPacket(p, 0x04030201, bytes("\x80\xBB\x00"sv), 0xFFFE); },
        [&](Buffer& p) { plain.produceFramePacket(p, 0xBEEF, 0x0807060504030201, 0xF1F2F3F4F5F6F7F8, {}); },
        [&](Buffer& p) { plain.produceFramePacket(p, 1, 1, 2, bytes("\x0A\x0B\x0C"sv)); },
        [&](Buffer& p) { p.assign(23, 0), plain.wrapFrame(p, 20, bytes("xyz"sv)); }, // fills it exactly
    };
    const std::string_view expected[] = {
        "\x01\x00\xFE\xFF\x01\x02\x03\x04\x80\xBB\x00"sv,
        "\x02\x00\xEF\xBE\x01\x02\x03\x04\x05\x06\x07\x08\xF8\xF7\xF6\xF5\xF4\xF3\xF2\xF1"sv,
        "\x02\x00\x01\x00\x01\x00\x00\x00\x00\x00\x00\x00\x02\x00\x00\x00\x00\x00\x00\x00\x0A\x0B\x0C"sv,
        "\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00xyz"sv,
    };
    Buffer packet;
    for (std::size_t index = 0; index < std::size(expected); ++index)
    {
        plain.produceFramePacket(packet, 9, 100, 200, Buffer(1000, 0xEE));
        const unsigned char* const storage = packet.data();
        produce[index](packet);
        EXPECT_EQ(packet, bytes(expected[index])) << "packet " << index;
        EXPECT_EQ(packet.data(), storage) << "packet " << index;
    }
}

// The PCM codec header is rate, channels and format; the depayloader stores the fields a header
// covers (from an accepted 48000 Hz, 2 channels, format 3) and accepts only a complete one with a
// rate, channels and a known format.
TEST(PcmPayloading, TheCodecHeaderIsRateChannelsAndFormat)
{
    PcmPayloader payloader;
    EXPECT_TRUE(payloader.getCodecHeader().empty());
    payloader.setNewFormat(44100, 300, audioUtils::PcmFormat::F32LE); // 300 channels: the low byte goes
    EXPECT_EQ(payloader.getCodecHeader(), bytes("\x44\xAC\x00\x00\x2C\x0A"sv));
    EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(&PcmFourcc), 4), "PCMA");
    EXPECT_EQ(payloader.getFourcc() + PcmDepayloader().getFourcc(), 2 * PcmFourcc);
    EXPECT_EQ(std::tuple(audioUtils::toString(audioUtils::PcmFormat::F32LE),
                         audioUtils::getBytesPerSample(audioUtils::PcmFormat{7})),
              std::tuple(std::string("F32LE"), 3u)); // 7: S24BE
    EXPECT_EQ(audioUtils::toString(audioUtils::PcmFormat{audioUtils::PcmFormatCount}),
              std::string("unknown"));
    struct Case
    {
        const char* name;
        std::string_view header;
        bool accepted;
        unsigned int rate, channels, format;
    };
    for (const Case& c :
         {Case{"3 bytes", "\x44\xAC\x00"sv, false, 48000, 2, 3},
          Case{"rate only", "\x44\xAC\x00\x00"sv, false, 44100, 2, 3},
          Case{"rate and channels", "\x44\xAC\x00\x00\x01"sv, false, 44100, 1, 3},
          Case{"zero rate", "\x00\x00\x00\x00\x01\x0A"sv, false, 0, 1, 10},
          Case{"zero channels", "\x44\xAC\x00\x00\x00\x0B"sv, false, 44100, 0, 11},
          Case{"a format beyond the last", "\x80\xBB\x00\x00\x02\x0C"sv, false, 48000, 2, 12},
          Case{"the last format, more bytes", "\x78\x56\x34\x12\x06\x0B\xFF"sv, true, 0x12345678, 6, 11}})
    {
        SCOPED_TRACE(c.name);
        PcmDepayloader depayloader;
        ASSERT_TRUE(depayloader.processCodecHeader(bytes("\x80\xBB\x00\x00\x02\x03"sv)));
        EXPECT_EQ(depayloader.processCodecHeader(bytes(c.header)), c.accepted);
        depayloader.reset(); // keeps the format
        EXPECT_EQ(std::tuple(depayloader.getSampleRate(), depayloader.getNumChannels(),
                             static_cast<unsigned int>(depayloader.getSampleFormat())),
                  std::tuple(c.rate, c.channels, c.format));
    }
}

TEST(PayloadDeathTest, BrokenPreconditionsStopTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Buffer packet(23, 0);
    DepayloaderList list;
    const std::tuple<std::string, std::function<void()>, const char*> cases[] = {
        {"false", [] { toString(PacketType::Count); }, "toString"},
        {"packetData.size() >= 1", [] { parsePacketType(ByteSpan{}); }, "parsePacketType"},
        {"packetData.size() >= 4", [] { parsePacketSequenceNr(bytes("\x02\x00\x01"sv)); }, "SequenceNr"},
        {"packetData.size() >= 8", [] { parseSequenceInfoFourcc(bytes("\x01\x00\x01\x00PCM"sv)); }, "Fourcc"},
        {"(packetOffset + mediaData.size()) <= packet.size()",
         [&] { Payloader(0).wrapFrame(packet, 21, bytes("xyz"sv)); }, "wrapFrame"},
        {"packetData.size() > 4", [&] { list.consumePacket(bytes("\x02\x00\x01\x00"sv)); }, "consumePacket"},
    };
    for (const auto& [expression, statement, function] : cases)
        EXPECT_DEATH(statement(), assertionFailure(expression, function));
}

} // namespace
} // namespace vrx::test
