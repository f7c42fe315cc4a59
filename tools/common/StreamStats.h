#pragma once

// What a program knows about the stream it sends or receives, for the live status line and
// the summary at exit: format, frames, gaps, peak levels and latency.

#include <audioutils/PcmFormat.h>

#include <array>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vrxTools {

struct StreamFormat
{
    unsigned int sampleRate = 0;
    unsigned int channels = 0;
    audioUtils::PcmFormat sampleFormat = audioUtils::PcmFormat::S16LE;

    bool operator==(const StreamFormat&) const = default;
    /// Bytes of one sample frame (one sample of every channel).
    std::size_t frameBytes() const;
    /// "48000 Hz, 2 channels, S16LE"
    std::string describe() const;
};

/// Latency percentiles in nanoseconds over some set of frames.
struct LatencyPercentiles
{
    std::size_t count = 0;
    std::int64_t p50 = 0;
    std::int64_t p99 = 0;
};

/// Latencies of the last second, kept exactly, and of the whole run, kept in a histogram of
/// about 3 % resolution, so that memory stays fixed however long a program runs.
class LatencyRecord
{
public:
    /// A frame's latency, noted at monotonic time `now`. Allocates nothing.
    void add(std::uint64_t now, std::int64_t latency);
    LatencyPercentiles lastSecond(std::uint64_t now) const;
    LatencyPercentiles wholeRun() const;

private:
    static constexpr std::size_t recentCapacity = 4096; // a second of 0.25 ms frames
    static constexpr std::size_t bucketCount = 64 + 58 * 32;
    static std::size_t bucketOf(std::int64_t latency);
    static std::int64_t bucketValue(std::size_t bucket);

    struct Entry
    {
        std::uint64_t time;
        std::int64_t latency;
    };
    std::array<Entry, recentCapacity> m_recent{};
    std::size_t m_recentCount = 0;
    std::size_t m_recentNext = 0;
    std::array<std::uint64_t, bucketCount> m_histogram{};
    std::size_t m_total = 0; // latencies below 0 count as 0 in the histogram
};

/// A consistent copy of the statistics, taken by the thread that shows them.
struct StreamSnapshot
{
    std::optional<StreamFormat> format;
    std::uint64_t frames = 0;
    std::uint64_t sequences = 0;
    std::uint64_t streamNs = 0; ///< sum of frame durations
    std::uint64_t gaps = 0;
    std::uint64_t lostNs = 0;     ///< what the gaps lost
    std::uint64_t lostFrames = 0; ///< the same in frames, each gap's at the duration of the frame after it
    std::vector<float> peaks;     ///< per channel since the previous snapshot, 1.0 = full scale
    LatencyPercentiles recentLatency;
    LatencyPercentiles overallLatency;
};

/// Frame statistics shared between the thread that handles frames and the one that shows them.
/// addFrame allocates nothing once a sequence has started.
class StreamStats
{
public:
    /// Peak levels cost a pass over every sample; a program that shows none leaves them out.
    explicit StreamStats(bool measurePeaks) : m_measurePeaks(measurePeaks) {}

    /// A sequence with this format begins: peaks are kept per channel of it. Timestamps stay
    /// continuous across sequences, as a sender keeps them.
    void startSequence(const StreamFormat& format);
    /// The timestamps change their time base (another clock): the next frame starts
    /// continuity afresh without a gap.
    void restartContinuity();
    /// One frame. A frame that starts later than the previous one ended (by more than half its
    /// duration) follows a gap: what lies between was lost, and its length in nanoseconds is
    /// returned (else 0). One that starts earlier restarts continuity. `latency` is now -
    /// timestamp on the stream's clock, when that clock can be read.
    std::uint64_t addFrame(std::uint64_t timestamp, std::uint64_t duration,
                           std::span<const unsigned char> samples, std::uint64_t now,
                           std::optional<std::int64_t> latency);
    /// Copies everything and restarts the peak measurement.
    StreamSnapshot snapshot(std::uint64_t now);

private:
    const bool m_measurePeaks;
    mutable std::mutex m_mutex;
    std::optional<StreamFormat> m_format;
    std::uint64_t m_frames = 0;
    std::uint64_t m_sequences = 0;
    std::uint64_t m_streamNs = 0;
    std::uint64_t m_gaps = 0;
    std::uint64_t m_lostNs = 0;
    std::uint64_t m_lostFrames = 0;
    std::optional<std::uint64_t> m_expectedTimestamp;
    std::vector<float> m_peaks;
    LatencyRecord m_latency;
};

/// "-6.0 -6.0 dBFS" (at most 8 channels, then "+N"); "-inf" for silence.
std::string describePeaks(const std::vector<float>& peaks);
/// "p50 0.21 ms, p99 0.80 ms"; "n/a" without latencies.
std::string describeLatency(const LatencyPercentiles& latency);
/// "3.000 s"
std::string describeSeconds(std::uint64_t nanoseconds);
/// "none", or "2, 1012.5 ms lost (about 101 frames)"
std::string describeGaps(const StreamSnapshot& snapshot);

} // namespace vrxTools
