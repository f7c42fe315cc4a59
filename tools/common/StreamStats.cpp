#include "StreamStats.h"

#include "PcmSamples.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>

namespace vrxTools {

namespace {

constexpr std::uint64_t oneSecond = 1'000'000'000;

std::string format(const char* pattern, auto... values)
{
    char text[128];
    std::snprintf(text, sizeof(text), pattern, values...);
    return text;
}

} // namespace

std::size_t StreamFormat::frameBytes() const
{
    return std::size_t{channels} * audioUtils::getBytesPerSample(sampleFormat);
}

std::string StreamFormat::describe() const
{
    return format("%u Hz, %u channel%s, %s", sampleRate, channels, channels == 1 ? "" : "s",
                  audioUtils::toString(sampleFormat));
}

// ---- Latency ---------------------------------------------------------------------------

// Microseconds below 64 have a bucket each; above, every power of two is cut into 32 buckets.
std::size_t LatencyRecord::bucketOf(std::int64_t latency)
{
    const auto micros = static_cast<std::uint64_t>(std::max<std::int64_t>(latency, 0)) / 1000;
    if (micros < 64)
        return micros;
    const unsigned int exponent = static_cast<unsigned int>(std::bit_width(micros)) - 1; // >= 6
    const std::size_t bucket = 64 + (exponent - 6) * 32 + ((micros >> (exponent - 5)) & 31);
    return std::min(bucket, bucketCount - 1);
}

std::int64_t LatencyRecord::bucketValue(std::size_t bucket)
{
    if (bucket < 64)
        return static_cast<std::int64_t>(bucket) * 1000;
    const std::size_t exponent = (bucket - 64) / 32 + 6;
    const std::uint64_t micros = (std::uint64_t{32} + (bucket - 64) % 32) << (exponent - 5);
    return static_cast<std::int64_t>(micros * 1000);
}

void LatencyRecord::add(std::uint64_t now, std::int64_t latency)
{
    m_recent[m_recentNext] = {now, latency};
    m_recentNext = (m_recentNext + 1) % recentCapacity;
    m_recentCount = std::min(m_recentCount + 1, recentCapacity);
    ++m_histogram[bucketOf(latency)];
    ++m_total;
}

LatencyPercentiles LatencyRecord::lastSecond(std::uint64_t now) const
{
    std::vector<std::int64_t> values;
    values.reserve(m_recentCount);
    for (std::size_t i = 0; i < m_recentCount; ++i)
    {
        const Entry& entry = m_recent[(m_recentNext + recentCapacity - 1 - i) % recentCapacity];
        if (entry.time + oneSecond < now)
            break;
        values.push_back(entry.latency);
    }
    if (values.empty())
        return {};
    const auto at = [&values](double fraction) {
        auto nth =
            values.begin() + static_cast<std::ptrdiff_t>(fraction * static_cast<double>(values.size() - 1));
        std::nth_element(values.begin(), nth, values.end());
        return *nth;
    };
    return {values.size(), at(0.5), at(0.99)};
}

LatencyPercentiles LatencyRecord::wholeRun() const
{
    if (m_total == 0)
        return {};
    const auto at = [this](double fraction) {
        const auto rank = static_cast<std::uint64_t>(fraction * static_cast<double>(m_total - 1));
        std::uint64_t seen = 0;
        for (std::size_t bucket = 0; bucket < bucketCount; ++bucket)
        {
            seen += m_histogram[bucket];
            if (seen > rank)
                return bucketValue(bucket);
        }
        return bucketValue(bucketCount - 1);
    };
    return {m_total, at(0.5), at(0.99)};
}

// ---- Stream statistics ---------------------------------------------------------------

void StreamStats::startSequence(const StreamFormat& format)
{
    std::lock_guard lock(m_mutex);
    m_format = format;
    ++m_sequences;
    m_peaks.assign(format.channels, 0.0f);
}

void StreamStats::restartContinuity()
{
    std::lock_guard lock(m_mutex);
    m_expectedTimestamp.reset();
}

std::uint64_t StreamStats::addFrame(std::uint64_t timestamp, std::uint64_t duration,
                                    std::span<const unsigned char> samples, std::uint64_t now,
                                    std::optional<std::int64_t> latency)
{
    std::lock_guard lock(m_mutex);
    std::uint64_t lost = 0;
    if (m_expectedTimestamp && timestamp > *m_expectedTimestamp + duration / 2)
    {
        lost = timestamp - *m_expectedTimestamp;
        ++m_gaps;
        m_lostNs += lost;
        m_lostFrames += duration > 0 ? (lost + duration / 2) / duration : 0;
    }
    m_expectedTimestamp = timestamp + duration;
    ++m_frames;
    m_streamNs += duration;
    if (m_format && m_measurePeaks)
        accumulatePeaks(samples, m_format->sampleFormat, m_peaks);
    if (latency)
        m_latency.add(now, *latency);
    return lost;
}

StreamSnapshot StreamStats::snapshot(std::uint64_t now)
{
    std::lock_guard lock(m_mutex);
    StreamSnapshot snapshot{m_format,
                            m_frames,
                            m_sequences,
                            m_streamNs,
                            m_gaps,
                            m_lostNs,
                            m_lostFrames,
                            m_peaks,
                            m_latency.lastSecond(now),
                            m_latency.wholeRun()};
    std::fill(m_peaks.begin(), m_peaks.end(), 0.0f);
    return snapshot;
}

// ---- Texts ---------------------------------------------------------------------------

std::string describePeaks(const std::vector<float>& peaks)
{
    constexpr std::size_t shown = 8;
    std::string text;
    for (std::size_t channel = 0; channel < std::min(peaks.size(), shown); ++channel)
    {
        if (channel > 0)
            text += ' ';
        text += peaks[channel] > 0.0f ? format("%.1f", 20.0 * std::log10(peaks[channel])) : "-inf";
    }
    if (peaks.size() > shown)
        text += format(" +%zu", peaks.size() - shown);
    return text + " dBFS";
}

std::string describeLatency(const LatencyPercentiles& latency)
{
    if (latency.count == 0)
        return "n/a";
    return format("p50 %.2f ms, p99 %.2f ms", static_cast<double>(latency.p50) / 1e6,
                  static_cast<double>(latency.p99) / 1e6);
}

std::string describeSeconds(std::uint64_t nanoseconds)
{
    return format("%.3f s", static_cast<double>(nanoseconds) / 1e9);
}

std::string describeGaps(const StreamSnapshot& snapshot)
{
    if (snapshot.gaps == 0)
        return "none";
    return format("%llu, %.1f ms lost (about %llu frame%s)", static_cast<unsigned long long>(snapshot.gaps),
                  static_cast<double>(snapshot.lostNs) / 1e6,
                  static_cast<unsigned long long>(snapshot.lostFrames), snapshot.lostFrames == 1 ? "" : "s");
}

} // namespace vrxTools
