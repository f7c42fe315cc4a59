// The sidechannel's wire format: protocol names, the InitialInfo packet and message framing.

#include "TestHelpers.h"

namespace vrx::test {
namespace {

using namespace std::literals;

TEST(ProtocolNames, ConvertBothWaysExactlyAndCaseSensitively)
{
    const std::string timeSync[] = {"unknown", "gstnetclock", "sysclock", "unknown"},
                      nanomsg[] = {"unknown", "pipeline", "pubsub", "unknown"};
    for (std::uint32_t value = 0; value < 4; ++value)
    {
        EXPECT_EQ(toString(TimeSyncProtocol{value}), timeSync[value]);
        EXPECT_EQ(toTimeSyncProtocol(timeSync[value]), TimeSyncProtocol{value % 3});
        EXPECT_EQ(toString(NanomsgProtocol{value}), nanomsg[value]);
        EXPECT_EQ(toNanomsgProtocol(nanomsg[value]), NanomsgProtocol{value % 3});
    }
    for (const std::string& name :
         {""s, "SYSCLOCK"s, "sysclock "s, "sysclock\0"s, "sys"s, "PubSub"s, " pipeline"s})
    {
        EXPECT_EQ(toTimeSyncProtocol(name), TimeSyncProtocol::Unknown) << name;
        EXPECT_EQ(toNanomsgProtocol(name), NanomsgProtocol::Unknown) << name;
    }
}

// Version and port little-endian, the strings as raw bytes with their 0, protocols one byte each.
TEST(InitialInfoPacket, FieldsFollowEachOtherWithoutPadding)
{
    const std::string uri = "ipc:///tmp/" + std::string(300, '\xE9');
    const InitialInfo empty{1, "", 0x1234, TimeSyncProtocol::MonotonicSystemClock, NanomsgProtocol::Pipeline,
                            ""},
        full{0x0201, "\x01\x7F\x80\xFF", 0xABCD, TimeSyncProtocol{7}, NanomsgProtocol{9}, uri};
    const std::string emptyPacket = "\x01\x00\x00\x34\x12\x02\x01\x00"s,
                      fullPacket = "\x01\x02\x01\x7F\x80\xFF\x00\xCD\xAB\x07\x09"s + uri + "\x00"s;
    for (const auto& [info, packet] : {std::pair{empty, emptyPacket}, {full, fullPacket}})
    {
        EXPECT_EQ(produceInitialInfoPacket(info), bytes(packet));
        EXPECT_EQ(parseInitialInfoPacket(bytes(packet)), info);
        EXPECT_EQ(tryParseInitialInfoPacket(bytes(packet)), info);
        EXPECT_EQ(parseInitialInfoPacket(bytes(packet + "more\x00\x07"s)), info) << "bytes behind the URI";
    }
}

// The parser's bound checks: a malformed packet stops the process, and is nothing to the parser
// that does not assert. The address "xy" makes every later offset depend on its length; the 0 at
// offset 1 belongs to the version, and zero port and protocol bytes do not end the URI.
TEST(InitialInfoPacketDeathTest, AMalformedPacketStopsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const std::string_view packet :
         {""sv, "\x01"sv, "\x01\x00"sv, "\x01\x00xy"sv, "\x01\x00xy\x00"sv, "\x01\x00xy\x00\x34"sv,
          "\x01\x00xy\x00\x34\x12"sv, "\x01\x00xy\x00\x34\x12\x02"sv, "\x01\x00xy\x00\x34\x12\x02\x02"sv,
          "\x01\x00xy\x00\x34\x12\x02\x02ipc"sv, "\x01\x00xy\x00\x00\x00\x00\x00u"sv})
    {
        EXPECT_DEATH(parseInitialInfoPacket(bytes(packet)), assertionFailure("ok", "parseInitialInfoPacket("))
            << packet.size() << " bytes";
        EXPECT_EQ(tryParseInitialInfoPacket(bytes(packet)), std::nullopt) << packet.size() << " bytes";
    }
}

TEST(SidechannelMessageSize, IsFourLittleEndianBytes)
{
    const std::uint32_t sizes[] = {0, 16, 0x12345678, 0xFFFFFFFF};
    const SidechannelMessageSize sizeBytes[] = {
        {0, 0, 0, 0}, {16, 0, 0, 0}, {0x78, 0x56, 0x34, 0x12}, {255, 255, 255, 255}};
    for (std::size_t index = 0; index < 4; ++index)
    {
        EXPECT_EQ(produceSidechannelMessageSize(sizes[index]), sizeBytes[index]) << sizes[index];
        EXPECT_EQ(parseSidechannelMessageSize(sizeBytes[index]), sizes[index]);
    }
}

// Where senders appear follows TMPDIR as it is at each call.
TEST(SenderParentDirectory, IsTmpdirAsGivenElseTmpVrx)
{
    const ScratchTmpdir scratch;
    const std::pair<const char*, std::string> cases[] = {{nullptr, "/tmp/vrx"}, {"", ""}, {"/x/y", "/x/y"}};
    for (const auto& [tmpdir, expected] : cases)
    {
        scratch.setTmpdir(tmpdir);
        EXPECT_EQ(getSenderParentDirectory(), expected) << (tmpdir ? tmpdir : "unset");
    }
}

// A 0 byte, then the name without a terminator, cut to 107 bytes.
TEST(AbstractSocketAddress, IsTheNameBehindA0ByteCutToTheLimit)
{
    const std::string longest(MaxSocketAddressLength, 'x');
    for (const auto& [name, used] : {std::pair{"a\0b"s, "a\0b"s}, {longest + "y", longest}, {""s, ""s}})
    {
        sockaddr_un address;
        const socklen_t length = makeAbstractSocketAddress(name, address);
        EXPECT_EQ(length, sizeof(sa_family_t) + 1 + used.size()) << name.size();
        EXPECT_EQ(address.sun_family, AF_UNIX);
        EXPECT_EQ(std::string(address.sun_path, 1 + used.size()), "\0"s + used) << name.size();
    }
}

} // namespace
} // namespace vrx::test
