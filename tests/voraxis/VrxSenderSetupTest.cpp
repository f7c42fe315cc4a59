// Set-up and shut-down of vrx::Sender: the temporary directory, the address check, what a
// failed set-up leaves behind, and that shut-down leaves nothing behind.

#include "SenderTestSupport.h"

#include "AssertionRegex.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace vrx::test {
namespace {

using log4cplus::DEBUG_LOG_LEVEL;
using log4cplus::ERROR_LOG_LEVEL;
using log4cplus::TRACE_LOG_LEVEL;

class SenderSetupTest : public SenderTest
{};

bool isDirectory(const std::string& path)
{
    struct stat status
    {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// A sidechannel client that reads the greeting proves that the listener thread serves.
void expectGreeting(const std::string& address, std::uint16_t port, NanomsgProtocol protocol,
                    const std::string& uri)
{
    SidechannelClient client(address);
    ASSERT_TRUE(client.connected()) << std::strerror(client.connectError());
    EXPECT_EQ(client.readMessage(),
              framed(expectedInitialInfo("", port, TimeSyncProtocol::MonotonicSystemClock, protocol, uri)));
}

TEST_F(SenderSetupTest, CreatesAPrivateDirectoryUnderTmpdirAndRemovesItOnShutdown)
{
    ASSERT_TRUE(initialize(NanomsgProtocol::PubSub));

    const std::string directory = senderDirectory();
    ASSERT_FALSE(directory.empty()) << "expected exactly one VrxSender-XXXXXX in " << m_scratch.path();
    EXPECT_EQ(std::filesystem::path(directory).parent_path(), m_scratch.path());
    struct stat status
    {};
    ASSERT_EQ(stat(directory.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0777u) << "receivers of other users must reach the socket";
    // Publish/subscribe: the sender binds, so the socket file is its own.
    const std::string ipcFile = directory + "/nanomsgChannel.ipc";
    ASSERT_EQ(stat(ipcFile.c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));

    const std::string uri = nanomsgUriOf(directory);
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, "Setting up sender with socket address \"" + m_address + "\""),
              1u);
    EXPECT_EQ(m_log.count(DEBUG_LOG_LEVEL, "Nanomsg URI: \"" + uri + "\""), 1u);
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, "Listener set up"), 1u);
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, "Sender initialized"), 1u);
    EXPECT_FALSE(m_log.contains("Alternative socket address"));
    expectGreeting(m_address, 0, NanomsgProtocol::PubSub, uri);

    m_log.clear();
    m_sender.shutdownSender();
    EXPECT_FALSE(std::filesystem::exists(directory));
    EXPECT_TRUE(std::filesystem::is_empty(m_scratch.path()));
    EXPECT_EQ(
        m_log.count(DEBUG_LOG_LEVEL, "Deleting nanomsg IPC socket file \"" + ipcFile + "\" if it exists"),
        1u);
    EXPECT_EQ(
        m_log.count(DEBUG_LOG_LEVEL, "Deleting temporary nanomsg socket directory \"" + directory + "\""),
        1u);
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, "Listener shut down"), 1u);
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, "Sender shut down"), 1u);
    EXPECT_TRUE(m_log.messages(ERROR_LOG_LEVEL).empty());

    // The address is free again: nobody listens there any more.
    SidechannelClient late(m_address);
    EXPECT_FALSE(late.connected());
    EXPECT_EQ(late.connectError(), ECONNREFUSED);

    m_log.clear();
    m_sender.shutdownSender();
    EXPECT_TRUE(m_log.records().empty()) << "a second shut-down does nothing";
}

TEST_F(SenderSetupTest, TmpdirNamingAMissingDirectoryFailsWithoutCreatingIt)
{
    const std::string missing = m_scratch.path() + "/missing";
    ScopedEnvironmentVariable tmpdir("TMPDIR", missing);

    EXPECT_FALSE(initialize(NanomsgProtocol::PubSub));
    EXPECT_EQ(m_log.count(ERROR_LOG_LEVEL, "Could not create temporary directory for nanomsg SP socket: " +
                                               miscUtils::strerror_r_safe(ENOENT) + " (" +
                                               std::to_string(ENOENT) + ")"),
              1u);
    EXPECT_FALSE(std::filesystem::exists(missing));
    // Set-up stopped before the listener.
    EXPECT_FALSE(SidechannelClient(m_address).connected());
    EXPECT_FALSE(m_log.contains("Listener set up"));
}

TEST_F(SenderSetupTest, WithoutTmpdirTheDirectoryGoesUnderTmpVrxWhichIsNotCreated)
{
    ScopedEnvironmentVariable tmpdir("TMPDIR", std::nullopt);
    const std::string defaultParent = "/tmp/vrx";

    // Other runs of this suite (other build directories) may run this test at the same time and
    // create or remove /tmp/vrx; a lock on /tmp itself serialises them without leaving a file.
    const int tmpFD = open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(tmpFD, 0);
    ASSERT_EQ(flock(tmpFD, LOCK_EX), 0);
    struct LockRelease
    {
        int fd;
        ~LockRelease() { close(fd); }
    } lockRelease{tmpFD};

    const bool parentExisted = isDirectory(defaultParent);
    if (!parentExisted)
    {
        ASSERT_FALSE(initialize(NanomsgProtocol::PubSub));
        EXPECT_EQ(m_log.count(ERROR_LOG_LEVEL,
                              "Could not create temporary directory for nanomsg SP socket: " +
                                  miscUtils::strerror_r_safe(ENOENT) + " (" + std::to_string(ENOENT) + ")"),
                  1u);
        EXPECT_FALSE(std::filesystem::exists(defaultParent))
            << "the sender must not create its parent directory";
        ASSERT_EQ(mkdir(defaultParent.c_str(), 0777), 0);
    }

    const std::vector<std::string> before = senderDirectories(defaultParent);
    const bool initialized = initialize(NanomsgProtocol::PubSub);
    std::vector<std::string> created;
    for (const std::string& directory : senderDirectories(defaultParent))
        if (std::find(before.begin(), before.end(), directory) == before.end())
            created.push_back(directory);
    m_sender.shutdownSender();
    const bool removed = created.size() == 1 && !std::filesystem::exists(created.front());
    if (!parentExisted) // ours alone, made under the lock: also when the sender left something in it
        std::filesystem::remove_all(defaultParent);

    EXPECT_TRUE(initialized);
    ASSERT_EQ(created.size(), 1u);
    EXPECT_TRUE(m_log.count(DEBUG_LOG_LEVEL, "Nanomsg URI: \"" + nanomsgUriOf(created.front()) + "\"") == 1u);
    EXPECT_TRUE(removed);
    if (parentExisted)
        GTEST_SKIP() << "/tmp/vrx existed already, so the case without it was not run";
}

TEST_F(SenderSetupTest, AnAddressOf108CharactersIsReportedAndCutTo107)
{
    std::string longAddress = m_address + "-";
    longAddress.resize(108, 'x');

    ASSERT_TRUE(m_sender.initializeSender(longAddress, "", "", 0, TimeSyncProtocol::MonotonicSystemClock,
                                          NanomsgProtocol::PubSub))
        << "the length check only warns; set-up carries on";
    EXPECT_EQ(m_log.count(ERROR_LOG_LEVEL,
                          "Cannot set up sender since the Unix domain socket address is too long "
                          "(max allowed length: 107 actual length: 108)"),
              1u);
    expectGreeting(longAddress.substr(0, 107), 0, NanomsgProtocol::PubSub, nanomsgUriOf(senderDirectory()));
}

TEST_F(SenderSetupTest, AnAddressOf107CharactersIsAccepted)
{
    std::string address = m_address + "-";
    address.resize(107, 'y');

    ASSERT_TRUE(m_sender.initializeSender(address, "", "", 0, TimeSyncProtocol::MonotonicSystemClock,
                                          NanomsgProtocol::PubSub));
    EXPECT_FALSE(m_log.contains("too long"));
    expectGreeting(address, 0, NanomsgProtocol::PubSub, nanomsgUriOf(senderDirectory()));
}

TEST_F(SenderSetupTest, InitializingARunningSenderChangesNothing)
{
    ASSERT_TRUE(m_sender.initializeSender(m_address, "", "", 1000, TimeSyncProtocol::MonotonicSystemClock,
                                          NanomsgProtocol::PubSub));
    const std::string directory = senderDirectory();
    m_log.clear();

    const std::string otherAddress = uniqueSocketAddress("other");
    EXPECT_TRUE(m_sender.initializeSender(otherAddress, uniqueSocketAddress("alternative"), "10.0.0.1", 2000,
                                          TimeSyncProtocol::GstNetClock, NanomsgProtocol::Pipeline));

    EXPECT_TRUE(m_log.records().empty());
    EXPECT_EQ(senderDirectories(m_scratch.path()), std::vector<std::string>{directory});
    EXPECT_FALSE(SidechannelClient(otherAddress).connected());
    expectGreeting(m_address, 1000, NanomsgProtocol::PubSub, nanomsgUriOf(directory));
}

// Counts shut-down must get back to: nanomsg keeps nothing once its last socket is closed, but
// a first cycle also lets logging, the sanitizer runtimes and the allocator settle.
ProcessResources baselineAfterAWarmUpCycle(Sender& sender, const std::string& address)
{
    if (sender.initializeSender(address, "", "", 0, TimeSyncProtocol::MonotonicSystemClock,
                                NanomsgProtocol::PubSub))
        sender.shutdownSender();
    return processResources();
}

TEST_F(SenderSetupTest, ShutdownLeavesNoDescriptorThreadFileOrDirectory)
{
    for (const NanomsgProtocol protocol : {NanomsgProtocol::PubSub, NanomsgProtocol::Pipeline})
    {
        SCOPED_TRACE(toString(protocol));
        const ProcessResources baseline = baselineAfterAWarmUpCycle(m_sender, m_address);

        ASSERT_TRUE(initialize(protocol));
        const std::string directory = senderDirectory();
        EXPECT_GT(processResources().threads.size(), baseline.threads.size());
        {
            SidechannelClient first(m_address);
            SidechannelClient second(m_address);
            ASSERT_TRUE(first.readMessage());
            ASSERT_TRUE(second.readMessage());
            // Pipeline: the receiver's bound socket gives the sender's socket a peer.
            NanomsgSocket receiver(protocol == NanomsgProtocol::PubSub ? NanomsgSocket::Kind::Subscriber
                                                                       : NanomsgSocket::Kind::Puller,
                                   nanomsgUriOf(directory));
            ASSERT_TRUE(receiver.attached());
            m_sender.setCurrentPayloader(m_payloader);
            m_sender.startNewSequence();
            const Buffer media = mediaFrame(1);
            ASSERT_TRUE(sendUntilReceived(
                receiver, [&] { m_sender.sendMediaData(1, 2, media); },
                [](const Buffer& packet) { return isFrameWithTimestamp(packet, 1); }));

            m_sender.shutdownSender();
            EXPECT_TRUE(first.waitForClose()) << "the sender closes its end of every connection";
            EXPECT_TRUE(second.waitForClose());
        }
        EXPECT_FALSE(std::filesystem::exists(directory));
        EXPECT_TRUE(std::filesystem::is_empty(m_scratch.path()));
        EXPECT_TRUE(settlesAt(baseline));
    }
}

TEST_F(SenderSetupTest, DestroyingAnInitialisedSenderShutsItDown)
{
    const ProcessResources baseline = baselineAfterAWarmUpCycle(m_sender, m_address);
    {
        Sender sender;
        ASSERT_TRUE(sender.initializeSender(m_address, "", "", 0, TimeSyncProtocol::MonotonicSystemClock,
                                            NanomsgProtocol::PubSub));
        ASSERT_FALSE(senderDirectory().empty());
        m_log.clear();
    }
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, "Sender shut down"), 1u);
    EXPECT_TRUE(std::filesystem::is_empty(m_scratch.path()));
    EXPECT_TRUE(settlesAt(baseline));
    EXPECT_FALSE(SidechannelClient(m_address).connected());
}

TEST_F(SenderSetupTest, ASenderCanBeInitialisedAgainAfterShutdown)
{
    ASSERT_TRUE(initialize(NanomsgProtocol::PubSub));
    const std::string first = senderDirectory();
    m_sender.shutdownSender();

    ASSERT_TRUE(m_sender.initializeSender(m_address, "", "", 5, TimeSyncProtocol::MonotonicSystemClock,
                                          NanomsgProtocol::Pipeline));
    const std::string second = senderDirectory();
    ASSERT_FALSE(second.empty());
    EXPECT_FALSE(std::filesystem::exists(first));
    expectGreeting(m_address, 5, NanomsgProtocol::Pipeline, nanomsgUriOf(second));
}

// A TMPDIR this long makes the IPC path too long for a Unix socket address (but not the URI
// too long for nanomsg's own check), a path on which nanomsg would stop the process itself.
std::string tmpdirTooLongForTheIpcPath(const std::string& scratch)
{
    std::string directory = scratch + "/";
    directory.resize(80, 'd');
    std::filesystem::create_directories(directory);
    return directory;
}

TEST_F(SenderSetupTest, NanomsgFailureAfterTheListenerLeavesTheListenerAndDirectoryInPlace)
{
    ScopedEnvironmentVariable tmpdir("TMPDIR", tmpdirTooLongForTheIpcPath(m_scratch.path()));
    const std::vector<std::string> descriptorsBefore = openDescriptors();

    EXPECT_FALSE(initialize(NanomsgProtocol::PubSub));

    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, "Listener set up"), 1u);
    EXPECT_EQ(m_log.count(ERROR_LOG_LEVEL, "Could not connect the nanomsg SP socket: " +
                                               miscUtils::strerror_r_safe(ENAMETOOLONG) + " (" +
                                               std::to_string(ENAMETOOLONG) + ")"),
              1u);
    EXPECT_FALSE(m_log.contains("Sender initialized"));
    // Documented leftovers of a failed set-up: the listening socket still accepts connections
    // (no thread serves it), and the directory stays.
    EXPECT_TRUE(SidechannelClient(m_address).connected());
    EXPECT_EQ(senderDirectories(std::getenv("TMPDIR")).size(), 1u);
    EXPECT_GT(openDescriptors().size(), descriptorsBefore.size());

    m_log.clear();
    m_sender.shutdownSender();
    EXPECT_TRUE(m_log.records().empty()) << "the sender is idle, so shut-down does nothing";
}

TEST_F(SenderSetupTest, RetryingUntilTheParentDirectoryExistsDoesNotPileUpDescriptors)
{
    const ProcessResources baseline = baselineAfterAWarmUpCycle(m_sender, m_address);
    const std::string parent = m_scratch.path() + "/appears-later";
    ScopedEnvironmentVariable tmpdir("TMPDIR", parent);

    for (int attempt = 0; attempt < 5; ++attempt)
        EXPECT_FALSE(initialize(NanomsgProtocol::PubSub));
    // Each failed attempt leaves its two pipes open until the next one.
    EXPECT_TRUE(settlesAt(baseline, {.descriptors = 4}));

    ASSERT_TRUE(std::filesystem::create_directory(parent));
    ASSERT_TRUE(initialize(NanomsgProtocol::PubSub));
    m_sender.shutdownSender();
    EXPECT_TRUE(settlesAt(baseline));
}

TEST_F(SenderSetupTest, DestroyingASenderWhoseSetUpFailedReleasesWhatItLeft)
{
    const ProcessResources baseline = baselineAfterAWarmUpCycle(m_sender, m_address);
    ScopedEnvironmentVariable tmpdir("TMPDIR", tmpdirTooLongForTheIpcPath(m_scratch.path()));
    {
        Sender sender;
        EXPECT_FALSE(sender.initializeSender(m_address, "", "", 0, TimeSyncProtocol::MonotonicSystemClock,
                                             NanomsgProtocol::PubSub));
        EXPECT_TRUE(SidechannelClient(m_address).connected());
    }
    EXPECT_TRUE(settlesAt(baseline));
    EXPECT_TRUE(senderDirectories(std::getenv("TMPDIR")).empty());
    EXPECT_FALSE(SidechannelClient(m_address).connected());
}

TEST_F(SenderSetupTest, InitializingAgainAfterANanomsgFailureStopsAtTheListenerAssertion)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ScopedEnvironmentVariable tmpdir("TMPDIR", tmpdirTooLongForTheIpcPath(m_scratch.path()));

    EXPECT_DEATH(
        {
            if (!initialize(NanomsgProtocol::PubSub))
                initialize(NanomsgProtocol::PubSub);
        },
        assertionFailure("m_listenerSocketFD < 0") + "bool vrx::Sender::setupListener\\(\\)");
}

TEST_F(SenderSetupTest, AnUnknownNanomsgProtocolStopsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(initialize(NanomsgProtocol::Unknown),
                 assertionFailure("m_nanomsgProtocol == NanomsgProtocol::Pipeline || m_nanomsgProtocol == "
                                  "NanomsgProtocol::PubSub"));
}

} // namespace
} // namespace vrx::test
