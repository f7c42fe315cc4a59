// vrx-recv: runs a vrx::Receiver with the PCM depayloader and writes what arrives to audio
// files (a new file for each change of format) or raw to standard output, until a duration, a
// number of frames, the sender's exit or a signal ends it.
//
// Frames and sequences arrive on the receiver's thread, which counts them and queues them for
// a writer thread, so that a slow disk never holds up reception. The main thread waits for
// signals and for the end, shows the status line, and after the receiver has stopped lets the
// writer finish and closes the file, which finalises its header.

#include "PcmSamples.h"
#include "SoundFiles.h"
#include "StreamStats.h"
#include "ToolSupport.h"

#include <miscutils/MiscUtils.h>
#include <voraxis/VrxReceiver.h>

#include <log4cplus/initializer.h>

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <cmath>
#include <cstring>

namespace {

using namespace vrxTools;
using miscUtils::TimeValue;
using State = vrx::Receiver::State;
using ClockType = vrx::Receiver::StreamClockType;

struct Options
{
    std::string address;
    std::string outPath;
    int outMajorFormat = 0;
    bool toStdout = false;
    double durationSeconds = 0;
    std::uint64_t frameLimit = 0;
    bool exitWithSender = false;
    CommonOptions common;
};

// A receiver also reconnects to a sender that is still there (one that it joined just before
// a sequence began, for instance); a sender is gone when no connection comes back this soon.
constexpr TimeValue senderGoneAfter = 1'000'000'000;

// ---- Output ------------------------------------------------------------------------------

enum class StopReason
{
    None,
    Signal,
    Duration,
    FrameLimit,
    SenderGone,
    ReaderGone,
    Failed,
};

/// Where the samples go: audio files, raw standard output, or nowhere. Used by the writer
/// thread while it runs and by the main thread after it has ended, never by both.
class Output
{
public:
    explicit Output(const Options& options) : m_options(options) {}

    /// A sequence begins. In files, another format closes the file and opens the next one;
    /// false, after a message, when that fails.
    bool startSequence(const StreamFormat& format)
    {
        const bool changed = m_format && *m_format != format;
        if (m_format == format)
            return true;
        m_format = format;
        if (m_options.toStdout)
        {
            printNote(std::string(changed ? "the format changed; standard output continues in " : "raw ") +
                      format.describe() + (changed ? "" : " on standard output"));
            return true;
        }
        if (m_options.outPath.empty())
            return true;
        close();
        return open(format);
    }

    /// Writes the whole sample frames of one frame; false, after a message, when that fails.
    /// A reader that went away (EPIPE) ends the output quietly and readerGone() tells.
    bool write(std::span<const unsigned char> samples)
    {
        if (!m_format)
            return true;
        const std::size_t frameBytes = m_format->frameBytes();
        samples = samples.first(samples.size() / frameBytes * frameBytes);
        if (m_options.toStdout)
            return writeRaw(samples);
        if (m_file)
            return writeFile(samples);
        return true;
    }

    /// Closes the file, which writes its final header.
    void close() { m_file.reset(); }

    bool readerGone() const { return m_readerGone; }
    const std::vector<std::string>& files() const { return m_files; }

private:
    bool open(const StreamFormat& format)
    {
        const std::string path = m_files.empty() ? m_options.outPath : numberedPath(m_files.size());
        SF_INFO info{};
        info.samplerate = static_cast<int>(format.sampleRate);
        info.channels = static_cast<int>(format.channels);
        info.format = fileFormatFor(m_options.outMajorFormat, format);
        if (info.format == 0)
        {
            printNote("cannot write " + format.describe() + " into '" + path +
                      "': its file format has no room for it");
            return false;
        }
        m_file.reset(sf_open(path.c_str(), SFM_WRITE, &info));
        if (!m_file)
        {
            printNote("cannot write '" + path + "': " + sf_strerror(nullptr));
            return false;
        }
        m_files.push_back(path);
        printNote("writing " + path + " (" + format.describe() + ")");
        return true;
    }

    /// out.wav, then out-1.wav, out-2.wav, ...
    std::string numberedPath(std::size_t number) const
    {
        const std::string& path = m_options.outPath;
        const std::size_t dot = path.find_last_of('.');
        return path.substr(0, dot) + "-" + std::to_string(number) + path.substr(dot);
    }

    bool writeFile(std::span<const unsigned char> samples)
    {
        // libsndfile takes full-scale ints or floats and converts them into the file's format.
        const audioUtils::PcmFormat format = m_format->sampleFormat;
        const std::size_t width = audioUtils::getBytesPerSample(format);
        const std::size_t count = samples.size() / width;
        const auto frames = static_cast<sf_count_t>(count / m_format->channels);
        sf_count_t written = 0;
        if (isFloatFormat(format))
        {
            m_floats.resize(count);
            for (std::size_t i = 0; i < count; ++i)
                m_floats[i] = readFloatSample(samples.data() + i * width, format);
            written = sf_writef_float(m_file.get(), m_floats.data(), frames);
        }
        else
        {
            m_ints.resize(count);
            for (std::size_t i = 0; i < count; ++i)
                m_ints[i] = readIntSample(samples.data() + i * width, format);
            written = sf_writef_int(m_file.get(), m_ints.data(), frames);
        }
        if (written == frames)
            return true;
        printNote("cannot write '" + m_files.back() + "': " + sf_strerror(m_file.get()));
        return false;
    }

    bool writeRaw(std::span<const unsigned char> samples)
    {
        while (!samples.empty())
        {
            const ssize_t written = ::write(STDOUT_FILENO, samples.data(), samples.size());
            if (written < 0 && errno == EINTR)
                continue;
            if (written <= 0)
            {
                m_readerGone = errno == EPIPE;
                if (!m_readerGone)
                    printNote("cannot write to standard output: " + miscUtils::strerror_r_safe(errno));
                return false;
            }
            samples = samples.subspan(static_cast<std::size_t>(written));
        }
        return true;
    }

    const Options& m_options;
    std::optional<StreamFormat> m_format;
    SoundFile m_file;
    std::vector<std::string> m_files;
    std::vector<int> m_ints;
    std::vector<float> m_floats;
    bool m_readerGone = false;
};

// ---- Writer thread ---------------------------------------------------------------------

/// Runs the output on a thread of its own, so that a slow disk or pipe never holds up the
/// receiver thread: the data channel holds about one frame, and a receiver that falls further
/// behind loses frames. Up to 64 MiB wait to be written; beyond that, frames are dropped and
/// counted. Sample buffers are reused.
class Writer
{
public:
    /// Called once, on the writer thread, when the output fails; then nothing more is written.
    using FailureCallback = std::function<void(bool readerGone)>;

    Writer(Output& output, FailureCallback onFailure)
        : m_output(output), m_onFailure(std::move(onFailure)), m_thread(&Writer::run, this)
    {}
    ~Writer() { finish(); }

    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    void startSequence(const StreamFormat& format) { push(format, {}); }
    void write(std::span<const unsigned char> samples) { push(std::nullopt, samples); }

    /// Writes everything queued, then ends the thread.
    void finish()
    {
        {
            std::lock_guard lock(m_mutex);
            m_finishing = true;
        }
        m_wake.notify_one();
        if (m_thread.joinable())
            m_thread.join();
    }

    std::uint64_t droppedFrames() const
    {
        std::lock_guard lock(m_mutex);
        return m_dropped;
    }

private:
    static constexpr std::size_t maxQueuedBytes = 64 << 20;

    struct Item
    {
        std::optional<StreamFormat> sequence; // else samples
        vrx::Buffer samples;
    };

    void push(std::optional<StreamFormat> sequence, std::span<const unsigned char> samples)
    {
        std::lock_guard lock(m_mutex);
        if (m_queuedBytes + samples.size() > maxQueuedBytes)
        {
            ++m_dropped;
            return;
        }
        vrx::Buffer buffer;
        if (!m_spareBuffers.empty())
        {
            buffer = std::move(m_spareBuffers.back());
            m_spareBuffers.pop_back();
        }
        buffer.assign(samples.begin(), samples.end());
        m_queuedBytes += buffer.size();
        m_items.push_back({sequence, std::move(buffer)});
        m_wake.notify_one();
    }

    void run()
    {
        bool failed = false;
        std::unique_lock lock(m_mutex);
        for (;;)
        {
            m_wake.wait(lock, [this] { return !m_items.empty() || m_finishing; });
            if (m_items.empty())
                return;
            Item item = std::move(m_items.front());
            m_items.pop_front();
            m_queuedBytes -= item.samples.size();
            lock.unlock();
            if (!failed &&
                !(item.sequence ? m_output.startSequence(*item.sequence) : m_output.write(item.samples)))
            {
                failed = true;
                m_onFailure(m_output.readerGone());
            }
            lock.lock();
            m_spareBuffers.push_back(std::move(item.samples));
        }
    }

    Output& m_output;
    FailureCallback m_onFailure;
    mutable std::mutex m_mutex; // guards everything below but the thread
    std::condition_variable m_wake;
    std::deque<Item> m_items;
    std::vector<vrx::Buffer> m_spareBuffers;
    std::size_t m_queuedBytes = 0;
    std::uint64_t m_dropped = 0;
    bool m_finishing = false;
    std::thread m_thread; // last: it starts running in the constructor
};

// ---- Receiving ---------------------------------------------------------------------------

/// The receiver's callbacks: statistics, output and the stop conditions. Everything but the
/// first state change runs on the receiver's thread (readiness may come on the clock's); the
/// output is written on the writer's.
class Recording
{
public:
    Recording(const Options& options, vrx::Receiver& receiver, vrx::PcmDepayloader& depayloader,
              bool measurePeaks)
        : m_options(options),
          m_receiver(receiver),
          m_depayloader(depayloader),
          m_output(options),
          m_writer(
              m_output,
              [this](bool readerGone) { stop(readerGone ? StopReason::ReaderGone : StopReason::Failed); }),
          m_stats(measurePeaks)
    {
        receiver.setStateChangedCallback([this](State state) { onStateChanged(state); });
        receiver.setReceiverIsReadyCallback([this](vrx::Depayloader&, ClockType clock) { m_clock = clock; });
        receiver.setConnectionAttemptFailedCallback([this] {
            printNote("cannot open the data channel of " + printable(m_options.address) +
                      " (a pipeline sender takes one receiver only; --log-level debug shows why)");
            stop(StopReason::Failed);
        });
        receiver.setNewSequenceCallback([this](vrx::Depayloader&) { onNewSequence(); });
        receiver.setMediaDataCallback(
            [this](unsigned long long timestamp, unsigned long long duration,
                   const std::vector<unsigned char>& data) { onFrame(timestamp, duration, data); });
    }

    void stop(StopReason reason)
    {
        StopReason none = StopReason::None;
        if (m_stopReason.compare_exchange_strong(none, reason))
            m_stopped.notify();
    }

    /// With --exit-with-sender, stops once the receiver has been reconnecting for long enough.
    void checkSenderGone(TimeValue time)
    {
        const TimeValue since = m_reconnectingSince;
        if (m_options.exitWithSender && since != 0 && time - since >= senderGoneAfter)
            stop(StopReason::SenderGone);
    }

    int stoppedFD() const { return m_stopped.fd(); }
    StopReason stopReason() const { return m_stopReason; }
    State state() const { return m_state; }
    ClockType lastClock() const { return m_lastClock; }
    StreamStats& stats() { return m_stats; }
    const Output& output() const { return m_output; }
    std::uint64_t droppedByOutput() const { return m_writer.droppedFrames(); }

    /// After the receiver has stopped: writes what waits, then closes the file.
    void finishOutput()
    {
        m_writer.finish();
        m_output.close();
    }

private:
    void onStateChanged(State state)
    {
        m_state = state;
        if (state == State::Running)
        {
            m_wasRunning = true;
            m_reconnectingSince = 0;
        }
        if (state != State::Connecting)
            return;
        // Reconnecting: the next frame may come after a pause that is no gap in the stream.
        m_stats.restartContinuity();
        m_clock = ClockType::Undetermined;
        if (m_wasRunning)
            m_reconnectingSince = now();
    }

    void onNewSequence()
    {
        const StreamFormat format{m_depayloader.getSampleRate(), m_depayloader.getNumChannels(),
                                  m_depayloader.getSampleFormat()};
        m_stats.startSequence(format);
        if (m_writes)
            m_writer.startSequence(format);
    }

    void onFrame(TimeValue timestamp, TimeValue duration, const std::vector<unsigned char>& data)
    {
        if (m_stopReason != StopReason::None)
            return;
        // Latency is meaningful on the clocks that this host can read as the sender does.
        const ClockType clock = m_clock;
        std::optional<std::int64_t> latency;
        if (clock == ClockType::MonotonicSystemClock || clock == ClockType::SyncedNetClock)
        {
            latency = static_cast<std::int64_t>(m_receiver.getCurrentStreamTime() - timestamp);
            m_lastClock = clock;
        }
        m_stats.addFrame(timestamp, duration, data, now(), latency);
        if (m_writes)
            m_writer.write(data);
        ++m_frames;
        if (!m_firstTimestamp)
            m_firstTimestamp = timestamp;
        if (m_options.frameLimit != 0 && m_frames >= m_options.frameLimit)
            stop(StopReason::FrameLimit);
        else if (m_durationNs > 0 &&
                 static_cast<std::int64_t>(timestamp + duration - *m_firstTimestamp) >= m_durationNs)
            stop(StopReason::Duration);
    }

    const Options& m_options;
    // Without a file or standard output the frames go nowhere: the writer is left idle.
    const bool m_writes = m_options.toStdout || !m_options.outPath.empty();
    const std::int64_t m_durationNs = std::llround(m_options.durationSeconds * 1e9);
    vrx::Receiver& m_receiver;
    vrx::PcmDepayloader& m_depayloader;
    Output m_output;
    Writer m_writer; // after the output, which it uses until it is destroyed
    StreamStats m_stats;
    WakeUpEvent m_stopped;
    std::atomic<StopReason> m_stopReason{StopReason::None};
    std::atomic<State> m_state{State::Idle};
    std::atomic<ClockType> m_clock{ClockType::Undetermined};
    std::atomic<ClockType> m_lastClock{ClockType::Undetermined};
    bool m_wasRunning = false;                     // receiver thread
    std::atomic<TimeValue> m_reconnectingSince{0}; // 0 while running or before the first connection
    std::uint64_t m_frames = 0;
    std::optional<TimeValue> m_firstTimestamp;
};

/// The status line's fields, the most important first: the line drops them from the right.
std::vector<std::string> statusFields(Recording& recording, const std::string& address)
{
    const StreamSnapshot snapshot = recording.stats().snapshot(now());
    if (recording.state() != State::Running)
        return {"connecting to " + printable(address), std::to_string(snapshot.frames) + " frames"};
    return {"running",
            snapshot.format ? snapshot.format->describe() : "no sequence yet",
            std::to_string(snapshot.frames) + " frames (" + describeSeconds(snapshot.streamNs) + ")",
            std::to_string(snapshot.gaps) + " gaps",
            "peak " + describePeaks(snapshot.peaks),
            "latency " + describeLatency(snapshot.recentLatency)};
}

std::string summaryText(Recording& recording, const Options& options)
{
    const StreamSnapshot snapshot = recording.stats().snapshot(now());
    std::string reason;
    switch (recording.stopReason())
    {
    case StopReason::Duration:
        reason = "after " + describeSeconds(std::llround(options.durationSeconds * 1e9)) + " of stream";
        break;
    case StopReason::FrameLimit: reason = "after " + std::to_string(options.frameLimit) + " frames"; break;
    case StopReason::SenderGone: reason = "when the sender went away"; break;
    case StopReason::ReaderGone: reason = "when standard output was closed"; break;
    case StopReason::Failed: reason = "on an error"; break;
    case StopReason::Signal:
    case StopReason::None: reason = "on a signal"; break;
    }
    if (snapshot.frames == 0)
        return "stopped " + reason + "; nothing arrived from " + printable(options.address);
    std::string files;
    for (const std::string& file : recording.output().files())
        files += (files.empty() ? "" : ", ") + file;
    const ClockType clock = recording.lastClock();
    const auto row = [](const char* label, const std::string& value) {
        return "\n  " + std::string(label) + std::string(10 - std::strlen(label), ' ') + value;
    };
    return "stopped " + reason +
           row("frames", std::to_string(snapshot.frames) + " (" + describeSeconds(snapshot.streamNs) +
                             ") in " + std::to_string(snapshot.sequences) +
                             (snapshot.sequences == 1 ? " sequence" : " sequences")) +
           row("format", snapshot.format->describe()) + row("gaps", std::to_string(snapshot.gaps)) +
           row("latency", describeLatency(snapshot.overallLatency) +
                              (clock == ClockType::Undetermined
                                   ? ""
                                   : std::string(" (now - timestamp, ") + vrx::toString(clock) + ")")) +
           (files.empty() ? "" : row(recording.output().files().size() > 1 ? "files" : "file", files)) +
           (recording.droppedByOutput() == 0 ? ""
                                             : row("dropped", std::to_string(recording.droppedByOutput()) +
                                                                  " frames the output could not take"));
}

void describeOptions(CLI::App& app, Options& options)
{
    addAddressArgument(
        app, options.address,
        "Sidechannel address of the sender to follow (as given to vrx-send). vrx-recv waits for it "
        "and follows it again when it comes back. Example: vrx-recv my-audio");
    auto* out =
        app.add_option("-o,--out", options.outPath,
                       "Write what arrives to FILE, in the format its extension names (wav, flac, aiff, "
                       "au, caf, w64, ... anything libsndfile writes), keeping every sample. A sequence of "
                       "another format closes the file and opens FILE-1.ext, then FILE-2.ext, ... Example: "
                       "--out capture.wav")
            ->type_name("FILE");
    auto* toStdout =
        app.add_flag("--stdout", options.toStdout,
                     "Write the samples raw to standard output, as the sender sent them (the format "
                     "is noted on stderr). Example: vrx-recv --stdout my-audio | aplay -f S16_LE -r "
                     "48000 -c 2");
    out->excludes(toStdout);
    app.add_option(
           "-d,--duration", options.durationSeconds,
           "Stop after SECONDS of stream, counted by frame timestamps from the first frame that arrives. "
           "Example: --duration 3")
        ->type_name("SECONDS")
        ->check(positiveNumber());
    app.add_option("-n,--frames", options.frameLimit, "Stop after N frames. Example: --frames 100")
        ->type_name("N")
        ->check(wholeNumberIn(1, 1'000'000'000'000));
    app.add_flag(
        "--exit-with-sender", options.exitWithSender,
        "Stop when the sender goes away (after what it sent has arrived; no sender to reconnect to for a "
        "second) instead of waiting for it to come back.");
    addCommonOptions(app, options.common);
    app.footer(
        R"(Without --out or --stdout, vrx-recv only shows the stream. Ctrl-C (SIGINT) or SIGTERM stops it
cleanly: the file's header is finalised. A summary of what arrived goes to stderr at the end. On a
terminal a status line shows state, format, frames, gaps (breaks in timestamp continuity), peak
level per channel and, on clocks this host shares, latency (now - timestamp) over the last second.
Receivers watch $TMPDIR (default /tmp/vrx) for senders; vrx-recv creates it when it is missing.

Examples:
  vrx-recv --duration 3 --out demo.wav my-audio
  vrx-recv --stdout my-audio | aplay -f S16_LE -r 48000 -c 2
  vrx-recv my-audio                                   watch the stream's status only)");
}

int run(const Options& options, SignalDescriptor& signals)
{
    configureLogging(options.common);
    if (!ensureSenderParentDirectory())
        return 1;

    vrx::PcmDepayloader depayloader; // outlives the receiver
    vrx::Receiver receiver;
    receiver.addDepayloader(depayloader);
    StatusLine status;
    Recording recording(options, receiver, depayloader, status.enabled());
    if (!receiver.initializeReceiver(options.address))
    {
        printNote("cannot start a receiver (--log-level debug shows why)");
        return 1;
    }

    while (recording.stopReason() == StopReason::None)
    {
        pollfd fds[2] = {{signals.fd(), POLLIN, 0}, {recording.stoppedFD(), POLLIN, 0}};
        if (poll(fds, 2, 250) > 0 && fds[0].revents != 0)
            recording.stop(StopReason::Signal);
        recording.checkSenderGone(now());
        if (status.due(now()))
            status.show(statusFields(recording, options.address));
    }
    receiver.shutdownReceiver(); // after it, no callback queues output any more
    recording.finishOutput();
    status.clear();
    printNote(summaryText(recording, options));
    return recording.stopReason() == StopReason::Failed ? 1 : 0;
}

} // namespace

int main(int argc, char** argv)
{
    SignalDescriptor signals; // first: every thread started later inherits the blocked signals
    setProgramName("vrx-recv");
    log4cplus::Initializer logging;

    CLI::App app{"vrx-recv: receive the stream of the sender at ADDRESS into a file or standard output.",
                 "vrx-recv"};
    Options options;
    describeOptions(app, options);
    if (const int exitCode = parseCommandLine(app, argc, argv); exitCode >= 0)
        return exitCode;
    if (!options.outPath.empty())
    {
        options.outMajorFormat = majorFormatForPath(options.outPath);
        if (options.outMajorFormat == 0)
        {
            printNote("--out: cannot tell a file format from '" + options.outPath +
                      "'; use one of the extensions " + writableExtensions());
            return 2;
        }
    }
    return run(options, signals);
}
