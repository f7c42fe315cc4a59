// The GStreamer framework's own network time provider, as a peer for the clock tests: it
// serves a monotonic system clock calibrated OFFSET seconds (default 1000) ahead of
// CLOCK_MONOTONIC on 127.0.0.1, prints the port it serves on as one line, and serves until
// the reader of its standard output goes away.
//
//   vrx_gst_net_time_provider [PORT [OFFSET_SECONDS]]      (port 0 or none: a free port)

#include <gst/gst.h>
#include <gst/net/net.h>

#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    int port = argc > 1 ? std::atoi(argv[1]) : 0;
    const long long offsetSeconds = argc > 2 ? std::atoll(argv[2]) : 1000;

    // Clocks and the time provider need no plugins; do not load or write a plugin registry.
    setenv("GST_REGISTRY_DISABLE", "yes", 1);
    gst_init(nullptr, nullptr);

    GstClock* clock =
        GST_CLOCK(g_object_new(GST_TYPE_SYSTEM_CLOCK, "clock-type", GST_CLOCK_TYPE_MONOTONIC, nullptr));
    gst_object_ref_sink(clock);
    gst_clock_set_calibration(clock, 0, static_cast<GstClockTime>(offsetSeconds * GST_SECOND), 1, 1);
    GstNetTimeProvider* provider = gst_net_time_provider_new(clock, "127.0.0.1", port);
    if (provider == nullptr)
    {
        std::fprintf(stderr, "cannot serve on 127.0.0.1:%d\n", port);
        return 1;
    }
    g_object_get(provider, "port", &port, nullptr);
    std::printf("%d\n", port);
    std::fflush(stdout);

    // The write end of a pipe reports an error once nobody reads the other end any more.
    pollfd output{STDOUT_FILENO, 0, 0};
    while (poll(&output, 1, -1) == 0 || (output.revents & (POLLERR | POLLHUP)) == 0)
    {}

    gst_object_unref(provider);
    gst_object_unref(clock);
    return 0;
}
