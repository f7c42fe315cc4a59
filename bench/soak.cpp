// A long run of one stream: a vrx::Sender and N vrx::Receiver, each in a process of its own, at
// a fixed frame rate for a given time, to find what only time shows: frames lost, delivered
// twice, out of order or corrupted, reconnects, and descriptors, threads or memory that grow.
//
//   vrx_bench_soak [--seconds S] [--receivers N] [--rate FRAMES_PER_SECOND]
//
// Defaults: 20 s, 8 receivers, 1000 frames/s; the ten-minute soak is `--seconds 600`. Frames
// are 1920 bytes (10 ms of 48 kHz stereo S16LE) over publish/subscribe, on the schedule of
// Bench.h's Pacer. A frame's timestamp is the monotonic time just before its send; its media:
// bytes 0-7 its counter k, bytes 8-15 the timestamp again, the rest a pattern made from k, which
// every receiver checks.
//
// The window starts once every receiver has had its first frame and lasts S seconds. Per
// receiver, from its own first frame on: frames expected (sent from its first frame to the end),
// delivered (intact, each counter once), lost, duplicated, out of order, corrupted (another size,
// duration, timestamp or pattern), reconnects (back to Connecting after the first frame), and the
// latency in the window (monotonic time in the media callback minus the timestamp). For every
// process, at the start and at the end of the window, while the stream runs: descriptors,
// threads, resident memory and the CPU used in between; an end count above the start is sampled
// again for up to 2 s, so that a reconnect in progress is not taken for a leak. A progress line
// every minute sums them over all processes.
//
// The run fails (exit code 1) when a receiver lost more than 1 % of its frames, got a corrupted,
// duplicated or out-of-order frame, or none at all; when a process ends the window with a
// descriptor or a thread more, or 256 KiB of RSS more, than at its start; when a process fails;
// or when files are left behind in the run's TMPDIR. Between sender and receiver there is room
// for about three frames, so a receiver that is not scheduled for a few milliseconds loses what
// came meanwhile, by design: on a busy 2-core machine a few tenths of a percent. A leak of one
// small allocation per frame grows RSS by megabytes in ten minutes.

#include "Bench.h"

#include <voraxis/VrxReceiver.h>
#include <voraxis/VrxSender.h>

#include <cinttypes>
#include <cstring>
#include <fstream>

namespace {

using namespace vrxBench;

constexpr std::size_t frameBytes = 1920;
constexpr double maxLossPercent = 1.0;
constexpr long maxRssGrowthKiB = 256;

// Word `index` of frame `counter` sent at `timestamp`: the counter, the timestamp, then a
// pattern made from the counter.
std::uint64_t frameWord(std::uint64_t counter, TimeValue timestamp, std::size_t index)
{
    std::uint64_t value = counter * 0x9E3779B97F4A7C15ULL + index;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9ULL;
    return index == 0 ? counter : index == 1 ? timestamp : value ^ (value >> 31);
}

// ---- The processes of a run ----------------------------------------------------------------

// Streams until told "stop"; "measure" starts the window. Shuts down once its input closes.
//   says: ready, done <last counter sent> <ticks skipped in the window>
int runSender(const std::string& address, TimeValue period)
{
    const Role role;
    vrx::PcmPayloader payloader;
    payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
    vrx::Sender sender;
    if (!sender.initializeSender(address, "", "", 0, vrx::TimeSyncProtocol::MonotonicSystemClock,
                                 vrx::NanomsgProtocol::PubSub))
        fail("cannot initialise the sender");
    sender.setCurrentPayloader(payloader);
    sender.startNewSequence();
    std::printf("ready\n");

    vrx::Buffer frame(frameBytes);
    LineReader input(STDIN_FILENO);
    Pacer pacer(period, now() + period);
    std::uint64_t counter = 0;
    for (std::optional<std::string> line; !input.closed() && line != "stop"; line = input.take("", 0ms))
    {
        pacer.wait();
        const TimeValue timestamp = now();
        for (std::size_t index = 0; index < frameBytes / 8; ++index)
        {
            const std::uint64_t word = frameWord(counter, timestamp, index);
            std::memcpy(frame.data() + index * 8, &word, 8);
        }
        ++counter;
        sender.sendMediaData(timestamp, period, frame);
        pacer.skipped = line == "measure" ? 0 : pacer.skipped;
    }
    std::printf("done %" PRIu64 " %" PRIu64 "\n", counter - 1, pacer.skipped);
    input.take("end"); // the receivers take what is on its way until the input closes
    sender.shutdownSender();
    return 0;
}

// What a receiver saw; written on the receiver's thread, read once it has ended.
class FrameCheck
{
public:
    // Up to `capacity` frames are checked for duplicates and have their latency kept; the
    // space is taken and touched now, so that memory stays flat while the stream runs.
    FrameCheck(TimeValue period, std::size_t capacity)
        : m_period(period), m_seen((capacity + 63) / 64, 0), m_latencies(capacity, 0)
    {}

    void onFrame(TimeValue timestamp, TimeValue duration, const std::vector<unsigned char>& frame)
    {
        const TimeValue arrival = now();
        std::uint64_t counter = 0;
        bool intact = frame.size() == frameBytes && duration == m_period;
        if (intact)
            std::memcpy(&counter, frame.data(), sizeof(counter));
        for (std::size_t index = 0; intact && index < frameBytes / 8; ++index)
        {
            std::uint64_t word = 0;
            std::memcpy(&word, frame.data() + index * 8, sizeof(word));
            intact = word == frameWord(counter, timestamp, index);
        }
        if (!intact)
            return void(++corrupted);
        if (delivered == 0)
        {
            std::printf("first\n");
            first = highest = counter;
        }
        const std::uint64_t index = counter - first;
        if (counter < first ||
            (index / 64 < m_seen.size() && (m_seen[index / 64] & (1ULL << index % 64)) != 0))
            return void(++(counter < first ? outOfOrder : duplicates));
        if (index / 64 < m_seen.size())
            m_seen[index / 64] |= 1ULL << index % 64;
        outOfOrder += counter < highest ? 1 : 0;
        highest = std::max(highest, counter);
        ++delivered;
        if (measuring && m_measured < m_latencies.size())
            m_latencies[m_measured++] = arrival - timestamp;
    }
    std::vector<TimeValue> latencies() const
    {
        return {m_latencies.begin(), m_latencies.begin() + static_cast<std::ptrdiff_t>(m_measured)};
    }

    std::atomic<bool> measuring{false};
    std::uint64_t first = 0, highest = 0, delivered = 0, duplicates = 0, outOfOrder = 0, corrupted = 0;
    std::uint64_t reconnects = 0;

private:
    const TimeValue m_period;
    std::vector<std::uint64_t> m_seen; // one bit per counter from the first on
    std::vector<TimeValue> m_latencies;
    std::size_t m_measured = 0;
};

// Receives until its input closes; "measure" starts the window.
//   says: connecting, first,
//         result <delivered> <first> <highest> <duplicates> <out of order> <corrupted>
//                <reconnects> <latency p50> <p99> <max>
int runReceiver(const std::string& address, TimeValue period, std::size_t capacity)
{
    const Role role;
    FrameCheck frames(period, capacity);
    vrx::PcmDepayloader depayloader;
    vrx::Receiver receiver;
    receiver.addDepayloader(depayloader);
    receiver.setStateChangedCallback([&frames](vrx::Receiver::State state) {
        frames.reconnects += state == vrx::Receiver::State::Connecting && frames.delivered != 0 ? 1 : 0;
    });
    receiver.setMediaDataCallback(
        [&frames](unsigned long long timestamp, unsigned long long duration,
                  const std::vector<unsigned char>& media) { frames.onFrame(timestamp, duration, media); });
    if (!receiver.initializeReceiver(address))
        fail("cannot initialise the receiver");
    std::printf("connecting\n");
    LineReader input(STDIN_FILENO);
    while (input.take("measure"))
        frames.measuring = true;
    receiver.shutdownReceiver();
    const std::vector<TimeValue> latencies = frames.latencies();
    std::printf("result %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64
                " %.0f %.0f %.0f\n",
                frames.delivered, frames.first, frames.highest, frames.duplicates, frames.outOfOrder,
                frames.corrupted, frames.reconnects, percentile(latencies, 0.5), percentile(latencies, 0.99),
                percentile(latencies, 1.0));
    return 0;
}

// ---- The orchestrating process -------------------------------------------------------------

// What a process holds; RSS -1 when it could not be read (the process is gone).
struct Resources
{
    long descriptors = 0, threads = 0, rssKiB = -1;
    double cpuSeconds = 0; // user and system time of all its threads
};

Resources sampleResources(pid_t pid)
{
    const std::string proc = "/proc/" + std::to_string(pid);
    const ProcessResources held = processResources(pid);
    Resources resources;
    resources.descriptors = static_cast<long>(held.descriptors.size());
    resources.threads = static_cast<long>(held.threads.size());
    std::ifstream status(proc + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmRSS:"))
            resources.rssKiB = std::atol(line.c_str() + 6);
    // Fields 14 and 15 of stat (user and system time), counted after the command name, which
    // may hold blanks.
    std::ifstream stat(proc + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>()), field;
    std::istringstream fields(text.substr(std::min(text.size(), text.rfind(')') + 1)));
    double ticks = 0;
    for (int index = 3; index <= 15 && fields >> field; ++index)
        ticks += index >= 14 ? std::atof(field.c_str()) : 0;
    resources.cpuSeconds = ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
    return resources;
}

struct Process
{
    std::string name;
    std::unique_ptr<ChildProcess> child;
    Resources start, end;
};

class Soak
{
public:
    Soak(int seconds, int receivers, int rate) : m_seconds(seconds), m_receivers(receivers), m_rate(rate) {}

    int run()
    {
        std::printf("soak: 1 sender and %d receivers, each a process, %d frames/s of %zu bytes over "
                    "publish/subscribe, %d s\n",
                    m_receivers, m_rate, frameBytes, m_seconds);
        std::fflush(stdout);
        if (!start() || !stream() || !finish())
            return 1;
        if (std::error_code error; !std::filesystem::is_empty(std::getenv("TMPDIR"), error))
            m_failures.push_back("files were left behind in $TMPDIR");
        return report();
    }

private:
    // Receivers first (they wait for the sender), then the sender; true once every receiver has
    // had its first frame.
    bool start()
    {
        const std::string address = "vrx-bench-soak-" + std::to_string(getpid()),
                          period = std::to_string(1'000'000'000 / m_rate),
                          // The window and what comes before and after it, at most 4 Mi frames.
            capacity = std::to_string(std::min((m_seconds + 120L) * m_rate, 1L << 22));
        m_processes.push_back({"sender", nullptr, {}, {}});
        for (int index = 1; index <= m_receivers; ++index)
        {
            m_processes.push_back({"receiver " + std::to_string(index),
                                   startRole({"receiver", address, period, capacity}),
                                   {},
                                   {}});
            if (!m_processes.back().child->take("connecting", 10s))
                return runFailed(m_processes.back().name + " did not start");
        }
        m_processes[0].child = startRole({"sender", address, period});
        if (!m_processes[0].child->take("ready", 10s))
            return runFailed("the sender did not start");
        const TimeValue started = now();
        for (std::size_t index = 1; index < m_processes.size(); ++index)
            if (!m_processes[index].child->take("first", 10s))
                return runFailed(m_processes[index].name + " got no frame within 10 s");
        std::printf("every receiver had its first frame %.1f ms after the sender was ready\n",
                    static_cast<double>(now() - started) / 1e6);
        return true;
    }

    // The window, with a progress line every minute.
    bool stream()
    {
        for (Process& process : m_processes)
            process.child->tell("measure"), process.start = sampleResources(process.child->pid());
        m_windowStart = now();
        const TimeValue end = m_windowStart + static_cast<TimeValue>(m_seconds) * 1'000'000'000;
        for (TimeValue next = m_windowStart + 60'000'000'000; next < end; next += 60'000'000'000)
        {
            sleepUntil(next);
            long descriptors = 0, threads = 0, rssKiB = 0;
            for (const Process& process : m_processes)
            {
                const Resources sample = sampleResources(process.child->pid());
                descriptors += sample.descriptors, threads += sample.threads, rssKiB += sample.rssKiB;
            }
            std::printf("%6.0f s: all processes: %ld descriptors, %ld threads, %ld KiB RSS\n",
                        static_cast<double>(now() - m_windowStart) / 1e9, descriptors, threads, rssKiB);
            std::fflush(stdout);
        }
        sleepUntil(end);
        m_windowEnd = now();
        // An end count above the start is taken again: a reconnecting receiver holds a socket more.
        for (int attempt = 0; attempt < 20; ++attempt, std::this_thread::sleep_for(100ms))
        {
            bool settled = true;
            for (Process& process : m_processes)
            {
                process.end = sampleResources(process.child->pid());
                settled = settled && process.end.descriptors <= process.start.descriptors &&
                          process.end.threads <= process.start.threads;
            }
            if (settled)
                break;
        }
        return true;
    }

    bool finish()
    {
        m_processes[0].child->tell("stop");
        m_done = hear(*m_processes[0].child, "done", 10s);
        if (!m_done)
            return runFailed("the sender did not stop");
        std::this_thread::sleep_for(100ms); // what is still on its way arrives
        for (std::size_t index = 1; index <= m_processes.size(); ++index)
        {
            Process& process = m_processes[index % m_processes.size()]; // the receivers, then the sender
            const std::optional<int> status = process.child->end(10s);
            if (!status || *status != 0)
                m_failures.push_back(process.name + (status ? " failed" : " did not end within 10 s"));
            if (index < m_processes.size())
                m_results.push_back(
                    hear(*process.child, "result", 0ms).value_or(std::vector<std::uint64_t>(16)));
        }
        return true;
    }

    int report()
    {
        const std::uint64_t last = (*m_done)[0];
        const auto us = [](std::uint64_t nanoseconds) { return static_cast<double>(nanoseconds) / 1e3; };
        std::printf("\n%-11s %9s %9s %6s %6s %3s %3s %7s %6s %8s %8s %9s\n", "receiver", "expected",
                    "delivered", "lost", "lost%", "dup", "ooo", "corrupt", "reconn", "p50[us]", "p99[us]",
                    "max[us]");
        for (std::size_t index = 0; index < m_results.size(); ++index)
        {
            const std::vector<std::uint64_t>& result = m_results[index];
            const std::string& name = m_processes[index + 1].name;
            const std::uint64_t expected = result[0] == 0 ? 0 : last - result[1] + 1;
            const std::uint64_t lost = expected - std::min(expected, result[0]);
            const double lostPercent =
                expected == 0 ? 100.0 : 100.0 * static_cast<double>(lost) / static_cast<double>(expected);
            std::printf("%-11s %9" PRIu64 " %9" PRIu64 " %6" PRIu64 " %6.3f %3" PRIu64 " %3" PRIu64
                        " %7" PRIu64 " %6" PRIu64 " %8.1f %8.1f %9.1f\n",
                        name.c_str(), expected, result[0], lost, lostPercent, result[3], result[4], result[5],
                        result[6], us(result[7]), us(result[8]), us(result[9]));
            if (lostPercent > maxLossPercent)
                m_failures.push_back(name + " lost " + std::to_string(lost) + " frames, more than 1 %");
            if (result[3] + result[4] + result[5] != 0)
                m_failures.push_back(name + " got corrupted, duplicated or out-of-order frames");
        }
        const double window = static_cast<double>(m_windowEnd - m_windowStart) / 1e9;
        std::printf("\nsender: %" PRIu64 " ticks skipped in the window\n"
                    "\nresources at the start of the window -> at its end (%.0f s later)\n"
                    "%-11s %14s %7s %14s %7s %20s %7s %6s\n",
                    (*m_done)[1], window, "process", "fds", "growth", "threads", "growth", "RSS [KiB]",
                    "growth", "CPU%");
        for (const Process& process : m_processes)
        {
            const Resources& a = process.start;
            const Resources& b = process.end;
            std::printf("%-11s %6ld -> %4ld %+7ld %6ld -> %4ld %+7ld %8ld -> %8ld %+7ld %6.1f\n",
                        process.name.c_str(), a.descriptors, b.descriptors, b.descriptors - a.descriptors,
                        a.threads, b.threads, b.threads - a.threads, a.rssKiB, b.rssKiB, b.rssKiB - a.rssKiB,
                        100.0 * (b.cpuSeconds - a.cpuSeconds) / window);
            if (a.rssKiB < 0 || b.rssKiB < 0)
                m_failures.push_back(process.name + ": resources could not be read");
            else if (b.descriptors > a.descriptors || b.threads > a.threads ||
                     b.rssKiB - a.rssKiB > maxRssGrowthKiB)
                m_failures.push_back(process.name + " holds more descriptors, threads or memory");
        }
        std::printf("\nlimits: loss <= 1 %% per receiver, no corrupted, duplicated or out-of-order frame, no "
                    "descriptor or thread more, RSS growth <= %ld KiB per process\nresult: %s\n",
                    maxRssGrowthKiB, m_failures.empty() ? "PASS" : "FAIL");
        for (const std::string& failure : m_failures)
            std::printf("  %s\n", failure.c_str());
        return m_failures.empty() ? 0 : 1;
    }

    bool runFailed(const std::string& what)
    {
        std::printf("run failed: %s\n", what.c_str());
        return false;
    }

    const int m_seconds, m_receivers, m_rate;
    std::vector<Process> m_processes;                  // the sender, then the receivers
    std::vector<std::vector<std::uint64_t>> m_results; // each receiver's result line
    std::optional<std::vector<std::uint64_t>> m_done;
    TimeValue m_windowStart = 0, m_windowEnd = 0;
    std::vector<std::string> m_failures;
};

} // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() >= 4 && arguments[0] == "--role")
    {
        const TimeValue period = std::stoull(arguments[3]);
        if (arguments[1] == "sender")
            return runSender(arguments[2], period);
        return runReceiver(arguments[2], period, std::stoul(arguments.at(4)));
    }
    int seconds = 20, receivers = 8, rate = 1000;
    if (!readOptions(arguments, {{"--seconds", &seconds}, {"--receivers", &receivers}, {"--rate", &rate}},
                     1) ||
        receivers > 256 || rate > 100'000)
        return std::fprintf(stderr,
                            "usage: %s [--seconds S] [--receivers N (up to 256)] [--rate FRAMES_PER_SECOND "
                            "(up to 100000)]\n",
                            argv[0]),
               2;
    const ScratchTmpdir scratch; // this run's senders only; outlives the processes of the soak
    signal(SIGPIPE, SIG_IGN);    // a child that ends early must not take this process with it
    return Soak(seconds, receivers, rate).run();
}
