// vrxsink and vrxsrc against the library's own sender and receiver, in one process, taking
// turns: one-way latency and CPU time per frame with 10 ms and with 1 ms frames (48 kHz stereo
// S16LE), and how long vrxsrc takes to reach NULL.
//
//   library:   a thread sends a frame at each deadline of the monotonic clock, stamped with the
//              deadline; a vrx::Receiver takes it. Latency: arrival in the media callback minus
//              the timestamp.
//   GStreamer: audiotestsrc is-live=true wave=silence ! vrxsink, and vrxsrc ! fakesink sync=false.
//              A frame's timestamp is its first sample's capture time, and it is complete (and
//              sent) one frame later; latency: arrival at fakesink minus timestamp minus the
//              frame's duration, so that both paths measure from the moment a frame can go.
//   CPU:       the process's CPU time over a run divided by the frames received.
//
// Each round runs both paths for --seconds (the first 0.3 s not counted), alternating which goes
// first; the figures are medians over the rounds with the smallest and largest round beside.
//
//   vrx_bench_gst [--rounds N] [--seconds S]

#include <miscutils/MiscUtils.h>
#include <voraxis/VrxReceiver.h>
#include <voraxis/VrxSender.h>

#include <gst/gst.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using miscUtils::TimeValue;

constexpr TimeValue Millisecond = 1'000'000;
constexpr TimeValue WarmUp = 300 * Millisecond;

struct RunResult
{
    double p50Us = 0, p99Us = 0, cpuUsPerFrame = 0;
};

TimeValue processCpuTime()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<TimeValue>(now.tv_sec) * 1'000'000'000 + static_cast<TimeValue>(now.tv_nsec);
}

double percentile(std::vector<double> values, double fraction)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1))];
}

/// Latencies of the frames that arrive after the warm-up, and CPU time from then on.
class Recorder
{
public:
    explicit Recorder(TimeValue warmUpEnd) : m_warmUpEnd(warmUpEnd) {}
    void record(TimeValue now, TimeValue latency)
    {
        const std::lock_guard lock(m_mutex);
        if (now < m_warmUpEnd)
            return;
        if (m_latenciesUs.empty())
            m_cpuStart = processCpuTime();
        m_latenciesUs.push_back(static_cast<double>(latency) / 1000.0);
    }
    RunResult result()
    {
        const std::lock_guard lock(m_mutex);
        const double frames = static_cast<double>(std::max<std::size_t>(m_latenciesUs.size(), 1));
        return {percentile(m_latenciesUs, 0.5), percentile(m_latenciesUs, 0.99),
                static_cast<double>(processCpuTime() - m_cpuStart) / 1000.0 / frames};
    }

private:
    const TimeValue m_warmUpEnd;
    std::mutex m_mutex;
    std::vector<double> m_latenciesUs;
    TimeValue m_cpuStart = 0;
};

std::string uniqueAddress()
{
    static int run = 0;
    return "vrx-bench-gst-" + std::to_string(getpid()) + "-" + std::to_string(run++);
}

void sleepUntil(TimeValue deadline)
{
    const timespec at{static_cast<time_t>(deadline / 1'000'000'000), static_cast<long>(deadline % 1'000'000'000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) == EINTR)
    {}
}

RunResult runLibrary(unsigned int frameMs, double seconds)
{
    const std::string address = uniqueAddress();
    const TimeValue frameNs = frameMs * Millisecond;
    vrx::PcmDepayloader depayloader;
    vrx::Receiver receiver;
    receiver.addDepayloader(depayloader);
    std::atomic<bool> ready{false};
    receiver.setReceiverIsReadyCallback([&](vrx::Depayloader&, vrx::Receiver::StreamClockType) { ready = true; });
    TimeValue start = miscUtils::getMonotonicSysclockTime();
    Recorder recorder(start + WarmUp);
    receiver.setMediaDataCallback([&](unsigned long long timestamp, unsigned long long, const std::vector<unsigned char>&) {
        const TimeValue now = miscUtils::getMonotonicSysclockTime();
        recorder.record(now, now - timestamp);
    });
    receiver.initializeReceiver(address);

    vrx::PcmPayloader payloader;
    payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
    vrx::Sender sender;
    sender.initializeSender(address, "", "", 0, vrx::TimeSyncProtocol::MonotonicSystemClock, vrx::NanomsgProtocol::PubSub);
    sender.setCurrentPayloader(payloader);
    sender.startNewSequence();
    const vrx::Buffer media(48 * frameMs * 4, 0);
    // Frames from the start, so that the receiver's connection completes; counted after warm-up.
    const TimeValue end = start + WarmUp + static_cast<TimeValue>(seconds * 1e9);
    for (TimeValue deadline = start; deadline < end; deadline += frameNs)
    {
        sleepUntil(deadline);
        sender.sendMediaData(deadline, frameNs, media);
    }
    receiver.shutdownReceiver();
    sender.shutdownSender();
    if (!ready)
        std::fprintf(stderr, "library run: the receiver never became ready\n");
    return recorder.result();
}

GstPadProbeReturn onBuffer(GstPad* pad, GstPadProbeInfo* info, gpointer data)
{
    const TimeValue now = miscUtils::getMonotonicSysclockTime();
    GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    GstElement* pipeline = GST_ELEMENT(gst_object_get_parent(GST_OBJECT(GST_PAD_PARENT(pad))));
    const TimeValue timestamp = GST_BUFFER_PTS(buffer) + gst_element_get_base_time(pipeline) + GST_BUFFER_DURATION(buffer);
    gst_object_unref(pipeline);
    static_cast<Recorder*>(data)->record(now, now - timestamp);
    return GST_PAD_PROBE_OK;
}

RunResult runGStreamer(unsigned int frameMs, double seconds)
{
    const std::string address = uniqueAddress();
    GstElement* consumer = gst_parse_launch(("vrxsrc address=" + address + " ! fakesink name=out sync=false").c_str(), nullptr);
    GstElement* producer = gst_parse_launch(
        ("audiotestsrc is-live=true wave=silence samplesperbuffer=" + std::to_string(48 * frameMs) +
         " ! audio/x-raw,format=S16LE,rate=48000,channels=2 ! vrxsink address=" + address)
            .c_str(),
        nullptr);
    const TimeValue start = miscUtils::getMonotonicSysclockTime();
    Recorder recorder(start + WarmUp);
    GstElement* out = gst_bin_get_by_name(GST_BIN(consumer), "out");
    GstPad* pad = gst_element_get_static_pad(out, "sink");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, onBuffer, &recorder, nullptr);
    gst_object_unref(pad);
    gst_object_unref(out);
    gst_element_set_state(consumer, GST_STATE_PLAYING);
    gst_element_set_state(producer, GST_STATE_PLAYING);
    sleepUntil(start + WarmUp + static_cast<TimeValue>(seconds * 1e9));
    const RunResult result = recorder.result();
    gst_element_set_state(producer, GST_STATE_NULL);
    gst_element_set_state(consumer, GST_STATE_NULL);
    gst_object_unref(producer);
    gst_object_unref(consumer);
    return result;
}

/// Time vrxsrc's pipeline takes from PLAYING to NULL, while it waits for a sender or streams.
std::vector<double> nullTimesMs(bool streaming, int tries)
{
    std::vector<double> times;
    for (int attempt = 0; attempt < tries; ++attempt)
    {
        const std::string address = uniqueAddress();
        GstElement* consumer = gst_parse_launch(("vrxsrc address=" + address + " ! fakesink").c_str(), nullptr);
        GstElement* producer = gst_parse_launch(
            ("audiotestsrc is-live=true samplesperbuffer=480 ! vrxsink address=" + address).c_str(), nullptr);
        gst_element_set_state(consumer, GST_STATE_PLAYING);
        if (streaming)
            gst_element_set_state(producer, GST_STATE_PLAYING);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const TimeValue before = miscUtils::getMonotonicSysclockTime();
        gst_element_set_state(consumer, GST_STATE_NULL);
        times.push_back(static_cast<double>(miscUtils::getMonotonicSysclockTime() - before) / 1e6);
        gst_element_set_state(producer, GST_STATE_NULL);
        gst_object_unref(producer);
        gst_object_unref(consumer);
    }
    return times;
}

/// "median (min .. max)" of one figure over the rounds.
std::string spread(const std::vector<RunResult>& runs, double RunResult::*figure)
{
    std::vector<double> values;
    for (const RunResult& run : runs)
        values.push_back(run.*figure);
    std::sort(values.begin(), values.end());
    char text[96];
    std::snprintf(text, sizeof(text), "%8.1f (%.1f .. %.1f)", percentile(values, 0.5), values.front(), values.back());
    return text;
}

double medianOf(const std::vector<RunResult>& runs, double RunResult::*figure)
{
    std::vector<double> values;
    for (const RunResult& run : runs)
        values.push_back(run.*figure);
    return percentile(values, 0.5);
}

} // namespace

int main(int argc, char** argv)
{
    int rounds = 5;
    double seconds = 3;
    for (int index = 1; index + 1 < argc; index += 2)
    {
        if (std::strcmp(argv[index], "--rounds") == 0)
            rounds = std::max(1, std::atoi(argv[index + 1]));
        else if (std::strcmp(argv[index], "--seconds") == 0)
            seconds = std::max(0.5, std::atof(argv[index + 1]));
    }
    setenv("GST_PLUGIN_PATH", VRX_GST_PLUGIN_DIR, 0);
    // Senders appear in a scratch directory of this run, removed at the end.
    char scratch[] = "/tmp/vrx-bench-gst-XXXXXX";
    if (mkdtemp(scratch) == nullptr)
        return 1;
    setenv("TMPDIR", scratch, 1);
    gst_init(&argc, &argv);
    if (GstElement* element = gst_element_factory_make("vrxsrc", nullptr))
        gst_object_unref(element); // loads the plugin, which routes the library's log
    else
    {
        std::fprintf(stderr, "vrx_bench_gst: no vrxsrc element (GST_PLUGIN_PATH=%s)\n", VRX_GST_PLUGIN_DIR);
        return 1;
    }

    std::printf("vrxsink -> vrxsrc against vrx::Sender -> vrx::Receiver, one process, %d rounds of %.1f s each\n",
                rounds, seconds);
    std::printf("medians over the rounds (smallest .. largest round)\n\n");
    for (const unsigned int frameMs : {10u, 1u})
    {
        std::vector<RunResult> library, gstreamer;
        for (int round = 0; round < rounds; ++round)
        {
            if (round % 2 == 0)
                library.push_back(runLibrary(frameMs, seconds));
            gstreamer.push_back(runGStreamer(frameMs, seconds));
            if (round % 2 != 0)
                library.push_back(runLibrary(frameMs, seconds));
        }
        std::printf("%u ms frames        latency p50 us           latency p99 us           CPU us per frame\n", frameMs);
        for (const auto& [name, runs] : {std::pair{"library  ", &library}, std::pair{"GStreamer", &gstreamer}})
            std::printf("  %s  %s  %s  %s\n", name, spread(*runs, &RunResult::p50Us).c_str(),
                        spread(*runs, &RunResult::p99Us).c_str(), spread(*runs, &RunResult::cpuUsPerFrame).c_str());
        std::printf("  GStreamer/library: p50 %.2f, p99 %.2f, CPU %.2f\n\n",
                    medianOf(gstreamer, &RunResult::p50Us) / medianOf(library, &RunResult::p50Us),
                    medianOf(gstreamer, &RunResult::p99Us) / medianOf(library, &RunResult::p99Us),
                    medianOf(gstreamer, &RunResult::cpuUsPerFrame) / medianOf(library, &RunResult::cpuUsPerFrame));
    }
    for (const bool streaming : {false, true})
    {
        const std::vector<double> times = nullTimesMs(streaming, 10);
        std::printf("vrxsrc PLAYING -> NULL %s: median %.2f ms, max %.2f ms (10 tries)\n",
                    streaming ? "while streaming        " : "while waiting for a sender", percentile(times, 0.5),
                    *std::max_element(times.begin(), times.end()));
    }
    std::filesystem::remove_all(scratch);
    return 0;
}
