// Our network-synchronised clock against the GStreamer framework's own client, side by side,
// both following the same GStreamer time provider on loopback. The provider serves a monotonic
// system clock calibrated 1000 s ahead, so the truth for any reading is CLOCK_MONOTONIC +
// 1000 s, read right before and after the query. Halfway through, the provider goes away for a
// moment and comes back on the same port.
//
//   vrx_bench_netclock [--duration SECONDS] [--restart-gap MILLISECONDS]

#include <miscutils/MiscUtils.h>
#include <miscutils/SyncedNetClock.h>

#include <gst/gst.h>
#include <gst/net/net.h>
#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <vector>

namespace {

using miscUtils::TimeValue;

constexpr TimeValue Microsecond = 1000;
constexpr TimeValue Millisecond = 1000 * Microsecond;
constexpr TimeValue Second = 1000 * Millisecond;
constexpr TimeValue ServedOffset = 1000 * Second;
// A query whose truth window is wider than this was interrupted and tells nothing.
constexpr TimeValue WidestTruthWindow = 2 * Microsecond;
constexpr TimeValue SamplingPeriod = 200 * Microsecond;
// Steady state begins this long after synchronisation, and again this long after the restart.
constexpr TimeValue Settling = 2 * Second;
constexpr TimeValue RestartWindowAfterReturn = 3 * Second;

struct Options
{
    double durationSeconds = 20.0;
    double restartGapMilliseconds = 500.0;
};

Options parseOptions(int argc, char** argv)
{
    Options options;
    for (int index = 1; index < argc; ++index)
    {
        const std::string argument = argv[index];
        if (argument == "--duration" && index + 1 < argc)
            options.durationSeconds = std::atof(argv[++index]);
        else if (argument == "--restart-gap" && index + 1 < argc)
            options.restartGapMilliseconds = std::atof(argv[++index]);
        else
        {
            std::fprintf(stderr, "usage: %s [--duration SECONDS] [--restart-gap MILLISECONDS]\n", argv[0]);
            std::exit(2);
        }
    }
    if (options.durationSeconds < 8.0)
    {
        std::fprintf(stderr, "the duration must be at least 8 s (settling, restart and recovery)\n");
        std::exit(2);
    }
    return options;
}

/// A framework time provider serving a monotonic system clock 1000 s ahead.
class FrameworkProvider
{
public:
    FrameworkProvider()
    {
        m_clock =
            GST_CLOCK(g_object_new(GST_TYPE_SYSTEM_CLOCK, "clock-type", GST_CLOCK_TYPE_MONOTONIC, nullptr));
        gst_object_ref_sink(m_clock);
        gst_clock_set_calibration(m_clock, 0, ServedOffset, 1, 1);
    }
    ~FrameworkProvider()
    {
        stop();
        gst_object_unref(m_clock);
    }

    int start(int port)
    {
        m_provider = gst_net_time_provider_new(m_clock, "127.0.0.1", port);
        if (m_provider == nullptr)
        {
            std::fprintf(stderr, "cannot start the framework's time provider\n");
            std::exit(1);
        }
        g_object_get(m_provider, "port", &port, nullptr);
        return port;
    }

    void stop()
    {
        if (m_provider != nullptr)
            gst_object_unref(m_provider);
        m_provider = nullptr;
    }

private:
    GstClock* m_clock = nullptr;
    GstNetTimeProvider* m_provider = nullptr;
};

/// What one client produced over the run.
struct Trace
{
    std::string name;
    std::function<TimeValue()> read;
    std::function<bool()> synchronized;
    TimeValue synchronizedAfter = 0; // since start; 0 while not synchronised
    TimeValue lastReading = 0;
    unsigned long backwards = 0;
    std::vector<std::pair<TimeValue, double>> errors; // (time since start, |error| in ns)
};

void query(Trace& trace, TimeValue start)
{
    const TimeValue before = miscUtils::getMonotonicSysclockTime();
    const TimeValue reading = trace.read();
    const TimeValue after = miscUtils::getMonotonicSysclockTime();
    if (reading < trace.lastReading)
        ++trace.backwards;
    trace.lastReading = reading;
    if (trace.synchronizedAfter == 0 && trace.synchronized())
        trace.synchronizedAfter = after - start;
    if (trace.synchronizedAfter == 0 || after - before > WidestTruthWindow)
        return;
    const TimeValue truth = before + (after - before) / 2 + ServedOffset;
    trace.errors.emplace_back(after - start,
                              std::abs(static_cast<double>(static_cast<std::int64_t>(reading - truth))));
}

struct Summary
{
    double median = 0, p99 = 0, max = 0;
    std::size_t count = 0;
};

template <typename Keep>
Summary summarize(const Trace& trace, Keep keep)
{
    std::vector<double> values;
    for (const auto& [time, error] : trace.errors)
        if (keep(time))
            values.push_back(error);
    Summary summary;
    summary.count = values.size();
    if (values.empty())
        return summary;
    std::sort(values.begin(), values.end());
    const auto at = [&](double fraction) {
        return values[std::min(values.size() - 1,
                               static_cast<std::size_t>(fraction * static_cast<double>(values.size())))];
    };
    summary.median = at(0.5);
    summary.p99 = at(0.99);
    summary.max = values.back();
    return summary;
}

double nanosecondsPerReading(const std::function<TimeValue()>& read)
{
    constexpr int Readings = 1'000'000;
    TimeValue sink = 0;
    const TimeValue begin = miscUtils::getMonotonicSysclockTime();
    for (int index = 0; index < Readings; ++index)
        sink += read();
    const TimeValue end = miscUtils::getMonotonicSysclockTime();
    if (sink == 42)
        std::puts("");
    return static_cast<double>(end - begin) / Readings;
}

} // namespace

int main(int argc, char** argv)
{
    const Options options = parseOptions(argc, argv);
    // The clock's debug lines (synchronised, lost) would interleave with the table.
    log4cplus::Initializer logging;
    log4cplus::BasicConfigurator::doConfigure();
    log4cplus::Logger::getRoot().setLogLevel(log4cplus::WARN_LOG_LEVEL);
    // Clocks and the time provider need no plugins; skip loading the plugin registry.
    setenv("GST_REGISTRY_DISABLE", "yes", 1);
    gst_init(&argc, &argv);

    FrameworkProvider provider;
    const int port = provider.start(0);

    const TimeValue duration = static_cast<TimeValue>(options.durationSeconds * 1e9);
    const TimeValue restartAt = duration / 2;
    const TimeValue restartGap = static_cast<TimeValue>(options.restartGapMilliseconds * 1e6);
    const TimeValue backAt = restartAt + restartGap;

    const TimeValue start = miscUtils::getMonotonicSysclockTime();
    miscUtils::SyncedNetClock ours;
    ours.startSynchronization("127.0.0.1", static_cast<unsigned int>(port),
                              miscUtils::SyncedNetClock::DefaultPollIntervalMs,
                              miscUtils::SyncedNetClock::DefaultMaxRoundTripNs, [] {});
    GstClock* framework = gst_net_client_clock_new("vrx-bench", "127.0.0.1", port, 0);

    Trace traces[2] = {
        {"ours",
         [&] { return ours.getSynchronizedTime(); },
         [&] { return ours.isSynchronized(); },
         0,
         0,
         0,
         {}},
        {"framework",
         [&] { return static_cast<TimeValue>(gst_clock_get_time(framework)); },
         [&] { return gst_clock_is_synced(framework) != FALSE; },
         0,
         0,
         0,
         {}},
    };

    bool stopped = false, restarted = false;
    for (TimeValue now = start; now - start < duration; now = miscUtils::getMonotonicSysclockTime())
    {
        if (!stopped && now - start >= restartAt)
        {
            provider.stop();
            stopped = true;
        }
        if (!restarted && now - start >= backAt)
        {
            provider.start(port);
            restarted = true;
        }
        // Alternate the order so that neither client always queries right after a wake-up.
        const bool oursFirst = (now / SamplingPeriod) % 2 == 0;
        query(traces[oursFirst ? 0 : 1], start);
        query(traces[oursFirst ? 1 : 0], start);
        std::this_thread::sleep_for(std::chrono::nanoseconds(SamplingPeriod));
    }

    std::printf("Network clocks following a GStreamer time provider on 127.0.0.1:%d for %.0f s, "
                "provider away for %.0f ms at %.0f s\n\n",
                port, options.durationSeconds, options.restartGapMilliseconds,
                static_cast<double>(restartAt) / 1e9);
    std::printf("%-38s %14s %14s\n", "", "ours", "framework");
    Summary whole[2], steady[2], restart[2];
    for (int index = 0; index < 2; ++index)
    {
        const Trace& trace = traces[index];
        whole[index] = summarize(trace, [](TimeValue) { return true; });
        steady[index] = summarize(trace, [&](TimeValue time) {
            return time >= trace.synchronizedAfter + Settling &&
                   (time < restartAt || time >= backAt + Settling);
        });
        restart[index] = summarize(trace, [&](TimeValue time) {
            return time >= restartAt && time < backAt + RestartWindowAfterReturn;
        });
    }
    const auto row = [](const char* label, double a, double b, const char* unit) {
        std::printf("%-38s %11.1f %-2s %11.1f %-2s\n", label, a, unit, b, unit);
    };
    const auto micro = [](double ns) { return ns / 1e3; };
    row("time to synchronised", static_cast<double>(traces[0].synchronizedAfter) / 1e6,
        static_cast<double>(traces[1].synchronizedAfter) / 1e6, "ms");
    row("median |error|, whole run", micro(whole[0].median), micro(whole[1].median), "us");
    row("p99 |error|, whole run", micro(whole[0].p99), micro(whole[1].p99), "us");
    row("max |error|, whole run", micro(whole[0].max), micro(whole[1].max), "us");
    row("median |error|, steady state", micro(steady[0].median), micro(steady[1].median), "us");
    row("p99 |error|, steady state", micro(steady[0].p99), micro(steady[1].p99), "us");
    row("max |error|, steady state", micro(steady[0].max), micro(steady[1].max), "us");
    row("max |error| over provider restart", micro(restart[0].max), micro(restart[1].max), "us");
    std::printf("%-38s %14lu %14lu\n", "readings going backwards", traces[0].backwards, traces[1].backwards);
    std::printf("%-38s %14zu %14zu\n", "readings compared", whole[0].count, whole[1].count);
    row("cost of a reading", nanosecondsPerReading(traces[0].read), nanosecondsPerReading(traces[1].read),
        "ns");

    const bool synchronizedFast =
        traces[0].synchronizedAfter != 0 && traces[0].synchronizedAfter <= 60 * Millisecond;
    const bool steadyAccurate = steady[0].count > 0 && steady[0].p99 <= 5.0 * Microsecond;
    const bool beatsFramework = whole[0].count > 0 && whole[1].count > 0 && whole[0].p99 <= whole[1].p99 / 4;
    const bool monotonic = traces[0].backwards == 0;
    std::printf("\ntargets: synchronised within 60 ms: %s; steady-state p99 <= 5 us: %s; "
                "whole-run p99 <= 1/4 of the framework's: %s; no reading backwards: %s\n",
                synchronizedFast ? "met" : "MISSED", steadyAccurate ? "met" : "MISSED",
                beatsFramework ? "met" : "MISSED", monotonic ? "met" : "MISSED");

    ours.stopSynchronization();
    gst_object_unref(framework);
    return 0;
}
