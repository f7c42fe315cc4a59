// vrx::Receiver as an application sees it: a real vrx::Sender (in this process or in one of its
// own) or, for what a sender would not send, a fake one, on real sockets; the callbacks in
// order, the log, and what the process still holds afterwards.

#include "Peers.h"

#include <miscutils/NetTimeProvider.h>
#include <voraxis/VrxReceiver.h>
#include <voraxis/VrxSender.h>

#include <fstream>

namespace vrx::test {
namespace {

namespace fs = std::filesystem;
using namespace std::string_view_literals;
using ClockType = Receiver::StreamClockType;
using audioUtils::PcmFormat;

struct Frame
{
    std::uint64_t timestamp, duration;
    Buffer media;
    bool operator==(const Frame&) const = default;
};

/// What the application sees: one line per callback, in order ("state running", "sequence
/// 48000 2 S16LE", "ready monotonic system clock", "failed"; "@caller" marks a callback that ran
/// on the thread that attached the recorder), and the frames.
class Callbacks : NonCopyable
{
public:
    void attach(Receiver& receiver, PcmDepayloader& depayloader)
    {
        receiver.addDepayloader(depayloader);
        receiver.setStateChangedCallback(
            [this](Receiver::State state) { record("state ", toString(state)); });
        receiver.setConnectionAttemptFailedCallback([this] { record("failed", ""); });
        receiver.setNewSequenceCallback([this, &depayloader](Depayloader& selected) {
            record("sequence ", std::to_string(depayloader.getSampleRate()) + " " +
                                    std::to_string(depayloader.getNumChannels()) + " " +
                                    audioUtils::toString(depayloader.getSampleFormat()) +
                                    (&selected == &depayloader ? "" : " of another depayloader"));
        });
        receiver.setReceiverIsReadyCallback([this, &depayloader](Depayloader& selected, ClockType clock) {
            record("ready ", toString(clock) + std::string(&selected == &depayloader ? "" : " of another"));
        });
        receiver.setMediaDataCallback([this](unsigned long long timestamp, unsigned long long duration,
                                             const std::vector<unsigned char>& media) {
            const std::lock_guard lock(m_mutex);
            m_frames.push_back({timestamp, duration, media});
        });
    }
    LogLines events() const
    {
        const std::lock_guard lock(m_mutex);
        return m_events;
    }
    std::vector<Frame> frames() const
    {
        const std::lock_guard lock(m_mutex);
        return m_frames;
    }
    /// Waits, bounded, until `event` has come `times` times.
    bool waitFor(const std::string& event, long times = 1) const
    {
        return test::waitFor([&] { return std::ranges::count(events(), event) >= times; });
    }
    void clear()
    {
        const std::lock_guard lock(m_mutex);
        m_events.clear();
        m_frames.clear();
    }

private:
    void record(const std::string& what, const std::string& detail)
    {
        const std::lock_guard lock(m_mutex);
        m_events.push_back(what + detail + (std::this_thread::get_id() == m_caller ? "@caller" : ""));
    }

    const std::thread::id m_caller = std::this_thread::get_id();
    mutable std::mutex m_mutex;
    LogLines m_events;
    std::vector<Frame> m_frames;
};

class ReceiverTest : public LogCaptureTest
{
protected:
    ReceiverTest()
    {
        m_payloader.setNewFormat(48000, 2, PcmFormat::S16LE);
        m_callbacks.attach(m_receiver, m_depayloader);
    }

    /// A sender on the fixture's address whose first sequence has started.
    bool startSender(NanomsgProtocol protocol = NanomsgProtocol::PubSub,
                     TimeSyncProtocol clock = TimeSyncProtocol::MonotonicSystemClock, unsigned int port = 0)
    {
        if (!m_sender.initializeSender(m_address, "", "127.0.0.1", port, clock, protocol))
            return false;
        m_sender.setCurrentPayloader(m_payloader);
        m_sender.startNewSequence();
        return true;
    }

    /// Sends frames, each once the last has arrived or been lost (the publisher drops what a
    /// busy pipe cannot take), until `count` more have arrived.
    bool stream(std::size_t count)
    {
        const std::size_t target = m_callbacks.frames().size() + count;
        return waitFor([&] {
            const std::size_t before = m_callbacks.frames().size();
            m_sender.sendMediaData(m_timestamp, durationOf(m_timestamp), mediaOf(m_timestamp));
            ++m_timestamp;
            test::waitFor([&] { return m_callbacks.frames().size() > before; }, 200ms);
            return m_callbacks.frames().size() >= target;
        });
    }

    /// Every frame delivered is one that was sent, whole, in the order sent.
    void expectFramesIntact() const
    {
        const std::vector<Frame> frames = m_callbacks.frames();
        for (std::size_t index = 0; index < frames.size(); ++index)
        {
            const std::uint64_t timestamp = frames[index].timestamp;
            EXPECT_EQ(frames[index], (Frame{timestamp, durationOf(timestamp), mediaOf(timestamp)}));
            EXPECT_TRUE(index == 0 || timestamp > frames[index - 1].timestamp) << timestamp;
        }
    }

    ScratchTmpdir m_scratch;
    const std::string m_address = uniqueSocketAddress();
    PcmPayloader m_payloader;
    Sender m_sender;
    PcmDepayloader m_depayloader;
    Callbacks m_callbacks;
    Receiver m_receiver; // stops first, while what its callbacks use still exists
    std::uint64_t m_timestamp = 1;
};

class ReceiverStreamTest : public ReceiverTest, public ::testing::WithParamInterface<NanomsgProtocol>
{};

TEST_P(ReceiverStreamTest, DeliversFramesIntactFollowsAFormatChangeAndLeavesNothingBehind)
{
    // The sequence starts before the receiver comes: the greeting brings the format.
    ASSERT_TRUE(startSender(GetParam()));
    const ProcessResources baseline = processResources();
    EXPECT_EQ(m_receiver.getStreamClockType(), ClockType::Undetermined);
    ASSERT_TRUE(m_receiver.initializeReceiver(m_address));
    EXPECT_TRUE(m_receiver.initializeReceiver("elsewhere")) << "a receiver that runs stays as it is";
    ASSERT_TRUE(stream(10));
    EXPECT_EQ(m_receiver.getState(), Receiver::State::Running);
    EXPECT_EQ(m_receiver.getStreamClockType(), ClockType::MonotonicSystemClock);
    const miscUtils::TimeValue before = miscUtils::getMonotonicSysclockTime();
    const miscUtils::TimeValue streamTime = m_receiver.getCurrentStreamTime();
    EXPECT_TRUE(before <= streamTime && streamTime <= miscUtils::getMonotonicSysclockTime());

    m_payloader.setNewFormat(44100, 1, PcmFormat::F32LE);
    m_sender.startNewSequence();
    ASSERT_TRUE(m_callbacks.waitFor("sequence 44100 1 F32LE"));
    ASSERT_TRUE(stream(10));
    m_receiver.shutdownReceiver();

    EXPECT_EQ(m_callbacks.events(),
              (LogLines{"state connecting@caller", "state running", "sequence 48000 2 S16LE",
                        "ready monotonic system clock", "sequence 44100 1 F32LE", "state idle"}));
    expectFramesIntact();
    EXPECT_TRUE(settlesAt(baseline));
    EXPECT_EQ(m_log.lines("ERROR"),
              LogLines{"ERROR Cannot query synced net clock availability unless the receiver is in the "
                       "Running state"});
}

INSTANTIATE_TEST_SUITE_P(BothProtocols, ReceiverStreamTest,
                         ::testing::Values(NanomsgProtocol::PubSub, NanomsgProtocol::Pipeline),
                         [](const auto& info) { return std::string(toString(info.param)); });

TEST_F(ReceiverTest, IsReadyOncePerConnectionOnTheClockItsSenderAnnounces)
{
    miscUtils::NetTimeProvider server;
    ASSERT_TRUE(server.start("127.0.0.1", 0));
    server.setOffset(1000'000'000'000); // the served clock is 1000 s ahead
    struct Case
    {
        const char* name;
        TimeSyncProtocol protocol;
        unsigned int port;
        ClockType clock;
    };
    const Case cases[] = {
        {"the monotonic clock; a port is ignored", TimeSyncProtocol::MonotonicSystemClock, 4000,
         ClockType::MonotonicSystemClock},
        {"a network clock without a port", TimeSyncProtocol::GstNetClock, 0, ClockType::NoClock},
        {"a network clock served", TimeSyncProtocol::GstNetClock, server.getPort(),
         ClockType::SyncedNetClock},
        {"an unknown protocol with a port", TimeSyncProtocol::Unknown, server.getPort(),
         ClockType::SyncedNetClock},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.name);
        const std::string ready = std::string("ready ") + toString(c.clock);
        ASSERT_TRUE(startSender(NanomsgProtocol::PubSub, c.protocol, c.port));
        ASSERT_TRUE(m_receiver.initializeReceiver(m_address));
        ASSERT_TRUE(m_callbacks.waitFor(ready));
        EXPECT_EQ(m_receiver.getStreamClockType(), c.clock);
        const bool ahead =
            m_receiver.getCurrentStreamTime() > miscUtils::getMonotonicSysclockTime() + 500'000'000'000;
        EXPECT_EQ(ahead, c.clock == ClockType::SyncedNetClock);

        // The sender restarts: the receiver follows it and is ready again, once.
        m_sender.shutdownSender();
        ASSERT_TRUE(startSender(NanomsgProtocol::PubSub, c.protocol, c.port));
        ASSERT_TRUE(m_callbacks.waitFor(ready, 2));
        ASSERT_TRUE(stream(1));
        m_receiver.shutdownReceiver();
        m_sender.shutdownSender();
        EXPECT_EQ(
            m_callbacks.events(),
            (LogLines{"state connecting@caller", "state running", "sequence 48000 2 S16LE", ready,
                      "state connecting", "state running", "sequence 48000 2 S16LE", ready, "state idle"}));
        m_callbacks.clear();
    }
}

TEST_F(ReceiverTest, FollowsTheNextSenderWhenItsSenderIsKilled)
{
    ChildProcess sender({VRX_TEST_SENDER, m_address, "pubsub", "1"});
    ASSERT_TRUE(m_receiver.initializeReceiver(m_address));
    ASSERT_TRUE(waitFor([&] { return m_callbacks.frames().size() >= 20; }));
    sender.stop(SIGKILL);
    ASSERT_TRUE(m_callbacks.waitFor("state connecting"));

    m_timestamp = 1'000'000'000; // frames of the next sender come after those of the killed one
    ASSERT_TRUE(startSender());
    ASSERT_TRUE(stream(10));
    expectFramesIntact();
    EXPECT_EQ(m_callbacks.events(),
              (LogLines{"state connecting@caller", "state running", "sequence 48000 2 S16LE",
                        "ready monotonic system clock", "state connecting", "state running",
                        "sequence 48000 2 S16LE", "ready monotonic system clock"}));
}

TEST_F(ReceiverTest, AStopInAnyWaitEndsItPromptlyWithIdleAlone)
{
    const auto connectingWithoutSender = [&] {
        return m_log.waitFor("TRACE Could not connect to VRX sender; retrying in 400 ms");
    };
    std::optional<FakeSender> silent; // takes connections into its backlog and says nothing
    const auto waitingForGreeting = [&] {
        silent.emplace(m_address, m_scratch.path());
        return m_log.waitFor("DEBUG Waiting for initial info");
    };
    const auto running = [&] { return startSender() && m_callbacks.waitFor("ready monotonic system clock"); };
    for (const auto& [name, reachWait, events] :
         {std::tuple{"retry wait", std::function<bool()>(connectingWithoutSender),
                     LogLines{"state connecting@caller", "state idle"}},
          {"greeting wait", waitingForGreeting, {"state connecting@caller", "state idle"}},
          {"input wait",
           running,
           {"state connecting@caller", "state running", "sequence 48000 2 S16LE",
            "ready monotonic system clock", "state idle"}}})
    {
        SCOPED_TRACE(name);
        silent.reset();
        ASSERT_TRUE(m_receiver.initializeReceiver(m_address));
        ASSERT_TRUE(reachWait());
        const auto start = std::chrono::steady_clock::now();
        m_receiver.shutdownReceiver();
        EXPECT_LT(std::chrono::steady_clock::now() - start, 2s)
            << "the directory monitor is woken, not waited for";
        EXPECT_EQ(m_callbacks.events(), events);
        m_callbacks.clear();
        m_log.clear();
    }
}

TEST_F(ReceiverTest, ASecondPipelineReceiverFailsToBindGoesIdleAndStartsAfreshWhenInitialisedAgain)
{
    ASSERT_TRUE(startSender(NanomsgProtocol::Pipeline));
    ASSERT_TRUE(m_receiver.initializeReceiver(m_address));
    ASSERT_TRUE(m_callbacks.waitFor("state running"));
    PcmDepayloader depayloader;
    Callbacks callbacks;
    Receiver second;
    callbacks.attach(second, depayloader);
    // The second time without a shut-down in between: the ended loop's threads are joined.
    for (long attempt = 1; attempt <= 2; ++attempt)
    {
        ASSERT_TRUE(second.initializeReceiver(m_address));
        ASSERT_TRUE(callbacks.waitFor("failed", attempt));
    }
    EXPECT_EQ(callbacks.events(), (LogLines{"state connecting@caller", "state idle", "failed",
                                            "state connecting@caller", "state idle", "failed"}));
    EXPECT_EQ(m_log.count("ERROR Could not connect the nanomsg SP socket: " + errnoText(EADDRINUSE)), 2u);

    m_receiver.shutdownReceiver();
    ASSERT_TRUE(second.initializeReceiver(m_address));
    EXPECT_TRUE(callbacks.waitFor("state running"));
}

TEST_F(ReceiverTest, KeepsPacketsByTheirSequenceAndJudgesTheTwoChannelsApart)
{
    FakeSender fake(m_address, m_scratch.path());
    ASSERT_TRUE(m_receiver.initializeReceiver(m_address));
    ASSERT_TRUE(fake.accept());
    // A greeting that comes one byte at a time is put together over as many reads.
    Buffer greeting = fake.greeting();
    const SidechannelMessageSize size =
        produceSidechannelMessageSize(static_cast<std::uint32_t>(greeting.size()));
    greeting.insert(greeting.begin(), size.begin(), size.end());
    std::size_t written = 0;
    ASSERT_TRUE(fake.write(greeting, 1, [&] {
        ++written;
        waitFor([&] { return m_log.count("DEBUG Sidechannel activity; reading initial info") >= written; });
    }));
    ASSERT_TRUE(m_callbacks.waitFor("state running"));
    EXPECT_EQ(m_log.count("DEBUG Sidechannel activity; reading initial info"), greeting.size());
    EXPECT_EQ(
        m_log.count("DEBUG VRX initial info:  VRX version: 1  time sync IP address:   time sync port: 0  "
                    "time sync protocol: sysclock  nanomsg protocol: pipeline  nanomsg URI: " +
                    fake.uri()),
        1u);
    EXPECT_EQ(m_log.count("INFO Changing the permissions of socket " + fake.uri() + " to 622"), 1u);
    EXPECT_EQ(fs::status(fake.uri().substr(6)).permissions(), fs::perms::owner_read | fs::perms::owner_write |
                                                                  fs::perms::group_write |
                                                                  fs::perms::others_write);

    enum Channel
    {
        Main,
        Side
    };
    const auto sequenceInfo = [&](std::uint16_t number, unsigned int fourcc = PcmFourcc) {
        Buffer packet;
        produceSequenceInfoPacket(packet, fourcc, m_payloader.getCodecHeader(), number);
        return packet;
    };
    const auto frame = [&](std::uint16_t number, std::uint64_t timestamp) {
        Buffer packet;
        m_payloader.produceFramePacket(packet, number, timestamp, durationOf(timestamp), mediaOf(timestamp));
        return packet;
    };
    const auto setting = [](int number) {
        return "DEBUG setting sequence nr " + std::to_string(number) +
               " of SequenceInfo packet as new current one";
    };
    const auto tooOld = [](int current, int number) {
        return "DEBUG dropping VRX packet because it is too old (current sequence nr: " +
               std::to_string(current) + " packet sequence nr: " + std::to_string(number) + ")";
    };
    const auto notMatching = [](int current, int number) {
        return "DEBUG dropping VRX Frame packet because its sequence number does not match the current one "
               "(current sequence nr: " +
               std::to_string(current) + " packet sequence nr: " + std::to_string(number) + ")";
    };
    const std::string noDepayloader =
        "WARN Dropping received nanomsg VRX Frame packet because no matching VRX "
        "depayloader was previously found";
    const unsigned int unknownFourcc = 0x44434241; // "ABCD"
    Buffer refusedHeader = sequenceInfo(4);
    refusedHeader[8] = refusedHeader[9] = refusedHeader[10] = refusedHeader[11] = 0; // sample rate 0
    Buffer shortFrame = frame(1, 1);
    shortFrame.resize(15);

    struct Case
    {
        const char* name;
        std::vector<std::pair<Channel, Buffer>> packets;
        LogLines lines;
        std::vector<std::uint64_t> delivered;
        std::uint16_t current; // the sequence at the end
        bool reconnects;
    };
    const Case cases[] = {
        {"a SequenceInfo selects its sequence",
         {{Main, sequenceInfo(5)},
          {Main, frame(5, 1)},
          {Main, sequenceInfo(5)},
          {Main, frame(4, 2)},
          {Main, frame(6, 3)},
          {Main, frame(5, 4)}},
         {setting(5),
          "DEBUG dropping VRX SequenceInfo packet because it is redundant (both have the sequence number 5)",
          tooOld(5, 4), notMatching(5, 6)},
         {1, 4},
         5,
         false},
        {"frames before any SequenceInfo",
         {{Main, frame(0, 1)}, {Main, frame(3, 2)}},
         {noDepayloader, notMatching(0, 3)},
         {},
         0,
         false},
        {"late packets from before the sender's counter wrapped",
         {{Main, sequenceInfo(3)},
          {Main, frame(65530, 1)},
          {Main, sequenceInfo(15)},
          {Main, frame(65530, 2)}},
         {setting(3), tooOld(3, 65530), setting(15), notMatching(15, 65530)},
         {},
         15,
         false},
        {"a fresh receiver and a sequence from just before a wrap",
         {{Main, sequenceInfo(65525)}},
         {tooOld(0, 65525)},
         {},
         0,
         false},
        {"after 65535 a wrapped sequence counts as too old",
         {{Main, sequenceInfo(20)}, {Main, sequenceInfo(65535)}, {Main, sequenceInfo(1)}},
         {setting(20), setting(65535), tooOld(65535, 1)},
         {},
         65535,
         false},
        {"an unknown FourCC on the main channel costs the stream only",
         {{Main, sequenceInfo(7, unknownFourcc)}, {Main, frame(7, 1)}},
         {setting(7), "WARN Could not select an VRX depayloader for this stream; its packets will be skipped",
          noDepayloader},
         {},
         7,
         false},
        {"a refused codec header ends the connection",
         {{Main, refusedHeader}},
         {setting(4), "ERROR Could not process codec header from VRX SequenceInfo packet",
          "ERROR Error while consuming VRX packet"},
         {},
         0,
         true},
        {"a frame too short for its header ends the connection",
         {{Main, sequenceInfo(1)}, {Main, shortFrame}},
         {setting(1), "ERROR Could not read VRX Frame packet timestamp and duration",
          "ERROR Error while consuming VRX packet"},
         {},
         0,
         true},
        {"a Frame on the sidechannel is an error, yet delivered",
         {{Side, sequenceInfo(2)}, {Side, frame(2, 9)}},
         {setting(2), "ERROR Got a Frame packet over the sidechannel; this is not supposed to happen!"},
         {9},
         2,
         false},
        {"an unknown FourCC on the sidechannel ends the connection",
         {{Side, sequenceInfo(7, unknownFourcc)}},
         {setting(7), "ERROR Got a SequenceInfo packet, but no matching payloader was found"},
         {},
         0,
         true},
        {"a Frame on the sidechannel without a sequence ends the connection",
         {{Side, frame(0, 1)}},
         {"ERROR Got a Frame packet, but no payloader is present"},
         {},
         0,
         true},
    };
    const std::regex verdicts("(WARN|ERROR|DEBUG (dropping|setting sequence)) .*");
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.name);
        m_log.clear();
        m_callbacks.clear();
        for (const auto& [channel, packet] : c.packets)
            ASSERT_TRUE(channel == Main ? fake.push(packet) : fake.send(packet));
        if (c.reconnects)
            ASSERT_TRUE(m_callbacks.waitFor("state connecting"));
        else
        {
            // Last on its channel: a packet of no known type in the current sequence, which only
            // a trace line answers.
            const Channel channel = c.packets.back().first;
            const Buffer marker{9, 0, static_cast<unsigned char>(c.current),
                                static_cast<unsigned char>(c.current >> 8), 0};
            ASSERT_TRUE(channel == Main ? fake.push(marker) : fake.send(marker));
            ASSERT_TRUE(m_log.waitFor(std::string("TRACE Received ") +
                                      (channel == Main ? "nanomsg" : "sidechannel") +
                                      " VRX packet with 5 byte(s); type: unknown"));
        }
        LogLines verdictLines;
        std::ranges::copy_if(m_log.lines(), std::back_inserter(verdictLines),
                             [&](const std::string& line) { return std::regex_match(line, verdicts); });
        EXPECT_EQ(verdictLines, c.lines);
        std::vector<std::uint64_t> delivered;
        std::ranges::transform(m_callbacks.frames(), std::back_inserter(delivered), &Frame::timestamp);
        EXPECT_EQ(delivered, c.delivered);

        // The next case starts on a connection of its own, with no sequence yet.
        fake.disconnect();
        ASSERT_TRUE(m_callbacks.waitFor("state connecting"));
        ASSERT_TRUE(fake.accept() && fake.send(fake.greeting()));
        ASSERT_TRUE(m_callbacks.waitFor("state running"));
    }
}

TEST_F(ReceiverTest, WatchesWhereSendersAppearAndThenRetriesAtOnce)
{
    ASSERT_TRUE(fs::create_directory(m_scratch.path() + "/VrxSender-Ab12Cd"));
    std::ofstream(m_scratch.path() + "/VrxSender-x") << "a file is no sender";
    ASSERT_TRUE(m_receiver.initializeReceiver(m_address));
    EXPECT_EQ(m_log.count("DEBUG Opened " + m_scratch.path()), 1u);
    EXPECT_EQ(m_log.lines("DEBUG Sender"), LogLines{"DEBUG Sender VrxSender-XXXXXX already created"});
    ASSERT_TRUE(m_log.waitFor("TRACE Could not connect to VRX sender; retrying in 400 ms"));

    // What appears later counts when its name holds the prefix anywhere, whatever it is.
    std::ofstream(m_scratch.path() + "/my-VrxSender-x") << "";
    const std::string appeared = "DEBUG Sender my-VrxSender-x initializing, signaling condition variable";
    EXPECT_TRUE(waitFor([&] {
        const LogLines lines = m_log.lines();
        return std::find(std::ranges::find(lines, appeared), lines.end(),
                         "TRACE Could not connect to VRX sender; retrying in 2 ms") != lines.end();
    }));
    m_receiver.shutdownReceiver();

    // A missing directory cannot be watched: said once; a sender would be found by retries.
    const std::string missing = m_scratch.path() + "/missing";
    m_scratch.setTmpdir(missing.c_str());
    ASSERT_TRUE(m_receiver.initializeReceiver(m_address));
    EXPECT_EQ(m_log.lines("WARN"), LogLines{"WARN Cannot watch " + missing + " for senders appearing: " +
                                            errnoText(ENOENT) + "; a sender there is found by retries only"});
}

TEST_F(ReceiverTest, MalformedInputStopsTheProcessWhereTheDesignAsksForIt)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    struct Case
    {
        const char* name;
        std::function<void(FakeSender&)> send;
        const char* expression;
        const char* function;
    };
    const Case cases[] = {
        {"a greeting that is no InitialInfo", [](FakeSender& fake) { fake.send(bytes("\x01\x00\x41"sv)); },
         "ok", "parseInitialInfoPacket("},
        {"a greeting naming an unknown main channel protocol",
         [](FakeSender& fake) {
             fake.send(produceInitialInfoPacket(
                 {1, "", 0, TimeSyncProtocol::MonotonicSystemClock, NanomsgProtocol::Unknown, fake.uri()}));
         },
         "false", "vrx::Receiver::connectNanomsgMainChannel()"},
        {"a main channel packet of 3 bytes",
         [](FakeSender& fake) { fake.send(fake.greeting()), fake.push(bytes("\x02\x00\x00"sv)); },
         "packetData.size() >= 4", "parsePacketSequenceNr("},
        {"a sidechannel packet of 2 bytes",
         [](FakeSender& fake) { fake.send(fake.greeting()), fake.send(bytes("\x01\x00"sv)); },
         "packetData.size() >= 4", "parsePacketSequenceNr("},
        {"a bare SequenceInfo header with a new number",
         [](FakeSender& fake) { fake.send(fake.greeting()), fake.push(bytes("\x01\x00\x05\x00"sv)); },
         "packetData.size() > 4", "consumePacket("},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.name);
        EXPECT_DEATH(
            {
                FakeSender fake(m_address, m_scratch.path());
                m_receiver.initializeReceiver(m_address);
                if (fake.accept())
                    c.send(fake);
                pause(); // until the assertion ends the process
            },
            assertionFailure(c.expression, c.function));
    }
}

} // namespace
} // namespace vrx::test
