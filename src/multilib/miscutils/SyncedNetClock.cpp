#include "miscutils/SyncedNetClock.h"

#include "miscutils/Assert.h"
#include "miscutils/Descriptors.h"
#include "miscutils/NetTimeProtocol.h"
#include "miscutils/ErrnoText.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <deque>
#include <optional>
#include <thread>
#include <vector>

namespace miscUtils {

namespace {

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Voraxis"));

using detail::ErrnoText;

constexpr TimeValue Millisecond = 1'000'000;
constexpr TimeValue Second = 1'000'000'000;
constexpr TimeValue LossTimeoutNs =
    static_cast<TimeValue>(std::chrono::nanoseconds(SyncedNetClock::LossTimeout).count());

// Exchanges per burst. The first request after a pause meets a cold server and comes back late
// and lopsided; the ones right after it are fast, and the fastest exchange of a burst is kept.
constexpr std::size_t BurstLength = 5;
// Time between bursts while the server answers but the clock is not synchronised yet.
constexpr TimeValue AcquisitionInterval = 10 * Millisecond;
// Consecutive agreeing samples that make the clock synchronised, or that establish a new time
// base when the server's time jumped.
constexpr int AgreeingSamplesNeeded = 3;
// A request waits this long at most for its reply, whatever round trip is allowed.
constexpr TimeValue LongestReplyWait = 60 * Second;
// The least time between bursts, whatever poll interval is asked for.
constexpr TimeValue ShortestPollInterval = AcquisitionInterval;

// The rate is estimated from the samples of the last RateHistoryLength accepted bursts once they
// span RateBaseline, limited to +-MaxRate, and followed by at most MaxRateStep per burst.
constexpr std::size_t RateHistoryLength = 256;
constexpr TimeValue RateBaseline = 2 * Second;
constexpr double MaxRate = 500e-6;
constexpr double MaxRateStep = 20e-6;
// Uncertainty of the rate before it was estimated, and the least assumed afterwards (an
// oscillator's rate wanders).
constexpr double UnknownRateUncertainty = 200e-6;
constexpr double LeastRateUncertainty = 5e-6;
// Noise (ns) assumed for a sample however short its round trip.
constexpr double LeastSampleNoise = 250.0;
// A sample further from the prediction than OutlierSigmas standard deviations plus
// OutlierMargin (ns) is not used and breaks a run of agreeing samples.
constexpr double OutlierSigmas = 5.0;
constexpr double OutlierMargin = 200'000.0;
// Two samples agree when their offsets differ by no more than their half round trips, the
// drift that the largest rate explains, and this margin (ns).
constexpr double AgreementMargin = 50'000.0;

// Corrections are spread over SlewTime at least and run MaxSlew fast at most. After a change of
// the server's time base, a correction beyond StepThreshold is made at once.
constexpr TimeValue SlewTime = 20 * Millisecond;
constexpr double MaxSlew = 5e-3;
constexpr TimeValue StepThreshold = 1 * Millisecond;
// A new mapping starts this far (ns) after the writer read the clock; see Mapping::follow.
constexpr TimeValue PublishLead = 1000;

std::int64_t signedDifference(std::uint64_t later, std::uint64_t earlier)
{
    return static_cast<std::int64_t>(later - earlier);
}

std::int64_t offsetDifference(std::int64_t a, std::int64_t b)
{
    return signedDifference(static_cast<std::uint64_t>(a), static_cast<std::uint64_t>(b));
}

/// One exchange: where the server's clock stood against ours.
struct Sample
{
    TimeValue localTime; // midpoint of request and reply on the local clock
    std::int64_t offset; // server time minus localTime, true within +-roundTrip / 2
    TimeValue roundTrip;
};

double sampleVariance(const Sample& sample)
{
    // Anywhere within +-roundTrip / 2, taken as evenly likely.
    const double roundTrip = static_cast<double>(sample.roundTrip);
    return roundTrip * roundTrip / 12.0 + LeastSampleNoise * LeastSampleNoise;
}

bool samplesAgree(const Sample& a, const Sample& b)
{
    const double apart = std::abs(static_cast<double>(signedDifference(a.localTime, b.localTime)));
    const double tolerance =
        static_cast<double>(a.roundTrip + b.roundTrip) / 2.0 + MaxRate * apart + AgreementMargin;
    return std::abs(static_cast<double>(offsetDifference(a.offset, b.offset))) <= tolerance;
}

/// The server's clock as the filter sees it: offset at a local time, and rate.
struct Estimate
{
    TimeValue localTime;
    std::int64_t offset;
    double rate;

    TimeValue serverTimeAt(TimeValue local) const
    {
        const double drift = rate * static_cast<double>(signedDifference(local, localTime));
        return local + static_cast<TimeValue>(offset + std::llround(drift));
    }
};

/// Estimates the server's offset (a Kalman filter on the fastest sample of each burst) and
/// rate (weighted least squares over a long history) separately, rejects outliers, and
/// recognises a new time base when several samples agree with each other but not with it.
class ClockFilter
{
public:
    enum class Result
    {
        Accepted,
        Rejected,
        NewTimeBase
    };

    Result add(const Sample& sample)
    {
        if (!m_started)
        {
            restart(sample);
            return Result::NewTimeBase;
        }
        const Prediction prediction = predict(sample.localTime);
        const double innovation = relativeOffset(sample) - prediction.offset;
        const double bound =
            OutlierSigmas * std::sqrt(prediction.variance + sampleVariance(sample)) + OutlierMargin;
        if (std::abs(innovation) <= bound)
        {
            m_outliers.clear();
            update(sample, prediction);
            return Result::Accepted;
        }
        m_agreeingSamples = 0;
        if (!m_outliers.empty() && !samplesAgree(m_outliers.back(), sample))
            m_outliers.clear();
        m_outliers.push_back(sample);
        if (m_outliers.size() < AgreeingSamplesNeeded)
            return Result::Rejected;
        const std::vector<Sample> agreeing = std::move(m_outliers);
        restart(agreeing.front());
        for (std::size_t index = 1; index < agreeing.size(); ++index)
            update(agreeing[index], predict(agreeing[index].localTime));
        return Result::NewTimeBase;
    }

    /// After a loss, synchronisation needs a fresh run of agreeing samples.
    void forgetAgreement() { m_agreeingSamples = 0; }
    int agreeingSamples() const { return m_agreeingSamples; }

    Estimate estimate() const { return {m_offsetTime, m_referenceOffset + std::llround(m_offset), m_rate}; }

private:
    struct Prediction
    {
        double offset;
        double variance;
    };

    void restart(const Sample& sample)
    {
        m_started = true;
        m_referenceOffset = sample.offset;
        m_referenceTime = sample.localTime;
        m_offset = 0.0;
        m_offsetVariance = sampleVariance(sample);
        m_offsetTime = sample.localTime;
        m_rate = 0.0;
        m_rateUncertainty = UnknownRateUncertainty;
        m_history.assign(1, sample);
        m_outliers.clear();
        m_agreeingSamples = 1;
    }

    /// Offsets are kept relative to the first sample so that doubles hold them exactly enough.
    double relativeOffset(const Sample& sample) const
    {
        return static_cast<double>(offsetDifference(sample.offset, m_referenceOffset));
    }

    Prediction predict(TimeValue localTime) const
    {
        const double elapsed = static_cast<double>(signedDifference(localTime, m_offsetTime));
        const double drift = m_rateUncertainty * elapsed;
        return {m_offset + m_rate * elapsed, m_offsetVariance + drift * drift};
    }

    void update(const Sample& sample, const Prediction& prediction)
    {
        const double gain = prediction.variance / (prediction.variance + sampleVariance(sample));
        m_offset = prediction.offset + gain * (relativeOffset(sample) - prediction.offset);
        m_offsetVariance = (1.0 - gain) * prediction.variance;
        m_offsetTime = sample.localTime;
        m_history.push_back(sample);
        if (m_history.size() > RateHistoryLength)
            m_history.pop_front();
        updateRate();
        ++m_agreeingSamples;
    }

    void updateRate()
    {
        if (m_history.size() < 3 ||
            signedDifference(m_history.back().localTime, m_history.front().localTime) <
                static_cast<std::int64_t>(RateBaseline))
            return;
        // Weighted least squares of offset over local time; fast exchanges weigh most.
        double weightSum = 0.0, timeMean = 0.0, offsetMean = 0.0;
        for (const Sample& sample : m_history)
        {
            const double weight = 1.0 / sampleVariance(sample);
            weightSum += weight;
            timeMean += weight * static_cast<double>(signedDifference(sample.localTime, m_referenceTime));
            offsetMean += weight * relativeOffset(sample);
        }
        timeMean /= weightSum;
        offsetMean /= weightSum;
        double timeSpread = 0.0, covariance = 0.0;
        for (const Sample& sample : m_history)
        {
            const double weight = 1.0 / sampleVariance(sample);
            const double time =
                static_cast<double>(signedDifference(sample.localTime, m_referenceTime)) - timeMean;
            timeSpread += weight * time * time;
            covariance += weight * time * (relativeOffset(sample) - offsetMean);
        }
        const double target = std::clamp(covariance / timeSpread, -MaxRate, MaxRate);
        m_rate += std::clamp(target - m_rate, -MaxRateStep, MaxRateStep);
        m_rateUncertainty =
            std::max({std::sqrt(1.0 / timeSpread), std::abs(target - m_rate), LeastRateUncertainty});
    }

    bool m_started = false;
    std::int64_t m_referenceOffset = 0;
    TimeValue m_referenceTime = 0;
    double m_offset = 0.0; // relative to m_referenceOffset, at m_offsetTime
    double m_offsetVariance = 0.0;
    TimeValue m_offsetTime = 0;
    double m_rate = 0.0;
    double m_rateUncertainty = UnknownRateUncertainty;
    std::deque<Sample> m_history;
    std::vector<Sample> m_outliers;
    int m_agreeingSamples = 0;
};

} // namespace

/// The mapping from local monotonic time to server time that readers use: a continuous,
/// increasing piecewise-linear function, published by the session thread under a sequence lock
/// so that readers on any thread never block and never see a half-written segment.
class SyncedNetClock::Mapping
{
public:
    TimeValue read() const
    {
        for (;;)
        {
            const std::uint64_t sequence = m_sequence.load(std::memory_order_acquire);
            if (sequence % 2 != 0)
            {
                std::this_thread::yield();
                continue;
            }
            // Acquire loads of the fields keep the second look at the sequence number after
            // them (no standalone fences: ThreadSanitizer does not model those).
            const Segment segment = load();
            const TimeValue now = getMonotonicSysclockTime();
            if (m_sequence.load(std::memory_order_relaxed) == sequence)
                return segment.at(now);
        }
    }

    /// Moves the mapping towards `estimate`: by a slew that keeps it continuous and increasing,
    /// or, for a new time base of the server that is far off, by a step. Session thread only.
    void follow(const Estimate& estimate, bool newTimeBase)
    {
        // A full barrier: the odd sequence number is visible before the clock is read below.
        const std::uint64_t sequence = m_sequence.fetch_add(1, std::memory_order_seq_cst);
        // A reader that still gets the previous segment read its clock before the odd sequence
        // number became visible, so before `start`: both segments meet there, and no reading
        // goes backwards when the readers switch.
        const TimeValue start = getMonotonicSysclockTime() + PublishLead;
        const TimeValue current = m_written.at(start);
        const TimeValue target = estimate.serverTimeAt(start);
        const std::int64_t correction = signedDifference(target, current);
        Segment next{start, current, estimate.rate, 0.0, 0};
        const auto correctionSize = static_cast<TimeValue>(std::abs(correction));
        if (newTimeBase && correctionSize > StepThreshold)
        {
            next.startServer = target;
        }
        else if (correction != 0)
        {
            next.slewDuration =
                std::max(SlewTime, static_cast<TimeValue>(static_cast<double>(correctionSize) / MaxSlew));
            next.slew = static_cast<double>(correction) / static_cast<double>(next.slewDuration);
        }
        // Release stores: a reader that sees one new field also sees the odd sequence number.
        m_startLocal.store(next.startLocal, std::memory_order_release);
        m_startServer.store(next.startServer, std::memory_order_release);
        m_rate.store(next.rate, std::memory_order_release);
        m_slew.store(next.slew, std::memory_order_release);
        m_slewDuration.store(next.slewDuration, std::memory_order_release);
        m_sequence.store(sequence + 2, std::memory_order_release);
        m_written = next;
    }

private:
    struct Segment
    {
        TimeValue startLocal;
        TimeValue startServer;
        double rate; // server's rate minus one
        double slew; // added to the rate during the first slewDuration
        TimeValue slewDuration;

        TimeValue at(TimeValue local) const
        {
            const std::int64_t elapsed = std::max<std::int64_t>(signedDifference(local, startLocal), 0);
            const double slewed =
                static_cast<double>(std::min<TimeValue>(static_cast<TimeValue>(elapsed), slewDuration));
            const double adjustment = rate * static_cast<double>(elapsed) + slew * slewed;
            return startServer + static_cast<TimeValue>(elapsed + std::llround(adjustment));
        }
    };

    Segment load() const
    {
        return {m_startLocal.load(std::memory_order_acquire), m_startServer.load(std::memory_order_acquire),
                m_rate.load(std::memory_order_acquire), m_slew.load(std::memory_order_acquire),
                m_slewDuration.load(std::memory_order_acquire)};
    }

    // The identity until the first sample: readers get the local monotonic time.
    std::atomic<std::uint64_t> m_sequence{0};
    std::atomic<TimeValue> m_startLocal{0};
    std::atomic<TimeValue> m_startServer{0};
    std::atomic<double> m_rate{0.0};
    std::atomic<double> m_slew{0.0};
    std::atomic<TimeValue> m_slewDuration{0};
    Segment m_written{0, 0, 0.0, 0.0, 0}; // the writer's copy of the published segment
};

/// One started synchronisation: the UDP socket connected to the server, the wake-up pipe that
/// stops it, the filter and the thread that runs the exchanges.
class SyncedNetClock::Session
{
public:
    Session(SyncedNetClock& clock, std::string serverName, unsigned int pollIntervalMs,
            unsigned long long maxRoundTripNs, std::function<void()> onStateChange)
        : m_clock(clock),
          m_serverName(std::move(serverName)),
          m_pollInterval(std::max<TimeValue>(pollIntervalMs * Millisecond, ShortestPollInterval)),
          m_maxRoundTrip(maxRoundTripNs),
          m_replyWait(std::min<TimeValue>(maxRoundTripNs, LongestReplyWait)),
          m_onStateChange(std::move(onStateChange))
    {}

    ~Session() { stop(); }

    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    bool open(const detail::SocketAddress& server)
    {
        m_socketFD.reset(socket(server.family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (m_socketFD < 0)
        {
            LOG4CPLUS_ERROR(logger,
                            "Cannot create a socket for network time synchronization: " << ErrnoText{errno});
            return false;
        }
        // Connected, so that only the server's datagrams arrive and a closed port reports
        // ECONNREFUSED instead of leaving requests unanswered.
        if (connect(m_socketFD, reinterpret_cast<const sockaddr*>(&server.storage), server.length) < 0)
        {
            LOG4CPLUS_ERROR(logger, "Cannot connect to network time server " << m_serverName << ": "
                                                                             << ErrnoText{errno});
            return false;
        }
        if (!m_wakeup.open())
        {
            LOG4CPLUS_ERROR(logger, "Cannot create the wake-up pipe of network time synchronization: "
                                        << ErrnoText{errno});
            return false;
        }
        return true;
    }

    void start()
    {
        m_thread = std::thread([this] { run(); });
    }

    void stop()
    {
        if (!m_thread.joinable())
            return;
        MISCUTILS_ASSERT(std::this_thread::get_id() != m_thread.get_id());
        m_wakeup.notify();
        m_thread.join();
    }

private:
    enum class Wait
    {
        Readable,
        TimedOut,
        Stopped
    };

    void run()
    {
        TimeValue nextBurst = getMonotonicSysclockTime();
        for (;;)
        {
            if (waitUntil(nextBurst, false) == Wait::Stopped)
                return;
            const TimeValue burstStart = getMonotonicSysclockTime();
            std::optional<Sample> best;
            if (!runBurst(best))
                return;
            if (best)
                use(*best);
            checkForLoss(getMonotonicSysclockTime());
            const bool acquiring = best && !m_clock.m_synchronized.load();
            nextBurst = burstStart + (acquiring ? AcquisitionInterval : m_pollInterval);
        }
    }

    /// Sends up to BurstLength requests, each after the previous one was answered or timed out,
    /// and keeps the fastest usable exchange. False when stopped.
    bool runBurst(std::optional<Sample>& best)
    {
        discardPendingDatagrams();
        std::vector<TimeValue> pending;
        for (std::size_t exchange = 0; exchange < BurstLength; ++exchange)
        {
            const TimeValue request = getMonotonicSysclockTime();
            if (!sendRequest(request))
                return true;
            pending.push_back(request);
            bool answered = false;
            Wait wait = Wait::Readable;
            while (!answered && (wait = waitUntil(request + m_replyWait, true)) == Wait::Readable)
                if (!receiveReplies(pending, request, best, answered))
                    return true;
            if (wait == Wait::Stopped)
                return false;
        }
        return true;
    }

    bool sendRequest(TimeValue request)
    {
        std::array<unsigned char, detail::NetTimePacketSize> packet{};
        detail::writeBigEndian64(packet.data(), request);
        detail::writeBigEndian64(packet.data() + 8, detail::NetTimeRequestMarker);
        if (send(m_socketFD, packet.data(), packet.size(), MSG_NOSIGNAL) ==
            static_cast<ssize_t>(packet.size()))
        {
            m_sendFailing = false;
            return true;
        }
        if (errno == ECONNREFUSED)
        {
            LOG4CPLUS_TRACE(logger, "Network time server " << m_serverName << " refused a request");
        }
        else if (!m_sendFailing)
        {
            LOG4CPLUS_ERROR(logger, "Cannot send a request to network time server " << m_serverName << ": "
                                                                                    << ErrnoText{errno});
            m_sendFailing = true;
        }
        return false;
    }

    /// Reads every datagram that arrived. A reply counts when it is 16 bytes long, answers a
    /// request of this burst not answered before, and came back within the allowed round trip.
    /// False when the server refused or the socket failed.
    bool receiveReplies(std::vector<TimeValue>& pending, TimeValue request, std::optional<Sample>& best,
                        bool& answered)
    {
        for (;;)
        {
            std::array<unsigned char, 2 * detail::NetTimePacketSize> reply{};
            const ssize_t received = recv(m_socketFD, reply.data(), reply.size(), MSG_DONTWAIT);
            const TimeValue replyTime = getMonotonicSysclockTime();
            if (received < 0)
            {
                if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)
                    return true;
                if (errno == ECONNREFUSED)
                    LOG4CPLUS_TRACE(logger, "Network time server " << m_serverName << " refused a request");
                else
                    LOG4CPLUS_ERROR(logger, "Cannot receive from network time server " << m_serverName << ": "
                                                                                       << ErrnoText{errno});
                return false;
            }
            if (static_cast<std::size_t>(received) != detail::NetTimePacketSize)
            {
                LOG4CPLUS_TRACE(logger, "Ignoring a network time reply of " << received << " bytes");
                continue;
            }
            const TimeValue echoed = detail::readBigEndian64(reply.data());
            const TimeValue serverTime = detail::readBigEndian64(reply.data() + 8);
            const auto match = std::find(pending.begin(), pending.end(), echoed);
            // All-ones is our own request sent back unanswered.
            if (match == pending.end() || serverTime == detail::NetTimeRequestMarker)
            {
                LOG4CPLUS_TRACE(logger, "Ignoring a network time reply that answers no pending request");
                continue;
            }
            pending.erase(match);
            answered = answered || echoed == request;
            const TimeValue roundTrip = replyTime - echoed;
            if (roundTrip > m_maxRoundTrip)
                continue;
            const TimeValue localTime = echoed + roundTrip / 2;
            const Sample sample{localTime, signedDifference(serverTime, localTime), roundTrip};
            if (!best || sample.roundTrip < best->roundTrip)
                best = sample;
        }
    }

    /// Late replies of earlier bursts and errors of requests that found no server.
    void discardPendingDatagrams()
    {
        std::array<unsigned char, detail::NetTimePacketSize> datagram{};
        for (int count = 0; count < 64; ++count)
            if (recv(m_socketFD, datagram.data(), datagram.size(), MSG_DONTWAIT) < 0 &&
                (errno == EAGAIN || errno == EWOULDBLOCK))
                return;
    }

    void use(const Sample& sample)
    {
        const ClockFilter::Result result = m_filter.add(sample);
        if (result == ClockFilter::Result::Rejected)
            return;
        m_lastValidSampleTime = sample.localTime;
        const bool newTimeBase = result == ClockFilter::Result::NewTimeBase;
        if (newTimeBase && m_hadTimeBase)
            LOG4CPLUS_DEBUG(logger,
                            "Network time server " << m_serverName << " changed its time base; following it");
        m_hadTimeBase = true;
        m_clock.m_mapping->follow(m_filter.estimate(), newTimeBase);
        if (!m_clock.m_synchronized.load() && m_filter.agreeingSamples() >= AgreeingSamplesNeeded)
        {
            LOG4CPLUS_DEBUG(logger, "Synchronized with network time server " << m_serverName);
            setSynchronized(true);
        }
    }

    void checkForLoss(TimeValue now)
    {
        if (!m_clock.m_synchronized.load() ||
            signedDifference(now, m_lastValidSampleTime) < static_cast<std::int64_t>(LossTimeoutNs))
            return;
        LOG4CPLUS_DEBUG(logger, "Lost synchronization with network time server "
                                    << m_serverName << ": no valid reply for "
                                    << SyncedNetClock::LossTimeout.count() << " ms");
        m_filter.forgetAgreement();
        setSynchronized(false);
    }

    void setSynchronized(bool synchronized)
    {
        m_clock.m_synchronized.store(synchronized);
        if (m_onStateChange)
            m_onStateChange();
    }

    /// Waits for the deadline, the stop event or (with `socket`) a datagram.
    Wait waitUntil(TimeValue deadline, bool socket)
    {
        std::array<pollfd, 2> fds{pollfd{m_wakeup.readFD(), POLLIN, 0}, pollfd{m_socketFD, POLLIN, 0}};
        for (;;)
        {
            const std::int64_t remaining = signedDifference(deadline, getMonotonicSysclockTime());
            if (remaining <= 0)
                return Wait::TimedOut;
            const timespec timeout{static_cast<time_t>(remaining / 1'000'000'000),
                                   static_cast<long>(remaining % 1'000'000'000)};
            const int ready = ppoll(fds.data(), socket ? 2 : 1, &timeout, nullptr);
            if (ready < 0 && errno == EINTR)
                continue;
            if (ready < 0)
            {
                LOG4CPLUS_ERROR(logger, "Cannot wait for network time replies: " << ErrnoText{errno});
                return Wait::Stopped;
            }
            if (fds[0].revents != 0)
                return Wait::Stopped;
            if (ready > 0)
                return Wait::Readable;
        }
    }

    SyncedNetClock& m_clock;
    const std::string m_serverName;
    const TimeValue m_pollInterval;
    const TimeValue m_maxRoundTrip;
    const TimeValue m_replyWait;
    const std::function<void()> m_onStateChange;
    FileDescriptor m_socketFD;
    WakeupPipe m_wakeup;
    std::thread m_thread;
    ClockFilter m_filter;
    TimeValue m_lastValidSampleTime = 0;
    bool m_hadTimeBase = false;
    bool m_sendFailing = false;
};

SyncedNetClock::SyncedNetClock() : m_mapping(std::make_unique<Mapping>())
{}

SyncedNetClock::~SyncedNetClock()
{
    stopSynchronization();
}

void SyncedNetClock::startSynchronization(std::string ipAddress, unsigned int port,
                                          unsigned int pollIntervalMs, unsigned long long maxRoundTripNs,
                                          std::function<void()> onStateChange)
{
    std::lock_guard lock(m_controlMutex);
    m_session.reset();
    m_synchronized.store(false);
    const std::string serverName = detail::describeEndpoint(ipAddress, port);
    const std::optional<detail::SocketAddress> server = detail::resolveNumericAddress(ipAddress, port);
    if (!server)
    {
        LOG4CPLUS_ERROR(logger, "Invalid network time server address " << serverName);
        return;
    }
    auto session = std::make_unique<Session>(*this, serverName, pollIntervalMs, maxRoundTripNs,
                                             std::move(onStateChange));
    if (!session->open(*server))
        return;
    session->start();
    m_session = std::move(session);
}

void SyncedNetClock::stopSynchronization()
{
    std::lock_guard lock(m_controlMutex);
    m_session.reset();
    m_synchronized.store(false);
}

bool SyncedNetClock::isSynchronized() const
{
    return m_synchronized.load();
}

TimeValue SyncedNetClock::getSynchronizedTime() const
{
    return m_mapping->read();
}

} // namespace miscUtils
