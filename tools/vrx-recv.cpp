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
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace {

using namespace vrxTools;
using miscUtils::TimeValue;
using State = vrx::Receiver::State;
using ClockType = vrx::Receiver::StreamClockType;

struct Options
{
    std::string address;
    std::string outPath;
    int outMajorFormat = 0; // of the file, or of standard output with --stdout-type
    bool toStdout = false;
    std::string stdoutType; // empty: raw
    bool followFormat = false;
    bool lossy = false;
    bool fillGaps = false;
    double durationSeconds = 0;
    std::uint64_t frameLimit = 0;
    bool exitWithSender = false;
    CommonOptions common;
};

// A receiver also reconnects to a sender that is still there (one that it joined just before
// a sequence began, for instance); a sender is gone when no connection comes back this soon.
constexpr TimeValue senderGoneAfter = 1'000'000'000;

// Exit codes beyond 0, 1 (an error) and 2 (bad arguments).
constexpr int exitFormatChanged = 3;

// ---- Output ------------------------------------------------------------------------------

enum class StopReason
{
    None,
    Signal,
    Duration,
    FrameLimit,
    SenderGone,
    ReaderGone,
    FormatChanged,
    Failed,
};

/// Where the samples go: audio files, standard output (raw, or in a file format libsndfile
/// writes to a pipe), or nowhere. Used by the writer thread while it runs and by the main
/// thread after it has ended, never by both.
class Output
{
public:
    explicit Output(const Options& options) : m_options(options) {}

    /// A sequence begins. In files, another format closes the file and opens the next one.
    /// False, after a message, when the output cannot go on; stopReason() says why.
    bool startSequence(const StreamFormat& format)
    {
        if (m_format == format)
            return true;
        const std::optional<StreamFormat> previous = m_format;
        m_format = format;
        if (!m_options.toStdout)
        {
            close();
            return m_options.outPath.empty() || open(format);
        }
        if (!previous)
        {
            if (!m_options.stdoutType.empty())
                return open(format);
            printNote("writing standard output as raw samples, " + format.describe());
            return true;
        }
        // A reader of standard output was told the first format (aplay -f, a header): it would
        // take the new samples for the old format, as noise.
        if (m_options.followFormat)
        {
            printNote("the format changed; standard output continues in " + format.describe());
            return true;
        }
        return fail(StopReason::FormatChanged,
                    "the format changed from " + previous->describe() + " to " + format.describe() +
                        "; standard output ends here, since its reader would misread the new samples" +
                        (m_options.stdoutType.empty() ? " (--follow-format goes on)" : ""));
    }

    /// Writes the whole sample frames of one frame; false, after a message, when that fails.
    bool write(std::span<const unsigned char> samples)
    {
        if (!m_format)
            return true;
        const std::size_t frameBytes = m_format->frameBytes();
        samples = samples.first(samples.size() / frameBytes * frameBytes);
        if (m_file)
            return writeFile(samples);
        if (m_options.toStdout)
            return writeRaw(samples);
        return true;
    }

    /// Writes silence for `nanoseconds` of stream that were lost.
    bool writeSilence(std::uint64_t nanoseconds)
    {
        if (!m_format)
            return true;
        const std::size_t frameBytes = m_format->frameBytes();
        const auto frames = static_cast<std::size_t>(
            std::llround(static_cast<double>(nanoseconds) * m_format->sampleRate / 1e9));
        // Silence in the wire format: 0, or half the range for unsigned samples.
        constexpr std::size_t chunkFrames = 4096;
        if (m_silenceFormat != m_format)
        {
            m_silence.resize(chunkFrames * frameBytes);
            const audioUtils::PcmFormat sampleFormat = m_format->sampleFormat;
            const std::size_t width = audioUtils::getBytesPerSample(sampleFormat);
            for (std::size_t offset = 0; offset < m_silence.size(); offset += width)
                isFloatFormat(sampleFormat) ? writeFloatSample(0, sampleFormat, m_silence.data() + offset)
                                            : writeIntSample(0, sampleFormat, m_silence.data() + offset);
            m_silenceFormat = m_format;
        }
        for (std::size_t left = frames; left > 0;)
        {
            const std::size_t now = std::min(left, chunkFrames);
            if (!write(std::span(m_silence).first(now * frameBytes)))
                return false;
            left -= now;
        }
        return true;
    }

    /// Closes the file, which writes its final header.
    void close() { m_file.reset(); }

    StopReason stopReason() const { return m_stopReason; }
    const std::vector<std::string>& files() const { return m_files; }

private:
    bool fail(StopReason reason, const std::string& message)
    {
        m_stopReason = reason;
        if (!message.empty())
            printNote(message);
        return false;
    }

    /// Opens the next file, or standard output in a file format.
    bool open(const StreamFormat& format)
    {
        const bool toStdout = m_options.toStdout;
        const std::string name =
            toStdout ? "standard output"
                     : printable(m_files.empty() ? m_options.outPath : numberedPath(m_files.size()));
        const FileFormat chosen = chooseFileFormat(m_options.outMajorFormat, format);
        if (chosen.format == 0)
            return fail(StopReason::Failed, "cannot write " + format.describe() + " to " + name + ": " +
                                                describeFileFormat(m_options.outMajorFormat) +
                                                " has no room for it");
        if (!chosen.keepsEverySample && !m_options.lossy)
            return fail(StopReason::Failed, "cannot keep every sample of " + format.describe() + " in " +
                                                describeFileFormat(m_options.outMajorFormat) + " (" + name +
                                                "); .wav keeps them, and --lossy accepts " +
                                                describeFileFormat(chosen.format));
        SF_INFO info{};
        info.samplerate = static_cast<int>(format.sampleRate);
        info.channels = static_cast<int>(format.channels);
        info.format = chosen.format;
        const std::string path = m_files.empty() ? m_options.outPath : numberedPath(m_files.size());
        m_file.reset(toStdout ? sf_open_fd(STDOUT_FILENO, SFM_WRITE, &info, SF_FALSE)
                              : sf_open(path.c_str(), SFM_WRITE, &info));
        if (!m_file)
            return fail(StopReason::Failed, "cannot write " + name + ": " + sf_strerror(nullptr));
        if (!toStdout)
            m_files.push_back(path);
        printNote("writing " + name + " as " + describeFileFormat(chosen.format) +
                  (chosen.keepsEverySample ? "" : " (lossy)") + ", " + format.describe());
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
        errno = 0;
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
        if (m_options.toStdout && errno == EPIPE)
            return fail(StopReason::ReaderGone, "");
        return fail(StopReason::Failed,
                    "cannot write " +
                        (m_options.toStdout ? std::string("standard output") : printable(m_files.back())) +
                        ": " + sf_strerror(m_file.get()));
    }

    bool writeRaw(std::span<const unsigned char> samples)
    {
        while (!samples.empty())
        {
            const ssize_t written = ::write(STDOUT_FILENO, samples.data(), samples.size());
            if (written < 0 && errno == EINTR)
                continue;
            if (written <= 0 && errno == EPIPE)
                return fail(StopReason::ReaderGone, "");
            if (written <= 0)
                return fail(StopReason::Failed,
                            "cannot write to standard output: " + miscUtils::strerror_r_safe(errno));
            samples = samples.subspan(static_cast<std::size_t>(written));
        }
        return true;
    }

    const Options& m_options;
    std::optional<StreamFormat> m_format;
    SoundFile m_file; // a file, or standard output in a file format
    std::vector<std::string> m_files;
    std::vector<int> m_ints;
    std::vector<float> m_floats;
    std::vector<unsigned char> m_silence;
    std::optional<StreamFormat> m_silenceFormat; // of what m_silence holds
    StopReason m_stopReason = StopReason::None;
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
    using FailureCallback = std::function<void(StopReason)>;

    Writer(Output& output, FailureCallback onFailure)
        : m_output(output), m_onFailure(std::move(onFailure)), m_thread(&Writer::run, this)
    {}
    ~Writer() { finish(); }

    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    void startSequence(const StreamFormat& format) { push(format, {}, 0); }
    void write(std::span<const unsigned char> samples) { push(std::nullopt, samples, 0); }
    void writeSilence(std::uint64_t nanoseconds) { push(std::nullopt, {}, nanoseconds); }

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
        std::optional<StreamFormat> sequence; // else samples, or silence when that is not 0
        vrx::Buffer samples;
        std::uint64_t silenceNs;
    };

    void push(std::optional<StreamFormat> sequence, std::span<const unsigned char> samples,
              std::uint64_t silenceNs)
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
        m_items.push_back({sequence, std::move(buffer), silenceNs});
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
            if (!failed && !(item.sequence    ? m_output.startSequence(*item.sequence)
                             : item.silenceNs ? m_output.writeSilence(item.silenceNs)
                                              : m_output.write(item.samples)))
            {
                failed = true;
                m_onFailure(m_output.stopReason());
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
          m_writer(m_output, [this](StopReason reason) { stop(reason); }),
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
        // Reconnecting: what the stream loses until the next frame is a gap like any other.
        m_clock = ClockType::Undetermined;
        m_connectionClock = ClockType::Undetermined;
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
        // Timestamps of a sender on another clock are on another time base: no gap to measure.
        if (m_connectionClock == ClockType::Undetermined)
        {
            m_connectionClock = m_receiver.getStreamClockType();
            if (m_previousClock != ClockType::Undetermined && m_connectionClock != m_previousClock)
                m_stats.restartContinuity();
            m_previousClock = m_connectionClock;
        }
        const TimeValue lost = m_stats.addFrame(timestamp, duration, data, now(), latency);
        if (m_writes && lost > 0 && m_options.fillGaps)
            m_writer.writeSilence(lost);
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
    bool m_wasRunning = false;                             // receiver thread
    ClockType m_connectionClock = ClockType::Undetermined; // receiver thread: of this connection
    ClockType m_previousClock = ClockType::Undetermined;   // receiver thread: of the last one with frames
    std::atomic<TimeValue> m_reconnectingSince{0};         // 0 while running or before the first connection
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
        reason = "after " + describeSeconds(std::llround(options.durationSeconds * 1e9)) + " of stream time";
        break;
    case StopReason::FrameLimit: reason = "after " + std::to_string(options.frameLimit) + " frames"; break;
    case StopReason::SenderGone: reason = "when the sender went away"; break;
    case StopReason::ReaderGone: reason = "when standard output was closed"; break;
    case StopReason::FormatChanged: reason = "at a change of format on standard output"; break;
    case StopReason::Failed: reason = "on an error"; break;
    case StopReason::Signal:
    case StopReason::None: reason = "on a signal"; break;
    }
    if (snapshot.frames == 0)
        return "stopped " + reason + "; nothing arrived from " + printable(options.address);
    std::string files;
    for (const std::string& file : recording.output().files())
        files += (files.empty() ? "" : ", ") + printable(file);
    const ClockType clock = recording.lastClock();
    const auto row = [](const char* label, const std::string& value) {
        return "\n  " + std::string(label) + std::string(10 - std::strlen(label), ' ') + value;
    };
    return "stopped " + reason +
           row("frames", std::to_string(snapshot.frames) + " (" + describeSeconds(snapshot.streamNs) +
                             ") in " + std::to_string(snapshot.sequences) +
                             (snapshot.sequences == 1 ? " sequence" : " sequences")) +
           row("format", snapshot.format->describe()) +
           row("gaps", describeGaps(snapshot) +
                           (options.fillGaps && snapshot.gaps > 0 ? ", filled with silence" : "")) +
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
                       "au, caf, w64, ... anything libsndfile writes), keeping every sample: a format that "
                       "cannot (.ogg, .mp3, or 32-bit and float samples in .flac, which keeps 24 bits) is "
                       "refused unless --lossy is given. A sequence of another format closes the file and "
                       "opens FILE-1.ext, then FILE-2.ext, ... Example: --out capture.wav")
            ->type_name("FILE");
    auto* toStdout =
        app.add_flag("--stdout", options.toStdout,
                     "Write the samples raw to standard output, as the sender sent them (the format is "
                     "noted on stderr). At a change of format standard output ends, with exit status 3, "
                     "unless --follow-format is given. Example: vrx-recv --stdout my-audio | aplay -f "
                     "S16_LE -r 48000 -c 2");
    app.add_option("--stdout-type", options.stdoutType,
                   "Write standard output as TYPE: raw (the samples as sent, the default), or an audio file "
                   "format libsndfile writes to a pipe: au or flac, whose header names rate, channels and "
                   "sample format, so that the reader needs no options. Implies --stdout. Example: "
                   "vrx-recv --stdout-type au my-audio | aplay")
        ->type_name("TYPE")
        ->excludes(out);
    app.add_flag("--follow-format", options.followFormat,
                 "With raw --stdout: go on after a change of format, in the new format (noted on stderr), "
                 "for readers that follow it.")
        ->excludes(out);
    out->excludes(toStdout);
    app.add_flag("--lossy", options.lossy,
                 "Accept a file format that does not keep every sample: a lossy one (.ogg, .mp3) or a "
                 "narrower one (32-bit or float samples into .flac).");
    app.add_flag("--fill-gaps", options.fillGaps,
                 "Write silence for every stretch the stream lost (a gap in the frame timestamps, a "
                 "sender that was away), so that the recording keeps the stream's length in time.");
    app.add_option("-d,--duration", options.durationSeconds,
                   "Stop after SECONDS of stream time: once frame timestamps have advanced SECONDS past the "
                   "first frame that arrived. Gaps count (the summary says what they lost); with --fill-gaps "
                   "the recording then lasts SECONDS. Example: --duration 3")
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
        R"(Without --out or --stdout, vrx-recv only shows the stream. Ctrl-C (SIGINT), SIGTERM or SIGHUP
stops it cleanly: the file's header is finalised. A summary of what arrived goes to stderr at the
end, with the gaps (breaks in timestamp continuity, also across a sender's restart) and what they
lost. On a terminal a status line shows state, format, frames, gaps, peak level per channel and, on
clocks this host shares, latency (now - timestamp) over the last second. Receivers watch $TMPDIR
(default /tmp/vrx) for senders; vrx-recv creates it when it is missing.

Exit status: 0 when stopped as asked, 1 on an error, 2 on bad arguments, 3 when standard output
ended at a change of format.

Examples:
  # Three seconds of stream into a file:
  vrx-recv --duration 3 --out demo.wav my-audio
  # A minute by the clock, lost stretches filled with silence:
  vrx-recv --duration 60 --fill-gaps --out minute.flac my-audio
  # Listen (the format as vrx-recv notes it on stderr), or let a header tell the reader:
  vrx-recv --stdout my-audio | aplay -f S16_LE -r 48000 -c 2
  vrx-recv --stdout-type au my-audio | aplay
  # Watch the stream's status only:
  vrx-recv my-audio)");
}

/// Why a file can never be created at `path`, or "".
std::string checkWritablePath(const std::string& path)
{
    struct stat status
    {};
    if (stat(path.c_str(), &status) == 0)
    {
        if (S_ISDIR(status.st_mode))
            return "it is a directory";
        return access(path.c_str(), W_OK) == 0 ? "" : miscUtils::strerror_r_safe(errno);
    }
    if (errno != ENOENT)
        return miscUtils::strerror_r_safe(errno);
    const std::size_t slash = path.find_last_of('/');
    const std::string directory = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    return access(directory.c_str(), W_OK | X_OK) == 0 ? "" : miscUtils::strerror_r_safe(errno);
}

/// Checks --out and --stdout-type before anything is created, and finds their file format;
/// a message when they cannot work.
std::string checkOutput(Options& options)
{
    std::string option = "--out";
    if (options.stdoutType == "raw")
    {
        options.stdoutType.clear();
        options.toStdout = true;
    }
    if (options.followFormat && (!options.toStdout || !options.stdoutType.empty()))
        return "--follow-format goes with raw standard output (--stdout): a file has one format";
    if (!options.stdoutType.empty())
    {
        option = "--stdout-type";
        options.toStdout = true;
        options.outMajorFormat = majorFormatForPath("." + options.stdoutType);
        if (options.outMajorFormat == 0)
            return "--stdout-type: unknown type " + printable(options.stdoutType) + "; use one of " +
                   writableExtensions();
        if (!writesToPipe(options.outMajorFormat))
            return "--stdout-type: libsndfile cannot write " + describeFileFormat(options.outMajorFormat) +
                   " to a pipe; au and flac it can";
    }
    else if (!options.outPath.empty())
    {
        options.outMajorFormat = majorFormatForPath(options.outPath);
        if (options.outMajorFormat == 0)
            return "--out: cannot tell a file format from " + printable(options.outPath) +
                   "; use one of the extensions " + writableExtensions();
        if (const std::string problem = checkWritablePath(options.outPath); !problem.empty())
            return "--out: cannot write " + printable(options.outPath) + ": " + problem;
    }
    else
        return {};
    const std::string problem = refuseFileFormat(options.outMajorFormat, options.lossy);
    return problem.empty() ? "" : option + ": " + problem;
}

int run(const Options& options, SignalDescriptor& signals)
{
    configureLogging(options.common);
    if (!ensureSenderParentDirectory())
        return 1;

    vrx::PcmDepayloader depayloader; // outlives the receiver
    vrx::Receiver receiver;
    receiver.addDepayloader(depayloader);
    receiver.setAccessPolicy(options.common.allow);
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
    // An output that failed before it made a file (one that refused the stream) said why in one
    // line; frames that came meanwhile were not written, so there is nothing to sum up.
    if (recording.stopReason() != StopReason::Failed || !recording.output().files().empty())
        printNote(summaryText(recording, options));
    switch (recording.stopReason())
    {
    case StopReason::Failed: return 1;
    case StopReason::FormatChanged: return exitFormatChanged;
    default: return 0;
    }
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
    if (const std::string problem = checkOutput(options); !problem.empty())
    {
        printNote(problem + " (see --help)");
        return 2;
    }
    return run(options, signals);
}
