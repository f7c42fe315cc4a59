// vrx-send: runs a vrx::Sender and streams audio to its receivers in real time: a generated
// tone, audio files, or raw PCM from standard input.
//
// A producer thread paces the frames by absolute deadlines on the monotonic clock (frame
// starts at first deadline + samples so far / rate, so nothing drifts) and stamps each frame
// with its deadline. The main thread waits for signals, shows the status line, and wakes a
// send that the channel holds up longer than two frames, so that no receiver can stall the
// producer.

#include "PcmSamples.h"
#include "SoundFiles.h"
#include "StreamStats.h"
#include "ToolSupport.h"

#include <miscutils/MiscUtils.h>
#include <miscutils/SyncedNetClock.h>
#include <voraxis/SideChannel.h>
#include <voraxis/VrxSender.h>

#include <log4cplus/initializer.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <numbers>
#include <thread>

namespace {

using namespace vrxTools;
using audioUtils::PcmFormat;
using miscUtils::TimeValue;

constexpr TimeValue oneSecond = 1'000'000'000;
// After the last frame the channel stays open this long, so that receivers get the tail
// before the sender goes (nanomsg drops what it has not written when a socket closes).
constexpr TimeValue lingerAfterEnd = 200'000'000;
constexpr TimeValue clockSyncTimeout = 5 * oneSecond;

struct Options
{
    std::string address;
    std::string alternativeAddress;
    vrx::NanomsgProtocol protocol = vrx::NanomsgProtocol::PubSub;
    std::string timeServer;
    std::string timeServerIP;
    unsigned int timeServerPort = 0;
    std::vector<std::string> files;
    bool loop = false;
    bool fromStdin = false;
    double toneHz = 440;
    StreamFormat format{48000, 2, PcmFormat::S16LE};
    unsigned int frameMs = 10;
    double reformatEvery = 0;
    bool waitForReceiver = false;
    CommonOptions common;
};

// ---- Sources ---------------------------------------------------------------------------

/// Where samples come from. format() describes what the next read() gives; when it changes,
/// the producer starts a new sequence before reading.
class Source
{
public:
    virtual ~Source() = default;
    virtual StreamFormat format() const = 0;
    /// Writes up to `frames` sample frames into `out`, which has room for them. Fewer at the
    /// end of a file or before a format change; 0 says nothing now, finished() whether ever.
    virtual std::size_t read(std::span<unsigned char> out, std::size_t frames) = 0;
    virtual bool finished() const = 0;
};

/// A sine at half of full scale (-6 dBFS) on every channel; with a reformat period it
/// alternates between two sample formats.
class ToneSource : public Source
{
public:
    ToneSource(double frequency, StreamFormat format, double reformatSeconds)
        : m_frequency(frequency), m_formats{{format, format}}, m_reformatSeconds(reformatSeconds)
    {
        // The other format: float, or 16-bit integer for a float stream.
        m_formats[1].sampleFormat = isFloatFormat(format.sampleFormat) ? PcmFormat::S16LE : PcmFormat::F32LE;
    }

    StreamFormat format() const override { return m_formats[m_current]; }
    bool finished() const override { return false; }

    std::size_t read(std::span<unsigned char> out, std::size_t frames) override
    {
        const StreamFormat& format = m_formats[m_current];
        const auto periodFrames = static_cast<std::uint64_t>(m_reformatSeconds * format.sampleRate);
        if (periodFrames > 0)
            frames = std::min<std::uint64_t>(frames, periodFrames - m_framesInFormat);
        const std::size_t width = audioUtils::getBytesPerSample(format.sampleFormat);
        const double step = 2 * std::numbers::pi * m_frequency / format.sampleRate;
        unsigned char* sample = out.data();
        for (std::size_t frame = 0; frame < frames; ++frame)
        {
            const double value = 0.5 * std::sin(m_phase);
            m_phase = std::fmod(m_phase + step, 2 * std::numbers::pi);
            for (unsigned int channel = 0; channel < format.channels; ++channel, sample += width)
            {
                if (isFloatFormat(format.sampleFormat))
                    writeFloatSample(static_cast<float>(value), format.sampleFormat, sample);
                else
                    writeIntSample(static_cast<std::int32_t>(std::lround(value * 2147483647.0)),
                                   format.sampleFormat, sample);
            }
        }
        m_framesInFormat += frames;
        if (periodFrames > 0 && m_framesInFormat >= periodFrames)
        {
            m_current = 1 - m_current;
            m_framesInFormat = 0;
        }
        return frames;
    }

private:
    double m_frequency;
    std::array<StreamFormat, 2> m_formats;
    double m_reformatSeconds;
    std::size_t m_current = 0;
    std::uint64_t m_framesInFormat = 0;
    double m_phase = 0;
};

/// Audio files one after the other (and again from the first with --loop), each in the wire
/// format that carries its samples unchanged.
class FileSource : public Source
{
public:
    struct File
    {
        std::string path;
        SF_INFO info;
        SoundFile handle;
    };

    FileSource(std::vector<File> files, bool loop) : m_files(std::move(files)), m_loop(loop) {}

    /// Opens a file and checks that it can be sent; the error says why not.
    static std::optional<File> open(const std::string& path, std::string& error)
    {
        File file{path, {}, nullptr};
        file.handle.reset(sf_open(path.c_str(), SFM_READ, &file.info));
        if (!file.handle)
            error = "cannot read " + printable(path) + ": " + sf_strerror(nullptr);
        else if (file.info.frames <= 0)
            error = printable(path) + " holds no samples";
        else if (file.info.channels > 255)
            error = printable(path) + " has " + std::to_string(file.info.channels) +
                    " channels; a stream has at most 255";
        else
            return file;
        return std::nullopt;
    }

    StreamFormat format() const override
    {
        const SF_INFO& info = m_files[m_current].info;
        return {static_cast<unsigned int>(info.samplerate), static_cast<unsigned int>(info.channels),
                wireFormatOf(info)};
    }

    bool finished() const override { return m_finished; }

    std::size_t read(std::span<unsigned char> out, std::size_t frames) override
    {
        const StreamFormat format = this->format();
        const std::size_t width = audioUtils::getBytesPerSample(format.sampleFormat);
        SNDFILE* file = m_files[m_current].handle.get();
        const auto wanted = static_cast<sf_count_t>(frames);
        sf_count_t got = 0;
        // libsndfile converts to full-scale ints or to floats; both map onto the wire exactly.
        if (isFloatFormat(format.sampleFormat))
        {
            m_floats.resize(frames * format.channels);
            got = sf_readf_float(file, m_floats.data(), wanted);
            for (std::size_t i = 0; i < static_cast<std::size_t>(got) * format.channels; ++i)
                writeFloatSample(m_floats[i], format.sampleFormat, out.data() + i * width);
        }
        else
        {
            m_ints.resize(frames * format.channels);
            got = sf_readf_int(file, m_ints.data(), wanted);
            for (std::size_t i = 0; i < static_cast<std::size_t>(got) * format.channels; ++i)
                writeIntSample(m_ints[i], format.sampleFormat, out.data() + i * width);
        }
        got = std::max<sf_count_t>(got, 0);
        m_readSinceFirstFile += static_cast<std::uint64_t>(got);
        if (got < wanted)
            nextFile();
        return static_cast<std::size_t>(got);
    }

private:
    void nextFile()
    {
        if (++m_current < m_files.size())
            return;
        m_current = 0;
        // A pass that read nothing would loop for ever.
        m_finished = !m_loop || m_readSinceFirstFile == 0;
        m_readSinceFirstFile = 0;
        for (File& file : m_files)
            sf_seek(file.handle.get(), 0, SEEK_SET);
    }

    std::vector<File> m_files;
    bool m_loop;
    std::size_t m_current = 0;
    bool m_finished = false;
    std::uint64_t m_readSinceFirstFile = 0;
    std::vector<int> m_ints;
    std::vector<float> m_floats;
};

/// Raw interleaved PCM from standard input in the format given on the command line. Reading
/// waits for data, but a stop request ends the wait.
class StdinSource : public Source
{
public:
    StdinSource(StreamFormat format, int stopFD) : m_format(format), m_stopFD(stopFD) {}

    StreamFormat format() const override { return m_format; }
    bool finished() const override { return m_finished; }

    std::size_t read(std::span<unsigned char> out, std::size_t frames) override
    {
        const std::size_t frameBytes = m_format.frameBytes();
        const std::size_t wanted = frames * frameBytes;
        std::size_t have = 0;
        while (have < wanted && !m_finished)
        {
            pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {m_stopFD, POLLIN, 0}};
            if (poll(fds, 2, -1) < 0 || fds[1].revents != 0)
                break;
            const ssize_t got = ::read(STDIN_FILENO, out.data() + have, wanted - have);
            if (got > 0)
                have += static_cast<std::size_t>(got);
            else if (got == 0 || errno != EINTR)
                m_finished = true;
        }
        if (m_finished && have % frameBytes != 0)
            printNote("ignored " + std::to_string(have % frameBytes) +
                      " byte(s) at the end of standard input that make no whole sample frame");
        return have / frameBytes;
    }

private:
    StreamFormat m_format;
    int m_stopFD;
    bool m_finished = false;
};

// ---- Producer ----------------------------------------------------------------------------

/// The producer thread: frames from the source, paced and stamped, into the sender.
class Producer
{
public:
    Producer(vrx::Sender& sender, Source& source, const Options& options, miscUtils::SyncedNetClock* netClock,
             StreamStats& stats, WakeUpEvent& stop)
        : m_sender(sender),
          m_source(source),
          m_options(options),
          m_netClock(netClock),
          m_stats(stats),
          m_stop(stop)
    {}

    ~Producer()
    {
        if (m_timerFD >= 0)
            close(m_timerFD);
    }

    /// Starts the first sequence on the calling thread, right after the sender came up (a
    /// receiver that connects before it has no format in its greeting, and reconnects for it
    /// at the first frame), then the thread.
    void start()
    {
        m_format = m_source.format();
        prepareSequence(*m_format);
        announceSequence(*m_format);
        m_thread = std::thread(&Producer::run, this);
    }

    /// Ends the producer at its next wait; a send held up by the channel needs disableSend.
    void stop()
    {
        m_stopRequested = true;
        m_stop.notify();
    }

    void join()
    {
        if (m_thread.joinable())
            m_thread.join();
    }

    int doneFD() const { return m_done.fd(); }
    bool waitingForReceiver() const { return m_waitingForReceiver; }
    std::uint64_t skippedFrames() const { return m_skipped; }

    /// Since when the current send has been in the sender (monotonic ns), 0 when none is.
    TimeValue sendStartedAt() const { return m_sendStartedAt; }
    /// Since when the producer has been waiting for the source (monotonic ns), 0 when it is not.
    TimeValue readStartedAt() const { return m_readStartedAt; }
    /// Times standard input came too late for the schedule, and the time the stream skipped.
    std::uint64_t inputStalls() const { return m_inputStalls; }
    TimeValue skippedNs() const { return m_skippedNs; }

private:
    void run()
    {
        m_timerFD = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
        produce();
        m_done.notify();
    }

    void produce()
    {
        // Waiting comes after the first sequence has started, so that a receiver learns the
        // format from its greeting rather than from a SequenceInfo that its connecting data
        // channel could miss, and with it every frame of the sequence.
        if (m_options.waitForReceiver && !waitForReceiver())
            return;
        while (!m_stopRequested && !m_source.finished())
        {
            const StreamFormat format = m_source.format();
            if (format != m_format)
            {
                m_format = format;
                prepareSequence(format);
                m_announcePending = true;
            }
            m_readStartedAt = std::max<TimeValue>(now(), 1);
            const std::size_t frames = m_source.read(m_frame, m_framesPerPacket);
            m_readStartedAt = 0;
            if (frames > 0 && !sendFrame(format, frames))
                return;
        }
        if (m_nextDeadline != 0 && !m_stopRequested)
            waitUntil(m_nextDeadline + lingerAfterEnd);
    }

    void prepareSequence(const StreamFormat& format)
    {
        m_payloader.setNewFormat(format.sampleRate, format.channels, format.sampleFormat);
        m_sender.setCurrentPayloader(m_payloader);
        m_framesPerPacket = std::max<std::size_t>(1, format.sampleRate * m_options.frameMs / 1000);
        m_frame.resize(std::max(m_frame.size(), m_framesPerPacket * format.frameBytes()));
        m_segmentStart = m_nextDeadline;
        m_segmentFrames = 0;
    }

    void announceSequence(const StreamFormat& format)
    {
        inSend([this] { m_sender.startNewSequence(); });
        m_stats.startSequence(format);
    }

    /// Waits for the frame's deadline and sends it; false when stopped first.
    bool sendFrame(const StreamFormat& format, std::size_t frames)
    {
        if (m_nextDeadline == 0) // the clock starts with the first frame that is ready
            m_segmentStart = m_nextDeadline = now();
        else if (m_options.fromStdin)
            resumeAfterStall(format);
        const TimeValue deadline = m_nextDeadline;
        m_segmentFrames += frames;
        m_nextDeadline = m_segmentStart + framesToNs(m_segmentFrames, format.sampleRate);
        if (!waitUntil(deadline))
            return false;

        // A sequence is announced right before its first frame, when the previous frame has
        // had a whole frame's time to leave: the channel takes one packet at a time and drops
        // what it cannot take, and a receiver that misses a SequenceInfo skips its sequence.
        if (m_announcePending)
        {
            m_announcePending = false;
            announceSequence(format);
        }
        const vrx::ByteSpan samples(m_frame.data(), frames * format.frameBytes());
        const TimeValue duration = m_nextDeadline - deadline;
        // On a network clock the frame carries the deadline as that clock reads it.
        const TimeValue timestamp =
            m_netClock != nullptr ? deadline + (m_netClock->getSynchronizedTime() - now()) : deadline;
        // A pipeline sender waits for a receiver to take each frame; with none, nothing waits.
        if (m_options.protocol == vrx::NanomsgProtocol::Pipeline && !m_sender.areThereClientConnections())
            ++m_skipped;
        else
            inSend([&] { m_sender.sendMediaData(timestamp, duration, samples); });
        const TimeValue sent = now();
        m_stats.addFrame(deadline, duration, samples, sent, static_cast<std::int64_t>(sent - deadline));
        return true;
    }

    /// Standard input that stalled would leave every later frame as late as it came, for good:
    /// the schedule starts again at the current time, and the stream has a gap instead.
    void resumeAfterStall(const StreamFormat& format)
    {
        const TimeValue current = now();
        const TimeValue tolerance =
            std::max<TimeValue>(2 * framesToNs(m_framesPerPacket, format.sampleRate), 100'000'000);
        if (current <= m_nextDeadline + tolerance)
            return;
        const TimeValue late = current - m_nextDeadline;
        printNote("standard input came " + describeSeconds(late) +
                  " late; the stream goes on at the current time, after a gap of that length");
        m_segmentStart = m_nextDeadline = current;
        m_segmentFrames = 0;
        ++m_inputStalls;
        m_skippedNs += late;
    }

    template <typename Send>
    void inSend(Send send)
    {
        m_sendStartedAt = std::max<TimeValue>(now(), 1);
        send();
        m_sendStartedAt = 0;
    }

    bool waitForReceiver()
    {
        m_waitingForReceiver = true;
        // Both channels: a frame sent before the receiver's main channel is attached is lost.
        while (!m_sender.areThereClientConnections() || !m_sender.areThereMainChannelConnections())
        {
            pollfd stop{m_stop.fd(), POLLIN, 0};
            if (poll(&stop, 1, 10) > 0)
                return false;
        }
        m_waitingForReceiver = false;
        return true;
    }

    /// Sleeps until the monotonic clock reads `deadline`; false when stopped first.
    bool waitUntil(TimeValue deadline)
    {
        itimerspec timer{};
        timer.it_value.tv_sec = static_cast<time_t>(deadline / oneSecond);
        timer.it_value.tv_nsec = static_cast<long>(deadline % oneSecond);
        timerfd_settime(m_timerFD, TFD_TIMER_ABSTIME, &timer, nullptr);
        pollfd fds[2] = {{m_timerFD, POLLIN, 0}, {m_stop.fd(), POLLIN, 0}};
        while (poll(fds, 2, -1) < 0 && errno == EINTR)
        {}
        std::uint64_t expirations = 0;
        if (fds[0].revents != 0 && ::read(m_timerFD, &expirations, sizeof(expirations)) < 0)
            return false; // a timer that cannot be read would never pace again
        return fds[1].revents == 0;
    }

    static TimeValue framesToNs(std::uint64_t frames, unsigned int rate)
    {
        // Split so that the product cannot overflow in a long run.
        return frames / rate * oneSecond + frames % rate * oneSecond / rate;
    }

    vrx::Sender& m_sender;
    Source& m_source;
    const Options& m_options;
    miscUtils::SyncedNetClock* m_netClock;
    StreamStats& m_stats;
    vrx::PcmPayloader m_payloader;
    vrx::Buffer m_frame;
    // Producer thread only, once started.
    std::optional<StreamFormat> m_format; // of the current sequence
    std::size_t m_framesPerPacket = 0;
    bool m_announcePending = false; // a new sequence goes out with the next frame
    // The schedule: a format's frames start at its first deadline plus the samples before
    // them divided by the rate, so that rounding never accumulates.
    TimeValue m_segmentStart = 0;
    std::uint64_t m_segmentFrames = 0;
    TimeValue m_nextDeadline = 0; // 0 until the first frame
    int m_timerFD = -1;
    WakeUpEvent& m_stop;
    WakeUpEvent m_done;
    std::atomic<bool> m_stopRequested{false};
    std::atomic<bool> m_waitingForReceiver{false};
    std::atomic<std::uint64_t> m_skipped{0};
    std::atomic<TimeValue> m_sendStartedAt{0};
    std::atomic<TimeValue> m_readStartedAt{0};
    std::atomic<std::uint64_t> m_inputStalls{0};
    std::atomic<TimeValue> m_skippedNs{0};
    std::thread m_thread;
};

// ---- Command line ------------------------------------------------------------------------

bool parseTimeServer(Options& options)
{
    const std::string& text = options.timeServer;
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos)
        return false;
    std::string ip = text.substr(0, colon);
    if (ip.size() > 2 && ip.front() == '[' && ip.back() == ']')
        ip = ip.substr(1, ip.size() - 2);
    unsigned char address[sizeof(in6_addr)];
    if (inet_pton(AF_INET, ip.c_str(), address) != 1 && inet_pton(AF_INET6, ip.c_str(), address) != 1)
        return false;
    std::string port = text.substr(colon + 1);
    if (!wholeNumberIn(1, 65535)(port).empty())
        return false;
    options.timeServerIP = ip;
    options.timeServerPort = static_cast<unsigned int>(std::stoul(port));
    return true;
}

void describeOptions(CLI::App& app, Options& options)
{
    addAddressArgument(app, options.address,
                       "Sidechannel address receivers connect to: an abstract Unix socket name of 1 to " +
                           std::to_string(vrx::MaxSocketAddressLength) +
                           " bytes. Example: vrx-send my-audio");
    auto* file =
        app.add_option("-f,--file", options.files,
                       "Send this audio file (any format libsndfile reads), in its own rate, channels "
                       "and sample width; repeat for several files in a row, and a file of another "
                       "format starts a new sequence. Example: --file a.wav --file b.flac")
            ->type_name("FILE");
    auto* stdinFlag =
        app.add_flag("--stdin", options.fromStdin,
                     "Send raw interleaved PCM read from standard input, in the format given by "
                     "--rate, --channels and --format. Input that stalls leaves a gap in the stream, "
                     "which then goes on at the current time. Example: sox in.wav -t raw -r 48000 -c 2 "
                     "-e signed -b 16 -L - | vrx-send --stdin my-audio");
    app.add_flag("--loop", options.loop, "Start the files again from the first when the last one ends.")
        ->needs(file);
    auto* tone =
        app.add_option("--tone", options.toneHz,
                       "Frequency of the generated tone in Hz, sent when neither --file nor --stdin is "
                       "given (default 440). Example: --tone 1000")
            ->type_name("HZ")
            ->check(positiveNumber());
    auto* rate = app.add_option("-r,--rate", options.format.sampleRate,
                                "Sample rate of the tone or of standard input in Hz (default 48000).")
                     ->type_name("HZ")
                     ->check(wholeNumberIn(1, 768000));
    auto* channels = app.add_option("-c,--channels", options.format.channels,
                                    "Channels of the tone or of standard input, 1 to 255 (default 2).")
                         ->type_name("N")
                         ->check(wholeNumberIn(1, 255));
    auto* format = addFormatOption(app, "--format", options.format.sampleFormat,
                                   "Sample format of the tone or of standard input: S8, U8, S16LE, S16BE, "
                                   "U16LE, U16BE, S24LE (3 bytes), S24BE, S32LE, S32BE, F32LE or F32BE "
                                   "(default S16LE).");
    auto* reformat =
        app.add_option(
               "--reformat-every", options.reformatEvery,
               "Every SECONDS, switch the tone between --format and F32LE (S16LE when --format is a float "
               "format), starting a new sequence each time: for testing receivers. Example: "
               "--reformat-every 2")
            ->type_name("SECONDS")
            ->check(positiveNumber());
    app.add_option("--frame-ms", options.frameMs,
                   "Length of one frame in milliseconds, 1 to 1000 (default 10).")
        ->type_name("MS")
        ->check(wholeNumberIn(1, 1000));
    app.add_option_function<std::string>(
           "--protocol",
           [&options](const std::string& value) { options.protocol = vrx::toNanomsgProtocol(value); },
           "Data channel: pubsub (any number of receivers, default) or pipeline (exactly one receiver, which "
           "binds). Example: --protocol pipeline")
        ->type_name("NAME")
        ->check(CLI::Validator(
            [](std::string& value) -> std::string {
                return value == "pubsub" || value == "pipeline"
                           ? ""
                           : "must be pubsub or pipeline, not " + printable(value);
            },
            ""));
    app.add_option(
           "--alternative-address", options.alternativeAddress,
           "Address to listen on when ADDRESS is taken by another sender. Example: --alternative-address "
           "my-audio-2")
        ->type_name("ADDRESS")
        ->check(addressLength());
    app.add_option(
           "--time-server", options.timeServer,
           "Announce the network time server at IP:PORT instead of the monotonic clock, and stamp frames "
           "with its time (vrx-send follows it and waits up to 5 s for it). Example: --time-server "
           "127.0.0.1:5000")
        ->type_name("IP:PORT");
    app.add_flag("--wait-receiver", options.waitForReceiver,
                 "Start streaming only once a receiver has connected both its channels, so that a file is "
                 "heard from its very first frame.");
    addCommonOptions(app, options.common);

    file->excludes(stdinFlag)->excludes(tone)->excludes(rate)->excludes(channels)->excludes(format);
    reformat->excludes(file)->excludes(stdinFlag);
    tone->excludes(stdinFlag);

    app.footer(
        R"(Streams in real time, paced by the monotonic clock, with frame timestamps and durations on that
clock ("sysclock"). Frames go out without waiting for receivers; one that cannot go out is dropped.
On a terminal a status line shows the stream; Ctrl-C (SIGINT), SIGTERM or SIGHUP stops the sender
cleanly. Senders appear in $TMPDIR (default /tmp/vrx), which vrx-send creates when it is missing.

Examples:
  # A 440 Hz tone, 48 kHz stereo S16LE, in 10 ms frames:
  vrx-send my-audio
  # A file, again and again:
  vrx-send --file music.flac --loop my-audio
  # Any file, converted by sox to the raw PCM that the options describe:
  sox in.wav -t raw -r 44100 -c 2 -e signed -b 16 -L - | \
      vrx-send --stdin --rate 44100 --channels 2 --format S16LE my-audio
  # A new sequence every second, for testing receivers:
  vrx-send --reformat-every 1 my-audio)");
}

int run(Options& options, SignalDescriptor& signals)
{
    // Everything the arguments name is checked before anything is created.
    std::vector<FileSource::File> files;
    for (const std::string& path : options.files)
    {
        std::string error;
        std::optional<FileSource::File> file = FileSource::open(path, error);
        if (!file)
        {
            printNote(error);
            return 2;
        }
        files.push_back(std::move(*file));
    }
    if (!options.timeServer.empty() && !parseTimeServer(options))
    {
        printNote("--time-server: expected IP:PORT such as 127.0.0.1:5000, not " +
                  printable(options.timeServer) + " (see --help)");
        return 2;
    }

    configureLogging(options.common);
    if (!ensureSenderParentDirectory())
        return 1;

    std::unique_ptr<miscUtils::SyncedNetClock> netClock;
    if (!options.timeServerIP.empty())
    {
        netClock = std::make_unique<miscUtils::SyncedNetClock>();
        netClock->startSynchronization(options.timeServerIP, options.timeServerPort,
                                       miscUtils::SyncedNetClock::DefaultPollIntervalMs,
                                       miscUtils::SyncedNetClock::DefaultMaxRoundTripNs, [] {});
        const TimeValue giveUp = now() + clockSyncTimeout;
        while (!netClock->isSynchronized())
        {
            pollfd signal{signals.fd(), POLLIN, 0};
            if (poll(&signal, 1, 10) > 0)
                return 0;
            if (now() > giveUp)
            {
                printNote("no answer from the time server " + options.timeServer + " within 5 s");
                return 1;
            }
        }
    }

    vrx::Sender sender;
    sender.setAccessPolicy(options.common.allow);
    const vrx::TimeSyncProtocol clock =
        netClock ? vrx::TimeSyncProtocol::GstNetClock : vrx::TimeSyncProtocol::MonotonicSystemClock;
    if (!sender.initializeSender(options.address, options.alternativeAddress, options.timeServerIP,
                                 options.timeServerPort, clock, options.protocol))
    {
        const int probe = connectAbstractSocket(options.address);
        if (probe >= 0)
        {
            close(probe);
            printNote("another sender already listens at " + printable(options.address));
        }
        else
            printNote("cannot start a sender at " + printable(options.address) +
                      " (--log-level debug shows why)");
        return 1;
    }
    // The main address may be another sender's: its receivers then follow that one.
    const std::string bound = printable(sender.getBoundSocketAddress());
    if (sender.getBoundSocketAddress() == options.address)
        printNote("streaming at " + bound);
    else
        printNote("streaming at the alternative address " + bound + "; another sender holds " +
                  printable(options.address));

    WakeUpEvent stop;
    std::unique_ptr<Source> source;
    if (!files.empty())
        source = std::make_unique<FileSource>(std::move(files), options.loop);
    else if (options.fromStdin)
        source = std::make_unique<StdinSource>(options.format, stop.fd());
    else
        source = std::make_unique<ToneSource>(options.toneHz, options.format, options.reformatEvery);
    StatusLine status;
    StreamStats stats(status.enabled());
    Producer producer(sender, *source, options, netClock.get(), stats, stop);
    producer.start();

    // Main thread: signals, the status line, and the guard against a held-up send.
    const TimeValue stallLimit = std::max<TimeValue>(2ull * options.frameMs * 1'000'000, 50'000'000);
    std::uint64_t stalls = 0;
    for (;;)
    {
        pollfd fds[2] = {{signals.fd(), POLLIN, 0}, {producer.doneFD(), POLLIN, 0}};
        poll(fds, 2, 20);
        if (fds[0].revents != 0 || fds[1].revents != 0)
            break;
        const TimeValue startedAt = producer.sendStartedAt();
        if (startedAt != 0 && now() - startedAt > stallLimit)
        {
            // Wakes the waiting send, which drops its frame; sending resumes at once.
            sender.disableSend(true);
            sender.disableSend(false);
            ++stalls;
        }
        if (status.due(now()))
        {
            const StreamSnapshot snapshot = stats.snapshot(now());
            const TimeValue readStartedAt = producer.readStartedAt();
            const char* state = producer.waitingForReceiver() ? "waiting for a receiver"
                                : readStartedAt != 0 && now() - readStartedAt > stallLimit
                                    ? "waiting for input"
                                    : "sending";
            status.show(
                {state + (" at " + bound), snapshot.format ? snapshot.format->describe() : "-",
                 std::to_string(snapshot.frames) + " frames (" + describeSeconds(snapshot.streamNs) + ")",
                 std::string("receivers: ") + (sender.areThereClientConnections() ? "yes" : "none"),
                 "dropped " + std::to_string(producer.skippedFrames() + stalls),
                 "peak " + describePeaks(snapshot.peaks), "late " + describeLatency(snapshot.recentLatency)});
        }
    }
    producer.stop();
    sender.disableSend(true); // a send held up by the channel returns at once
    producer.join();
    sender.shutdownSender();

    status.clear();
    const StreamSnapshot snapshot = stats.snapshot(now());
    printNote("sent " + std::to_string(snapshot.frames) + " frames (" + describeSeconds(snapshot.streamNs) +
              ") in " + std::to_string(snapshot.sequences) +
              (snapshot.sequences == 1 ? " sequence" : " sequences") +
              (producer.skippedFrames() + stalls > 0
                   ? ", dropped " + std::to_string(producer.skippedFrames() + stalls)
                   : "") +
              (producer.inputStalls() > 0
                   ? ", skipped " + describeSeconds(producer.skippedNs()) + " in " +
                         std::to_string(producer.inputStalls()) + " stall(s) of standard input"
                   : ""));
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    SignalDescriptor signals; // first: every thread started later inherits the blocked signals
    setProgramName("vrx-send");
    log4cplus::Initializer logging;

    CLI::App app{"vrx-send: stream audio in real time to every receiver of ADDRESS.", "vrx-send"};
    Options options;
    describeOptions(app, options);
    if (const int exitCode = parseCommandLine(app, argc, argv); exitCode >= 0)
        return exitCode;
    return run(options, signals);
}
