// miscUtils::SyncedNetClock following real servers: the library's NetTimeProvider, the GStreamer
// framework's provider in a child process, and a raw UDP socket that answers badly or not at all.

#include "Peers.h"

#include <miscutils/NetTimeProvider.h>
#include <miscutils/SyncedNetClock.h>

namespace vrx::test {
namespace {

using miscUtils::TimeValue;

constexpr std::int64_t Second = 1'000'000'000;
// What the receiver passes.
constexpr unsigned int PollIntervalMs = miscUtils::SyncedNetClock::DefaultPollIntervalMs;
constexpr unsigned long long MaxRoundTripNs = miscUtils::SyncedNetClock::DefaultMaxRoundTripNs;
// Generous: on loopback the clock is within microseconds, but the machines running the suite
// are shared and sanitizers slow everything down.
constexpr std::int64_t Tolerance = 2'000'000;

TimeValue monotonicPlus(std::int64_t seconds)
{
    return miscUtils::getMonotonicSysclockTime() + static_cast<TimeValue>(seconds * Second);
}

class SyncedNetClockTest : public LogCaptureTest
{
protected:
    // Counts the state changes that the callback reports, noting the last one and when it came.
    void start(unsigned int port, const char* address = "127.0.0.1",
               unsigned long long maxRoundTrip = MaxRoundTripNs)
    {
        m_clock.startSynchronization(address, port, PollIntervalMs, maxRoundTrip, [this] {
            m_synchronized = m_clock.isSynchronized();
            m_changeTime = miscUtils::getMonotonicSysclockTime();
            ++m_changes;
        });
    }
    bool waitForChanges(int count)
    {
        return waitFor([&] { return m_changes >= count; }) && m_changes == count;
    }

    /// The clock's distance from the truth, read right before and after it (again when that took long).
    std::int64_t error(const std::function<TimeValue()>& truth) const
    {
        for (int attempt = 0;; ++attempt)
        {
            const TimeValue before = truth(), reading = m_clock.getSynchronizedTime(), after = truth();
            if (after - before <= 20'000 || attempt == 100)
                return std::abs(static_cast<std::int64_t>(reading - (before + (after - before) / 2)));
        }
    }

    /// Reads the clock for a while: always near the truth, never going backwards.
    void expectFollows(const std::function<TimeValue()>& truth, std::chrono::milliseconds duration = 300ms)
    {
        std::int64_t largestError = 0;
        TimeValue previous = m_clock.getSynchronizedTime();
        for (const auto end = std::chrono::steady_clock::now() + duration;
             std::chrono::steady_clock::now() < end;)
        {
            largestError = std::max(largestError, error(truth));
            EXPECT_GE(m_clock.getSynchronizedTime(), previous);
            previous = m_clock.getSynchronizedTime();
            std::this_thread::sleep_for(1ms);
        }
        EXPECT_LT(largestError, Tolerance);
    }

    // In this order: the clock stops first, before what its callback touches goes away.
    std::atomic<int> m_changes{0};
    std::atomic<bool> m_synchronized{false};
    std::atomic<TimeValue> m_changeTime{0};
    miscUtils::NetTimeProvider m_provider;
    const std::function<TimeValue()> m_providerTime = [this] { return m_provider.getTime(); };
    miscUtils::SyncedNetClock m_clock;
};

TEST_F(SyncedNetClockTest, SynchronisesOnOneThreadCallsBackAndNeverGoesBack)
{
    m_provider.setOffset(1000 * Second);
    ASSERT_TRUE(m_provider.start("127.0.0.1", 0));
    const std::string server = "127.0.0.1:" + std::to_string(m_provider.getPort());
    const ProcessResources baseline = processResources();
    // Idle, or after a failed start, it reads the monotonic clock and runs no thread.
    start(m_provider.getPort(), "localhost");
    EXPECT_TRUE(settlesAt(baseline));
    EXPECT_LT(error(miscUtils::getMonotonicSysclockTime), Tolerance);

    // From the local time to the server's, then through the corrections of many bursts.
    start(m_provider.getPort());
    start(m_provider.getPort()); // replaces the synchronisation just started
    EXPECT_TRUE(settlesAt(baseline, {.threads = 1, .descriptors = anyCount}));
    ASSERT_TRUE(waitForChanges(1));
    EXPECT_TRUE(m_synchronized && m_clock.isSynchronized());
    expectFollows(m_providerTime, 1s); // read while the clock's thread corrects the mapping

    // Stopping keeps the clock on the server's time base, without a callback.
    m_clock.stopSynchronization();
    EXPECT_FALSE(m_clock.isSynchronized());
    EXPECT_TRUE(settlesAt(baseline));
    EXPECT_LT(error(m_providerTime), Tolerance);
    EXPECT_EQ(m_changes.load(), 1);
    EXPECT_EQ(m_log.lines("DEBUG"), (LogLines{"DEBUG Network time provider serving on " + server,
                                              "DEBUG Synchronized with network time server " + server}));
    EXPECT_EQ(m_log.lines("ERROR"), (LogLines{"ERROR Invalid network time server address localhost:" +
                                              std::to_string(m_provider.getPort())}));
}

TEST_F(SyncedNetClockTest, FollowsAServerRunning100PpmFastOverIpv6AndRunsOnAtItsRateWhenItGoes)
{
    m_provider.setOffset(-1000 * Second);
    m_provider.setRate(1.0001);
    const char* address = m_provider.start("::1", 0) ? "::1" : "127.0.0.1"; // where there is IPv6 loopback
    ASSERT_TRUE(m_provider.getPort() != 0 || m_provider.start(address, 0));
    const std::string server =
        (address == std::string("::1") ? "[::1]:" : "127.0.0.1:") + std::to_string(m_provider.getPort());
    start(m_provider.getPort(), address);
    ASSERT_TRUE(waitForChanges(1));
    expectFollows(m_providerTime);
    // Time to learn the rate; at the local rate the clock would be 100 us behind after every second.
    const auto servedAhead = [this] {
        return static_cast<std::int64_t>(m_provider.getTime() - miscUtils::getMonotonicSysclockTime());
    };
    const std::int64_t aheadBefore = servedAhead();
    std::this_thread::sleep_for(3500ms);
    EXPECT_GT(servedAhead() - aheadBefore, 300'000) << "the server itself runs fast";
    m_provider.stop();
    std::this_thread::sleep_for(3s);
    EXPECT_LT(error(m_providerTime), 100'000);
    EXPECT_EQ(m_log.count("DEBUG Synchronized with network time server " + server), 1u);
}

TEST_F(SyncedNetClockTest, DeclaresTheSynchronisationLostWhenTheServerGoesAndFollowsItBackOnAnotherTimeBase)
{
    m_provider.setOffset(1000 * Second);
    ASSERT_TRUE(m_provider.start("127.0.0.1", 0));
    const unsigned int port = m_provider.getPort();
    const std::string server = "127.0.0.1:" + std::to_string(port);
    start(port);
    ASSERT_TRUE(waitForChanges(1));

    const TimeValue stoppedAt = miscUtils::getMonotonicSysclockTime();
    m_provider.stop();
    ASSERT_TRUE(waitForChanges(2));
    EXPECT_FALSE(m_synchronized);
    // The last valid reply came at most one poll interval before the server went.
    EXPECT_GE(static_cast<std::int64_t>(m_changeTime - stoppedAt),
              std::chrono::nanoseconds(miscUtils::SyncedNetClock::LossTimeout).count() -
                  PollIntervalMs * 1'000'000);
    EXPECT_LT(error(m_providerTime), Tolerance) << "still on the server's time base";
    EXPECT_GT(m_log.count("TRACE Network time server " + server + " refused a request"), 0u);

    // Back 5 s ahead after the loss; then 10 s back while synchronised, followed at once.
    m_provider.setOffset(1005 * Second);
    ASSERT_TRUE(m_provider.start("127.0.0.1", port));
    ASSERT_TRUE(waitForChanges(3));
    EXPECT_TRUE(m_synchronized);
    expectFollows(m_providerTime);
    m_provider.setOffset(995 * Second);
    EXPECT_TRUE(waitFor([&] { return error(m_providerTime) < Tolerance; }));
    expectFollows(m_providerTime);
    EXPECT_EQ(m_changes.load(), 3);
    const std::string serving = "DEBUG Network time provider serving on " + server,
                      synchronized = "DEBUG Synchronized with network time server " + server,
                      changed =
                          "DEBUG Network time server " + server + " changed its time base; following it";
    EXPECT_EQ(m_log.lines("DEBUG"), (LogLines{serving, synchronized,
                                              "DEBUG Lost synchronization with network time server " +
                                                  server + ": no valid reply for 3000 ms",
                                              serving, changed, synchronized, changed}));
}

TEST_F(SyncedNetClockTest, IgnoresGarbageAndUnmatchedReplies)
{
    // Before each true answer come datagrams of the wrong length, an answer to a request never
    // sent, and the request sent back; after it, a second answer to the same request. All of
    // these claim a time 500 s off.
    UdpPeer server;
    start(server.port());
    for (const auto end = std::chrono::steady_clock::now() + conditionDeadline;
         !m_clock.isSynchronized() && std::chrono::steady_clock::now() < end;)
        if (const std::optional<Buffer> request = server.receive(); request && request->size() == 16)
        {
            const std::uint64_t echoed = bigEndianAt(*request, 0);
            Buffer tooLong = netTimeDatagram(echoed, monotonicPlus(500));
            tooLong.push_back(0);
            for (const Buffer& reply :
                 {Buffer(8, 0), tooLong, netTimeDatagram(echoed + 1, monotonicPlus(500)), *request,
                  netTimeDatagram(echoed, monotonicPlus(1000)), netTimeDatagram(echoed, monotonicPlus(500))})
                server.send(reply);
        }
    expectFollows([] { return monotonicPlus(1000); });
    for (const char* ignored :
         {"TRACE Ignoring a network time reply of 8 bytes", "TRACE Ignoring a network time reply of 17 bytes",
          "TRACE Ignoring a network time reply that answers no pending request"})
        EXPECT_GT(m_log.count(ignored), 0u) << ignored;
    const std::string synchronized =
        "DEBUG Synchronized with network time server 127.0.0.1:" + std::to_string(server.port());
    EXPECT_EQ(m_log.lines("DEBUG"), LogLines{synchronized});

    // Started anew, it is not synchronised until the server answers again (here: never).
    start(server.port());
    EXPECT_FALSE(m_clock.isSynchronized());
}

TEST_F(SyncedNetClockTest, FollowsTheFrameworkProviderAlsoWhenItComesBackWithAnotherTimeBase)
{
    FrameworkTimeProvider first;
    const unsigned int port = first.port();
    ASSERT_NE(port, 0u);
    start(port);
    ASSERT_TRUE(waitForChanges(1));
    expectFollows([] { return monotonicPlus(1000); }, 500ms);
    first.stop();

    FrameworkTimeProvider second(port, 1005);
    ASSERT_EQ(second.port(), port);
    EXPECT_TRUE(waitFor([&] { return error([] { return monotonicPlus(1005); }) < Tolerance; }));
    expectFollows([] { return monotonicPlus(1005); }, 500ms);
    EXPECT_TRUE(m_clock.isSynchronized());
    EXPECT_EQ(m_log.count("DEBUG Network time server 127.0.0.1:" + std::to_string(port) +
                          " changed its time base; following it"),
              1u);
}

} // namespace
} // namespace vrx::test
