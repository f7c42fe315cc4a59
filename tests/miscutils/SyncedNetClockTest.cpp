#include "NetClockTestSupport.h"

#include <LogCapture.h>
#include <miscutils/MiscUtils.h>
#include <miscutils/NetTimeProvider.h>
#include <miscutils/SyncedNetClock.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using miscUtils::NetTimeProvider;
using miscUtils::SyncedNetClock;
using miscUtils::TimeValue;
using vrx::test::readingError;
using vrx::test::anyCount;
using vrx::test::processResources;
using vrx::test::settlesAt;
using vrx::test::waitFor;
using namespace std::chrono_literals;

constexpr TimeValue Second = 1'000'000'000;
constexpr std::int64_t SignedSecond = 1'000'000'000;
// What the receiver passes.
constexpr unsigned int PollIntervalMs = 100;
constexpr unsigned long long MaxRoundTripNs = 175'000'000;
// Generous: on loopback the clock is within microseconds, but the machines running the suite
// are shared and sanitizers slow everything down.
constexpr std::int64_t Tolerance = 2'000'000;

std::int64_t magnitude(std::int64_t value)
{
    return value < 0 ? -value : value;
}

/// The framework's own time provider in a child process (tests/tools/gst_net_time_provider.cpp).
class FrameworkProvider
{
public:
    explicit FrameworkProvider(unsigned int port = 0, long long offsetSeconds = 1000)
    {
        int input[2];
        int output[2];
        if (pipe2(input, O_CLOEXEC) < 0 || pipe2(output, O_CLOEXEC) < 0)
            return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
        std::string program = VRX_GST_NET_TIME_PROVIDER;
        std::string portArgument = std::to_string(port);
        std::string offsetArgument = std::to_string(offsetSeconds);
        char* arguments[] = {program.data(), portArgument.data(), offsetArgument.data(), nullptr};
        const bool spawned = posix_spawn(&m_pid, program.c_str(), &actions, nullptr, arguments, environ) == 0;
        posix_spawn_file_actions_destroy(&actions);
        close(input[0]);
        close(output[1]);
        m_input = input[1];
        if (!spawned)
            m_pid = -1;
        else
            m_port = readPort(output[0]);
        close(output[0]);
    }

    ~FrameworkProvider() { stop(); }

    FrameworkProvider(const FrameworkProvider&) = delete;
    FrameworkProvider& operator=(const FrameworkProvider&) = delete;

    unsigned int port() const { return m_port; }

    /// Closing its standard input ends the provider.
    void stop()
    {
        if (m_input >= 0)
            close(m_input);
        m_input = -1;
        if (m_pid > 0)
        {
            int status = 0;
            waitpid(m_pid, &status, 0);
        }
        m_pid = -1;
    }

private:
    static unsigned int readPort(int fd)
    {
        std::string line;
        char character = 0;
        pollfd descriptor{fd, POLLIN, 0};
        while (poll(&descriptor, 1, 10000) == 1 && read(fd, &character, 1) == 1 && character != '\n')
            line += character;
        return line.empty() ? 0 : static_cast<unsigned int>(std::stoul(line));
    }

    pid_t m_pid = -1;
    int m_input = -1;
    unsigned int m_port = 0;
};

TimeValue monotonicPlus1000Seconds()
{
    return miscUtils::getMonotonicSysclockTime() + 1000 * Second;
}

class SyncedNetClockTest : public vrx::test::LogCaptureTest
{
protected:
    struct StateChange
    {
        bool synchronized;
        TimeValue time;
    };

    void start(unsigned int port, unsigned long long maxRoundTripNs = MaxRoundTripNs)
    {
        m_clock.startSynchronization("127.0.0.1", port, PollIntervalMs, maxRoundTripNs, [this] {
            std::lock_guard lock(m_changesMutex);
            m_changes.push_back({m_clock.isSynchronized(), miscUtils::getMonotonicSysclockTime()});
        });
    }

    std::vector<StateChange> stateChanges() const
    {
        std::lock_guard lock(m_changesMutex);
        return m_changes;
    }

    bool waitForStateChanges(std::size_t count)
    {
        return waitFor([&] { return stateChanges().size() >= count; }) && stateChanges().size() == count;
    }

    std::int64_t errorAgainst(const std::function<TimeValue()>& truth)
    {
        return readingError([this] { return m_clock.getSynchronizedTime(); }, truth);
    }

    std::int64_t errorAgainstProvider()
    {
        return errorAgainst([this] { return m_provider.getTime(); });
    }

    /// Reads the clock for a while: always near the truth, never going backwards.
    void expectFollows(const std::function<TimeValue()>& truth, std::chrono::milliseconds duration = 300ms)
    {
        std::int64_t largestError = 0;
        TimeValue previous = m_clock.getSynchronizedTime();
        const auto end = std::chrono::steady_clock::now() + duration;
        while (std::chrono::steady_clock::now() < end)
        {
            largestError = std::max(largestError, magnitude(errorAgainst(truth)));
            const TimeValue reading = m_clock.getSynchronizedTime();
            EXPECT_GE(reading, previous);
            previous = reading;
            std::this_thread::sleep_for(1ms);
        }
        EXPECT_LT(largestError, Tolerance);
    }

    std::string serverName(unsigned int port) const { return "127.0.0.1:" + std::to_string(port); }

    // In this order: the clock stops first, before what its callback touches goes away.
    mutable std::mutex m_changesMutex;
    std::vector<StateChange> m_changes;
    NetTimeProvider m_provider;
    SyncedNetClock m_clock;
};

TEST_F(SyncedNetClockTest, IdleClockReadsTheMonotonicClockAndHasNoThread)
{
    const auto baseline = processResources();
    SyncedNetClock clock;
    EXPECT_FALSE(clock.isSynchronized());
    const TimeValue before = miscUtils::getMonotonicSysclockTime();
    const TimeValue reading = clock.getSynchronizedTime();
    const TimeValue after = miscUtils::getMonotonicSysclockTime();
    EXPECT_LE(before, reading);
    EXPECT_LE(reading, after);
    EXPECT_TRUE(settlesAt(baseline));

    clock.stopSynchronization();
    clock.stopSynchronization();
    EXPECT_FALSE(clock.isSynchronized());
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(SyncedNetClockTest, SynchronisesWithOneThreadCallsBackAndFollowsTheOffset)
{
    m_provider.setOffset(1000 * SignedSecond);
    ASSERT_TRUE(m_provider.start("127.0.0.1", 0));
    const auto baseline = processResources();

    start(m_provider.getPort());
    EXPECT_TRUE(settlesAt(baseline, {.threads = 1, .descriptors = anyCount}));
    ASSERT_TRUE(waitFor([&] { return m_clock.isSynchronized(); }));
    ASSERT_TRUE(waitForStateChanges(1));
    EXPECT_TRUE(stateChanges()[0].synchronized);
    EXPECT_EQ(m_log.count(log4cplus::DEBUG_LOG_LEVEL,
                          "Synchronized with network time server " + serverName(m_provider.getPort())),
              1u);
    expectFollows([&] { return m_provider.getTime(); });

    // Stopping keeps the clock on the server's time base, without a callback.
    m_clock.stopSynchronization();
    EXPECT_FALSE(m_clock.isSynchronized());
    EXPECT_TRUE(settlesAt(baseline));
    EXPECT_LT(magnitude(errorAgainstProvider()), Tolerance);
    EXPECT_EQ(stateChanges().size(), 1u);
}

TEST_F(SyncedNetClockTest, ReadersOnOtherThreadsNeverSeeTheClockGoBack)
{
    m_provider.setOffset(1000 * SignedSecond);
    ASSERT_TRUE(m_provider.start("127.0.0.1", 0));
    std::atomic<bool> reading{true};
    std::atomic<int> backwards{0};
    std::atomic<long> readings{0};
    std::vector<std::thread> readers;
    for (int index = 0; index < 2; ++index)
        readers.emplace_back([&] {
            TimeValue previous = 0;
            while (reading)
            {
                const TimeValue now = m_clock.getSynchronizedTime();
                if (now < previous)
                    ++backwards;
                previous = now;
                ++readings;
            }
        });

    // From the local time to the server's, then through the corrections of many bursts.
    start(m_provider.getPort());
    EXPECT_TRUE(waitFor([&] { return m_clock.isSynchronized(); }));
    std::this_thread::sleep_for(1s);
    reading = false;
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(backwards.load(), 0);
    EXPECT_GT(readings.load(), 0);
    EXPECT_LT(magnitude(errorAgainstProvider()), Tolerance);
}

TEST_F(SyncedNetClockTest, FollowsAServerRunning100PpmFast)
{
    m_provider.setOffset(1000 * SignedSecond);
    m_provider.setRate(1.0001);
    ASSERT_TRUE(m_provider.start("127.0.0.1", 0));
    start(m_provider.getPort());
    ASSERT_TRUE(waitFor([&] { return m_clock.isSynchronized(); }));
    expectFollows([&] { return m_provider.getTime(); });

    // Time to learn the rate, then the server goes away: the clock runs on at the server's
    // rate. At the local rate it would be 100 us behind after every second.
    std::this_thread::sleep_for(3500ms);
    m_provider.stop();
    std::this_thread::sleep_for(3s);
    EXPECT_LT(magnitude(errorAgainstProvider()), 100'000);
}

TEST_F(SyncedNetClockTest, DeclaresTheSynchronisationLostWhenTheServerIsGone)
{
    ASSERT_TRUE(m_provider.start("127.0.0.1", 0));
    const unsigned int port = m_provider.getPort();
    start(port);
    ASSERT_TRUE(waitForStateChanges(1));

    const TimeValue stoppedAt = miscUtils::getMonotonicSysclockTime();
    m_provider.stop();
    ASSERT_TRUE(waitFor([&] { return !m_clock.isSynchronized(); }, 10s));
    ASSERT_TRUE(waitForStateChanges(2));
    const StateChange lost = stateChanges()[1];
    EXPECT_FALSE(lost.synchronized);
    // The last valid reply came at most one poll interval before the server went.
    const std::int64_t lossTimeout = std::chrono::nanoseconds(SyncedNetClock::LossTimeout).count();
    EXPECT_GE(static_cast<std::int64_t>(lost.time - stoppedAt), lossTimeout - PollIntervalMs * 1'000'000);
    EXPECT_EQ(m_log.count(log4cplus::DEBUG_LOG_LEVEL, "Lost synchronization with network time server " +
                                                          serverName(port) + ": no valid reply for 3000 ms"),
              1u);
    // Still on the server's time base.
    EXPECT_LT(magnitude(errorAgainstProvider()), Tolerance);

    m_clock.stopSynchronization();
    EXPECT_EQ(stateChanges().size(), 2u);
}

TEST_F(SyncedNetClockTest, FollowsTheServerBackWithAnotherTimeBase)
{
    m_provider.setOffset(1000 * SignedSecond);
    ASSERT_TRUE(m_provider.start("127.0.0.1", 0));
    const unsigned int port = m_provider.getPort();
    start(port);
    ASSERT_TRUE(waitForStateChanges(1));

    // Gone long enough to be lost, back 5 s ahead.
    m_provider.stop();
    ASSERT_TRUE(waitForStateChanges(2));
    m_provider.setOffset(1005 * SignedSecond);
    ASSERT_TRUE(m_provider.start("127.0.0.1", port));
    ASSERT_TRUE(waitForStateChanges(3));
    EXPECT_TRUE(stateChanges()[2].synchronized);
    expectFollows([&] { return m_provider.getTime(); });

    // 10 s back while synchronised: followed at once, without losing synchronisation.
    m_provider.setOffset(995 * SignedSecond);
    EXPECT_TRUE(waitFor([&] { return magnitude(errorAgainstProvider()) < Tolerance; }));
    expectFollows([&] { return m_provider.getTime(); });
    EXPECT_TRUE(m_clock.isSynchronized());
    EXPECT_EQ(stateChanges().size(), 3u);
    EXPECT_EQ(m_log.count(log4cplus::DEBUG_LOG_LEVEL,
                          "Network time server " + serverName(port) + " changed its time base; following it"),
              2u);
}

TEST_F(SyncedNetClockTest, IgnoresGarbageAndUnmatchedReplies)
{
    // Before each true answer come datagrams of the wrong length, an answer to a request never
    // sent and the request sent back; after it, a second answer to the same request. All of
    // these claim a time 500 s off.
    vrx::test::UdpSocket server;
    std::atomic<bool> serving{true};
    std::thread fakeServer([&] {
        while (serving)
        {
            const auto request = server.receive(20ms);
            if (!request || request->bytes.size() != 16)
                continue;
            const std::uint64_t echoed = vrx::test::readBigEndian(request->bytes, 0);
            const TimeValue wrongTime = miscUtils::getMonotonicSysclockTime() + 500 * Second;
            server.reply(*request, std::vector<unsigned char>(8, 0));
            std::vector<unsigned char> tooLong = vrx::test::bigEndianPair(echoed, wrongTime);
            tooLong.push_back(0);
            server.reply(*request, tooLong);
            server.reply(*request, vrx::test::bigEndianPair(echoed + 1, wrongTime));
            server.reply(*request, request->bytes);
            server.reply(*request, vrx::test::bigEndianPair(echoed, monotonicPlus1000Seconds()));
            server.reply(*request, vrx::test::bigEndianPair(echoed, wrongTime));
        }
    });

    start(server.port());
    EXPECT_TRUE(waitFor([&] { return m_clock.isSynchronized(); }));
    expectFollows(monotonicPlus1000Seconds, 500ms);
    m_clock.stopSynchronization();
    serving = false;
    fakeServer.join();

    EXPECT_GT(m_log.count(log4cplus::TRACE_LOG_LEVEL, "Ignoring a network time reply of 8 bytes"), 0u);
    EXPECT_GT(m_log.count(log4cplus::TRACE_LOG_LEVEL, "Ignoring a network time reply of 17 bytes"), 0u);
    EXPECT_GT(m_log.count(log4cplus::TRACE_LOG_LEVEL,
                          "Ignoring a network time reply that answers no pending request"),
              0u);
    EXPECT_EQ(m_log.count(log4cplus::DEBUG_LOG_LEVEL, "Network time server " + serverName(server.port()) +
                                                          " changed its time base; following it"),
              0u);
}

TEST_F(SyncedNetClockTest, StopDuringABurstDoesNotWaitForTheReply)
{
    vrx::test::UdpSocket silentServer;
    const auto baseline = processResources();
    // Each request would wait 30 s for its reply.
    start(silentServer.port(), 30 * Second);
    ASSERT_TRUE(silentServer.receive(5000ms));

    const auto before = std::chrono::steady_clock::now();
    m_clock.stopSynchronization();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 10s);
    // Still in the first exchange of the burst when stopped: no second request.
    EXPECT_FALSE(silentServer.receive(0ms));
    EXPECT_TRUE(settlesAt(baseline));
    EXPECT_TRUE(stateChanges().empty());
}

TEST_F(SyncedNetClockTest, StartStopCyclesLeaveNoThreadDescriptorOrLateCallback)
{
    ASSERT_TRUE(m_provider.start("127.0.0.1", 0));
    const unsigned int port = m_provider.getPort();
    const auto baseline = processResources();
    std::atomic<int> stoppedCycle{-1};
    std::atomic<int> lateCallbacks{0};
    std::atomic<int> callbacks{0};

    for (int cycle = 0; cycle < 16; ++cycle)
    {
        m_clock.startSynchronization("127.0.0.1", port, PollIntervalMs, MaxRoundTripNs, [&, cycle] {
            ++callbacks;
            if (cycle <= stoppedCycle)
                ++lateCallbacks;
        });
        EXPECT_TRUE(settlesAt(baseline, {.threads = 1, .descriptors = anyCount}));
        // Stopped at once, while acquiring, or synchronised.
        if (cycle % 3 == 1)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(cycle));
        }
        else if (cycle % 3 == 2)
        {
            EXPECT_TRUE(waitFor([&] { return m_clock.isSynchronized(); }));
        }
        m_clock.stopSynchronization();
        stoppedCycle = cycle;
        EXPECT_FALSE(m_clock.isSynchronized());
    }
    EXPECT_TRUE(settlesAt(baseline));

    // Starting again while running replaces the running synchronisation.
    start(port);
    start(port);
    EXPECT_TRUE(settlesAt(baseline, {.threads = 1, .descriptors = anyCount}));
    m_clock.stopSynchronization();

    // A clock destroyed while running stops.
    {
        SyncedNetClock running;
        running.startSynchronization("127.0.0.1", port, PollIntervalMs, MaxRoundTripNs, nullptr);
        EXPECT_TRUE(waitFor([&] { return running.isSynchronized(); }));
        EXPECT_TRUE(settlesAt(baseline, {.threads = 1, .descriptors = anyCount}));
    }
    EXPECT_TRUE(settlesAt(baseline));
    EXPECT_GT(callbacks.load(), 0);
    EXPECT_EQ(lateCallbacks.load(), 0);
}

TEST_F(SyncedNetClockTest, StartFailuresAreLoggedAndLeaveTheClockIdle)
{
    const auto baseline = processResources();
    m_clock.startSynchronization("localhost", 123, PollIntervalMs, MaxRoundTripNs, nullptr);
    m_clock.startSynchronization("127.0.0.1", 70000, PollIntervalMs, MaxRoundTripNs, nullptr);
    EXPECT_EQ(m_log.count(log4cplus::ERROR_LOG_LEVEL, "Invalid network time server address localhost:123"),
              1u);
    EXPECT_EQ(m_log.count(log4cplus::ERROR_LOG_LEVEL, "Invalid network time server address 127.0.0.1:70000"),
              1u);
    EXPECT_TRUE(settlesAt(baseline));
    EXPECT_FALSE(m_clock.isSynchronized());
    const TimeValue before = miscUtils::getMonotonicSysclockTime();
    const TimeValue reading = m_clock.getSynchronizedTime();
    EXPECT_LE(before, reading);
    EXPECT_LE(reading, miscUtils::getMonotonicSysclockTime());
}

TEST_F(SyncedNetClockTest, SynchronisesOverIpv6)
{
    if (!m_provider.start("::1", 0))
        GTEST_SKIP() << "no IPv6 loopback here";
    m_provider.setOffset(-1000 * SignedSecond);
    m_clock.startSynchronization("::1", m_provider.getPort(), PollIntervalMs, MaxRoundTripNs, nullptr);
    ASSERT_TRUE(waitFor([&] { return m_clock.isSynchronized(); }));
    expectFollows([&] { return m_provider.getTime(); });
    EXPECT_EQ(m_log.count(log4cplus::DEBUG_LOG_LEVEL, "Synchronized with network time server [::1]:" +
                                                          std::to_string(m_provider.getPort())),
              1u);
}

TEST_F(SyncedNetClockTest, FollowsTheFrameworkProvider)
{
    FrameworkProvider server;
    ASSERT_NE(server.port(), 0u);
    start(server.port());
    ASSERT_TRUE(waitFor([&] { return m_clock.isSynchronized(); }));
    ASSERT_TRUE(waitForStateChanges(1));
    expectFollows(monotonicPlus1000Seconds, 500ms);
}

TEST_F(SyncedNetClockTest, FollowsTheFrameworkProviderRestartedWithAnotherTimeBase)
{
    FrameworkProvider first;
    const unsigned int port = first.port();
    ASSERT_NE(port, 0u);
    start(port);
    ASSERT_TRUE(waitFor([&] { return m_clock.isSynchronized(); }));
    first.stop();

    FrameworkProvider second(port, 1005);
    ASSERT_EQ(second.port(), port);
    const auto monotonicPlus1005Seconds = [] {
        return miscUtils::getMonotonicSysclockTime() + 1005 * Second;
    };
    EXPECT_TRUE(waitFor([&] { return magnitude(errorAgainst(monotonicPlus1005Seconds)) < Tolerance; }));
    EXPECT_TRUE(waitFor([&] { return m_clock.isSynchronized(); }));
    expectFollows(monotonicPlus1005Seconds, 500ms);
    EXPECT_EQ(m_log.count(log4cplus::DEBUG_LOG_LEVEL,
                          "Network time server " + serverName(port) + " changed its time base; following it"),
              1u);
}

} // namespace
