// miscUtils::NetTimeProvider seen by a raw UDP client.

#include "Peers.h"

#include <miscutils/NetTimeProvider.h>

namespace vrx::test {
namespace {

using miscUtils::TimeValue;

constexpr std::int64_t Second = 1'000'000'000;

class NetTimeProviderTest : public LogCaptureTest
{
protected:
    void SetUp() override { ASSERT_TRUE(m_started); }

    miscUtils::NetTimeProvider m_provider;
    const bool m_started = m_provider.start("127.0.0.1", 0);
    const std::string m_port = std::to_string(m_provider.getPort());
    UdpPeer m_client;
};

// A request shorter than 16 bytes is dropped; a longer one is answered from its first 16.
TEST_F(NetTimeProviderTest, EchoesTheFirst8BytesOfARequestAndAddsItsTimeBigEndian)
{
    m_provider.setOffset(1000 * Second);
    const Buffer request = netTimeDatagram(0x0123456789ABCDEF, ~0ull);
    Buffer longRequest = netTimeDatagram(43, ~0ull);
    longRequest.resize(40, 0x22);
    const TimeValue before = m_provider.getTime();
    for (const Buffer& datagram : {Buffer(15, 0x11), request, longRequest})
        m_client.send(datagram, m_provider.getPort());
    const std::optional<Buffer> reply = m_client.receive(), longReply = m_client.receive();
    ASSERT_TRUE(reply && longReply);
    EXPECT_EQ(Buffer(reply->begin(), reply->begin() + 8), Buffer(request.begin(), request.begin() + 8));
    EXPECT_EQ(std::tuple(reply->size(), longReply->size(), bigEndianAt(*longReply, 0)),
              std::tuple(16u, 16u, 43u));
    EXPECT_GE(bigEndianAt(*reply, 8), before);
    EXPECT_LE(bigEndianAt(*reply, 8), m_provider.getTime());
    EXPECT_GE(bigEndianAt(*reply, 8), miscUtils::getMonotonicSysclockTime() + 999 * Second);
    EXPECT_EQ(m_log.lines(), (LogLines{"DEBUG Network time provider serving on 127.0.0.1:" + m_port}));
}

TEST_F(NetTimeProviderTest, StartsAgainOnItsPortAndLeavesNothingWhenStoppedOrFailing)
{
    const unsigned int port = m_provider.getPort();
    const ProcessResources baseline = processResources(); // failed starts leave nothing either
    miscUtils::NetTimeProvider second;
    EXPECT_FALSE(second.start("127.0.0.1", port));
    EXPECT_FALSE(second.start("localhost", 0));
    EXPECT_FALSE(second.start("127.0.0.1", 70000));
    EXPECT_EQ(second.getPort(), 0u);
    EXPECT_EQ(m_log.lines("ERROR"),
              (LogLines{"ERROR Cannot bind the network time provider to 127.0.0.1:" + m_port + ": " +
                            errnoText(EADDRINUSE),
                        "ERROR Invalid network time provider address localhost:0",
                        "ERROR Invalid network time provider address 127.0.0.1:70000"}));
    m_provider.stop();
    ASSERT_TRUE(m_provider.start("127.0.0.1", port));
    ASSERT_TRUE(m_provider.start("127.0.0.1", port)) << "started again while serving, it serves anew";
    EXPECT_TRUE(settlesAt(baseline, {.threads = 1, .descriptors = anyCount}));
    m_client.send(netTimeDatagram(7, ~0ull), port);
    const std::optional<Buffer> reply = m_client.receive();
    EXPECT_EQ(reply ? bigEndianAt(*reply, 0) : 0, 7u);
    m_provider.stop();
    m_provider.stop();
    EXPECT_EQ(m_provider.getPort(), 0u);
    EXPECT_TRUE(settlesAt(baseline));
}

} // namespace
} // namespace vrx::test
