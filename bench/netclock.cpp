// Our network-synchronised clock against the GStreamer framework's own client, side by side,
// both following the framework's time provider (the suites' provider program) on loopback. The
// provider serves a monotonic system clock calibrated 1000 s ahead, so the truth for a reading
// is CLOCK_MONOTONIC + 1000 s, read right before and after it: how soon each client is
// synchronised, how far it is off over the whole run and once settled, whether a reading ever
// goes backwards, and what a reading costs.
//
//   vrx_bench_netclock [--seconds S]      (default 20, at least 4)

#include <Processes.h>

#include <miscutils/MiscUtils.h>
#include <miscutils/SyncedNetClock.h>

#include <gst/gst.h>
#include <gst/net/net.h>
#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>

#include <cstdio>

namespace {

using miscUtils::TimeValue;
using vrx::test::percentile;

constexpr TimeValue Microsecond = 1000, Millisecond = 1000 * Microsecond, Second = 1000 * Millisecond;
constexpr TimeValue ServedOffset = 1000 * Second;
// A reading whose truth window is wider than this was interrupted and tells nothing.
constexpr TimeValue WidestTruthWindow = 2 * Microsecond;
constexpr TimeValue SamplingPeriod = 200 * Microsecond;
// Steady state begins this long after synchronisation.
constexpr TimeValue Settling = 2 * Second;

/// What one client produced over the run.
struct Trace
{
    const char* name;
    std::function<TimeValue()> read;
    std::function<bool()> synchronized;
    TimeValue synchronizedAfter = 0; // since the start; 0 while not synchronised
    TimeValue lastReading = 0;
    unsigned long backwards = 0;
    std::vector<double> whole{}, steady{}; // |error| in microseconds, once synchronised and settled

    void query(TimeValue start)
    {
        const TimeValue before = miscUtils::getMonotonicSysclockTime();
        const TimeValue reading = read();
        const TimeValue after = miscUtils::getMonotonicSysclockTime();
        backwards += reading < std::exchange(lastReading, reading) ? 1 : 0;
        if (synchronizedAfter == 0 && synchronized())
            synchronizedAfter = after - start;
        if (synchronizedAfter == 0 || after - before > WidestTruthWindow)
            return;
        const auto error =
            static_cast<std::int64_t>(reading - (before + (after - before) / 2 + ServedOffset));
        whole.push_back(static_cast<double>(std::abs(error)) / 1e3);
        if (after - start >= synchronizedAfter + Settling)
            steady.push_back(whole.back());
    }

    double nanosecondsPerReading() const
    {
        constexpr int readings = 1'000'000;
        TimeValue sink = 0;
        const TimeValue begin = miscUtils::getMonotonicSysclockTime();
        for (int index = 0; index < readings; ++index)
            sink += read();
        const TimeValue end = miscUtils::getMonotonicSysclockTime();
        return sink == 42 ? 0 : static_cast<double>(end - begin) / readings;
    }
};

} // namespace

int main(int argc, char** argv)
{
    const int seconds = argc == 3 && std::string(argv[1]) == "--seconds" ? std::atoi(argv[2])
                        : argc == 1                                      ? 20
                                                                         : 0;
    if (seconds < 4)
        return std::fprintf(stderr, "usage: %s [--seconds S]  (at least 4: settling takes 2 s)\n", argv[0]),
               2;
    // The clock's debug lines (synchronised, lost) would interleave with the table.
    log4cplus::Initializer logging;
    log4cplus::BasicConfigurator::doConfigure();
    log4cplus::Logger::getRoot().setLogLevel(log4cplus::WARN_LOG_LEVEL);
    // The client clock needs no plugins; skip loading the plugin registry.
    setenv("GST_REGISTRY_DISABLE", "yes", 1);
    gst_init(&argc, &argv);

    const vrx::test::FrameworkTimeProvider provider(0, ServedOffset / Second);
    if (provider.port() == 0)
        return std::fprintf(stderr, "the framework's time provider did not start\n"), 1;
    const TimeValue start = miscUtils::getMonotonicSysclockTime();
    miscUtils::SyncedNetClock ours;
    ours.startSynchronization("127.0.0.1", provider.port(), miscUtils::SyncedNetClock::DefaultPollIntervalMs,
                              miscUtils::SyncedNetClock::DefaultMaxRoundTripNs, [] {});
    GstClock* framework =
        gst_net_client_clock_new("vrx-bench", "127.0.0.1", static_cast<gint>(provider.port()), 0);
    Trace traces[2] = {
        {"ours", [&] { return ours.getSynchronizedTime(); }, [&] { return ours.isSynchronized(); }},
        {"framework", [&] { return static_cast<TimeValue>(gst_clock_get_time(framework)); },
         [&] { return gst_clock_is_synced(framework) != FALSE; }},
    };
    for (TimeValue now = start; now - start < static_cast<TimeValue>(seconds) * Second;
         now = miscUtils::getMonotonicSysclockTime())
    {
        // Alternate the order so that neither client always reads right after a wake-up.
        const bool oursFirst = (now / SamplingPeriod) % 2 == 0;
        traces[oursFirst ? 0 : 1].query(start);
        traces[oursFirst ? 1 : 0].query(start);
        std::this_thread::sleep_for(std::chrono::nanoseconds(SamplingPeriod));
    }

    std::printf("Network clocks following the GStreamer time provider on 127.0.0.1:%u for %d s; steady "
                "state from %.0f s after synchronisation\n\n%-34s %12s %12s\n",
                provider.port(), seconds, static_cast<double>(Settling) / 1e9, "", "ours", "framework");
    const auto row = [](const char* label, double a, double b, const char* unit) {
        std::printf("%-34s %9.1f %-2s %9.1f %-2s\n", label, a, unit, b, unit);
    };
    row("time to synchronised", static_cast<double>(traces[0].synchronizedAfter) / 1e6,
        static_cast<double>(traces[1].synchronizedAfter) / 1e6, "ms");
    for (const auto& [label, sample] :
         {std::pair{"whole run", &Trace::whole}, {"steady state", &Trace::steady}})
        for (const auto& [name, fraction] : {std::pair{"median", 0.5}, {"p99", 0.99}, {"max", 1.0}})
            row((std::string(name) + " |error|, " + label).c_str(), percentile(traces[0].*sample, fraction),
                percentile(traces[1].*sample, fraction), "us");
    std::printf("%-34s %12lu %12lu\n%-34s %12zu %12zu\n", "readings going backwards", traces[0].backwards,
                traces[1].backwards, "readings compared", traces[0].whole.size(), traces[1].whole.size());
    row("cost of a reading", traces[0].nanosecondsPerReading(), traces[1].nanosecondsPerReading(), "ns");

    ours.stopSynchronization();
    gst_object_unref(framework);
    return 0;
}
