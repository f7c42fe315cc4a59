// A long run of one stream: a vrx::Sender and N vrx::Receiver, each in a process of its own,
// at a fixed frame rate for a given time, to find what only time shows: frames lost, delivered
// twice or out of order, corrupted media, reconnects, latency that drifts, and descriptors,
// threads or memory that grow.
//
//   vrx_bench_soak [--seconds S] [--receivers N] [--rate FRAMES_PER_SECOND]
//                  [--protocol pubsub|pipeline] [--frame-bytes B] [--progress SECONDS]
//                  [--catch-up yes|no] [--max-loss PERCENT] [--rss-growth KIB]
//
// Defaults: 20 s, 8 receivers, 1000 frames/s, pubsub, 1920-byte frames (10 ms of 48 kHz stereo
// S16LE), a progress line every 60 s, late ticks skipped, 1 % loss and 256 KiB of RSS growth
// allowed. The 10-minute soak is `--seconds 600`. Pipeline carries one receiver (it binds the
// address), which is then the default.
//
// The sender sends frame k at its deadline on the monotonic clock (t0 + k periods, slept for
// with an absolute deadline). A late send goes out at once; the ticks whose deadlines passed
// meanwhile are skipped and counted, or, with --catch-up yes, made up back to back as a live
// source delivers its backlog (the stream's small buffers then drop all but about three). A frame's timestamp
// is the monotonic time just before its sendMediaData, its duration the period. Its media: bytes 0-7 the
// counter k, bytes 8-15 the timestamp again, the rest a pseudo-random pattern seeded with k, which every
// receiver checks.
//
// The measured window starts once every receiver has had its first frame and lasts S seconds.
// Figures per receiver, from its own first frame (a receiver that connects as the sender starts
// may miss the first SequenceInfo and reconnect, so frames before its first do not count):
//   expected   frames the sender sent from the receiver's first frame to the end
//   delivered  intact frames, each counter once
//   lost       expected - delivered; gaps: runs of missing counters, longest: the longest run
//   dup        frames whose counter had arrived already; ooo: arrived after a higher counter
//   corrupt    frames of another size or duration, or whose bytes differ (not delivered)
//   reconn     times it went back to Connecting after its first frame
//   p50/p99/max  latency in the window: monotonic time in the media callback minus the frame's
//              timestamp (percentiles from a histogram 1/64 of a power of two wide; max exact)
//   warn/err   lines the library logged at WARN and at ERROR or above in that process
// For the sender, in the window: frames sent, ticks skipped, sends that started more than a
// period after their deadline, the largest lateness of a send against its deadline, and the
// time spent inside sendMediaData (p50/p99/max).
// Resources of every process, sampled once every receiver had its first frame (start) and at the
// end of the window, both while the stream runs: open descriptors (/proc/<pid>/fd), threads
// (/proc/<pid>/task), resident memory (VmRSS) and the CPU used in between. An end count above
// the start is sampled again for up to 2 s, so that a reconnect in progress is not taken for a
// leak. Progress lines show the same, summed over the receivers and over all processes.
//
// The run fails (exit code 1) when a receiver lost more than --max-loss percent of its expected
// frames, got a corrupted, duplicated or out-of-order frame, or had no frame at all; when a
// process ends the window with a descriptor or a thread more than at its start, or with its RSS
// more than --rss-growth KiB above it; when a process fails, or files are left behind in the
// run's $TMPDIR. The loss allowance is for the machine's stalls: between sender and receiver
// there is room for about three frames of 1920 bytes (the main channel's one-byte send buffer
// also shrinks the socket's to its minimum), so a receiver that is not scheduled for a few
// milliseconds loses what came meanwhile, by design; on a busy 2-core machine that is a few
// tenths of a percent. A receiver that stops
// receiving, reconnects over and over or drops a steady share of frames goes far beyond it.
// RSS stays within a page or two over minutes; 256 KiB leaves room for the allocator, while a
// leak of one small allocation per frame (16 bytes at 1000 frames/s) grows 9 MiB in 10 minutes.
//
// VRX_BENCH_LOG_LEVEL=DEBUG (or TRACE, ...) shows the library's log of every process.

#include "BenchSupport.h"

#include <voraxis/VrxReceiver.h>
#include <voraxis/VrxSender.h>

#include <log4cplus/appender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace vrxBench;

// Media bytes 0-7 carry the frame counter, 8-15 the timestamp, the rest the pattern.
constexpr std::size_t timestampCopyOffset = 8;
constexpr std::size_t patternOffset = 16;

// ---- What every process shares -------------------------------------------------------------

// The pattern of frame k: a splitmix64 sequence seeded with k.
class Pattern
{
public:
    explicit Pattern(std::uint64_t counter) : m_state(counter * 0x9E3779B97F4A7C15ULL) {}

    std::uint64_t next()
    {
        std::uint64_t value = (m_state += 0x9E3779B97F4A7C15ULL);
        value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9ULL;
        value = (value ^ (value >> 27)) * 0x94D049BB133111EBULL;
        return value ^ (value >> 31);
    }

private:
    std::uint64_t m_state;
};

void writeMedia(vrx::Buffer& media, std::uint64_t counter)
{
    std::memcpy(media.data(), &counter, sizeof(counter));
    Pattern pattern(counter);
    for (std::size_t offset = patternOffset; offset < media.size(); offset += 8)
    {
        const std::uint64_t word = pattern.next();
        std::memcpy(media.data() + offset, &word, std::min<std::size_t>(8, media.size() - offset));
    }
}

// The counter of intact media, or nothing.
std::optional<std::uint64_t> checkMedia(const std::vector<unsigned char>& media, std::size_t expectedSize,
                                        TimeValue timestamp)
{
    if (media.size() != expectedSize)
        return std::nullopt;
    std::uint64_t counter = 0;
    TimeValue timestampCopy = 0;
    std::memcpy(&counter, media.data(), sizeof(counter));
    std::memcpy(&timestampCopy, media.data() + timestampCopyOffset, sizeof(timestampCopy));
    if (timestampCopy != timestamp)
        return std::nullopt;
    Pattern pattern(counter);
    for (std::size_t offset = patternOffset; offset < media.size(); offset += 8)
    {
        const std::uint64_t word = pattern.next();
        if (std::memcmp(media.data() + offset, &word, std::min<std::size_t>(8, media.size() - offset)) != 0)
            return std::nullopt;
    }
    return counter;
}

// Durations in nanoseconds: exact below 128 ns, then 64 buckets per power of two (within 1.6 %).
// A fixed array, so that counting allocates nothing and the process's memory stays flat.
class Histogram
{
public:
    void add(TimeValue value)
    {
        ++m_counts[index(value)];
        ++m_total;
        m_max = std::max(m_max, value);
    }

    /// The upper end of the bucket holding the value of that rank, at most the largest value.
    TimeValue percentile(double fraction) const
    {
        if (m_total == 0)
            return 0;
        const auto rank = std::max<std::uint64_t>(
            1, static_cast<std::uint64_t>(std::ceil(fraction * static_cast<double>(m_total))));
        std::uint64_t seen = 0;
        for (std::size_t bucket = 0; bucket < m_counts.size(); ++bucket)
        {
            seen += m_counts[bucket];
            if (seen >= rank)
                return std::min(upperEnd(bucket), m_max);
        }
        return m_max;
    }

    TimeValue max() const { return m_max; }

private:
    static constexpr unsigned exactBits = 7;
    static constexpr std::size_t exact = std::size_t{1} << exactBits;
    static constexpr std::size_t perPower = exact / 2;

    static std::size_t index(TimeValue value)
    {
        if (value < exact)
            return static_cast<std::size_t>(value);
        const auto shift = static_cast<unsigned>(std::bit_width(value)) - exactBits;
        return exact + (shift - 1) * perPower + static_cast<std::size_t>((value >> shift) - perPower);
    }

    static TimeValue upperEnd(std::size_t bucket)
    {
        if (bucket < exact)
            return bucket;
        const std::size_t shift = (bucket - exact) / perPower + 1;
        const TimeValue top = (bucket - exact) % perPower + perPower;
        return ((top + 1) << shift) - 1; // wraps to the largest value for the last bucket
    }

    std::array<std::uint64_t, exact + (64 - exactBits) * perPower> m_counts{};
    std::uint64_t m_total = 0;
    TimeValue m_max = 0;
};

// Counts what the library logs at WARN and at ERROR or above, beside the console output.
class LogCounter : public log4cplus::Appender
{
public:
    ~LogCounter() override { destructorImpl(); }
    void close() override {}

    std::atomic<std::uint64_t> warnings{0};
    std::atomic<std::uint64_t> errors{0};

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        if (event.getLogLevel() >= log4cplus::ERROR_LOG_LEVEL)
            ++errors;
        else if (event.getLogLevel() >= log4cplus::WARN_LOG_LEVEL)
            ++warnings;
    }
};

// Logging as the other benchmarks set it up, and a counter of warnings and errors; the root
// logger shares the counter's ownership.
LogCounter& configureCountedLogging()
{
    configureLogging();
    auto* counter = new LogCounter;
    log4cplus::Logger::getRoot().addAppender(log4cplus::SharedAppenderPtr(counter));
    return *counter;
}

struct RoleOptions
{
    std::string role;
    std::string address;
    vrx::NanomsgProtocol protocol = vrx::NanomsgProtocol::PubSub;
    std::size_t frameBytes = 1920;
    TimeValue period = 1'000'000;
    std::uint64_t capacity = 0; // receiver: frames it keeps track of
    bool catchUp = false;       // sender: a late sender makes up the ticks it missed
};

// ---- The sender process --------------------------------------------------------------------

// Sends frame after frame on an absolute schedule until "stop". "measure" starts the window
// of its figures; "status" asks for the next counter.
//   says: ready, status <next counter>,
//         done <first counter in the window> <frames sent in it> <ticks skipped> <late sends>
//              <max lateness> <send p50> <send p99> <send max> <warnings> <errors>
// and shuts the sender down when its input closes.
int runSender(const RoleOptions& options)
{
    log4cplus::Initializer logging;
    LogCounter& log = configureCountedLogging();

    vrx::PcmPayloader payloader;
    payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
    vrx::Sender sender;
    if (!sender.initializeSender(options.address, "", "", 0, vrx::TimeSyncProtocol::MonotonicSystemClock,
                                 options.protocol))
        fail("cannot initialise the sender");
    sender.setCurrentPayloader(payloader);
    sender.startNewSequence();
    say(1, "ready");

    vrx::Buffer media(options.frameBytes, 0);
    LineReader input(0);
    std::string line;
    std::uint64_t counter = 0;
    bool measuring = false;
    std::uint64_t firstMeasured = 0, lateSends = 0, skippedTicks = 0;
    TimeValue maxLateness = 0;
    Histogram sendTimes;
    TimeValue deadline = now() + options.period;
    for (;;)
    {
        writeMedia(media, counter);
        sleepUntil(deadline);
        const TimeValue before = now();
        std::memcpy(media.data() + timestampCopyOffset, &before, sizeof(before));
        sender.sendMediaData(before, options.period, media);
        const TimeValue after = now();
        if (measuring)
        {
            const TimeValue lateness = before - deadline; // never early: the sleep ends at it
            maxLateness = std::max(maxLateness, lateness);
            if (lateness > options.period)
                ++lateSends;
            sendTimes.add(after - before);
        }
        ++counter;
        deadline += options.period;
        if (!options.catchUp && after > deadline)
        {
            // The ticks whose deadlines have passed already are not made up: frames back to back
            // would meet the stream's one-message buffers, which drop all but the first few.
            const TimeValue missed = (after - deadline) / options.period;
            deadline += missed * options.period;
            if (measuring)
                skippedTicks += missed;
        }

        const LineReader::Result result = input.read(line, 0);
        if (result == LineReader::Result::Nothing)
            continue;
        if (result == LineReader::Result::Closed || line == "stop")
            break;
        if (line == "measure")
        {
            measuring = true;
            firstMeasured = counter;
        }
        else if (line == "status")
            say(1, "status %" PRIu64, counter);
    }
    say(1,
        "done %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64
        " %" PRIu64 " %" PRIu64,
        firstMeasured, measuring ? counter - firstMeasured : 0, skippedTicks, lateSends, maxLateness,
        sendTimes.percentile(0.5), sendTimes.percentile(0.99), sendTimes.max(), log.warnings.load(),
        log.errors.load());

    // The sender stays up while the receivers take what is still on its way.
    while (input.read(line, -1) == LineReader::Result::Line)
    {}
    sender.shutdownSender();
    return 0;
}

// ---- A receiver process --------------------------------------------------------------------

// What a receiver saw. Written on the receiver thread; the counters that "status" reads while
// the stream runs are atomic, the rest is read after the receiver thread has ended.
class FrameCheck
{
public:
    FrameCheck(std::size_t frameBytes, TimeValue period, std::uint64_t capacity)
        : m_frameBytes(frameBytes), m_period(period), m_seen((capacity + 63) / 64, 0)
    {}

    void onFrame(TimeValue timestamp, TimeValue duration, const std::vector<unsigned char>& media)
    {
        const TimeValue arrival = now();
        // Taken before "first" is said, which the window's start follows.
        const bool measured = measuring.load(std::memory_order_relaxed);
        const std::optional<std::uint64_t> counter = checkMedia(media, m_frameBytes, timestamp);
        if (!counter || duration != m_period)
        {
            corrupted.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        if (!m_haveFirst)
        {
            m_haveFirst = true;
            m_first = *counter;
            m_highest = *counter;
            first.store(true, std::memory_order_release);
            say(1, "first %" PRIu64, *counter);
        }
        if (*counter < m_first)
        {
            outOfOrder.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        const std::uint64_t index = *counter - m_first;
        if (index / 64 < m_seen.size())
        {
            std::uint64_t& word = m_seen[index / 64];
            const std::uint64_t bit = std::uint64_t{1} << (index % 64);
            if ((word & bit) != 0)
            {
                duplicates.fetch_add(1, std::memory_order_relaxed);
                return;
            }
            word |= bit;
        }
        if (*counter < m_highest)
            outOfOrder.fetch_add(1, std::memory_order_relaxed);
        else if (*counter > m_highest + 1)
        {
            ++m_gaps;
            m_longestGap = std::max(m_longestGap, *counter - m_highest - 1);
        }
        m_highest = std::max(m_highest, *counter);
        highest.store(m_highest, std::memory_order_relaxed);
        // Release: a reader that sees this count sees the highest counter behind it too.
        delivered.fetch_add(1, std::memory_order_release);
        if (measured)
            m_latencies.add(arrival > timestamp ? arrival - timestamp : 0);
    }

    std::uint64_t firstCounter() const { return m_first; }
    /// Runs of missing counters before a higher one arrived, and the longest of them.
    std::uint64_t gaps() const { return m_gaps; }
    std::uint64_t longestGap() const { return m_longestGap; }
    const Histogram& latencies() const { return m_latencies; }

    std::atomic<bool> first{false};
    // Latencies count from the measured window on: the first frames of a connection may have
    // waited for it (a pipeline sender's first send waits until its receiver has bound).
    std::atomic<bool> measuring{false};
    std::atomic<std::uint64_t> delivered{0};
    std::atomic<std::uint64_t> highest{0};
    std::atomic<std::uint64_t> duplicates{0};
    std::atomic<std::uint64_t> outOfOrder{0};
    std::atomic<std::uint64_t> corrupted{0};

private:
    const std::size_t m_frameBytes;
    const TimeValue m_period;
    // One bit per counter from the first on; allocated and zeroed up front, like the histogram.
    std::vector<std::uint64_t> m_seen;
    std::uint64_t m_gaps = 0;
    std::uint64_t m_longestGap = 0;
    bool m_haveFirst = false;
    std::uint64_t m_first = 0;
    std::uint64_t m_highest = 0;
    Histogram m_latencies;
};

// Receives until "stop" (or its input closes); "measure" starts the latency figures, "status"
// asks how it goes.
//   says: connecting, first <counter>,
//         status <delivered> <first> <highest> <reconnects> <corrupted> <duplicates> <out of order>,
//         result <delivered> <first> <highest> <duplicates> <out of order> <corrupted> <reconnects>
//                <gaps> <longest gap> <p50> <p99> <max> <warnings> <errors>
int runReceiver(const RoleOptions& options)
{
    log4cplus::Initializer logging;
    LogCounter& log = configureCountedLogging();

    auto frames = std::make_unique<FrameCheck>(options.frameBytes, options.period, options.capacity);
    std::atomic<std::uint64_t> reconnects{0};
    vrx::PcmDepayloader depayloader;
    vrx::Receiver receiver;
    receiver.addDepayloader(depayloader);
    receiver.setStateChangedCallback([&](vrx::Receiver::State state) {
        if (state == vrx::Receiver::State::Connecting && frames->first.load(std::memory_order_acquire))
            reconnects.fetch_add(1, std::memory_order_relaxed);
    });
    receiver.setMediaDataCallback(
        [&frames](unsigned long long timestamp, unsigned long long duration,
                  const std::vector<unsigned char>& media) { frames->onFrame(timestamp, duration, media); });
    if (!receiver.initializeReceiver(options.address))
        fail("cannot initialise the receiver");
    say(1, "connecting");

    LineReader input(0);
    std::string line;
    while (input.read(line, -1) == LineReader::Result::Line && line != "stop")
    {
        if (line == "measure")
            frames->measuring = true;
        if (line != "status")
            continue;
        // The count first: its acquire makes the highest counter read after it at least as new,
        // so that the frames missing behind the highest never come out below zero.
        const std::uint64_t delivered = frames->delivered.load(std::memory_order_acquire);
        const std::uint64_t highest = frames->highest.load(std::memory_order_relaxed);
        say(1, "status %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64,
            delivered, frames->first.load() ? frames->firstCounter() : 0, highest, reconnects.load(),
            frames->corrupted.load(), frames->duplicates.load(), frames->outOfOrder.load());
    }
    receiver.shutdownReceiver();
    const Histogram& latencies = frames->latencies();
    say(1,
        "result %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64
        " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64,
        frames->delivered.load(), frames->firstCounter(), frames->highest.load(), frames->duplicates.load(),
        frames->outOfOrder.load(), frames->corrupted.load(), reconnects.load(), frames->gaps(),
        frames->longestGap(), latencies.percentile(0.5), latencies.percentile(0.99), latencies.max(),
        log.warnings.load(), log.errors.load());
    return 0;
}

// ---- The orchestrating process -------------------------------------------------------------

struct Options
{
    int seconds = 20;
    int receivers = 8;
    int rate = 1000;
    std::string protocol = "pubsub";
    std::size_t frameBytes = 1920;
    int progressSeconds = 60;
    bool catchUp = false;
    double maxLossPercent = 1.0;
    long rssGrowthKiB = 256;
};

[[noreturn]] void usage(const char* program)
{
    std::fprintf(stderr,
                 "usage: %s [--seconds S] [--receivers N] [--rate FRAMES_PER_SECOND]\n"
                 "          [--protocol pubsub|pipeline] [--frame-bytes B] [--progress SECONDS]\n"
                 "          [--catch-up yes|no] [--max-loss PERCENT] [--rss-growth KIB]\n"
                 "pipeline carries one receiver; frames have at least %zu bytes; rate 1 to 100000\n",
                 program, patternOffset);
    std::exit(2);
}

Options parseOptions(int argc, char** argv)
{
    Options options;
    const auto integer = [&](const char* text, long low, long high) {
        char* end = nullptr;
        const long value = std::strtol(text, &end, 10);
        if (end == text || *end != '\0' || value < low || value > high)
            usage(argv[0]);
        return value;
    };
    if (argc % 2 == 0)
        usage(argv[0]);
    bool receiversGiven = false;
    for (int index = 1; index + 1 < argc; index += 2)
    {
        const std::string name = argv[index];
        const char* value = argv[index + 1];
        if (name == "--seconds")
            options.seconds = static_cast<int>(integer(value, 1, 7 * 24 * 3600));
        else if (name == "--receivers")
        {
            options.receivers = static_cast<int>(integer(value, 1, 256));
            receiversGiven = true;
        }
        else if (name == "--rate")
            options.rate = static_cast<int>(integer(value, 1, 100'000));
        else if (name == "--protocol")
            options.protocol = value;
        else if (name == "--frame-bytes")
            options.frameBytes = static_cast<std::size_t>(integer(value, patternOffset, 64 * 1024 * 1024));
        else if (name == "--progress")
            options.progressSeconds = static_cast<int>(integer(value, 0, 7 * 24 * 3600));
        else if (name == "--catch-up" && (std::strcmp(value, "yes") == 0 || std::strcmp(value, "no") == 0))
            options.catchUp = std::strcmp(value, "yes") == 0;
        else if (name == "--max-loss")
        {
            char* end = nullptr;
            options.maxLossPercent = std::strtod(value, &end);
            if (end == value || *end != '\0' || !(options.maxLossPercent >= 0.0))
                usage(argv[0]);
        }
        else if (name == "--rss-growth")
            options.rssGrowthKiB = integer(value, 0, 1L << 30);
        else
            usage(argv[0]);
    }
    if (options.protocol != "pubsub" && options.protocol != "pipeline")
        usage(argv[0]);
    if (options.protocol == "pipeline" && !receiversGiven)
        options.receivers = 1;
    if (options.protocol == "pipeline" && options.receivers != 1)
        usage(argv[0]);
    return options;
}

// What a process holds, from /proc; -1 where it could not be read (the process is gone).
struct Resources
{
    long descriptors = -1;
    long threads = -1;
    long rssKiB = -1;
    double cpuSeconds = 0.0; // user and system time of all its threads
};

long countEntries(const std::string& directory)
{
    std::error_code error;
    long count = 0;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error))
        ++count;
    return error ? -1 : count;
}

Resources sampleResources(pid_t pid)
{
    const std::string proc = "/proc/" + std::to_string(pid);
    Resources resources;
    resources.descriptors = countEntries(proc + "/fd");
    resources.threads = countEntries(proc + "/task");
    std::ifstream status(proc + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0)
            resources.rssKiB = std::strtol(line.c_str() + 6, nullptr, 10);
    // Fields 14 and 15 of stat, counted after the command name, which may hold blanks.
    std::ifstream statFile(proc + "/stat");
    std::string stat((std::istreambuf_iterator<char>(statFile)), std::istreambuf_iterator<char>());
    const std::size_t nameEnd = stat.rfind(')');
    if (nameEnd != std::string::npos)
    {
        const std::vector<std::string> fields = vrxBench::words(stat.substr(nameEnd + 2));
        // fields[0] is field 3 (the state).
        const double ticks = static_cast<double>(number(fields, 11) + number(fields, 12));
        resources.cpuSeconds = ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
    }
    return resources;
}

struct Process
{
    std::string name;
    std::unique_ptr<Child> child;
    Resources start, end;
};

struct ReceiverFigures
{
    std::uint64_t delivered = 0, first = 0, highest = 0, duplicates = 0, outOfOrder = 0, corrupted = 0;
    std::uint64_t reconnects = 0, gaps = 0, longestGap = 0, p50 = 0, p99 = 0, max = 0, warnings = 0,
                  errors = 0;
};

class Soak
{
public:
    explicit Soak(const Options& options)
        : m_options(options),
          m_period(1'000'000'000ULL / static_cast<TimeValue>(options.rate)),
          m_address("vrx-bench-soak-" + std::to_string(getpid()))
    {}

    int run(const std::string& scratch)
    {
        std::printf("soak: 1 sender and %d receiver(s) over %s, %d frames/s of %zu bytes, %d s, "
                    "late ticks %s (each in a process of its own)\n",
                    m_options.receivers, m_options.protocol.c_str(), m_options.rate, m_options.frameBytes,
                    m_options.seconds, m_options.catchUp ? "made up" : "skipped");
        std::fflush(stdout);
        if (!start())
            return 1;
        if (!stream())
            return 1;
        if (!finish())
            return 1;
        for (Process& process : m_processes)
            if (!process.child->end(5'000))
                m_failures.push_back(process.name + " did not end within 5 s");
            else if (process.child->exitStatus() != 0)
                m_failures.push_back(process.name + " ended with wait status " +
                                     std::to_string(process.child->exitStatus()));
        std::error_code error;
        if (!std::filesystem::is_empty(scratch, error))
            m_failures.push_back("files were left behind in " + scratch);
        return report();
    }

private:
    Process& sender() { return m_processes.front(); }

    std::vector<std::string> roleArguments(const char* role) const
    {
        // Room for the window and what comes before and after it, up to 64 Mi frames (8 MiB of
        // bits); later frames are delivered without the check for duplicates.
        const std::uint64_t capacity =
            std::min<std::uint64_t>((static_cast<std::uint64_t>(m_options.seconds) + 120) *
                                        static_cast<std::uint64_t>(m_options.rate),
                                    std::uint64_t{1} << 26);
        return {"--role",        role,
                "--address",     m_address,
                "--protocol",    m_options.protocol,
                "--frame-bytes", std::to_string(m_options.frameBytes),
                "--period",      std::to_string(m_period),
                "--capacity",    std::to_string(capacity),
                "--catch-up",    m_options.catchUp ? "yes" : "no"};
    }

    // Receivers first (they wait for the sender), then the sender; true once every receiver has
    // had its first frame.
    bool start()
    {
        m_processes.push_back({"sender", nullptr, {}, {}});
        for (int index = 1; index <= m_options.receivers; ++index)
        {
            Process receiver{"receiver " + std::to_string(index),
                             std::make_unique<Child>(roleArguments("receiver"), 0),
                             {},
                             {}};
            if (!receiver.child->await("connecting", 10'000))
                return runFailed(receiver.name + " did not start");
            m_processes.push_back(std::move(receiver));
        }
        sender().child = std::make_unique<Child>(roleArguments("sender"), 0);
        if (!sender().child->await("ready", 10'000))
            return runFailed("the sender did not start");
        const TimeValue started = now();
        for (std::size_t index = 1; index < m_processes.size(); ++index)
            if (!m_processes[index].child->await("first", 10'000))
                return runFailed(m_processes[index].name + " got no frame within 10 s");
        std::printf("every receiver had its first frame %.1f ms after the sender was ready\n",
                    static_cast<double>(now() - started) / 1e6);
        std::fflush(stdout);
        return true;
    }

    // The measured window, with a progress line now and then.
    bool stream()
    {
        for (Process& process : m_processes)
            process.child->tell("measure");
        for (Process& process : m_processes)
            process.start = sampleResources(process.child->pid());
        m_windowStart = now();
        const TimeValue end = m_windowStart + static_cast<TimeValue>(m_options.seconds) * 1'000'000'000;
        const TimeValue progress = static_cast<TimeValue>(m_options.progressSeconds) * 1'000'000'000;
        TimeValue nextProgress = progress != 0 ? m_windowStart + progress : end;
        for (;;)
        {
            const TimeValue wake = std::min(nextProgress, end);
            const TimeValue current = now();
            if (wake > current)
                std::this_thread::sleep_for(std::chrono::nanoseconds(wake - current));
            if (wake == end)
                break;
            if (!printProgress())
                return false;
            nextProgress += progress;
        }
        sampleEndResources();
        return true;
    }

    bool printProgress()
    {
        sender().child->tell("status");
        const auto senderStatus = sender().child->take("status", 2'000);
        if (!senderStatus)
            return runFailed("the sender did not answer");
        std::uint64_t lost = 0, reconnects = 0, faults = 0;
        for (std::size_t index = 1; index < m_processes.size(); ++index)
        {
            Child& child = *m_processes[index].child;
            child.tell("status");
            const auto status = child.take("status", 2'000);
            if (!status)
                return runFailed(m_processes[index].name + " did not answer");
            // Missing behind the highest counter it got.
            const std::uint64_t span = number(*status, 3) - number(*status, 2) + 1;
            lost += span - std::min(span, number(*status, 1));
            reconnects += number(*status, 4);
            faults += number(*status, 5) + number(*status, 6) + number(*status, 7);
        }
        long descriptors = 0, threads = 0, rssKiB = 0;
        for (const Process& process : m_processes)
        {
            const Resources resources = sampleResources(process.child->pid());
            descriptors += resources.descriptors;
            threads += resources.threads;
            rssKiB += resources.rssKiB;
        }
        std::printf("%6.0f s: sender at frame %" PRIu64 ", receivers lost %" PRIu64 ", reconnected %" PRIu64
                    ", corrupt/dup/ooo %" PRIu64 "; all processes: %ld fds, %ld threads, %ld KiB RSS\n",
                    static_cast<double>(now() - m_windowStart) / 1e9, number(*senderStatus, 1), lost,
                    reconnects, faults, descriptors, threads, rssKiB);
        std::fflush(stdout);
        return true;
    }

    // Taken while the stream still runs, like the start. A count above the start is taken
    // again for up to 2 s: a receiver that reconnects holds a socket more for a moment.
    void sampleEndResources()
    {
        m_windowEnd = now();
        for (int attempt = 0; attempt < 20; ++attempt)
        {
            bool settled = true;
            for (Process& process : m_processes)
            {
                process.end = sampleResources(process.child->pid());
                settled = settled && process.end.descriptors <= process.start.descriptors &&
                          process.end.threads <= process.start.threads;
            }
            if (settled)
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }

    bool finish()
    {
        sender().child->tell("stop");
        m_done = sender().child->await("done", 10'000);
        if (!m_done)
            return runFailed("the sender did not stop");
        // What is still on its way arrives before the receivers stop.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        for (std::size_t index = 1; index < m_processes.size(); ++index)
            m_processes[index].child->tell("stop");
        for (std::size_t index = 1; index < m_processes.size(); ++index)
        {
            const auto said = m_processes[index].child->await("result", 10'000);
            if (!said)
                return runFailed(m_processes[index].name + " did not report");
            ReceiverFigures figures;
            std::uint64_t* fields[] = {&figures.delivered,  &figures.first,      &figures.highest,
                                       &figures.duplicates, &figures.outOfOrder, &figures.corrupted,
                                       &figures.reconnects, &figures.gaps,       &figures.longestGap,
                                       &figures.p50,        &figures.p99,        &figures.max,
                                       &figures.warnings,   &figures.errors};
            for (std::size_t field = 0; field < std::size(fields); ++field)
                *fields[field] = number(*said, field + 1);
            m_receivers.push_back(figures);
        }
        return true;
    }

    int report()
    {
        const std::vector<std::string>& done = *m_done;
        const std::uint64_t firstMeasured = number(done, 1), sent = number(done, 2);
        // The counter of the last frame sent.
        const std::uint64_t last = firstMeasured + sent - 1;
        const auto us = [](std::uint64_t nanoseconds) { return static_cast<double>(nanoseconds) / 1e3; };

        std::printf("\n%-11s %9s %9s %6s %6s %5s %7s %3s %3s %7s %6s %8s %8s %9s %4s %3s\n", "receiver",
                    "expected", "delivered", "lost", "lost%", "gaps", "longest", "dup", "ooo", "corrupt",
                    "reconn", "p50[us]", "p99[us]", "max[us]", "warn", "err");
        for (std::size_t index = 0; index < m_receivers.size(); ++index)
        {
            const ReceiverFigures& figures = m_receivers[index];
            const std::string& name = m_processes[index + 1].name;
            const std::uint64_t expected = figures.delivered == 0 ? 0 : last - figures.first + 1;
            const std::uint64_t lost = expected - std::min(expected, figures.delivered);
            // Frames missing behind the last one it got make a gap too.
            const std::uint64_t gaps =
                figures.gaps + (figures.delivered != 0 && last > figures.highest ? 1 : 0);
            const std::uint64_t longestGap =
                figures.delivered != 0 ? std::max(figures.longestGap, last - std::min(last, figures.highest))
                                       : 0;
            const double lostPercent =
                expected == 0 ? 100.0 : 100.0 * static_cast<double>(lost) / static_cast<double>(expected);
            std::printf("%-11s %9" PRIu64 " %9" PRIu64 " %6" PRIu64 " %6.3f %5" PRIu64 " %7" PRIu64
                        " %3" PRIu64 " %3" PRIu64 " %7" PRIu64 " %6" PRIu64 " %8.1f %8.1f %9.1f %4" PRIu64
                        " %3" PRIu64 "\n",
                        name.c_str(), expected, figures.delivered, lost, lostPercent, gaps, longestGap,
                        figures.duplicates, figures.outOfOrder, figures.corrupted, figures.reconnects,
                        us(figures.p50), us(figures.p99), us(figures.max), figures.warnings, figures.errors);
            if (figures.delivered == 0)
                m_failures.push_back(name + " got no frame");
            else if (lostPercent > m_options.maxLossPercent)
                m_failures.push_back(name + " lost " + std::to_string(lost) + " frames, more than " +
                                     formatPercent(m_options.maxLossPercent));
            if (figures.corrupted != 0)
                m_failures.push_back(name + " got corrupted frames");
            if (figures.duplicates != 0 || figures.outOfOrder != 0)
                m_failures.push_back(name + " got frames twice or out of order");
        }

        const std::uint64_t skipped = number(done, 3);
        std::printf("\nsender: %" PRIu64 " frames sent in the window, %" PRIu64 " of its %" PRIu64
                    " ticks skipped; %" PRIu64 " sends more than a period late, max lateness %.1f us\n"
                    "        inside sendMediaData: p50 %.1f us, p99 %.1f us, max %.1f us; warn %" PRIu64
                    ", err %" PRIu64 "\n",
                    sent, skipped, sent + skipped, number(done, 4), us(number(done, 5)), us(number(done, 6)),
                    us(number(done, 7)), us(number(done, 8)), number(done, 9), number(done, 10));

        const double window = static_cast<double>(m_windowEnd - m_windowStart) / 1e9;
        std::printf("\nresources, start (every receiver had its first frame) -> end (%.0f s later)\n",
                    window);
        std::printf("%-11s %14s %7s %14s %7s %20s %7s %6s\n", "process", "fds", "growth", "threads", "growth",
                    "RSS [KiB]", "growth", "CPU%");
        for (const Process& process : m_processes)
        {
            const Resources& a = process.start;
            const Resources& b = process.end;
            const long rssGrowth = b.rssKiB - a.rssKiB;
            std::printf("%-11s %6ld -> %4ld %+7ld %6ld -> %4ld %+7ld %8ld -> %8ld %+7ld %6.1f\n",
                        process.name.c_str(), a.descriptors, b.descriptors, b.descriptors - a.descriptors,
                        a.threads, b.threads, b.threads - a.threads, a.rssKiB, b.rssKiB, rssGrowth,
                        100.0 * (b.cpuSeconds - a.cpuSeconds) / window);
            if (a.descriptors < 0 || b.descriptors < 0 || a.rssKiB < 0 || b.rssKiB < 0)
                m_failures.push_back(process.name + ": resources could not be read");
            else
            {
                if (b.descriptors > a.descriptors)
                    m_failures.push_back(process.name + " holds more descriptors");
                if (b.threads > a.threads)
                    m_failures.push_back(process.name + " runs more threads");
                if (rssGrowth > m_options.rssGrowthKiB)
                    m_failures.push_back(process.name + "'s RSS grew by more than " +
                                         std::to_string(m_options.rssGrowthKiB) + " KiB");
            }
        }

        std::printf("\nlimits: loss <= %s per receiver, no corrupted, duplicated or out-of-order frame, no "
                    "descriptor or thread more, RSS growth <= %ld KiB per process\n",
                    formatPercent(m_options.maxLossPercent).c_str(), m_options.rssGrowthKiB);
        if (m_failures.empty())
        {
            std::printf("result: PASS\n");
            return 0;
        }
        std::printf("result: FAIL\n");
        for (const std::string& failure : m_failures)
            std::printf("  %s\n", failure.c_str());
        return 1;
    }

    static std::string formatPercent(double percent)
    {
        char text[32];
        std::snprintf(text, sizeof(text), "%g %%", percent);
        return text;
    }

    bool runFailed(const std::string& what)
    {
        std::printf("run failed: %s\n", what.c_str());
        return false;
    }

    const Options m_options;
    const TimeValue m_period;
    const std::string m_address;
    std::vector<Process> m_processes; // the sender, then the receivers
    std::vector<ReceiverFigures> m_receivers;
    std::optional<std::vector<std::string>> m_done;
    TimeValue m_windowStart = 0, m_windowEnd = 0;
    std::vector<std::string> m_failures;
};

int orchestrate(const Options& options)
{
    const ScratchTmpdir scratch("vrx-bench-soak"); // outlives the soak and its processes
    // A child that ends early must not take this process with it.
    signal(SIGPIPE, SIG_IGN);
    Soak soak(options);
    return soak.run(scratch.path());
}

} // namespace

int main(int argc, char** argv)
{
    if (argc > 2 && std::strcmp(argv[1], "--role") == 0)
    {
        RoleOptions role;
        role.role = argv[2];
        for (int index = 3; index + 1 < argc; index += 2)
        {
            const std::string name = argv[index];
            const char* value = argv[index + 1];
            if (name == "--address")
                role.address = value;
            else if (name == "--protocol")
                role.protocol = std::strcmp(value, "pipeline") == 0 ? vrx::NanomsgProtocol::Pipeline
                                                                    : vrx::NanomsgProtocol::PubSub;
            else if (name == "--frame-bytes")
                role.frameBytes = std::strtoull(value, nullptr, 10);
            else if (name == "--period")
                role.period = std::strtoull(value, nullptr, 10);
            else if (name == "--capacity")
                role.capacity = std::strtoull(value, nullptr, 10);
            else if (name == "--catch-up")
                role.catchUp = std::strcmp(value, "yes") == 0;
        }
        if (role.role == "sender")
            return runSender(role);
        if (role.role == "receiver")
            return runReceiver(role);
        fail("unknown role");
    }
    return orchestrate(parseOptions(argc, argv));
}
