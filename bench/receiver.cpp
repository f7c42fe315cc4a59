// A stream from vrx::Sender to vrx::Receiver in separate processes against bare nanomsg doing
// the same: an NN_PUB socket with a one-byte send buffer to NN_SUB sockets with a one-byte
// receive buffer, each drained by a thread that polls a wake-up pipe and the NN_RCVFD in 50 ms
// slices and receives with nn_recv(NN_MSG, NN_DONTWAIT). The bare publisher sends as the
// sender does, trying nn_send(NN_DONTWAIT) first. Frames are 1940-byte packets (1920 bytes of
// media) at 1000 frames/s, stamped with the monotonic clock at the send; a sender that wakes
// late sends at once and goes on a period later, never back to back.
//
//   latency: one receiver; one-way latency from the send to the receiving callback (p50, p99)
//            and the CPU time of the sender's and the receiver's process per delivered frame;
//   loss:    frames lost after every receiver had its first frame, with 1 and with 8
//            receivers;
//   startup: time from initializeSender to the Running state of a receiver that waits for it.
//
// Runs of the two paths alternate (A B B A, then B A A B), so that drifting machine load hits
// both; a repetition pairs the mean of each path's two runs. Each process of a run is this
// program again, started with a role (fork and exec, before any thread exists).
//
//   vrx_bench_receiver [--repetitions N] [--seconds S] [--loss-seconds S]
//                      [--loss-receivers N,M] [--startups N] [--only latency,loss,startup]
//                      [--realtime PRIORITY] [--together yes|no] [--bare-extras poll3,copy,checks]
//
// --together yes runs the two paths at the same time (the senders half a frame period apart,
// which one first alternating from run to run)
// instead of in turn, for the latency and the loss figures: both paths then see the same
// machine load at the same moments, which matters most for frame loss, which stalls of the
// machine cause.
// --bare-extras makes the bare receivers do some of vrx::Receiver's work as well, to find out
// where it spends more (see BareSubscriber).
// --realtime runs every process of a run with SCHED_FIFO at that priority, as audio programs
// often run: latency then shows the path itself rather than the machine's other load.
// VRX_BENCH_LOG_LEVEL=DEBUG (or TRACE, ...) in the environment shows the library's log of every
// process, with time and process id, to find out why a run failed.

#include "BenchSupport.h"

#include <voraxis/VrxReceiver.h>
#include <voraxis/VrxSender.h>

#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <nanomsg/nn.h>
#include <nanomsg/pubsub.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace vrxBench;

constexpr TimeValue framePeriod = 1'000'000; // 1000 frames/s
constexpr std::size_t mediaSize = 1920;
// Frame packet: type, reserved byte and sequence number, then timestamp, duration, media.
constexpr std::size_t timestampOffset = 4;
constexpr std::size_t mediaOffset = 20;
// Media bytes 0 to 7 carry a frame counter, byte 8 marks the frames of the measured window.
constexpr std::size_t measuredFlagOffset = 8;

// CPU time of every thread of this process, nanomsg's workers included.
TimeValue processCpuTime()
{
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<TimeValue>(time.tv_sec) * 1'000'000'000 + static_cast<TimeValue>(time.tv_nsec);
}

// ---- Roles: the processes of a run ---------------------------------------------------------

struct RoleOptions
{
    std::string role;
    bool vrx = true;     // vrx::Sender / vrx::Receiver, or bare nanomsg
    std::string address; // sidechannel address, or the ipc:// URI of the bare path
    std::size_t capacity = 0;
    std::string extras; // bare receiver: steps of vrx::Receiver to add (see BareSubscriber)
};

// Sends frames at 1000 frames/s, unmeasured until "go N BEGIN", then N measured ones from BEGIN
// on the monotonic clock; "quit" ends it.
// "sequence" before "go" starts a new sequence (see Bench::start).
//   says: init <time before set-up>, ready <time after set-up>, done <first> <last> <cpu> <late>
int runSender(const RoleOptions& options)
{
    log4cplus::Initializer logging;
    configureLogging();

    vrx::PcmPayloader payloader;
    payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
    vrx::Buffer media(mediaSize, 0x5A);
    std::unique_ptr<vrx::Sender> sender;
    int socket = -1;
    vrx::Buffer packet;

    say(1, "init %" PRIu64, now());
    if (options.vrx)
    {
        sender = std::make_unique<vrx::Sender>();
        if (!sender->initializeSender(options.address, "", "", 0, vrx::TimeSyncProtocol::MonotonicSystemClock,
                                      vrx::NanomsgProtocol::PubSub))
            fail("cannot initialise the sender");
        sender->setCurrentPayloader(payloader);
        sender->startNewSequence();
    }
    else
    {
        socket = nn_socket(AF_SP, NN_PUB);
        const int sendBufferSize = 1;
        if (socket < 0 ||
            nn_setsockopt(socket, NN_SOL_SOCKET, NN_SNDBUF, &sendBufferSize, sizeof(sendBufferSize)) < 0 ||
            nn_bind(socket, options.address.c_str()) < 0)
            fail("cannot set up the bare publisher");
        payloader.produceFramePacket(packet, 1, 0, framePeriod, media);
    }
    say(1, "ready %" PRIu64, now());

    // The bare path sends as the sender does: at once, polling NN_SNDFD only when the socket
    // would block (a publisher never does).
    int watchFD = -1;
    if (socket >= 0)
    {
        std::size_t size = sizeof(watchFD);
        nn_getsockopt(socket, NN_SOL_SOCKET, NN_SNDFD, &watchFD, &size);
    }
    const auto sendFrame = [&](std::uint64_t counter, bool measured) {
        std::memcpy(media.data(), &counter, sizeof(counter));
        media[measuredFlagOffset] = measured ? 1 : 0;
        const TimeValue timestamp = now();
        if (sender)
        {
            sender->sendMediaData(timestamp, framePeriod, media);
            return;
        }
        std::memcpy(packet.data() + timestampOffset, &timestamp, sizeof(timestamp));
        std::memcpy(packet.data() + mediaOffset, media.data(), measuredFlagOffset + 1);
        if (nn_send(socket, packet.data(), packet.size(), NN_DONTWAIT) >= 0 || errno != EAGAIN)
            return;
        pollfd entry{watchFD, POLLIN, 0};
        if (poll(&entry, 1, -1) > 0)
            nn_send(socket, packet.data(), packet.size(), NN_DONTWAIT);
    };

    // One frame per period on an absolute schedule. A sender that wakes late sends at once and
    // goes on a period later, never back to back: a burst would lose frames at the sender's
    // one-byte buffer, which is the same on both paths and would only hide the receivers.
    TimeValue due = now();
    unsigned long late = 0; // ticks more than a period behind
    const auto waitForTick = [&] {
        const TimeValue current = now();
        if (current > due)
        {
            if (current > due + framePeriod)
                ++late;
            due = current;
        }
        sleepUntil(due);
        due += framePeriod;
    };

    LineReader input(0);
    std::string line;
    std::uint64_t counter = 0;
    bool quit = false;
    for (;;)
    {
        waitForTick();
        sendFrame(counter++, false);
        const LineReader::Result result = input.read(line, 0);
        if (result == LineReader::Result::Closed)
            quit = true;
        if (result == LineReader::Result::Line && line == "sequence" && sender)
        {
            sender->startNewSequence();
            continue;
        }
        if (result != LineReader::Result::Nothing)
            break;
    }
    const std::vector<std::string> command = words(line);
    if (!quit && !command.empty() && command[0] == "go")
    {
        const std::uint64_t frames = number(command, 1);
        due = std::max<TimeValue>(number(command, 2), now());
        const std::uint64_t first = counter;
        late = 0;
        const TimeValue cpuBefore = processCpuTime();
        for (std::uint64_t frame = 0; frame < frames; ++frame)
        {
            waitForTick();
            sendFrame(counter++, true);
        }
        const TimeValue cpu = processCpuTime() - cpuBefore;
        say(1, "done %" PRIu64 " %" PRIu64 " %" PRIu64 " %lu", first, counter - 1, cpu, late);
        while (input.read(line, -1) == LineReader::Result::Line && line != "quit")
        {}
    }

    if (sender)
        sender->shutdownSender();
    if (socket >= 0)
        nn_close(socket);
    return 0;
}

// What a receiver saw of the measured window; written by its receiving thread only.
class FrameLog
{
public:
    explicit FrameLog(std::size_t capacity) : m_capacity(capacity) { m_latencies.reserve(capacity); }

    void onFrame(TimeValue timestamp, const unsigned char* media, std::size_t size)
    {
        const TimeValue arrival = now();
        if (size <= measuredFlagOffset)
            return;
        if (!m_announced)
        {
            m_announced = true;
            say(1, "first");
        }
        if (media[measuredFlagOffset] == 0)
            return;
        if (m_received == 0)
            m_cpuAtFirst = processCpuTime();
        std::uint64_t counter = 0;
        std::memcpy(&counter, media, sizeof(counter));
        ++m_received;
        m_lowest = std::min(m_lowest, counter);
        m_highest = std::max(m_highest, counter);
        if (m_latencies.size() < m_capacity)
            m_latencies.push_back(arrival - timestamp);
    }

    // After the receiving thread has ended: result <received> <lowest> <highest> <p50> <p99>
    // <max> <cpu from the first measured frame to `cpuAtStop`>
    void report(TimeValue cpuAtStop)
    {
        std::sort(m_latencies.begin(), m_latencies.end());
        const auto percentile = [&](double fraction) -> TimeValue {
            if (m_latencies.empty())
                return 0;
            const auto rank =
                static_cast<std::size_t>(std::ceil(fraction * static_cast<double>(m_latencies.size())));
            return m_latencies[std::clamp<std::size_t>(rank, 1, m_latencies.size()) - 1];
        };
        say(1, "result %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64,
            m_received, m_received != 0 ? m_lowest : 0, m_highest, percentile(0.5), percentile(0.99),
            percentile(1.0), m_received != 0 ? cpuAtStop - m_cpuAtFirst : 0);
    }

private:
    std::size_t m_capacity;
    std::vector<TimeValue> m_latencies;
    bool m_announced = false;
    std::uint64_t m_received = 0;
    std::uint64_t m_lowest = UINT64_MAX;
    std::uint64_t m_highest = 0;
    TimeValue m_cpuAtFirst = 0;
};

// The bare consuming end: an NN_SUB socket drained by a thread of its own. To find out where
// vrx::Receiver spends more, `extras` adds its steps one by one:
//   poll3:  a third, idle descriptor in the poll (vrx::Receiver polls its sidechannel socket);
//   copy:   the media copied into a new vector per frame (the depayloader's unwrapFrame);
//   checks: four disabled TRACE checks on the "Voraxis" logger and a mutex per frame.
class BareSubscriber
{
public:
    BareSubscriber(const std::string& uri, FrameLog& frames, const std::string& extras)
        : m_frames(frames),
          m_copy(extras.find("copy") != std::string::npos),
          m_checks(extras.find("checks") != std::string::npos)
    {
        m_socket = nn_socket(AF_SP, NN_SUB);
        const int receiveBufferSize = 1;
        const int unlimitedSize = -1;
        std::size_t size = sizeof(m_watchFD);
        if (m_socket < 0 || nn_setsockopt(m_socket, NN_SUB, NN_SUB_SUBSCRIBE, "", 0) < 0 ||
            nn_setsockopt(m_socket, NN_SOL_SOCKET, NN_RCVBUF, &receiveBufferSize, sizeof(receiveBufferSize)) <
                0 ||
            nn_setsockopt(m_socket, NN_SOL_SOCKET, NN_RCVMAXSIZE, &unlimitedSize, sizeof(unlimitedSize)) <
                0 ||
            nn_connect(m_socket, uri.c_str()) < 0 ||
            nn_getsockopt(m_socket, NN_SOL_SOCKET, NN_RCVFD, &m_watchFD, &size) < 0 ||
            pipe2(m_wakeupPipe, O_CLOEXEC) < 0 ||
            socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_idleSocket) < 0)
            fail("cannot set up the bare subscriber");
        m_pollCount = extras.find("poll3") != std::string::npos ? 3 : 2;
        m_thread = std::thread([this] { drain(); });
    }

    ~BareSubscriber()
    {
        const char byte = 1;
        if (write(m_wakeupPipe[1], &byte, 1) != 1)
            fail("cannot wake the bare subscriber");
        m_thread.join();
        nn_close(m_socket);
        for (const int fd : {m_wakeupPipe[0], m_wakeupPipe[1], m_idleSocket[0], m_idleSocket[1]})
            close(fd);
    }

    BareSubscriber(const BareSubscriber&) = delete;
    BareSubscriber& operator=(const BareSubscriber&) = delete;

private:
    void drain()
    {
        const log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Voraxis"));
        pollfd pollFDs[3] = {
            {m_wakeupPipe[0], POLLIN, 0}, {m_watchFD, POLLIN, 0}, {m_idleSocket[0], POLLIN, 0}};
        for (;;)
        {
            if (m_checks)
            {
                std::lock_guard lock(m_mutex);
                LOG4CPLUS_TRACE(logger, "Listening for input");
            }
            if (poll(pollFDs, m_pollCount, 50) <= 0)
                continue;
            if ((pollFDs[0].revents & POLLIN) != 0)
                return;
            if ((pollFDs[1].revents & POLLIN) == 0)
                continue;
            void* message = nullptr;
            const int size = nn_recv(m_socket, &message, NN_MSG, NN_DONTWAIT);
            if (size < 0)
                continue;
            const auto* packet = static_cast<const unsigned char*>(message);
            if (m_checks)
            {
                LOG4CPLUS_TRACE(logger, "Nanomsg activity");
                LOG4CPLUS_TRACE(logger, "Received nanomsg VRX packet with " << size << " byte(s)");
                LOG4CPLUS_TRACE(logger, "Calling media data callback");
            }
            if (static_cast<std::size_t>(size) > mediaOffset)
            {
                TimeValue timestamp = 0;
                std::memcpy(&timestamp, packet + timestampOffset, sizeof(timestamp));
                if (m_copy)
                {
                    m_media = vrx::Buffer(packet + mediaOffset, packet + size);
                    m_frames.onFrame(timestamp, m_media.data(), m_media.size());
                }
                else
                    m_frames.onFrame(timestamp, packet + mediaOffset,
                                     static_cast<std::size_t>(size) - mediaOffset);
            }
            nn_freemsg(message);
        }
    }

    FrameLog& m_frames;
    const bool m_copy;
    const bool m_checks;
    nfds_t m_pollCount = 2;
    int m_socket = -1;
    int m_watchFD = -1;
    int m_wakeupPipe[2] = {-1, -1};
    int m_idleSocket[2] = {-1, -1};
    std::mutex m_mutex;
    vrx::Buffer m_media;
    std::thread m_thread;
};

// Receives until "stop".
//   says: connecting, running <time> (vrx::Receiver only), first, result ...
int runReceiver(const RoleOptions& options)
{
    log4cplus::Initializer logging;
    configureLogging();

    FrameLog frames(options.capacity);
    vrx::PcmDepayloader depayloader;
    vrx::Receiver receiver;
    std::atomic<bool> reportedRunning{false};
    std::unique_ptr<BareSubscriber> bare;
    if (options.vrx)
    {
        receiver.addDepayloader(depayloader);
        receiver.setStateChangedCallback([&reportedRunning](vrx::Receiver::State state) {
            const TimeValue time = now();
            if (state == vrx::Receiver::State::Running && !reportedRunning.exchange(true))
                say(1, "running %" PRIu64, time);
        });
        receiver.setMediaDataCallback([&frames](unsigned long long timestamp, unsigned long long,
                                                const std::vector<unsigned char>& media) {
            frames.onFrame(timestamp, media.data(), media.size());
        });
        if (!receiver.initializeReceiver(options.address))
            fail("cannot initialise the receiver");
    }
    else
        bare = std::make_unique<BareSubscriber>(options.address, frames, options.extras);
    say(1, "connecting");

    LineReader input(0);
    std::string line;
    while (input.read(line, -1) == LineReader::Result::Line && line != "stop")
    {}
    const TimeValue cpuAtStop = processCpuTime();
    receiver.shutdownReceiver();
    bare.reset();
    frames.report(cpuAtStop);
    return 0;
}

// ---- The orchestrating process -------------------------------------------------------------

struct Options
{
    int repetitions = 4;
    int seconds = 4;
    int lossSeconds = 10;
    std::vector<int> lossReceivers{1, 8};
    int startups = 20;
    bool latency = true, loss = true, startup = true;
    int realtimePriority = 0; // SCHED_FIFO for every process of a run; 0: normal scheduling
    bool together = false;    // latency, loss: both paths at the same time instead of in turn
    std::string bareExtras;   // steps of vrx::Receiver that the bare receivers add
};

[[noreturn]] void usage(const char* program)
{
    std::fprintf(stderr,
                 "usage: %s [--repetitions N] [--seconds S] [--loss-seconds S] [--loss-receivers N,M]\n"
                 "          [--startups N] [--only latency,loss,startup] [--realtime PRIORITY]\n"
                 "          [--together yes|no] [--bare-extras poll3,copy,checks]\n",
                 program);
    std::exit(2);
}

Options parseOptions(int argc, char** argv)
{
    Options options;
    const auto positive = [&](const char* text) {
        const int value = std::atoi(text);
        if (value <= 0)
            usage(argv[0]);
        return value;
    };
    for (int index = 1; index + 1 < argc; index += 2)
    {
        const std::string name = argv[index];
        const std::string value = argv[index + 1];
        if (name == "--repetitions")
            options.repetitions = positive(value.c_str());
        else if (name == "--seconds")
            options.seconds = positive(value.c_str());
        else if (name == "--loss-seconds")
            options.lossSeconds = positive(value.c_str());
        else if (name == "--startups")
            options.startups = positive(value.c_str());
        else if (name == "--realtime")
            options.realtimePriority = positive(value.c_str());
        else if (name == "--together")
            options.together = value == "yes";
        else if (name == "--bare-extras")
            options.bareExtras = value;
        else if (name == "--loss-receivers")
        {
            options.lossReceivers.clear();
            std::stringstream list(value);
            for (std::string item; std::getline(list, item, ',');)
                options.lossReceivers.push_back(positive(item.c_str()));
        }
        else if (name == "--only")
        {
            options.latency = value.find("latency") != std::string::npos;
            options.loss = value.find("loss") != std::string::npos;
            options.startup = value.find("startup") != std::string::npos;
        }
        else
            usage(argv[0]);
    }
    if (argc % 2 == 0)
        usage(argv[0]);
    return options;
}

struct ReceiverResult
{
    std::uint64_t received = 0;
    TimeValue p50 = 0, p99 = 0, max = 0, cpu = 0;
};

struct RunResult
{
    bool ok = false;
    std::uint64_t expected = 0; // measured frames sent
    TimeValue senderCpu = 0;
    unsigned long senderLate = 0;
    std::vector<ReceiverResult> receivers;
    std::vector<TimeValue> startups; // initializeSender to Running, one per vrx::Receiver
    std::uint64_t lost() const
    {
        std::uint64_t lost = 0;
        for (const ReceiverResult& receiver : receivers)
            lost += expected - std::min(expected, receiver.received);
        return lost;
    }
};

class Bench
{
public:
    Bench(std::string scratch, const Options& options)
        : m_scratch(std::move(scratch)),
          m_realtimePriority(options.realtimePriority),
          m_longestRun(std::max(options.seconds, options.lossSeconds)),
          m_bareExtras(options.bareExtras)
    {}

    // One stream: receivers first (they wait for the sender), then the sender; `frames`
    // measured frames once every receiver has had its first.
    RunResult runStream(bool vrx, int receiverCount, std::uint64_t frames)
    {
        Stream stream;
        if (!start(stream, vrx, receiverCount))
            return {};
        go(stream, frames, now() + 10 * framePeriod);
        return finish(stream, frames);
    }

    // Both paths at the same time, one sender half a period after the other, so that both see
    // the same machine load at the same moments: { vrx, bare }. `bareFirst` swaps which path is
    // set up and sends first, so that alternate runs cancel what the order may bring.
    std::pair<RunResult, RunResult> runTogether(int receiverCount, std::uint64_t frames, bool bareFirst)
    {
        Stream streams[2]; // vrx, bare
        const int first = bareFirst ? 1 : 0;
        if (!start(streams[first], first == 0, receiverCount) ||
            !start(streams[1 - first], first != 0, receiverCount))
            return {};
        const TimeValue begin = now() + 10 * framePeriod;
        go(streams[first], frames, begin);
        go(streams[1 - first], frames, begin + framePeriod / 2);
        RunResult vrx = finish(streams[0], frames);
        RunResult bare = finish(streams[1], frames);
        return {std::move(vrx), std::move(bare)};
    }

    // A receiver that has waited for a while, then a sender: initializeSender to Running.
    std::optional<TimeValue> runStartup(int waitMs, TimeValue& initDuration)
    {
        const std::string address =
            "vrx-bench-startup-" + std::to_string(getpid()) + "-" + std::to_string(m_runs++);
        Child receiver({"--role", "receiver", "--path", "vrx", "--address", address, "--capacity", "1000"},
                       m_realtimePriority);
        if (!receiver.await("connecting", 10'000))
            return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(waitMs));
        Child sender({"--role", "sender", "--path", "vrx", "--address", address}, m_realtimePriority);
        const auto init = sender.await("init", 10'000);
        const auto ready = sender.await("ready", 10'000);
        const auto running = receiver.await("running", 5'000);
        receiver.tell("stop");
        receiver.await("result", 5'000);
        sender.tell("quit");
        if (!init || !ready || !running)
            return std::nullopt;
        initDuration = number(*ready, 1) - number(*init, 1);
        return number(*running, 1) - number(*init, 1);
    }

private:
    struct Stream
    {
        bool vrx = true;
        std::vector<std::unique_ptr<Child>> receivers;
        std::unique_ptr<Child> sender;
        std::vector<TimeValue> startups;
    };

    // Receivers, then the sender; true once every receiver has had its first frame.
    bool start(Stream& stream, bool vrx, int receiverCount)
    {
        stream.vrx = vrx;
        const std::string address =
            vrx ? "vrx-bench-receiver-" + std::to_string(getpid()) + "-" + std::to_string(m_runs)
                : "ipc://" + m_scratch + "/bare-" + std::to_string(m_runs) + ".ipc";
        ++m_runs;
        const std::string path = vrx ? "vrx" : "bare";
        // Room for the latencies of the longest run.
        const std::string capacity = std::to_string(m_longestRun * 1000 + 1000);
        for (int index = 0; index < receiverCount; ++index)
        {
            std::vector<std::string> arguments{"--role",    "receiver", "--path",     path,
                                               "--address", address,    "--capacity", capacity};
            if (!vrx && !m_bareExtras.empty())
                arguments.insert(arguments.end(), {"--extras", m_bareExtras});
            stream.receivers.push_back(std::make_unique<Child>(arguments, m_realtimePriority));
            if (!stream.receivers.back()->await("connecting", 10'000))
                return report("a receiver did not start");
        }
        stream.sender = std::make_unique<Child>(
            std::vector<std::string>{"--role", "sender", "--path", path, "--address", address},
            m_realtimePriority);
        const auto init = stream.sender->await("init", 10'000);
        if (!init || !stream.sender->await("ready", 10'000))
            return report("the sender did not start");
        for (auto& receiver : stream.receivers)
        {
            if (receiver->await("first", 3'000))
                continue;
            // A receiver that connects between the sender's initializeSender and its
            // startNewSequence gets a greeting without SequenceInfo, and the SequenceInfo that
            // follows over nanomsg reaches only subscriptions already in place: such a
            // receiver drops every frame until the next sequence. Counted and reported.
            ++m_missedSequences;
            stream.sender->tell("sequence");
            if (!receiver->await("first", 10'000))
                return report("a receiver got no frame");
        }
        if (vrx)
            for (auto& receiver : stream.receivers)
                if (const auto running = receiver->await("running", 0))
                    stream.startups.push_back(number(*running, 1) - number(*init, 1));
        return true;
    }

    // The measured frames start at `begin` on the monotonic clock.
    static void go(Stream& stream, std::uint64_t frames, TimeValue begin)
    {
        stream.sender->tell(("go " + std::to_string(frames) + " " + std::to_string(begin)).c_str());
    }

    RunResult finish(Stream& stream, std::uint64_t frames)
    {
        RunResult result;
        result.startups = stream.startups;
        const auto done = stream.sender->await("done", static_cast<int>(frames) + 20'000);
        if (!done)
        {
            report("the sender did not finish");
            return {};
        }
        result.expected = number(*done, 2) - number(*done, 1) + 1;
        result.senderCpu = number(*done, 3);
        result.senderLate = number(*done, 4);
        // What is still on its way arrives before the receivers stop.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        for (auto& receiver : stream.receivers)
            receiver->tell("stop");
        for (auto& receiver : stream.receivers)
        {
            const auto said = receiver->await("result", 10'000);
            if (!said)
            {
                report("a receiver did not report");
                return {};
            }
            result.receivers.push_back(
                {number(*said, 1), number(*said, 4), number(*said, 5), number(*said, 6), number(*said, 7)});
        }
        stream.sender->tell("quit");
        result.ok = true;
        return result;
    }

    /// Says why a run failed; false.
    static bool report(const char* what)
    {
        std::fprintf(stderr, "run failed: %s\n", what);
        return false;
    }

public:
    /// Receivers that got no frame until their sequence was started again.
    int takeMissedSequences() { return std::exchange(m_missedSequences, 0); }

private:
    std::string m_scratch;
    int m_realtimePriority;
    int m_longestRun; // seconds
    std::string m_bareExtras;
    int m_runs = 0;
    int m_missedSequences = 0;
};

void reportMissedSequences(Bench& bench)
{
    if (const int missed = bench.takeMissedSequences())
        std::printf("%d receiver(s) missed the SequenceInfo and got frames only after the sequence was "
                    "started again\n",
                    missed);
}

// The order of the four runs of repetition `repetition`: A B B A, then B A A B.
std::vector<bool> runOrder(int repetition)
{
    const bool first = repetition % 2 == 0;
    return {first, !first, !first, first};
}

/// Repetition `repetition` of both paths, each run handed to `add`: streaming at the same
/// time (twice, the bare path started first every other time) or in the order of runOrder.
/// False when a run failed.
template <typename Add>
bool runBothPaths(Bench& bench, bool together, int receivers, std::uint64_t frames, int repetition,
                  const Add& add)
{
    if (together)
    {
        for (int run = 0; run < 2; ++run)
        {
            const auto [vrx, bare] = bench.runTogether(receivers, frames, (repetition + run) % 2 == 1);
            if (!vrx.ok || !bare.ok)
                return false;
            add(true, vrx);
            add(false, bare);
        }
        return true;
    }
    for (const bool vrx : runOrder(repetition))
    {
        const RunResult run = bench.runStream(vrx, receivers, frames);
        if (!run.ok)
            return false;
        add(vrx, run);
    }
    return true;
}

int latencyFigures(Bench& bench, const Options& options)
{
    struct Figure
    {
        const char* name;
        const char* target;
        std::vector<double> vrx, bare; // one value per repetition: the mean of two runs
    };
    std::vector<Figure> figures = {
        {"latency p50 [us]", "<= 1.10", {}, {}},
        {"latency p99 [us]", "<= 1.10", {}, {}},
        {"latency max [us]", "", {}, {}},
        {"sender CPU per frame [us]", "<= 1.10", {}, {}},
        {"receiver CPU per frame [us]", "<= 1.10", {}, {}},
    };
    const auto microseconds = [](TimeValue value) { return static_cast<double>(value) / 1000.0; };
    const auto perFrame = [&](TimeValue cpu, const RunResult& run) {
        return run.receivers[0].received == 0
                   ? 0.0
                   : microseconds(cpu) / static_cast<double>(run.receivers[0].received);
    };
    const std::uint64_t frames = static_cast<std::uint64_t>(options.seconds) * 1000;
    std::uint64_t lost[2] = {0, 0}, expected[2] = {0, 0};
    std::vector<double> startups;

    if (options.together)
        std::printf("latency and CPU: %d repetitions of 2 runs in which both paths stream at the same time\n"
                    "(half a period apart), %d s each, 1 receiver each, 1000 frames/s of 1940-byte packets\n",
                    options.repetitions, options.seconds);
    else
        std::printf(
            "latency and CPU: %d repetitions of 4 runs (A B B A, B A A B, ...), %d s each, 1 receiver,\n"
            "1000 frames/s of 1940-byte packets\n",
            options.repetitions, options.seconds);
    std::printf("%-4s %-5s %9s %9s %9s %10s %10s %6s %5s\n", "rep", "path", "p50[us]", "p99[us]", "max[us]",
                "sndCPU[us]", "rcvCPU[us]", "lost", "late");
    // One short run of each path first, not counted: the first runs of a program pay for
    // cold caches and page faults.
    for (const bool vrx : {true, false})
        if (!bench.runStream(vrx, 1, 500).ok)
            return 1;
    for (int repetition = 0; repetition < options.repetitions; ++repetition)
    {
        std::vector<double> sums(figures.size() * 2, 0.0);
        const auto add = [&](bool vrx, const RunResult& run) {
            const ReceiverResult& receiver = run.receivers[0];
            const double values[] = {microseconds(receiver.p50), microseconds(receiver.p99),
                                     microseconds(receiver.max), perFrame(run.senderCpu, run),
                                     perFrame(receiver.cpu, run)};
            for (std::size_t index = 0; index < figures.size(); ++index)
                sums[index * 2 + (vrx ? 0 : 1)] += values[index] / 2;
            lost[vrx ? 0 : 1] += run.lost();
            expected[vrx ? 0 : 1] += run.expected;
            for (const TimeValue startup : run.startups)
                startups.push_back(static_cast<double>(startup) / 1e6);
            std::printf("%-4d %-5s %9.1f %9.1f %9.1f %10.2f %10.2f %6" PRIu64 " %5lu\n", repetition,
                        vrx ? "vrx" : "bare", values[0], values[1], values[2], values[3], values[4],
                        run.lost(), run.senderLate);
            std::fflush(stdout);
        };
        if (!runBothPaths(bench, options.together, 1, frames, repetition, add))
            return 1;
        for (std::size_t index = 0; index < figures.size(); ++index)
        {
            figures[index].vrx.push_back(sums[index * 2]);
            figures[index].bare.push_back(sums[index * 2 + 1]);
        }
    }

    std::printf("\n%-28s %12s %12s %14s %14s  %s\n", "figure", "vrx median", "bare median", "ratio of med.",
                "paired ratio", "target");
    for (const Figure& figure : figures)
    {
        std::vector<double> ratios;
        for (std::size_t index = 0; index < figure.vrx.size(); ++index)
            ratios.push_back(figure.vrx[index] / figure.bare[index]);
        std::printf("%-28s %12.2f %12.2f %14.3f %14.3f  %s\n", figure.name, median(figure.vrx),
                    median(figure.bare), median(figure.vrx) / median(figure.bare), median(ratios),
                    figure.target);
    }
    std::printf("%-28s %12" PRIu64 " %12" PRIu64 "   (of %" PRIu64 " frames each)\n", "frames lost", lost[0],
                lost[1], expected[0]);
    if (!startups.empty())
        std::printf("initializeSender to Running in these runs: median %.2f ms, max %.2f ms\n",
                    median(startups), *std::max_element(startups.begin(), startups.end()));
    reportMissedSequences(bench);
    std::printf("\n");
    return 0;
}

int lossFigures(Bench& bench, const Options& options)
{
    const std::uint64_t frames = static_cast<std::uint64_t>(options.lossSeconds) * 1000;
    if (options.together)
        std::printf("loss: %d s per run, two runs per receiver count in which both paths stream at the same "
                    "time, 1000 frames/s\n",
                    options.lossSeconds);
    else
        std::printf("loss: %d s per run, runs A B B A per receiver count, 1000 frames/s\n",
                    options.lossSeconds);
    std::printf("%-10s %-5s %10s %8s %6s   %s\n", "receivers", "path", "expected", "lost", "late",
                "lost per receiver");
    for (const int receivers : options.lossReceivers)
    {
        std::uint64_t lost[2] = {0, 0}, expected[2] = {0, 0};
        const auto add = [&](bool vrx, const RunResult& run) {
            lost[vrx ? 0 : 1] += run.lost();
            expected[vrx ? 0 : 1] += run.expected * static_cast<std::uint64_t>(receivers);
            std::string each;
            for (const ReceiverResult& receiver : run.receivers)
                each += std::to_string(run.expected - std::min(run.expected, receiver.received)) + " ";
            std::printf("%-10d %-5s %10" PRIu64 " %8" PRIu64 " %6lu   %s\n", receivers, vrx ? "vrx" : "bare",
                        run.expected * static_cast<std::uint64_t>(receivers), run.lost(), run.senderLate,
                        each.c_str());
            std::fflush(stdout);
        };
        if (!runBothPaths(bench, options.together, receivers, frames, 0, add))
            return 1;
        std::printf("%-10d total: vrx lost %" PRIu64 " of %" PRIu64 ", bare lost %" PRIu64 " of %" PRIu64
                    "   (target: vrx <= bare) %s\n",
                    receivers, lost[0], expected[0], lost[1], expected[1],
                    lost[0] <= lost[1] ? "met" : "NOT met");
    }
    reportMissedSequences(bench);
    std::printf("\n");
    return 0;
}

int startupFigures(Bench& bench, const Options& options)
{
    std::vector<double> startups, inits;
    for (int attempt = 0; attempt < options.startups; ++attempt)
    {
        // Spread over the receiver's 400 ms retry period.
        const int waitMs = 100 + (attempt * 137) % 400;
        TimeValue initDuration = 0;
        const std::optional<TimeValue> startup = bench.runStartup(waitMs, initDuration);
        if (!startup)
        {
            std::fprintf(stderr, "start-up %d: the receiver did not reach Running\n", attempt);
            return 1;
        }
        startups.push_back(static_cast<double>(*startup) / 1e6);
        inits.push_back(static_cast<double>(initDuration) / 1e6);
    }
    std::printf("startup: %d times, a receiver waiting 100 to 500 ms before the sender starts\n",
                options.startups);
    std::printf("initializeSender to Running: median %.2f ms, max %.2f ms (target <= 20 ms: %s); "
                "initializeSender itself: median %.2f ms\n",
                median(startups), *std::max_element(startups.begin(), startups.end()),
                *std::max_element(startups.begin(), startups.end()) <= 20.0 ? "met" : "NOT met",
                median(inits));
    return 0;
}

int orchestrate(const Options& options)
{
    const ScratchTmpdir scratch("vrx-bench-receiver");
    // A child that ends early must not take this process with it.
    signal(SIGPIPE, SIG_IGN);

    Bench bench(scratch.path(), options);
    if (!options.bareExtras.empty())
        std::printf("bare receivers add: %s\n\n", options.bareExtras.c_str());
    if (options.realtimePriority > 0)
        std::printf("every process of a run with SCHED_FIFO priority %d\n\n", options.realtimePriority);
    int status = 0;
    if (options.latency)
        status = latencyFigures(bench, options);
    if (status == 0 && options.loss)
        status = lossFigures(bench, options);
    if (status == 0 && options.startup)
        status = startupFigures(bench, options);
    return status;
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
            if (name == "--path")
                role.vrx = std::strcmp(argv[index + 1], "vrx") == 0;
            else if (name == "--address")
                role.address = argv[index + 1];
            else if (name == "--capacity")
                role.capacity = std::strtoull(argv[index + 1], nullptr, 10);
            else if (name == "--extras")
                role.extras = argv[index + 1];
        }
        if (role.role == "sender")
            return runSender(role);
        if (role.role == "receiver")
            return runReceiver(role);
        fail("unknown role");
    }
    return orchestrate(parseOptions(argc, argv));
}
