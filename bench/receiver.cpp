// A stream from vrx::Sender to vrx::Receiver in processes of their own against raw nanomsg
// doing the same, for what a user asks first: how much later a frame arrives, and what it costs
// per frame, than over the bare socket the stream is built on; and how soon a waiting receiver
// starts.
//
// The raw path does what the library does per frame: an NN_PUB socket with a one-byte send
// buffer sends with NN_DONTWAIT; an NN_SUB socket with a one-byte receive buffer is polled
// beside a wake-up descriptor (the process's input) in 50 ms slices and read with
// nn_recv(NN_MSG, NN_DONTWAIT). Frames are 1940-byte packets (1920 bytes of media) at 1000
// frames/s, stamped with the monotonic clock at the send.
//
//   latency:  one receiver; latency from the send to the receiving callback (p50, p99), and
//             the CPU time of the sender's and of the receiver's process per delivered frame.
//             A round runs both paths, the first alternating from round to round, so that
//             drifting machine load hits both; medians over the rounds with their spread;
//   start-up: time from initializeSender to the Running state of a receiver that has waited
//             100 to 500 ms for its sender (it retries every 400 ms).
//
//   vrx_bench_receiver [--rounds N] [--seconds S] [--startups N]

#include "Bench.h"

#include <voraxis/VrxReceiver.h>
#include <voraxis/VrxSender.h>

#include <nanomsg/nn.h>
#include <nanomsg/pubsub.h>

#include <cinttypes>
#include <cstring>

namespace {

using namespace vrxBench;

constexpr TimeValue framePeriod = 1'000'000;
constexpr std::size_t mediaSize = 1920;
// A Frame packet: type, reserved byte and sequence number, then timestamp, duration, media.
constexpr std::size_t timestampOffset = 4, mediaOffset = 20;
// Media bytes 0 to 7 carry a frame counter, byte 8 marks the frames of the measured window.
constexpr std::size_t measuredFlag = 8;

// CPU time of every thread of this process, nanomsg's workers included.
TimeValue processCpuTime()
{
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<TimeValue>(time.tv_sec) * 1'000'000'000 + static_cast<TimeValue>(time.tv_nsec);
}

// ---- The processes of a run ----------------------------------------------------------------

// Streams unmeasured frames until "go N", then N measured ones; ends when its input closes.
//   says: init <time before the set-up>, done <frames> <CPU time> <ticks skipped>
int runSender(bool vrx, const std::string& address)
{
    const Role role;
    vrx::PcmPayloader payloader;
    payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
    vrx::Buffer media(mediaSize, 0x5A), packet;
    std::printf("init %" PRIu64 "\n", now());
    vrx::Sender sender;
    int socket = -1;
    const int one = 1;
    if (vrx && sender.initializeSender(address, "", "", 0, vrx::TimeSyncProtocol::MonotonicSystemClock,
                                       vrx::NanomsgProtocol::PubSub))
    {
        sender.setCurrentPayloader(payloader);
        sender.startNewSequence();
    }
    else if (vrx || (socket = nn_socket(AF_SP, NN_PUB)) < 0 ||
             nn_setsockopt(socket, NN_SOL_SOCKET, NN_SNDBUF, &one, sizeof(one)) < 0 ||
             nn_bind(socket, address.c_str()) < 0)
        fail("cannot set up the sender");
    payloader.produceFramePacket(packet, 1, 0, framePeriod, media);
    const auto send = [&](std::uint64_t counter, bool measured) {
        std::memcpy(media.data(), &counter, sizeof(counter));
        media[measuredFlag] = measured ? 1 : 0;
        const TimeValue timestamp = now();
        if (vrx)
            return sender.sendMediaData(timestamp, framePeriod, media);
        std::memcpy(packet.data() + timestampOffset, &timestamp, sizeof(timestamp));
        std::memcpy(packet.data() + mediaOffset, media.data(), measuredFlag + 1);
        nn_send(socket, packet.data(), packet.size(), NN_DONTWAIT); // a publisher drops, never waits
    };

    LineReader input(STDIN_FILENO);
    Pacer pacer(framePeriod, now());
    std::uint64_t counter = 0;
    std::optional<std::string> go;
    while (!(go = input.take("go", 0ms)) && !input.closed())
        pacer.wait(), send(counter++, false);
    if (go)
    {
        const std::uint64_t frames = std::stoull(go->substr(3));
        pacer.skipped = 0;
        const TimeValue cpuBefore = processCpuTime();
        for (std::uint64_t frame = 0; frame < frames; ++frame)
            pacer.wait(), send(counter++, true);
        std::printf("done %" PRIu64 " %" PRIu64 " %" PRIu64 "\n", frames, processCpuTime() - cpuBefore,
                    pacer.skipped);
        input.take("end"); // the receivers take what is on its way until the input closes
    }
    sender.shutdownSender();
    nn_close(socket);
    return 0;
}

// What a receiver saw of the measured window; written by its receiving thread only.
class FrameLog
{
public:
    explicit FrameLog(std::size_t capacity) { m_latencies.reserve(capacity); }

    void onFrame(TimeValue timestamp, const unsigned char* media, std::size_t size)
    {
        const TimeValue arrival = now();
        if (std::exchange(m_first, false))
            std::printf("first\n");
        if (size <= measuredFlag || media[measuredFlag] == 0)
            return;
        if (m_latencies.empty())
            m_cpuAtFirst = processCpuTime();
        if (m_latencies.size() < m_latencies.capacity())
            m_latencies.push_back(arrival - timestamp);
    }

    // After the receiving thread has ended:
    //   result <frames> <latency p50> <p99> <CPU time from the first measured frame to `cpuAtStop`>
    void report(TimeValue cpuAtStop) const
    {
        std::printf("result %zu %.0f %.0f %" PRIu64 "\n", m_latencies.size(), percentile(m_latencies, 0.5),
                    percentile(m_latencies, 0.99), m_latencies.empty() ? 0 : cpuAtStop - m_cpuAtFirst);
    }

private:
    std::vector<TimeValue> m_latencies;
    bool m_first = true;
    TimeValue m_cpuAtFirst = 0;
};

// The raw consuming end, as vrx::Receiver's thread does it, until the process's input closes.
void receiveRaw(const std::string& uri, FrameLog& frames)
{
    const int socket = nn_socket(AF_SP, NN_SUB), one = 1, unlimited = -1;
    int watchFD = -1;
    std::size_t size = sizeof(watchFD);
    if (nn_setsockopt(socket, NN_SUB, NN_SUB_SUBSCRIBE, "", 0) < 0 ||
        nn_setsockopt(socket, NN_SOL_SOCKET, NN_RCVBUF, &one, sizeof(one)) < 0 ||
        nn_setsockopt(socket, NN_SOL_SOCKET, NN_RCVMAXSIZE, &unlimited, sizeof(unlimited)) < 0 ||
        nn_connect(socket, uri.c_str()) < 0 ||
        nn_getsockopt(socket, NN_SOL_SOCKET, NN_RCVFD, &watchFD, &size) < 0)
        fail("cannot set up the raw subscriber");
    pollfd watched[2] = {{STDIN_FILENO, POLLIN, 0}, {watchFD, POLLIN, 0}};
    while (poll(watched, 2, 50) < 0 || watched[0].revents == 0)
    {
        void* message = nullptr;
        const int received =
            (watched[1].revents & POLLIN) != 0 ? nn_recv(socket, &message, NN_MSG, NN_DONTWAIT) : -1;
        if (received < 0)
            continue;
        const auto* packet = static_cast<const unsigned char*>(message);
        TimeValue timestamp = 0;
        std::memcpy(&timestamp, packet + timestampOffset, sizeof(timestamp));
        frames.onFrame(timestamp, packet + mediaOffset, static_cast<std::size_t>(received) - mediaOffset);
        nn_freemsg(message);
    }
    nn_close(socket);
}

// Receives until its input closes.
//   says: connecting, running <time> (vrx::Receiver only), first, result ...
int runReceiver(bool vrx, const std::string& address, std::size_t capacity)
{
    const Role role;
    FrameLog frames(capacity);
    vrx::PcmDepayloader depayloader;
    vrx::Receiver receiver;
    receiver.addDepayloader(depayloader);
    receiver.setStateChangedCallback([running = false](vrx::Receiver::State state) mutable {
        if (state == vrx::Receiver::State::Running && !std::exchange(running, true))
            std::printf("running %" PRIu64 "\n", now());
    });
    receiver.setMediaDataCallback(
        [&frames](unsigned long long timestamp, unsigned long long, const std::vector<unsigned char>& media) {
            frames.onFrame(timestamp, media.data(), media.size());
        });
    if (vrx && !receiver.initializeReceiver(address))
        fail("cannot initialise the receiver");
    std::printf("connecting\n");
    if (vrx)
        LineReader(STDIN_FILENO).take("end");
    else
        receiveRaw(address, frames);
    const TimeValue cpuAtStop = processCpuTime();
    receiver.shutdownReceiver();
    frames.report(cpuAtStop);
    return 0;
}

// ---- The orchestrating process -------------------------------------------------------------

struct Run
{
    double p50 = 0, p99 = 0, senderCpu = 0, receiverCpu = 0; // microseconds, CPU per frame
    std::uint64_t lost = 0, skipped = 0;
};

std::optional<Run> failed(const char* what)
{
    std::fprintf(stderr, "run failed: %s\n", what);
    return std::nullopt;
}

std::string nextAddress(bool vrx)
{
    static int runs = 0;
    const std::string name = "vrx-bench-" + std::to_string(getpid()) + "-" + std::to_string(runs++);
    return vrx ? name : "ipc://" + std::string(std::getenv("TMPDIR")) + "/" + name + ".ipc";
}

// One receiver, then its sender; `frames` measured frames once the receiver has had its first.
std::optional<Run> runStream(bool vrx, std::uint64_t frames)
{
    const std::string path = vrx ? "vrx" : "raw", address = nextAddress(vrx);
    const auto receiver = startRole({"receiver", path, address, std::to_string(frames)});
    if (!receiver->take("connecting", 10s))
        return failed("the receiver did not start");
    const auto sender = startRole({"sender", path, address});
    if (!receiver->take("first", 10s))
        return failed("the receiver got no frame");
    sender->tell("go " + std::to_string(frames));
    const auto done = hear(*sender, "done", std::chrono::milliseconds(frames) + 20s);
    std::this_thread::sleep_for(50ms); // what is still on its way arrives
    receiver->end(10s);
    const auto result = hear(*receiver, "result", 0ms);
    sender->end(10s);
    if (!done || !result)
        return failed("the sender did not finish or the receiver did not report");
    const auto perFrame = [&](std::uint64_t cpu) {
        return (*result)[0] == 0 ? 0.0 : static_cast<double>(cpu) / 1e3 / static_cast<double>((*result)[0]);
    };
    return Run{static_cast<double>((*result)[1]) / 1e3,
               static_cast<double>((*result)[2]) / 1e3,
               perFrame((*done)[1]),
               perFrame((*result)[3]),
               frames - std::min(frames, (*result)[0]),
               (*done)[2]};
}

int latencyFigures(int rounds, int seconds)
{
    const char* names[] = {"latency p50 [us]", "latency p99 [us]", "sender CPU/frame [us]",
                           "receiver CPU/frame [us]"};
    std::vector<double> values[4][2], ratios[4]; // [figure][vrx, raw]; [figure]
    std::uint64_t lost[2] = {0, 0};
    std::printf("latency and CPU: %d rounds of both paths (vrx first in even rounds), %d s each, one "
                "receiver,\n1000 frames/s of 1940-byte packets\n%-5s %-4s %8s %8s %11s %11s %5s %7s\n",
                rounds, seconds, "round", "path", "p50[us]", "p99[us]", "sndCPU[us]", "rcvCPU[us]", "lost",
                "skipped");
    // One short run of each path first, not counted: the first runs pay for cold caches.
    for (const bool vrx : {true, false})
        if (!runStream(vrx, 500))
            return 1;
    for (int round = 0; round < rounds; ++round)
    {
        Run runs[2];
        for (const bool vrx : {round % 2 == 0, round % 2 != 0})
        {
            const std::optional<Run> run = runStream(vrx, static_cast<std::uint64_t>(seconds) * 1000);
            if (!run)
                return 1;
            runs[vrx ? 0 : 1] = *run;
            lost[vrx ? 0 : 1] += run->lost;
            std::printf("%-5d %-4s %8.1f %8.1f %11.2f %11.2f %5" PRIu64 " %7" PRIu64 "\n", round,
                        vrx ? "vrx" : "raw", run->p50, run->p99, run->senderCpu, run->receiverCpu, run->lost,
                        run->skipped);
        }
        for (int figure = 0; figure < 4; ++figure)
        {
            const double Run::*field[] = {&Run::p50, &Run::p99, &Run::senderCpu, &Run::receiverCpu};
            for (int path = 0; path < 2; ++path)
                values[figure][path].push_back(runs[path].*field[figure]);
            ratios[figure].push_back(runs[0].*field[figure] / runs[1].*field[figure]);
        }
    }
    const auto spread = [](const std::vector<double>& sample, const char* format) {
        char text[64];
        std::snprintf(text, sizeof(text), format, percentile(sample, 0.5), percentile(sample, 0.0),
                      percentile(sample, 1.0));
        return std::string(text);
    };
    std::printf("\nmedian [min-max] over the rounds; vrx/raw: ratio of the medians, and the median [min-max] "
                "of each round's ratio\n%-24s %-26s %-26s %7s  %s\n",
                "figure", "vrx", "raw", "vrx/raw", "per round");
    for (int figure = 0; figure < 4; ++figure)
        std::printf("%-24s %-26s %-26s %7.3f  %s\n", names[figure],
                    spread(values[figure][0], "%.2f [%.2f-%.2f]").c_str(),
                    spread(values[figure][1], "%.2f [%.2f-%.2f]").c_str(),
                    percentile(values[figure][0], 0.5) / percentile(values[figure][1], 0.5),
                    spread(ratios[figure], "%.3f [%.3f-%.3f]").c_str());
    std::printf("frames lost: vrx %" PRIu64 ", raw %" PRIu64 " of %d each\n\n", lost[0], lost[1],
                rounds * seconds * 1000);
    return 0;
}

int startupFigures(int startups)
{
    std::vector<double> milliseconds;
    for (int attempt = 0; attempt < startups; ++attempt)
    {
        const std::string address = nextAddress(true);
        const auto receiver = startRole({"receiver", "vrx", address, "1000"});
        if (!receiver->take("connecting", 10s))
            return std::fprintf(stderr, "start-up: the receiver did not start\n"), 1;
        // Spread over the receiver's 400 ms retry period.
        std::this_thread::sleep_for(std::chrono::milliseconds(100 + (attempt * 137) % 400));
        const auto sender = startRole({"sender", "vrx", address});
        const auto init = hear(*sender, "init", 10s), running = hear(*receiver, "running", 10s);
        receiver->end(10s);
        sender->end(10s);
        if (!init || !running)
            return std::fprintf(stderr, "start-up: the receiver did not reach Running\n"), 1;
        milliseconds.push_back(static_cast<double>((*running)[0] - (*init)[0]) / 1e6);
    }
    std::printf("start-up: initializeSender to Running of a receiver that waited 100 to 500 ms, %d times: "
                "median %.2f ms [%.2f-%.2f]\n",
                startups, percentile(milliseconds, 0.5), percentile(milliseconds, 0.0),
                percentile(milliseconds, 1.0));
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() >= 3 && arguments[0] == "--role")
    {
        if (arguments[1] == "sender")
            return runSender(arguments[2] == "vrx", arguments.at(3));
        return runReceiver(arguments[2] == "vrx", arguments.at(3), std::stoul(arguments.at(4)));
    }
    int rounds = 8, seconds = 4, startups = 20;
    if (!readOptions(arguments, {{"--rounds", &rounds}, {"--seconds", &seconds}, {"--startups", &startups}},
                     0))
        return std::fprintf(stderr, "usage: %s [--rounds N] [--seconds S] [--startups N]\n", argv[0]), 2;
    const ScratchTmpdir scratch; // this run's senders only
    signal(SIGPIPE, SIG_IGN);    // a child that ends early must not take this process with it
    return (rounds > 0 && latencyFigures(rounds, std::max(seconds, 1)) != 0) ||
           (startups > 0 && startupFigures(startups) != 0);
}
