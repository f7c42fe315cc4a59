#include "NetClockTestSupport.h"

#include <LogCapture.h>
#include <miscutils/MiscUtils.h>
#include <miscutils/NetTimeProvider.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

using miscUtils::NetTimeProvider;
using miscUtils::TimeValue;
using vrx::test::UdpSocket;
using namespace std::chrono_literals;

constexpr TimeValue Second = 1'000'000'000;

class NetTimeProviderTest : public vrx::test::LogCaptureTest
{
protected:
    void SetUp() override { ASSERT_TRUE(m_provider.start("127.0.0.1", 0)); }

    NetTimeProvider m_provider;
    UdpSocket m_client;
};

TEST_F(NetTimeProviderTest, EchoesTheFirstEightBytesAndAddsItsTimeBigEndian)
{
    ASSERT_NE(m_provider.getPort(), 0u);
    m_provider.setOffset(1000 * static_cast<std::int64_t>(Second));
    // Bytes that no byte-order mistake could leave unchanged.
    const std::vector<unsigned char> request{0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef,
                                             0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    const TimeValue before = m_provider.getTime();
    m_client.sendTo(m_provider.getPort(), request);
    const auto reply = m_client.receive(5000ms);
    const TimeValue after = m_provider.getTime();

    ASSERT_TRUE(reply);
    ASSERT_EQ(reply->bytes.size(), 16u);
    EXPECT_EQ(std::vector<unsigned char>(reply->bytes.begin(), reply->bytes.begin() + 8),
              std::vector<unsigned char>(request.begin(), request.begin() + 8));
    const TimeValue served = vrx::test::readBigEndian(reply->bytes, 8);
    EXPECT_GE(served, before);
    EXPECT_LE(served, after);
    EXPECT_GE(served, miscUtils::getMonotonicSysclockTime() + 999 * Second);
}

TEST_F(NetTimeProviderTest, DropsShortRequestsAndAnswersLongOnesFromTheirFirst16Bytes)
{
    m_client.sendTo(m_provider.getPort(), std::vector<unsigned char>(15, 0x11));
    m_client.sendTo(m_provider.getPort(), vrx::test::bigEndianPair(42, ~0ULL));
    std::vector<unsigned char> longRequest = vrx::test::bigEndianPair(43, ~0ULL);
    longRequest.resize(40, 0x22);
    m_client.sendTo(m_provider.getPort(), longRequest);

    // The first reply answers the 16-byte request: the short one was dropped, not delayed.
    const auto first = m_client.receive(5000ms);
    const auto second = m_client.receive(5000ms);
    ASSERT_TRUE(first);
    ASSERT_TRUE(second);
    ASSERT_EQ(first->bytes.size(), 16u);
    ASSERT_EQ(second->bytes.size(), 16u);
    EXPECT_EQ(vrx::test::readBigEndian(first->bytes, 0), 42u);
    EXPECT_EQ(vrx::test::readBigEndian(second->bytes, 0), 43u);
    EXPECT_FALSE(m_client.receive(100ms));
}

/// The served time and the monotonic time at the same instant, read closely together.
std::pair<TimeValue, TimeValue> servedAgainstMonotonic(const NetTimeProvider& provider)
{
    for (;;)
    {
        const TimeValue before = miscUtils::getMonotonicSysclockTime();
        const TimeValue served = provider.getTime();
        const TimeValue after = miscUtils::getMonotonicSysclockTime();
        if (after - before < 10'000)
            return {before + (after - before) / 2, served};
    }
}

TEST_F(NetTimeProviderTest, ServesTheMonotonicClockWithOffsetAndRate)
{
    const auto [monotonic, served] = servedAgainstMonotonic(m_provider);
    EXPECT_LT(std::abs(static_cast<std::int64_t>(served - monotonic)), 10'000);

    m_provider.setOffset(-5 * static_cast<std::int64_t>(Second));
    const auto [monotonicBehind, servedBehind] = servedAgainstMonotonic(m_provider);
    EXPECT_LT(std::abs(static_cast<std::int64_t>(servedBehind - monotonicBehind) + 5'000'000'000), 10'000);

    // A rate change does not jump; afterwards the served time runs 100 ppm fast.
    const TimeValue beforeChange = m_provider.getTime();
    m_provider.setRate(1.0001);
    const TimeValue afterChange = m_provider.getTime();
    EXPECT_GE(afterChange, beforeChange);
    EXPECT_LT(afterChange - beforeChange, 10'000'000u);
    const auto [monotonicStart, servedStart] = servedAgainstMonotonic(m_provider);
    std::this_thread::sleep_for(1s);
    const auto [monotonicEnd, servedEnd] = servedAgainstMonotonic(m_provider);
    const double gained = static_cast<double>(
        static_cast<std::int64_t>((servedEnd - servedStart) - (monotonicEnd - monotonicStart)));
    const double expected = static_cast<double>(monotonicEnd - monotonicStart) * 1e-4;
    EXPECT_NEAR(gained, expected, 20'000.0);
}

TEST_F(NetTimeProviderTest, StopFreesThePortThreadAndDescriptorsAndRestartWorks)
{
    m_provider.stop();
    const auto baseline = vrx::test::processResources();

    ASSERT_TRUE(m_provider.start("127.0.0.1", 0));
    const unsigned int port = m_provider.getPort();
    EXPECT_TRUE(vrx::test::settlesAt(baseline, {.threads = 1, .descriptors = vrx::test::anyCount}));
    m_provider.stop();
    m_provider.stop();
    EXPECT_EQ(m_provider.getPort(), 0u);
    EXPECT_TRUE(vrx::test::settlesAt(baseline));

    // The same port again, serving.
    ASSERT_TRUE(m_provider.start("127.0.0.1", port));
    EXPECT_EQ(m_provider.getPort(), port);
    m_client.sendTo(port, vrx::test::bigEndianPair(7, ~0ULL));
    const auto reply = m_client.receive(5000ms);
    ASSERT_TRUE(reply);
    EXPECT_EQ(vrx::test::readBigEndian(reply->bytes, 0), 7u);
}

TEST_F(NetTimeProviderTest, FailuresToStartAreLoggedAndLeaveNothingRunning)
{
    const unsigned int takenPort = m_provider.getPort();
    NetTimeProvider second;
    const auto baseline = vrx::test::processResources();

    EXPECT_FALSE(second.start("127.0.0.1", takenPort));
    EXPECT_EQ(m_log.count(log4cplus::ERROR_LOG_LEVEL,
                          "Cannot bind the network time provider to 127.0.0.1:" + std::to_string(takenPort) +
                              ": Address already in use (98)"),
              1u);
    EXPECT_FALSE(second.start("localhost", 0));
    EXPECT_EQ(m_log.count(log4cplus::ERROR_LOG_LEVEL, "Invalid network time provider address localhost:0"),
              1u);
    EXPECT_FALSE(second.start("127.0.0.1", 70000));
    EXPECT_EQ(second.getPort(), 0u);
    EXPECT_TRUE(vrx::test::settlesAt(baseline));
}

} // namespace
