#pragma once

#include <miscutils/Descriptors.h>
#include <miscutils/Export.h>
#include <miscutils/MiscUtils.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace miscUtils {

/// A UDP time server of the protocol that `SyncedNetClock` follows. It serves the local
/// monotonic clock plus an offset, optionally running at another rate:
/// served time = monotonic + offset + (monotonic - time of the last rate change) * (rate - 1).
/// An application that announces this server stamps its frames with `getTime()`.
class VRX_EXPORT NetTimeProvider
{
public:
    /// Not serving yet; offset 0, rate 1.
    NetTimeProvider();
    /// Stops serving, like `stop`.
    ~NetTimeProvider();

    NetTimeProvider(const NetTimeProvider&) = delete;
    NetTimeProvider& operator=(const NetTimeProvider&) = delete;

    /// Serves on `ipAddress` (numeric IPv4 or IPv6; empty for every IPv4 address) and `port`
    /// (0 picks a free one, see `getPort`), after stopping a server still running. False on
    /// failure, which is logged.
    bool start(const std::string& ipAddress, unsigned int port);
    /// Stops serving and closes the socket; harmless when not serving.
    void stop();
    /// The port served on; 0 when not serving.
    unsigned int getPort() const;

    /// The time served right now, in nanoseconds.
    TimeValue getTime() const;
    /// Replaces the offset to the monotonic clock: the served time jumps by the difference.
    void setOffset(std::int64_t offset);
    /// Served nanoseconds per monotonic nanosecond from now on (1.0001 runs 100 ppm fast);
    /// the served time continues without a jump.
    void setRate(double rate);

private:
    void stopServing();
    /// What the rate has added to the offset since it was last changed; needs m_timeMutex.
    std::int64_t driftSinceRateChange(TimeValue now) const;
    void serve();
    void answerRequests();

    mutable std::mutex m_timeMutex; // guards the three members of the served time
    std::int64_t m_offset = 0;
    double m_rate = 1.0;
    TimeValue m_rateChangeTime = 0;

    std::mutex m_controlMutex; // serialises start and stop
    FileDescriptor m_socketFD;
    WakeupPipe m_wakeup;
    std::atomic<unsigned int> m_port{0};
    std::thread m_thread;
};

} // namespace miscUtils
