// vrx::Receiver as an application sees it: a real vrx::Sender (in this process or in one of its
// own) or, for what a sender would not send, a fake one, on real sockets; the callbacks in
// order, the log, and what the process still holds afterwards.

#include "StreamFixture.h"

#include <miscutils/NetTimeProvider.h>

#include <fstream>

namespace vrx::test {
namespace {

namespace fs = std::filesystem;

constexpr unsigned int alienFourcc = 0x44434241; // no depayloader takes it

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
    EXPECT_EQ(m_receiver.getStreamClockType(), ClockType::MonotonicSystemClock);
    const miscUtils::TimeValue before = miscUtils::getMonotonicSysclockTime();
    const miscUtils::TimeValue streamTime = m_receiver.getCurrentStreamTime();
    EXPECT_TRUE(before <= streamTime && streamTime <= miscUtils::getMonotonicSysclockTime());

    m_payloader.setNewFormat(44100, 1, audioUtils::PcmFormat::F32LE);
    m_sender.startNewSequence();
    ASSERT_TRUE(m_callbacks.waitFor("sequence 44100 1 F32LE"));
    ASSERT_TRUE(stream(10));
    m_receiver.shutdownReceiver();
    EXPECT_EQ(m_callbacks.seen().events, (LogLines{"state connecting@caller", "state running", sequence48k,
                                                   readyMonotonic, "sequence 44100 1 F32LE", "state idle"}));
    EXPECT_TRUE(m_callbacks.seen().intact);
    EXPECT_TRUE(settlesAt(baseline));
    EXPECT_EQ(m_log.lines("ERROR"), LogLines{"ERROR Cannot query synced net clock availability unless the "
                                             "receiver is in the Running state"});
}

INSTANTIATE_TEST_SUITE_P(BothProtocols, ReceiverStreamTest,
                         ::testing::Values(NanomsgProtocol::PubSub, NanomsgProtocol::Pipeline),
                         [](const auto& info) { return std::string(toString(info.param)); });

// A network clock that synchronises only after the sequence came reports readiness through the
// receiver thread, between the other callbacks.
TEST_F(ReceiverTest, IsReadyOncePerConnectionOnTheClockItsSenderAnnounces)
{
    miscUtils::NetTimeProvider server;
    ASSERT_TRUE(server.start("127.0.0.1", 0));
    server.setOffset(1000'000'000'000); // the served clock is 1000 s ahead
    const unsigned int port = server.getPort();
    server.stop();
    // clang-format off
    for (const auto& [name, protocol, announcedPort, clock] : {
             std::tuple{"the monotonic clock; a port is ignored", TimeSyncProtocol::MonotonicSystemClock, 4000u, ClockType::MonotonicSystemClock},
             {"a network clock without a port", TimeSyncProtocol::GstNetClock, 0u, ClockType::NoClock},
             {"a network clock served", TimeSyncProtocol::GstNetClock, port, ClockType::SyncedNetClock},
             {"an unknown protocol with a port", TimeSyncProtocol::Unknown, port, ClockType::SyncedNetClock}})
    // clang-format on
    {
        SCOPED_TRACE(name);
        const std::string ready = "ready "s + toString(clock);
        ASSERT_TRUE(startSender(NanomsgProtocol::PubSub, protocol, announcedPort));
        ASSERT_TRUE(m_receiver.initializeReceiver(m_address) && m_callbacks.waitFor(sequence48k));
        ASSERT_TRUE(server.start("127.0.0.1", port) && m_callbacks.waitFor(ready));
        EXPECT_EQ(m_receiver.getStreamClockType(), clock);
        const bool ahead =
            m_receiver.getCurrentStreamTime() > miscUtils::getMonotonicSysclockTime() + 500'000'000'000;
        EXPECT_EQ(ahead, clock == ClockType::SyncedNetClock);

        // The sender restarts: the receiver follows it and is ready again, once.
        m_sender.shutdownSender();
        ASSERT_TRUE(startSender(NanomsgProtocol::PubSub, protocol, announcedPort));
        ASSERT_TRUE(stream(1) && m_callbacks.waitFor(ready, 2));
        m_receiver.shutdownReceiver();
        m_sender.shutdownSender();
        server.stop();
        EXPECT_EQ(m_callbacks.seen().events,
                  (LogLines{"state connecting@caller", "state running", sequence48k, ready,
                            "state connecting", "state running", sequence48k, ready, "state idle"}));
        m_callbacks.clear();
    }
}

TEST_F(ReceiverTest, FollowsTheNextSenderWhenItsSenderIsKilled)
{
    ChildProcess sender({VRX_TEST_PEER, "sender", m_address, "pubsub", "1"});
    ASSERT_TRUE(m_receiver.initializeReceiver(m_address));
    ASSERT_TRUE(waitFor([&] { return m_callbacks.seen().frames.size() >= 20; }));
    sender.stop(SIGKILL);
    ASSERT_TRUE(m_callbacks.waitFor("state connecting"));

    m_timestamp = 1'000'000'000; // frames of the next sender come after those of the killed one
    ASSERT_TRUE(startSender() && stream(10));
    EXPECT_TRUE(m_callbacks.seen().intact);
    EXPECT_EQ(m_callbacks.seen().events,
              (LogLines{"state connecting@caller", "state running", sequence48k, readyMonotonic,
                        "state connecting", "state running", sequence48k, readyMonotonic}));
}

TEST_F(ReceiverTest, AStopInAnyWaitEndsItPromptlyWithIdleAlone)
{
    std::optional<FakeSender> silent; // takes connections into its backlog and says nothing
    const std::function<bool()> retryWait = [&] {
        return m_log.waitFor("TRACE Could not connect to VRX sender; retrying in 400 ms");
    };
    const std::function<bool()> greetingWait = [&] {
        silent.emplace(m_address, m_scratch.path());
        return m_log.waitFor("DEBUG Waiting for initial info");
    };
    const std::function<bool()> inputWait = [&] { return startSender() && stream(1); };
    // A listener that never accepts, its backlog full: a connect that waited would hold the thread.
    std::optional<SidechannelClient> queued;
    const std::function<bool()> fullBacklog = [&] {
        silent.emplace(m_address, m_scratch.path(), 0);
        queued.emplace(m_address);
        return m_log.waitFor("ERROR Could not connect to sender: " + errnoText(EAGAIN));
    };
    // clang-format off
    for (const auto& [name, reachWait, events] : {
             std::tuple{"retry wait", retryWait, LogLines{"state connecting@caller", "state idle"}},
             {"connect to a full backlog", fullBacklog, LogLines{"state connecting@caller", "state idle"}},
             {"greeting wait", greetingWait, LogLines{"state connecting@caller", "state idle"}},
             {"input wait", inputWait, LogLines{"state connecting@caller", "state running", sequence48k, readyMonotonic, "state idle"}}})
    // clang-format on
    {
        SCOPED_TRACE(name);
        queued.reset();
        silent.reset();
        ASSERT_TRUE(m_receiver.initializeReceiver(m_address) && reachWait());
        const auto start = std::chrono::steady_clock::now();
        m_receiver.shutdownReceiver();
        EXPECT_LT(std::chrono::steady_clock::now() - start, 2s)
            << "the directory monitor is woken, not waited for";
        EXPECT_EQ(m_callbacks.seen().events, events) << "no failure is reported";
        m_callbacks.clear();
        m_log.clear();
    }
}

TEST_F(ReceiverTest, ASecondPipelineReceiverFailsToBindGoesIdleAndStartsAfreshWhenInitialisedAgain)
{
    ASSERT_TRUE(startSender(NanomsgProtocol::Pipeline));
    ASSERT_TRUE(m_receiver.initializeReceiver(m_address) && m_callbacks.waitFor("state running"));
    PcmDepayloader depayloader;
    Callbacks callbacks;
    Receiver second;
    callbacks.attach(second, depayloader);
    // An application that reads Idle sets callbacks: it must not race those still to come. The
    // Idle callback holds the receiver thread until this test reads Idle, or for 200 ms.
    std::atomic<bool> readIdle{false};
    callbacks.whenRecorded = [&](const std::string& event) {
        if (event == "state idle")
            waitFor([&] { return readIdle.load(); }, 200ms);
    };
    // The second time without a shut-down in between: the ended loop's threads are joined.
    for (long attempt = 1; attempt <= 2; ++attempt)
    {
        readIdle = false;
        ASSERT_TRUE(second.initializeReceiver(m_address));
        ASSERT_TRUE(waitFor([&] { return second.getState() == Receiver::State::Idle; }));
        readIdle = true;
        EXPECT_EQ(std::ranges::count(callbacks.seen().events, "failed"), attempt)
            << "Idle came before the report";
    }
    EXPECT_EQ(callbacks.seen().events, (LogLines{"state connecting@caller", "state idle", "failed",
                                                 "state connecting@caller", "state idle", "failed"}));
    EXPECT_EQ(m_log.count("ERROR Could not connect the nanomsg SP socket: " + errnoText(EADDRINUSE)), 2u);

    m_receiver.shutdownReceiver();
    EXPECT_TRUE(second.initializeReceiver(m_address) && callbacks.waitFor("state running"));
    second.shutdownReceiver();
    EXPECT_EQ(std::ranges::count(callbacks.seen().events, "failed"), 2) << "a stop is no failed attempt";
}

TEST_F(ReceiverTest, KeepsPacketsByTheirSequenceAndJudgesTheTwoChannelsApart)
{
    FakeSender fake(m_address, m_scratch.path());
    ASSERT_TRUE(m_receiver.initializeReceiver(m_address) && fake.accept());
    // A greeting that comes one byte at a time is put together over as many reads: each byte
    // is written once the receiver waits again after reading the one before.
    const std::string reading = "DEBUG Sidechannel activity; reading initial info";
    std::size_t read = 1;
    ASSERT_TRUE(fake.send(fake.greeting(), 1, [&] {
        waitFor([&] { return m_log.count("DEBUG Waiting for initial info") > read; }), ++read;
    }));
    ASSERT_TRUE(m_callbacks.waitFor("state running"));
    EXPECT_EQ(m_log.count(reading), fake.greeting().size() + 4);
    EXPECT_EQ(m_log.count("DEBUG VRX initial info:  VRX version: 1  time sync IP address:   time sync "
                          "port: 0  time sync protocol: sysclock  nanomsg protocol: pipeline  nanomsg URI: " +
                          fake.uri()),
              1u);
    EXPECT_EQ(m_log.count("INFO Changing the permissions of socket " + fake.uri() + " to 600"), 1u);
    EXPECT_EQ(fs::status(fake.uri().substr(6)).permissions(), fs::perms::owner_read | fs::perms::owner_write)
        << "by default, a sender of this user alone (or root) connects";

    // Packets as "<channel: m(ain) or s(ide)> <kind> <sequence number> [<timestamp>]": a PCM
    // "info", one of an "alien" FourCC, one with a "refused" header (rate 0); a "frame", or a
    // "short" one. The verdicts: "set N", "redundant N", "old CURRENT N", "other CURRENT N"
    // (not the current sequence), or a warning or error as logged.
    const auto packet = [&](std::istringstream words) {
        std::string kind;
        std::uint16_t number;
        std::uint64_t timestamp = 0;
        words >> kind >> kind >> number >> timestamp;
        Buffer bytes = kind == "frame" || kind == "short"
                           ? frame(number, timestamp)
                           : sequenceInfo(number, kind == "alien" ? alienFourcc : PcmFourcc,
                                          kind == "refused" ? Buffer(6) : Buffer{});
        bytes.resize(kind == "short" ? 15 : bytes.size());
        return bytes;
    };
    const auto verdict = [](std::istringstream words) {
        std::string kind, current, number;
        words >> kind >> current >> number;
        if (kind == "set")
            return "DEBUG setting sequence nr " + current + " of SequenceInfo packet as new current one";
        if (kind == "redundant")
            return "DEBUG dropping VRX SequenceInfo packet because it is redundant (both have the sequence "
                   "number " +
                   current + ")";
        return (kind == "old"
                    ? "DEBUG dropping VRX packet because it is too old"
                    : "DEBUG dropping VRX Frame packet because its sequence number does not match the "
                      "current one") +
               " (current sequence nr: "s + current + " packet sequence nr: " + number + ")";
    };
    const std::string noDepayloader = "WARN Dropping received nanomsg VRX Frame packet because no matching "
                                      "VRX depayloader was previously found";
    const std::string consumeError = "ERROR Error while consuming VRX packet";
    const auto missed = [](int number) {
        return "WARN Missed the SequenceInfo packet of sequence nr " + std::to_string(number) +
               "; reconnecting to be greeted with it";
    };
    struct Case
    {
        const char* name;
        std::vector<std::string> packets, verdicts;
        std::vector<std::uint64_t> delivered;
        bool reconnects;
    };
    // clang-format off
    const Case cases[] = {
        {"a SequenceInfo selects its sequence", {"m info 5", "m frame 5 1", "m info 5", "m frame 4 2", "m frame 5 4"},
         {"set 5", "redundant 5", "old 5 4"}, {1, 4}, false},
        {"frames before any SequenceInfo; then of one never announced", {"m frame 0 1", "m frame 3 2"},
         {noDepayloader, "other 0 3", missed(3)}, {}, true},
        {"late packets from before a wrap", {"m info 3", "m frame 65530 1", "m info 15", "m frame 65530 2"},
         {"set 3", "old 3 65530", "set 15", "other 15 65530", missed(65530)}, {}, true},
        {"a fresh receiver and a sequence from before a wrap", {"m info 65525"}, {"old 0 65525"}, {}, false},
        {"after 65535 a wrapped number is too old", {"m info 20", "m info 65535", "m info 1"},
         {"set 20", "set 65535", "old 65535 1"}, {}, false},
        {"an alien FourCC costs the main channel the stream only", {"m alien 7", "m frame 7 1"},
         {"set 7", "WARN Could not select an VRX depayloader for this stream; its packets will be skipped", noDepayloader}, {}, false},
        {"a refused codec header ends the connection", {"m refused 4"},
         {"set 4", "ERROR Could not process codec header from VRX SequenceInfo packet", consumeError}, {}, true},
        {"a frame too short for its header ends the connection", {"m info 1", "m short 1 1"},
         {"set 1", "ERROR Could not read VRX Frame packet timestamp and duration", consumeError}, {}, true},
        {"a Frame on the sidechannel is an error, yet delivered", {"s info 2", "s frame 2 9"},
         {"set 2", "ERROR Got a Frame packet over the sidechannel; this is not supposed to happen!"}, {9}, false},
        {"an alien FourCC on the sidechannel ends the connection", {"s alien 7"},
         {"set 7", "ERROR Got a SequenceInfo packet, but no matching payloader was found"}, {}, true},
        {"a Frame on the sidechannel without a sequence ends the connection", {"s frame 0 1"},
         {"ERROR Got a Frame packet, but no payloader is present"}, {}, true},
    };
    // clang-format on
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.name);
        m_log.clear();
        m_callbacks.clear();
        for (const std::string& words : c.packets)
            ASSERT_TRUE(words[0] == 'm' ? fake.push(packet(std::istringstream(words)))
                                        : fake.send(packet(std::istringstream(words))));
        // Last on its channel, a packet of no known type in the current sequence: only a trace
        // line answers it.
        const bool main = c.packets.back()[0] == 'm';
        const auto set =
            std::ranges::find_if(c.verdicts.rbegin(), c.verdicts.rend(),
                                 [](const std::string& words) { return words.starts_with("set "); });
        const auto current =
            static_cast<std::uint16_t>(set == c.verdicts.rend() ? 0 : std::stoi(set->substr(4)));
        const Buffer marker{9, 0, static_cast<unsigned char>(current),
                            static_cast<unsigned char>(current >> 8), 0};
        ASSERT_TRUE(c.reconnects ? m_callbacks.waitFor("state connecting")
                                 : (main ? fake.push(marker) : fake.send(marker)) &&
                                       m_log.waitFor("TRACE Received "s + (main ? "nanomsg" : "sidechannel") +
                                                     " VRX packet with 5 byte(s); type: unknown"));
        LogLines verdicts;
        for (const std::string& line : m_log.lines())
            if (std::regex_match(line, std::regex("(WARN|ERROR|DEBUG (dropping|setting sequence)) .*")))
                verdicts.push_back(line);
        LogLines expected;
        for (const std::string& words : c.verdicts)
            expected.push_back(std::isupper(words[0]) ? words : verdict(std::istringstream(words)));
        EXPECT_EQ(verdicts, expected);
        EXPECT_EQ(m_callbacks.seen().frames, c.delivered);

        // The next case starts on a connection of its own, with no sequence yet.
        fake.disconnect();
        ASSERT_TRUE(m_callbacks.waitFor("state connecting") && fake.accept() && fake.send(fake.greeting()));
        ASSERT_TRUE(m_callbacks.waitFor("state running"));
    }
}

// The first frames may overtake the greeting's SequenceInfo: the receiver takes what the
// sidechannel holds before it judges them, and never reconnects for a sequence on its way.
TEST_F(ReceiverTest, TakesTheGreetingsSequenceInfoBeforeJudgingFramesThatOvertakeIt)
{
    FakeSender fake(m_address, m_scratch.path());
    const std::string dropped = "DEBUG dropping VRX Frame packet because its sequence number does not match "
                                "the current one (current sequence nr: 0 packet sequence nr: 1)";
    for (const bool half : {true, false})
    {
        SCOPED_TRACE(half ? "half of the SequenceInfo sent" : "the SequenceInfo whole and unread");
        // Whole: sent after the first frame while the receiver thread still runs its Running
        // callback, so that both wait when it polls next. The pause lets nanomsg's worker hand
        // the frame over first; on a slow machine the frame may come later, which passes too.
        std::atomic<bool> overtaken{half};
        m_callbacks.whenRecorded = [&](const std::string& event) {
            if (half || event != "state running")
                return;
            fake.push(frame(1, 1));
            std::this_thread::sleep_for(20ms);
            fake.send(sequenceInfo(1)), overtaken = true;
        };
        ASSERT_TRUE(m_receiver.initializeReceiver(m_address) && fake.accept() && fake.send(fake.greeting()));
        ASSERT_TRUE(m_callbacks.waitFor("state running") && waitFor([&] { return overtaken.load(); }));
        // Half: the frame comes between the two halves and is dropped, its sequence not known yet.
        if (half)
        {
            ASSERT_TRUE(
                fake.send(sequenceInfo(1), 9, [&] { fake.push(frame(1, 1)), m_log.waitFor(dropped); }));
        }
        ASSERT_TRUE(fake.push(frame(1, 2)) &&
                    waitFor([&] { return std::ranges::count(m_callbacks.seen().frames, 2) == 1; }));
        m_receiver.shutdownReceiver();
        using Frames = std::vector<std::uint64_t>;
        EXPECT_EQ(m_callbacks.seen().frames, (half ? Frames{2} : Frames{1, 2}));
        EXPECT_EQ(m_log.lines("WARN"), LogLines{}) << "nothing was missed";
        EXPECT_EQ(
            m_log.count("DEBUG Connection gone because of shutdown or because of an error; attempting to "
                        "reconnect"),
            0u);
        m_callbacks.clear();
        m_log.clear();
    }
}

// A connection that fails before it is healthy is retried at once, then after 10, 20, 40 ... up
// to 400 ms while attempts keep failing; an error that repeats is logged once, and its count when
// it stops. A greeting that a retry can heal is never final.
TEST_F(ReceiverTest, BacksOffAttemptsThatKeepFailingAndLogsTheirErrorOnce)
{
    FakeSender fake(m_address, m_scratch.path());
    const std::string elsewhere = "ipc://" + m_scratch.path() + "/elsewhere.ipc";
    const std::function<bool()> acceptAndClose = [] { return true; }; // closed by the next accept
    // clang-format off
    const std::tuple<const char*, std::function<bool()>, std::string> cases[] = {
        {"a peer that accepts and closes", acceptAndClose, "Could not get initial info; restarting connection attempt"},
        {"a main channel outside a sender's directory", [&] { return fake.send(fake.greeting(0, elsewhere)); },
         "Refusing the main channel \"" + elsewhere + "\" of the greeting: it is not in a sender's directory"},
        {"a sequence no depayloader takes", [&] { return fake.send(fake.greeting()) && fake.send(sequenceInfo(1, alienFourcc)); },
         "Got a SequenceInfo packet, but no matching payloader was found"},
    };
    // clang-format on
    long sequences = 0;
    const auto healthyConnection = [&] {
        return fake.accept() && fake.send(fake.greeting()) && fake.send(sequenceInfo(1)) &&
               m_callbacks.waitFor(sequence48k, ++sequences);
    };
    ASSERT_TRUE(m_receiver.initializeReceiver(m_address) && healthyConnection());
    for (const auto& [name, fail, error] : cases)
    {
        SCOPED_TRACE(name);
        m_log.clear();
        const auto start = std::chrono::steady_clock::now();
        // Each accept ends the connection before: the healthy one first, then a failed one.
        for (int attempt = 0; attempt < 7; ++attempt)
            ASSERT_TRUE(fake.accept() && fail());
        ASSERT_TRUE(healthyConnection() &&
                    m_log.waitFor("WARN The last connection error came 7 times in a row"));
        // A lower bound only, which no load can break: the delays below add up to 1030 ms.
        EXPECT_GE(std::chrono::steady_clock::now() - start, 1s) << "the delays are waited for";
        EXPECT_EQ(m_log.lines("ERROR"), LogLines{"ERROR " + error});
        LogLines schedule;
        for (int attempt = 1, delay = 0; attempt <= 8; ++attempt, delay = std::clamp(delay * 2, 10, 400))
            schedule.push_back("TRACE Connection attempt " + std::to_string(attempt) +
                               " in a row failed; next in " + std::to_string(delay) + " ms");
        EXPECT_EQ(m_log.lines("TRACE Connection attempt"), schedule);
    }
    EXPECT_EQ(std::ranges::count(m_callbacks.seen().events, "failed"), 0) << "no attempt was final";
}

// Readiness waits for the network clock, and is reported for the sequence that is current then:
// never for an earlier one after a newer sequence was refused.
TEST_F(ReceiverTest, IsReadyOnlyForTheDepayloaderOfTheCurrentSequence)
{
    miscUtils::NetTimeProvider server;
    ASSERT_TRUE(server.start("127.0.0.1", 0));
    const unsigned int port = server.getPort();
    server.stop(); // it serves once the current sequence has been refused
    FakeSender fake(m_address, m_scratch.path());
    ASSERT_TRUE(m_receiver.initializeReceiver(m_address) && fake.accept() && fake.send(fake.greeting(port)));
    ASSERT_TRUE(m_callbacks.waitFor("state running"));
    ASSERT_TRUE(fake.push(sequenceInfo(1)) && m_callbacks.waitFor(sequence48k));
    ASSERT_TRUE(fake.push(sequenceInfo(2, alienFourcc)) &&
                m_log.waitFor(
                    "WARN Could not select an VRX depayloader for this stream; its packets will be skipped"));
    ASSERT_TRUE(
        server.start("127.0.0.1", port) &&
        m_log.waitFor("DEBUG Synchronized with network time server 127.0.0.1:" + std::to_string(port)));
    ASSERT_TRUE(fake.push(sequenceInfo(3)) && m_callbacks.waitFor("ready synced net clock"));
    EXPECT_EQ(m_callbacks.seen().events, (LogLines{"state connecting@caller", "state running", sequence48k,
                                                   sequence48k, "ready synced net clock"}));
}

// When the Connecting callback throws, initialisation is undone and the exception is the caller's.
TEST_F(ReceiverTest, AThrowFromTheConnectingCallbackLeavesTheReceiverIdleWithNothingOpen)
{
    const ProcessResources baseline = processResources();
    m_receiver.setStateChangedCallback([](Receiver::State) { throw std::runtime_error("not now"); });
    EXPECT_THROW(m_receiver.initializeReceiver(m_address), std::runtime_error);
    EXPECT_EQ(m_receiver.getState(), Receiver::State::Idle);
    EXPECT_TRUE(settlesAt(baseline));
    m_callbacks.attach(m_receiver, m_depayloader);
    EXPECT_TRUE(startSender() && m_receiver.initializeReceiver(m_address) && stream(1));
}

TEST_F(ReceiverTest, WatchesWhereSendersAppearAndThenRetriesAtOnce)
{
    ASSERT_TRUE(fs::create_directory(m_scratch.path() + "/VrxSender-Ab12Cd"));
    std::ofstream(m_scratch.path() + "/VrxSender-x") << "a file is no sender";
    ASSERT_TRUE(m_receiver.initializeReceiver(m_address));
    EXPECT_EQ(m_log.count("DEBUG Opened " + m_scratch.path()), 1u);
    EXPECT_EQ(m_log.lines("DEBUG Sender"), LogLines{"DEBUG Sender VrxSender-XXXXXX already created"});
    ASSERT_TRUE(m_log.waitFor("TRACE Could not connect to VRX sender; retrying in 400 ms"));

    // What appears later counts when its name holds the prefix anywhere, whatever it is, and
    // ends the wait it comes in. One that a busy machine delays to the wait's end comes with the
    // next attempt instead: up to five tries for one that ends a wait.
    bool endedAWait = false;
    for (int attempt = 0; attempt < 5 && !endedAWait; ++attempt)
    {
        m_log.clear();
        const std::string name = "my-VrxSender-" + std::to_string(attempt);
        std::ofstream(m_scratch.path() + "/" + name) << "";
        ASSERT_TRUE(waitFor([&] {
            const LogLines lines = m_log.lines();
            auto next = std::ranges::find(lines, "DEBUG Sender " + name +
                                                     " initializing, signaling condition variable");
            next = std::find_if(next, lines.end(), [](const std::string& line) {
                return line.starts_with("TRACE A sender") || line.starts_with("TRACE Could not connect");
            });
            endedAWait =
                next != lines.end() && next->starts_with("TRACE A sender appeared; retrying at once");
            return next != lines.end();
        }));
    }
    EXPECT_TRUE(endedAWait);
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
    const auto greetingThen = [](std::function<void(FakeSender&)> next) {
        return [next](FakeSender& fake) { fake.send(fake.greeting()), next(fake); };
    };
    // clang-format off
    const std::tuple<const char*, std::function<void(FakeSender&)>, const char*, const char*> cases[] = {
        {"a greeting that is no InitialInfo", [](FakeSender& fake) { fake.send(bytes("\x01\x00\x41"sv)); }, "ok", "parseInitialInfoPacket("},
        {"a greeting naming an unknown main channel protocol", [](FakeSender& fake) {
             fake.send(produceInitialInfoPacket({1, "", 0, {}, NanomsgProtocol::Unknown, fake.uri()})); },
         "false", "vrx::Receiver::connectNanomsgMainChannel()"},
        {"a main channel packet of 3 bytes", greetingThen([](FakeSender& fake) { fake.push(bytes("\x02\x00\x00"sv)); }),
         "packetData.size() >= 4", "parsePacketSequenceNr("},
        {"a sidechannel packet of 2 bytes", greetingThen([](FakeSender& fake) { fake.send(bytes("\x01\x00"sv)); }),
         "packetData.size() >= 4", "parsePacketSequenceNr("},
        {"a bare SequenceInfo header with a new number", greetingThen([](FakeSender& fake) { fake.push(bytes("\x01\x00\x05\x00"sv)); }),
         "packetData.size() > 4", "consumePacket("},
    };
    // clang-format on
    for (const auto& [name, send, expression, function] : cases)
    {
        SCOPED_TRACE(name);
        EXPECT_DEATH(
            {
                FakeSender fake(m_address, m_scratch.path());
                if (m_receiver.initializeReceiver(m_address) && fake.accept())
                    send(fake);
                pause(); // until the assertion ends the process
            },
            assertionFailure(expression, function));
    }
}

} // namespace
} // namespace vrx::test
