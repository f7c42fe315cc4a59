// vrx::Sender as receivers see it: raw sidechannel clients and raw nanomsg sockets, its
// directory under TMPDIR, its log, and what the process still holds after it.

#include "Peers.h"

#include <voraxis/VrxSender.h>

#include <future>

namespace vrx::test {
namespace {

namespace fs = std::filesystem;
using Packets = std::vector<Buffer>;

constexpr std::uint64_t frameDuration = 10'000'000;

std::ptrdiff_t entriesIn(const std::string& directory)
{
    return std::distance(fs::directory_iterator(directory), fs::directory_iterator{});
}

class SenderTest : public LogCaptureTest
{
protected:
    SenderTest()
    {
        m_payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
        std::iota(m_media.begin(), m_media.end(), 0);
    }

    bool initialize(Sender& sender, NanomsgProtocol protocol = NanomsgProtocol::PubSub)
    {
        return sender.initializeSender(m_address, "", "", 0, TimeSyncProtocol::MonotonicSystemClock,
                                       protocol);
    }

    // What shut-down must get back to: a first cycle lets logging, nanomsg and the allocator settle.
    ProcessResources afterAWarmUpCycle()
    {
        if (initialize(m_sender))
            m_sender.shutdownSender();
        m_log.clear();
        return processResources();
    }

    // The main channel of the sender whose directory comes first in the scratch TMPDIR.
    std::string channelUri() const
    {
        const fs::directory_iterator entry(m_scratch.path());
        return entry == fs::directory_iterator{} ? ""
                                                 : "ipc://" + entry->path().string() + "/nanomsgChannel.ipc";
    }

    // The messages a receiver is greeted with when it connects as the only one; returns once the
    // sender has seen it go. The whole greeting is sent under the lock that
    // areThereClientConnections() takes.
    static Packets greeting(Sender& sender, const std::string& address)
    {
        SidechannelClient client(address);
        std::optional<Buffer> message = client.readMessage();
        sender.areThereClientConnections();
        Packets messages;
        for (; message; message = client.hasData() ? client.readMessage() : std::nullopt)
            messages.push_back(*message);
        client.close();
        EXPECT_TRUE(waitFor([&] { return !sender.areThereClientConnections(); }));
        return messages;
    }

    Buffer sequenceInfo(std::uint16_t number) const
    {
        Buffer packet;
        produceSequenceInfoPacket(packet, PcmFourcc, m_payloader.getCodecHeader(), number);
        return packet;
    }
    Buffer frame(std::uint16_t number, std::uint64_t timestamp)
    {
        Buffer packet;
        m_payloader.produceFramePacket(packet, number, timestamp, frameDuration, m_media);
        return packet;
    }

    ScratchTmpdir m_scratch;
    const std::string m_address = uniqueSocketAddress();
    PcmPayloader m_payloader;
    Buffer m_media = Buffer(1920); // 10 ms of 48 kHz stereo S16LE
    Sender m_sender;
};

TEST_F(SenderTest, LivesInAPrivateDirectoryGreetsReceiversAndLeavesNothingOnShutdown)
{
    const ProcessResources baseline = afterAWarmUpCycle();
    std::string address = m_address + "-";
    address.resize(MaxSocketAddressLength, 'x'); // the longest that fits
    ASSERT_TRUE(m_sender.initializeSender(address, "", "192.168.17.4", 4660, TimeSyncProtocol::GstNetClock,
                                          NanomsgProtocol::PubSub));
    const std::string uri = channelUri();
    EXPECT_EQ(fs::status(fs::path(uri.substr(6)).parent_path()).permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::status(uri.substr(6)).permissions(), fs::perms::owner_read | fs::perms::owner_write)
        << "by default, this user's receivers (and root's) alone reach the socket";
    EXPECT_TRUE(fs::is_socket(uri.substr(6))) << "publish/subscribe: the sender binds the socket";
    const Buffer expected = produceInitialInfoPacket(
        {1, "192.168.17.4", 4660, TimeSyncProtocol::GstNetClock, NanomsgProtocol::PubSub, uri});
    {
        SidechannelClient client(address);
        NanomsgPeer subscriber(NN_SUB, uri);
        EXPECT_EQ(client.readMessage(), expected);
        m_sender.setCurrentPayloader(m_payloader);
        EXPECT_EQ(subscriber.receiveWhileSending([&] { m_sender.sendMediaData(5, frameDuration, m_media); },
                                                 [](const Buffer& packet) { return packet[0] == 2; }),
                  frame(0, 5));
        EXPECT_TRUE(m_sender.initializeSender(m_address, "", "", 0, {}, {}))
            << "a running sender stays as it is";
        m_sender.shutdownSender();
        EXPECT_TRUE(client.waitForClose()) << "the sender closes its end of every connection";
    }
    EXPECT_TRUE(fs::is_empty(m_scratch.path()));
    EXPECT_TRUE(settlesAt(baseline));
    EXPECT_FALSE(SidechannelClient(address).connected()) << "nobody listens any more";
    const std::string size = std::to_string(expected.size()),
                      ipc = m_scratch.path() + "/VrxSender-XXXXXX/nanomsgChannel.ipc";
    EXPECT_EQ(m_log.lines("DEBUG"),
              (LogLines{"DEBUG Nanomsg URI: \"ipc://" + ipc + "\"", "DEBUG Nanomsg watch FD: #",
                        "DEBUG New client connection: FD #",
                        "DEBUG Sending InitialInfo packet with " + size + " bytes to connection with FD #",
                        "DEBUG Set payloader with FourCC \"PCMA\"",
                        "DEBUG Deleting nanomsg IPC socket file \"" + ipc + "\" if it exists",
                        "DEBUG Deleting temporary nanomsg socket directory \"" +
                            fs::path(ipc).parent_path().string() + "\""}));
    m_log.clear();
    m_sender.shutdownSender();
    EXPECT_EQ(m_log.lines(), LogLines{}) << "a second shut-down does nothing";

    // Initialised again, on an address one character too long: reported, and cut. The port
    // travels in its low 16 bits.
    ASSERT_TRUE(m_sender.initializeSender(address + "y", "", "", 70000, TimeSyncProtocol::GstNetClock,
                                          NanomsgProtocol::Pipeline));
    EXPECT_EQ(m_log.lines("ERROR"),
              (LogLines{"ERROR Cannot set up sender since the Unix domain socket address "
                        "is too long (max allowed length: 107 actual length: 108)"}));
    EXPECT_EQ(greeting(m_sender, address),
              Packets{produceInitialInfoPacket({1, "", 70000 - 65536, TimeSyncProtocol::GstNetClock,
                                                NanomsgProtocol::Pipeline, channelUri()})});
}

TEST_F(SenderTest, AFailedSetUpLeavesWhatItMadeUntilTheNextTryOrTheSenderGoes)
{
    const ProcessResources baseline = afterAWarmUpCycle();
    auto sender = std::make_unique<Sender>();
    {
        // On a taken address, with no alternative to try, set-up fails at the listener, which closes
        // its socket; the two pipes stay until the next try.
        Sender holder;
        ASSERT_TRUE(initialize(holder));
        const ProcessResources held = processResources();
        EXPECT_FALSE(initialize(*sender));
        EXPECT_TRUE(settlesAt(held, {.descriptors = 6})) << "two pipes, the directory and its parent";
    }
    // The parent directory is the receivers' to watch, not the sender's to create.
    const std::string missing = m_scratch.path() + "/missing";
    m_scratch.setTmpdir(missing.c_str());
    for (int attempt = 0; attempt < 3; ++attempt)
        EXPECT_FALSE(initialize(*sender));
    const std::string noDirectory =
        "ERROR Could not create temporary directory for nanomsg SP socket: " + errnoText(ENOENT);
    EXPECT_EQ(m_log.lines("ERROR"), LogLines(3, noDirectory));
    EXPECT_FALSE(fs::exists(missing));
    EXPECT_FALSE(SidechannelClient(m_address).connected());
    EXPECT_TRUE(settlesAt(baseline, {.descriptors = 4})) << "the last try's two pipes";

    // With nanomsg out of sockets, set-up fails after the listener.
    m_scratch.setTmpdir(m_scratch.path().c_str());
    m_log.clear();
    int exhausted = 0;
    const auto withoutNanomsgSockets = [&](const std::function<void()>& run) {
        std::vector<int> sockets;
        for (int socket; (socket = nn_socket(AF_SP, NN_PUB)) >= 0;)
            sockets.push_back(socket);
        exhausted = errno;
        run();
        std::ranges::for_each(sockets, nn_close);
    };
    withoutNanomsgSockets([&] { EXPECT_FALSE(initialize(*sender)); });
    EXPECT_EQ(m_log.lines(), (LogLines{"TRACE Setting up sender with socket address \"" + m_address + "\"",
                                       "DEBUG Nanomsg URI: \"ipc://" + m_scratch.path() +
                                           "/VrxSender-XXXXXX/nanomsgChannel.ipc\"",
                                       "TRACE Listener set up",
                                       "ERROR Could not create nanomsg SP socket: " + errnoText(exhausted)}));
    EXPECT_TRUE(SidechannelClient(m_address).connected())
        << "the listening socket stays, no thread serving it";
    EXPECT_EQ(entriesIn(m_scratch.path()), 1) << "this try's directory";
    EXPECT_TRUE(settlesAt(baseline, {.descriptors = 7}))
        << "the pipes, the directory and its parent of this try, and the listening socket";
    m_log.clear();
    sender->shutdownSender();
    EXPECT_EQ(m_log.lines(), LogLines{}) << "not initialised, so shut-down does nothing";
    sender.reset();
    EXPECT_TRUE(settlesAt(baseline));
    EXPECT_EQ(entriesIn(m_scratch.path()), 0);
    EXPECT_FALSE(SidechannelClient(m_address).connected());

    // Last, since the child dies leaving a directory: a try after such a failure meets the listener.
    withoutNanomsgSockets([&] { EXPECT_FALSE(initialize(m_sender)); });
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(initialize(m_sender),
                 assertionFailure("m_listenerSocketFD < 0", "bool vrx::Sender::setupListener()"));
}

// Towards a pipeline receiver every send waits until the channel takes the packet. A new
// sequence reaches the receivers connected then over the main channel only, later ones in their
// greeting.
TEST_F(SenderTest, SequencesAndFramesReachReceiversByteForByteNumberedFrom1To65535ThenFrom1)
{
    m_sender.setCurrentPayloader(m_payloader);
    ASSERT_TRUE(initialize(m_sender, NanomsgProtocol::Pipeline));
    SidechannelClient client(m_address);
    ASSERT_TRUE(client.readMessage());
    NanomsgPeer receiver(NN_PULL, channelUri());
    m_sender.sendMediaData(1, frameDuration, m_media);
    EXPECT_EQ(receiver.receive(), frame(0, 1)) << "before the first sequence, frames carry the number 0";
    m_payloader.setNewFormat(44100, 1, audioUtils::PcmFormat::F32LE); // read when the sequence starts
    m_sender.startNewSequence();
    EXPECT_EQ(receiver.receive(), sequenceInfo(1));
    EXPECT_FALSE(client.hasData())
        << "a connected receiver learns of a new sequence over the main channel only";
    m_sender.sendMediaData(0x0123456789ABCDEF, frameDuration, m_media);
    EXPECT_EQ(receiver.receive(), frame(1, 0x0123456789ABCDEF));
    client.close();
    EXPECT_EQ(greeting(m_sender, m_address),
              (Packets{produceInitialInfoPacket({1, "", 0, TimeSyncProtocol::MonotonicSystemClock,
                                                 NanomsgProtocol::Pipeline, channelUri()}),
                       sequenceInfo(1)}));
    EXPECT_EQ(m_log.lines("ERROR"), LogLines{});

    // The last sequence and its number outlive a shut-down; calls in between do nothing.
    m_sender.shutdownSender();
    m_log.clear();
    m_sender.startNewSequence();
    m_sender.sendMediaData(1, frameDuration, m_media);
    EXPECT_EQ(m_log.lines(),
              (LogLines{"DEBUG Not starting new sequence since the listener thread is not running",
                        "TRACE Cannot send media data: Listener thread is not running"}));
    ASSERT_TRUE(initialize(m_sender));
    EXPECT_EQ(greeting(m_sender, m_address).at(1), sequenceInfo(1));
    m_log.clear();
    m_sender.startNewSequence();
    EXPECT_EQ(m_log.lines(),
              (LogLines{"DEBUG Starting new sequence with nr 2",
                        "DEBUG There are no client connections; no need to send SequenceInfo packet now"}));
    for (int number = 3; number <= 65535; ++number)
        m_sender.startNewSequence();
    m_log.clear();
    EXPECT_EQ(greeting(m_sender, m_address).at(1), sequenceInfo(65535));
    m_sender.startNewSequence();
    EXPECT_EQ(greeting(m_sender, m_address).at(1), sequenceInfo(1));
}

// Every entry of the listener's poll set gets the message: the wake-up pipe, no socket, and the
// listening socket, with no peer, first (and fail); an empty message is its size alone.
TEST_F(SenderTest, CountsConnectionsUntilTheirReceiversCloseAndSendsToEveryPollSetEntry)
{
    ASSERT_TRUE(initialize(m_sender));
    EXPECT_FALSE(m_sender.areThereClientConnections());
    SidechannelClient client(m_address);
    ASSERT_TRUE(client.readMessage());
    EXPECT_TRUE(m_sender.areThereClientConnections());
    m_log.clear();
    m_sender.sendDataOverAllClientConnections({});
    EXPECT_EQ(client.readMessage(), Buffer{});
    client.close();
    const std::string sending = "TRACE Sending message with 0 bytes over client connection with FD #",
                      failed = "ERROR Could not send message size to client connection with FD #: ",
                      closed = "DEBUG Client connection with FD # got closed; 0 connection(s) remain";
    ASSERT_TRUE(m_log.waitFor(closed));
    EXPECT_FALSE(m_sender.areThereClientConnections());
    EXPECT_EQ(m_log.lines(), (LogLines{sending, failed + errnoText(ENOTSOCK), sending,
                                       failed + errnoText(ENOTCONN), sending, closed}));
    EXPECT_EQ(greeting(m_sender, m_address).size(), 1u) << "the listener goes on serving";
}

// Out of descriptors, a pending connection keeps the listening socket readable: the listener
// leaves it alone for a while instead of spinning on it, says so once, and greets the receiver
// once a descriptor is free again.
TEST_F(SenderTest, OutOfDescriptorsTheListenerPausesLogsOnceAndGreetsLaterReceivers)
{
    ASSERT_TRUE(initialize(m_sender));
    SidechannelClient client(m_address, false); // its socket now, its connection at the limit
    {
        const DescriptorLimit limit;
        ASSERT_TRUE(client.connect());
        ASSERT_TRUE(waitFor([&] { return m_log.count("TRACE Listener thread socket activity") >= 3; }));
    }
    EXPECT_TRUE(client.readMessage());
    EXPECT_EQ(m_log.lines("ERROR"), LogLines{"ERROR Could not accept new connection: " + errnoText(EMFILE)});
    EXPECT_THAT(m_log.lines("INFO"),
                ::testing::ElementsAre(::testing::StartsWith("INFO Accepting new connections again; ")));
}

// A send waits while the main channel cannot take its packet, here while no pipeline receiver
// has bound the address; disabling sending and shutting down both wake it.
TEST_F(SenderTest, DisablingOrShuttingDownWakesASendThatWaitsForTheChannel)
{
    for (const bool shutDown : {false, true})
    {
        SCOPED_TRACE(shutDown ? "shutdownSender" : "disableSend");
        const ProcessResources baseline = afterAWarmUpCycle();
        auto sender = std::make_unique<Sender>();
        ASSERT_TRUE(initialize(*sender, NanomsgProtocol::Pipeline));
        sender->setCurrentPayloader(m_payloader);
        auto send = std::async(std::launch::async, [&] { sender->sendMediaData(7, frameDuration, m_media); });
        ASSERT_TRUE(m_log.waitFor("TRACE Sending data with 1940 bytes over nanomsg SP socket"));
        shutDown ? sender->shutdownSender() : sender->disableSend(true);
        ASSERT_EQ(send.wait_for(conditionDeadline), std::future_status::ready);
        EXPECT_EQ(m_log.count("TRACE Nanomsg wakeup pipe activity"), 1u);
        EXPECT_EQ(m_log.count("TRACE Nanomsg watch FD activity"), 0u) << "the packet is dropped";
        if (!shutDown)
        {
            // Only changes count; a disabled send returns at once. The woken send drained the
            // wake-up byte: the next send waits for the receiver.
            sender->disableSend(true);
            sender->sendMediaData(8, frameDuration, m_media);
            sender->disableSend(false);
            sender->disableSend(false);
            NanomsgPeer receiver(NN_PULL, channelUri());
            sender->sendMediaData(9, frameDuration, m_media);
            EXPECT_EQ(receiver.receive(), frame(0, 9));
            for (const char* change :
                 {"TRACE Send operations are now disabled", "TRACE Send operations are now enabled",
                  "TRACE Cannot send anything; sending is disabled", "TRACE Nanomsg wakeup pipe activity"})
                EXPECT_EQ(m_log.count(change), 1u) << change;
            // Each disable leaves a wake-up byte that no send takes; more than the pipe holds
            // must not block the caller.
            auto toggles = std::async(std::launch::async, [&] {
                for (int change = 0; change < 140'000; ++change)
                    sender->disableSend(change % 2 == 0);
            });
            EXPECT_EQ(toggles.wait_for(conditionDeadline), std::future_status::ready);
        }
        sender.reset(); // shuts down a sender still initialised
        EXPECT_EQ(m_log.lines("ERROR"), LogLines{});
        EXPECT_TRUE(fs::is_empty(m_scratch.path()));
        EXPECT_TRUE(settlesAt(baseline));
    }
}

TEST_F(SenderTest, BrokenPreconditionsStopTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(initialize(m_sender, NanomsgProtocol::Unknown),
                 assertionFailure("m_nanomsgProtocol == NanomsgProtocol::Pipeline || m_nanomsgProtocol == "
                                  "NanomsgProtocol::PubSub",
                                  "bool vrx::Sender::setupNanomsgMainChannel()"));
    ASSERT_TRUE(initialize(m_sender));
    EXPECT_DEATH(m_sender.startNewSequence(),
                 assertionFailure("m_payloader != nullptr", "void vrx::Sender::startNewSequence()"));
    EXPECT_DEATH(m_sender.sendMediaData(1, frameDuration, m_media),
                 assertionFailure("m_payloader != nullptr", "void vrx::Sender::sendMediaData("));
}

} // namespace
} // namespace vrx::test
