#pragma once

#include <miscutils/Export.h>
#include <miscutils/MiscUtils.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace miscUtils {

/// A clock that follows the time of a network time server speaking the common 16-byte UDP
/// clock protocol (request: the client's time and all-ones; reply: the echoed client time and
/// the server's time, both big-endian nanoseconds). `NetTimeProvider` serves it, and so do
/// the time providers of widely used media frameworks.
///
/// A background thread sends short bursts of requests and keeps the fastest exchange of each
/// burst; offset and rate of the server's clock are estimated separately and applied smoothly,
/// so that readings never go backwards while the server keeps its time base. When the server's
/// time base jumps, the clock follows it with a step.
class VRX_EXPORT SyncedNetClock
{
public:
    /// Without a valid reply for this long, a synchronised clock declares the synchronisation
    /// lost (and calls back).
    static constexpr std::chrono::milliseconds LossTimeout{3000};
    /// What a receiver starts its clock with, and what fits a server on this host or nearby:
    /// a burst every 100 ms while synchronised, and exchanges whose round trip took longer
    /// than 175 ms left out.
    static constexpr unsigned int DefaultPollIntervalMs = 100;
    static constexpr unsigned long long DefaultMaxRoundTripNs = 175'000'000;

    /// An idle clock: no thread, no socket; it reads the local monotonic clock.
    SyncedNetClock();
    /// Stops synchronising, like `stopSynchronization`.
    ~SyncedNetClock();

    SyncedNetClock(const SyncedNetClock&) = delete;
    SyncedNetClock& operator=(const SyncedNetClock&) = delete;

    /// Starts following the server at `ipAddress` (numeric IPv4 or IPv6) and `port` in the
    /// background, after stopping a synchronisation still running. `pollIntervalMs` is the time
    /// between bursts while synchronised; exchanges whose round trip exceeds `maxRoundTripNs`
    /// are not used. `onStateChange` is called on the clock's own thread whenever
    /// `isSynchronized()` changes; it must not start or stop this clock. Failures (bad address,
    /// no socket) are logged and leave the clock idle.
    void startSynchronization(std::string ipAddress, unsigned int port, unsigned int pollIntervalMs,
                              unsigned long long maxRoundTripNs, std::function<void()> onStateChange);
    /// Stops synchronising and waits for the background thread to end; harmless when idle.
    /// No state-change callback runs after it returns. The clock keeps running on its last
    /// estimate of the server's time.
    void stopSynchronization();

    /// True once several samples agreed with each other, until the server stays silent for
    /// `LossTimeout` or synchronisation is stopped.
    bool isSynchronized() const;
    /// Current time on the server's time base in nanoseconds (the local monotonic time before
    /// the first sample). Cheap and safe from any thread.
    TimeValue getSynchronizedTime() const;

private:
    class Mapping;
    class Session;

    std::unique_ptr<Mapping> m_mapping;
    std::atomic<bool> m_synchronized{false};
    std::mutex m_controlMutex;
    std::unique_ptr<Session> m_session;
};

} // namespace miscUtils
