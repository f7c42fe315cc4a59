// Per-frame cost of vrx::Sender::sendMediaData against the bare nanomsg path it is built on:
// an NN_PUB socket with a one-byte send buffer that polls its NN_SNDFD and sends with
// NN_DONTWAIT. Each side publishes 1920-byte frames (10 ms of 48 kHz stereo S16LE; 1940 bytes
// with the Frame header) to one NN_SUB subscriber that a thread of its own drains.
//
// Two modes, each repeated in the order A B B A so that drifting machine load hits both:
//   delivered: one frame at a time, the next only after the subscriber has it, so every send
//              finds the channel idle and really goes out (a producer's steady state);
//   burst:     frames back to back; the PUB socket drops what the busy pipe cannot take, so
//              nanomsg's part is cheap and the sender's own overhead shows most. The few sends
//              that find the pipe idle cost far more, so the delivered share weighs in;
//   alone:     frames back to back to a second sender and publisher that nobody subscribes
//              to: every send is dropped, and only the frame path's own cost is left.
//
//   vrx_bench_sender [--repetitions N] [--frames N]

#include "BenchSupport.h"

#include <voraxis/VrxSender.h>

#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <nanomsg/nn.h>
#include <nanomsg/pubsub.h>

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using vrxBench::median;

struct Options
{
    int repetitions = 15;
    int frames = 8000; // burst; delivered runs a quarter of it
};

Options parseOptions(int argc, char** argv)
{
    Options options;
    for (int index = 1; index + 1 < argc; index += 2)
    {
        const std::string name = argv[index];
        const int value = std::atoi(argv[index + 1]);
        if (name == "--repetitions" && value > 0)
            options.repetitions = value;
        else if (name == "--frames" && value > 0)
            options.frames = value;
        else
        {
            std::fprintf(stderr, "usage: %s [--repetitions N] [--frames N]\n", argv[0]);
            std::exit(2);
        }
    }
    return options;
}

// An NN_SUB socket subscribed to everything, drained by its own thread, counting messages.
class DrainedSubscriber
{
public:
    explicit DrainedSubscriber(const std::string& uri) : m_socket(nn_socket(AF_SP, NN_SUB))
    {
        nn_setsockopt(m_socket, NN_SUB, NN_SUB_SUBSCRIBE, "", 0);
        const int timeoutMs = 100; // lets the thread notice the end
        nn_setsockopt(m_socket, NN_SOL_SOCKET, NN_RCVTIMEO, &timeoutMs, sizeof(timeoutMs));
        nn_connect(m_socket, uri.c_str());
        m_thread = std::thread([this] {
            while (m_running.load(std::memory_order_relaxed))
            {
                void* message = nullptr;
                if (nn_recv(m_socket, &message, NN_MSG, 0) >= 0)
                {
                    nn_freemsg(message);
                    m_received.fetch_add(1, std::memory_order_release);
                }
            }
        });
    }

    ~DrainedSubscriber()
    {
        m_running = false;
        m_thread.join();
        nn_close(m_socket);
    }

    unsigned long received() const { return m_received.load(std::memory_order_acquire); }

    // Waits until the count passes `count`; false after `patience` without progress (a frame
    // that the PUB socket dropped never arrives).
    bool waitBeyond(unsigned long count, Clock::duration patience = std::chrono::seconds(1)) const
    {
        // Naps rather than spins: on a two-core machine a spinning waiter would take the core
        // that the subscriber and nanomsg's worker threads need.
        const auto end = Clock::now() + patience;
        while (received() <= count)
        {
            if (Clock::now() > end)
                return false;
            std::this_thread::sleep_for(std::chrono::microseconds(20));
        }
        return true;
    }

private:
    int m_socket;
    std::atomic<bool> m_running{true};
    std::atomic<unsigned long> m_received{0};
    std::thread m_thread;
};

// The bare nanomsg path: what the sender does per frame, without the sender.
class RawPublisher
{
public:
    explicit RawPublisher(const std::string& uri) : m_socket(nn_socket(AF_SP, NN_PUB))
    {
        nn_bind(m_socket, uri.c_str());
        const int sendBufferSize = 1;
        nn_setsockopt(m_socket, NN_SOL_SOCKET, NN_SNDBUF, &sendBufferSize, sizeof(sendBufferSize));
        std::size_t size = sizeof(m_watchFD);
        nn_getsockopt(m_socket, NN_SOL_SOCKET, NN_SNDFD, &m_watchFD, &size);
    }
    ~RawPublisher() { nn_close(m_socket); }

    void send(const vrx::Buffer& packet)
    {
        pollfd entry{m_watchFD, POLLIN, 0};
        while (poll(&entry, 1, -1) < 0 && errno == EINTR)
            ;
        if ((entry.revents & POLLIN) != 0)
            nn_send(m_socket, packet.data(), packet.size(), NN_DONTWAIT);
    }

private:
    int m_socket;
    int m_watchFD = -1;
};

struct Path
{
    const char* name;
    std::function<void(std::uint64_t timestamp)> sendFrame;
    DrainedSubscriber& subscriber;
    std::function<void(std::uint64_t timestamp)> sendAlone; // the same path with nobody subscribed
    std::vector<double> delivered;                          // ns per frame, one value per repetition
    std::vector<double> burst;
    std::vector<double> alone;
    int dropped = 0; // delivered mode: sends the PUB socket dropped anyway
    unsigned long burstFrames = 0;
    unsigned long burstDelivered = 0;
};

// Delivered mode: only the send itself is timed; waiting for the subscriber is not.
double measureDelivered(Path& path, int frames, std::uint64_t& timestamp)
{
    Clock::duration total{};
    int counted = 0;
    for (int frame = 0; frame < frames; ++frame)
    {
        const unsigned long before = path.subscriber.received();
        const auto start = Clock::now();
        path.sendFrame(++timestamp);
        total += Clock::now() - start;
        // A send that raced with the pipe's return to idle was dropped; it is not counted.
        if (path.subscriber.waitBeyond(before))
            ++counted;
        else
            ++path.dropped;
    }
    return counted == 0 ? 0.0 : std::chrono::duration<double, std::nano>(total).count() / counted;
}

double measureBurst(Path& path, int frames, std::uint64_t& timestamp)
{
    const unsigned long before = path.subscriber.received();
    const auto start = Clock::now();
    for (int frame = 0; frame < frames; ++frame)
        path.sendFrame(++timestamp);
    const double nanosecondsPerFrame =
        std::chrono::duration<double, std::nano>(Clock::now() - start).count() / frames;
    // A delivered frame costs more than a dropped one, so the mix is part of the result.
    // Waits until the subscriber has been idle for 20 ms, so that its draining neither hangs
    // over into the next run nor is left out of the count.
    for (unsigned long seen = path.subscriber.received();
         path.subscriber.waitBeyond(seen, std::chrono::milliseconds(20));)
        seen = path.subscriber.received();
    path.burstFrames += static_cast<unsigned long>(frames);
    path.burstDelivered += path.subscriber.received() - before;
    return nanosecondsPerFrame;
}

// Alone: back to back with nobody subscribed, so that every send is dropped at once. Unlike a
// burst, whose cost depends on how many sends happen to find the pipe idle (a faster sender
// finds it idle less often), this is the frame path's own cost, without delivery in it.
double measureAlone(Path& path, int frames, std::uint64_t& timestamp)
{
    const auto start = Clock::now();
    for (int frame = 0; frame < frames; ++frame)
        path.sendAlone(++timestamp);
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / frames;
}

// What the library's TRACE lines on the frame path cost while TRACE is off: the same three
// statements, with the same logger.
double disabledTraceCostPerFrame(std::size_t packetSize)
{
    const log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Voraxis"));
    constexpr int rounds = 1'000'000;
    const auto start = Clock::now();
    for (int round = 0; round < rounds; ++round)
    {
        LOG4CPLUS_TRACE(logger, "Payloader wrapped media data with " << 1920 << " byte into packet with "
                                                                     << packetSize << " byte");
        LOG4CPLUS_TRACE(logger, "Sending data with " << packetSize << " bytes over nanomsg SP socket");
        LOG4CPLUS_TRACE(logger, "Nanomsg watch FD activity");
    }
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / rounds;
}

} // namespace

int main(int argc, char** argv)
{
    const Options options = parseOptions(argc, argv);

    // Errors only: the frame path's TRACE and DEBUG lines are off, as in production.
    log4cplus::Initializer logging;
    log4cplus::BasicConfigurator::doConfigure();
    log4cplus::Logger::getRoot().setLogLevel(log4cplus::WARN_LOG_LEVEL);

    const vrxBench::ScratchTmpdir scratch("vrx-bench-sender");
    const std::string address = "vrx-bench-sender-" + std::to_string(getpid());

    vrx::PcmPayloader payloader;
    payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
    vrx::Sender sender;
    if (!sender.initializeSender(address, "", "", 0, vrx::TimeSyncProtocol::MonotonicSystemClock,
                                 vrx::NanomsgProtocol::PubSub))
        return 1;
    sender.setCurrentPayloader(payloader);
    sender.startNewSequence();
    std::string senderUri;
    for (const auto& entry : std::filesystem::directory_iterator(scratch.path()))
        senderUri = "ipc://" + entry.path().string() + "/nanomsgChannel.ipc";

    // A second sender and publisher that nobody subscribes to.
    vrx::Sender lonelySender;
    if (!lonelySender.initializeSender(address + "-alone", "", "", 0,
                                       vrx::TimeSyncProtocol::MonotonicSystemClock,
                                       vrx::NanomsgProtocol::PubSub))
        return 1;
    lonelySender.setCurrentPayloader(payloader);
    lonelySender.startNewSequence();

    const vrx::Buffer media(1920, 0x5A);
    vrx::Buffer rawPacket;
    payloader.produceFramePacket(rawPacket, 1, 0, 10'000'000, media);
    {
        RawPublisher raw("ipc://" + scratch.path() + "/raw.ipc");
        RawPublisher lonelyRaw("ipc://" + scratch.path() + "/raw-alone.ipc");
        DrainedSubscriber senderSubscriber(senderUri);
        DrainedSubscriber rawSubscriber("ipc://" + scratch.path() + "/raw.ipc");

        Path paths[] = {
            {"vrx::Sender::sendMediaData",
             [&](std::uint64_t timestamp) { sender.sendMediaData(timestamp, 10'000'000, media); },
             senderSubscriber,
             [&](std::uint64_t timestamp) { lonelySender.sendMediaData(timestamp, 10'000'000, media); },
             {},
             {},
             {}},
            {"raw NN_PUB poll + nn_send",
             [&](std::uint64_t) { raw.send(rawPacket); },
             rawSubscriber,
             [&](std::uint64_t) { lonelyRaw.send(rawPacket); },
             {},
             {},
             {}},
        };
        // Both subscriptions in place before anything is measured.
        std::uint64_t timestamp = 0;
        for (Path& path : paths)
            while (path.subscriber.received() == 0)
                path.sendFrame(++timestamp);

        // A B B A: each path's value of a repetition is the mean of its two runs.
        const auto measureBoth = [&](const std::function<double(Path&)>& measure,
                                     std::vector<double> Path::*results) {
            const double senderFirst = measure(paths[0]);
            const double rawFirst = measure(paths[1]);
            const double rawSecond = measure(paths[1]);
            const double senderSecond = measure(paths[0]);
            (paths[0].*results).push_back((senderFirst + senderSecond) / 2);
            (paths[1].*results).push_back((rawFirst + rawSecond) / 2);
        };
        for (int repetition = 0; repetition < options.repetitions; ++repetition)
        {
            measureBoth([&](Path& path) { return measureDelivered(path, options.frames / 4, timestamp); },
                        &Path::delivered);
            measureBoth([&](Path& path) { return measureBurst(path, options.frames, timestamp); },
                        &Path::burst);
            measureBoth([&](Path& path) { return measureAlone(path, options.frames, timestamp); },
                        &Path::alone);
        }

        std::printf("%d repetitions; delivered: %d frames each, burst and alone: %d frames each\n",
                    options.repetitions, options.frames / 4, options.frames);
        std::printf("%-28s %12s %12s %12s\n", "ns per frame (median)", "delivered", "burst", "alone");
        for (const Path& path : paths)
            std::printf(
                "%-28s %12.0f %12.0f %12.0f   (delivered mode: %d dropped; burst: %.1f%% delivered)\n",
                path.name, median(path.delivered), median(path.burst), median(path.alone), path.dropped,
                100.0 * static_cast<double>(path.burstDelivered) / static_cast<double>(path.burstFrames));
        std::vector<double> deliveredRatios, burstRatios, aloneRatios;
        for (int repetition = 0; repetition < options.repetitions; ++repetition)
        {
            deliveredRatios.push_back(paths[0].delivered[repetition] / paths[1].delivered[repetition]);
            burstRatios.push_back(paths[0].burst[repetition] / paths[1].burst[repetition]);
            aloneRatios.push_back(paths[0].alone[repetition] / paths[1].alone[repetition]);
        }
        std::printf("%-28s %12.3f %12.3f %12.3f\n", "ratio of medians",
                    median(paths[0].delivered) / median(paths[1].delivered),
                    median(paths[0].burst) / median(paths[1].burst),
                    median(paths[0].alone) / median(paths[1].alone));
        std::printf("%-28s %12.3f %12.3f %12.3f   (target <= 1.10)\n", "median of paired ratios",
                    median(deliveredRatios), median(burstRatios), median(aloneRatios));
        const double traceCost = disabledTraceCostPerFrame(rawPacket.size());
        std::printf(
            "disabled TRACE lines on the frame path: %.1f ns per frame (%.1f%% of a delivered frame)\n",
            traceCost, 100.0 * traceCost / median(paths[0].delivered));
    }

    sender.shutdownSender();
    lonelySender.shutdownSender();
    return 0;
}
