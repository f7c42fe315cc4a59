#include <voraxis/SideChannel.h>

#include "AssertionRegex.h"

#include "TestHelpers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace std::literals;
using vrx::Buffer;
using vrx::InitialInfo;
using vrx::NanomsgProtocol;
using vrx::TimeSyncProtocol;

using vrx::test::bytes;

InitialInfo makeInfo(std::string address, std::uint16_t port, TimeSyncProtocol timeSync,
                     NanomsgProtocol nanomsg, std::string uri)
{
    InitialInfo info;
    info.version = 1;
    info.timeSyncIPAddress = std::move(address);
    info.timeSyncPort = port;
    info.timeSyncProtocol = timeSync;
    info.nanomsgProtocol = nanomsg;
    info.nanomsgUri = std::move(uri);
    return info;
}

// --- enumerations and their text forms ---------------------------------------------------

TEST(ProtocolText, TimeSyncProtocolStringsBothWays)
{
    EXPECT_STREQ(vrx::toString(TimeSyncProtocol::Unknown), "unknown");
    EXPECT_STREQ(vrx::toString(TimeSyncProtocol::GstNetClock), "gstnetclock");
    EXPECT_STREQ(vrx::toString(TimeSyncProtocol::MonotonicSystemClock), "sysclock");
    EXPECT_STREQ(vrx::toString(static_cast<TimeSyncProtocol>(3)), "unknown");
    EXPECT_STREQ(vrx::toString(static_cast<TimeSyncProtocol>(0x102)), "unknown");

    EXPECT_EQ(vrx::toTimeSyncProtocol("sysclock"), TimeSyncProtocol::MonotonicSystemClock);
    EXPECT_EQ(vrx::toTimeSyncProtocol("gstnetclock"), TimeSyncProtocol::GstNetClock);
    EXPECT_EQ(vrx::toTimeSyncProtocol("unknown"), TimeSyncProtocol::Unknown);
    EXPECT_EQ(vrx::toTimeSyncProtocol(""), TimeSyncProtocol::Unknown);
}

TEST(ProtocolText, NanomsgProtocolStringsBothWays)
{
    EXPECT_STREQ(vrx::toString(NanomsgProtocol::Unknown), "unknown");
    EXPECT_STREQ(vrx::toString(NanomsgProtocol::Pipeline), "pipeline");
    EXPECT_STREQ(vrx::toString(NanomsgProtocol::PubSub), "pubsub");
    EXPECT_STREQ(vrx::toString(static_cast<NanomsgProtocol>(9)), "unknown");

    EXPECT_EQ(vrx::toNanomsgProtocol("pipeline"), NanomsgProtocol::Pipeline);
    EXPECT_EQ(vrx::toNanomsgProtocol("pubsub"), NanomsgProtocol::PubSub);
    EXPECT_EQ(vrx::toNanomsgProtocol("unknown"), NanomsgProtocol::Unknown);
    EXPECT_EQ(vrx::toNanomsgProtocol(""), NanomsgProtocol::Unknown);
}

TEST(ProtocolText, ConversionIsExactCaseSensitiveAndWholeString)
{
    for (const std::string& text : {"SYSCLOCK"s, "Sysclock"s, "sysclock "s, " sysclock"s, "sysclock\0"s,
                                    "sysclock\n"s, "sys"s, "gstnetclock2"s})
        EXPECT_EQ(vrx::toTimeSyncProtocol(text), TimeSyncProtocol::Unknown) << '"' << text << '"';
    for (const std::string& text : {"PubSub"s, "pubsub "s, "pub"s, "pipeline\0"s, "Pipeline"s})
        EXPECT_EQ(vrx::toNanomsgProtocol(text), NanomsgProtocol::Unknown) << '"' << text << '"';
}

// --- InitialInfo layout --------------------------------------------------------------------

TEST(InitialInfoPacket, EmptyStringsGiveTheEightByteLayout)
{
    const InitialInfo info =
        makeInfo("", 4660, TimeSyncProtocol::MonotonicSystemClock, NanomsgProtocol::Pipeline, "");
    const Buffer packet = vrx::produceInitialInfoPacket(info);
    EXPECT_EQ(packet, bytes("\x01\x00"
                            "\x00"
                            "\x34\x12"
                            "\x02"
                            "\x01"
                            "\x00"sv));
    EXPECT_EQ(vrx::parseInitialInfoPacket(packet), info);
}

TEST(InitialInfoPacket, FieldsFollowEachOtherWithoutPadding)
{
    const InitialInfo info = makeInfo("10.0.0.1", 7000, TimeSyncProtocol::GstNetClock,
                                      NanomsgProtocol::PubSub, "ipc:///tmp/vrx/VrxSender-a1b2c3");
    const Buffer packet = vrx::produceInitialInfoPacket(info);
    EXPECT_EQ(packet, bytes("\x01\x00"
                            "10.0.0.1"
                            "\x00"
                            "\x58\x1B"
                            "\x01"
                            "\x02"
                            "ipc:///tmp/vrx/VrxSender-a1b2c3"
                            "\x00"sv));
    EXPECT_EQ(packet.size(), info.timeSyncIPAddress.size() + info.nanomsgUri.size() + 8);
}

TEST(InitialInfoPacket, VersionAndPortAreLittleEndianAndProtocolsTakeTheirLowByte)
{
    InitialInfo info =
        makeInfo("", 0xABCD, static_cast<TimeSyncProtocol>(0x107), static_cast<NanomsgProtocol>(0xFF09), "u");
    info.version = 0x0201;
    EXPECT_EQ(vrx::produceInitialInfoPacket(info), bytes("\x01\x02"
                                                         "\x00"
                                                         "\xCD\xAB"
                                                         "\x07"
                                                         "\x09"
                                                         "u\x00"sv));
}

TEST(InitialInfoPacket, RoundTripsKeepEveryField)
{
    InitialInfo highVersion = makeInfo("192.168.100.200", 65535, TimeSyncProtocol::GstNetClock,
                                       NanomsgProtocol::PubSub, "ipc:///tmp/x.ipc");
    highVersion.version = 0xFFFE;
    const std::vector<InitialInfo> infos = {
        makeInfo("", 0, TimeSyncProtocol::Unknown, NanomsgProtocol::Unknown, ""),
        makeInfo("", 0, TimeSyncProtocol::MonotonicSystemClock, NanomsgProtocol::Pipeline,
                 "ipc:///tmp/vrx/VrxSender-XXXXXX/nanomsgChannel.ipc"),
        highVersion,
        // Strings are raw bytes: no character set conversion, any byte but 0.
        makeInfo("\x01\x7F\x80\xFF", 1, TimeSyncProtocol::GstNetClock, NanomsgProtocol::Pipeline,
                 std::string(300, '\xE9')),
    };
    for (const InitialInfo& info : infos)
        EXPECT_EQ(vrx::parseInitialInfoPacket(vrx::produceInitialInfoPacket(info)), info)
            << info.timeSyncIPAddress << " / " << info.nanomsgUri;
}

TEST(InitialInfoPacket, ParsesHandWrittenPacketAndIgnoresBytesAfterTheUri)
{
    const InitialInfo info = vrx::parseInitialInfoPacket(bytes("\x01\x00"
                                                               "ab\x00"
                                                               "\x34\x12"
                                                               "\x01"
                                                               "\x02"
                                                               "ipc://x\x00"
                                                               "trailing\x00\x07"sv));
    EXPECT_EQ(info, makeInfo("ab", 4660, TimeSyncProtocol::GstNetClock, NanomsgProtocol::PubSub, "ipc://x"));
}

TEST(InitialInfoPacket, OutOfRangeProtocolBytesAreCarriedThrough)
{
    const Buffer packet = bytes("\x01\x00"
                                "\x00"
                                "\x00\x00"
                                "\x07"
                                "\x09"
                                "\x00"sv);
    const InitialInfo info = vrx::parseInitialInfoPacket(packet);
    EXPECT_EQ(static_cast<std::uint32_t>(info.timeSyncProtocol), 7U);
    EXPECT_EQ(static_cast<std::uint32_t>(info.nanomsgProtocol), 9U);
    EXPECT_STREQ(vrx::toString(info.timeSyncProtocol), "unknown");
    EXPECT_STREQ(vrx::toString(info.nanomsgProtocol), "unknown");
    EXPECT_EQ(vrx::produceInitialInfoPacket(info), packet);
}

// --- malformed packets: every bound check of the parser stops the process ---------------

struct MalformedPacket
{
    const char* name;
    std::string_view content;
};

void PrintTo(const MalformedPacket& packet, std::ostream* out)
{
    *out << packet.name;
}

class MalformedInitialInfoDeathTest : public ::testing::TestWithParam<MalformedPacket>
{
protected:
    // The logging library keeps threads of its own, so the child must not be a bare fork.
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_P(MalformedInitialInfoDeathTest, StopsWithAssertionOk)
{
    const Buffer packet = bytes(GetParam().content);
    EXPECT_DEATH(vrx::parseInitialInfoPacket(packet),
                 vrx::test::assertionFailure("ok") + ".*parseInitialInfoPacket");
}

// The address "ab" makes every later offset depend on its length.
INSTANTIATE_TEST_SUITE_P(
    BoundChecks, MalformedInitialInfoDeathTest,
    ::testing::Values(MalformedPacket{"Empty", ""sv}, MalformedPacket{"OneByte", "\x01"sv},
                      MalformedPacket{"NoByteAtOffsetTwo", "\x01\x00"sv},
                      // The 0 at offset 1 belongs to the version and must not end the address.
                      MalformedPacket{"NoZeroAfterOffsetTwo", "\x01\x00"
                                                              "ab"sv},
                      MalformedPacket{"EndsAfterAddress", "\x01\x00"
                                                          "ab\x00"sv},
                      MalformedPacket{"EndsInsidePort", "\x01\x00"
                                                        "ab\x00"
                                                        "\x34"sv},
                      MalformedPacket{"EndsRightAfterPort", "\x01\x00"
                                                            "ab\x00"
                                                            "\x34\x12"sv},
                      MalformedPacket{"EndsAfterTimeSyncProtocol", "\x01\x00"
                                                                   "ab\x00"
                                                                   "\x34\x12\x02"sv},
                      MalformedPacket{"EndsAfterNanomsgProtocol", "\x01\x00"
                                                                  "ab\x00"
                                                                  "\x34\x12\x02\x02"sv},
                      MalformedPacket{"UriWithoutTerminator", "\x01\x00"
                                                              "ab\x00"
                                                              "\x34\x12\x02\x02"
                                                              "ipc"sv},
                      // Zero port and protocol bytes lie before the URI and must not terminate it.
                      MalformedPacket{"ZeroFieldsBeforeUri", "\x01\x00"
                                                             "ab\x00"
                                                             "\x00\x00\x00\x00"
                                                             "u"sv}),
    [](const ::testing::TestParamInfo<MalformedPacket>& info) { return info.param.name; });

// --- sidechannel message framing -----------------------------------------------------------

TEST(SidechannelFraming, LengthIsFourLittleEndianBytes)
{
    EXPECT_EQ(vrx::parseSidechannelMessageSize({0x10, 0x00, 0x00, 0x00}), 16U);
    EXPECT_EQ(vrx::produceSidechannelMessageSize(16), (vrx::SidechannelMessageSize{0x10, 0, 0, 0}));

    EXPECT_EQ(vrx::produceSidechannelMessageSize(0x12345678),
              (vrx::SidechannelMessageSize{0x78, 0x56, 0x34, 0x12}));
    EXPECT_EQ(vrx::parseSidechannelMessageSize({0x78, 0x56, 0x34, 0x12}), 0x12345678U);
    EXPECT_EQ(vrx::parseSidechannelMessageSize({0x00, 0x00, 0x00, 0x10}), 0x10000000U);

    for (const std::uint32_t size : {0U, 1U, 255U, 256U, 65536U, 0xFFFFFFFFU})
        EXPECT_EQ(vrx::parseSidechannelMessageSize(vrx::produceSidechannelMessageSize(size)), size);
}

TEST(SidechannelFraming, FramedInitialInfoOfSixteenBytesReadsBack)
{
    const InitialInfo info =
        makeInfo("1", 9, TimeSyncProtocol::GstNetClock, NanomsgProtocol::PubSub, "ipc://x");
    const Buffer payload = vrx::produceInitialInfoPacket(info);
    const vrx::SidechannelMessageSize sizeBytes =
        vrx::produceSidechannelMessageSize(static_cast<std::uint32_t>(payload.size()));
    Buffer message(sizeBytes.begin(), sizeBytes.end());
    message.insert(message.end(), payload.begin(), payload.end());

    ASSERT_EQ(message.size(), 20U);
    EXPECT_EQ(Buffer(message.begin(), message.begin() + 4), bytes("\x10\x00\x00\x00"sv));

    vrx::SidechannelMessageSize received{};
    std::copy_n(message.begin(), received.size(), received.begin());
    const std::uint32_t payloadSize = vrx::parseSidechannelMessageSize(received);
    EXPECT_EQ(payloadSize, 16U);
    EXPECT_EQ(vrx::parseInitialInfoPacket(vrx::ByteSpan(message).subspan(4, payloadSize)), info);
}

} // namespace
