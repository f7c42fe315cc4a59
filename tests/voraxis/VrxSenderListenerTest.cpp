// The sidechannel of vrx::Sender seen by plain Unix-domain clients: the greeting byte for byte,
// the alternative address, connection bookkeeping and messages to all connections.

#include "SenderTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace vrx::test {
namespace {

using log4cplus::DEBUG_LOG_LEVEL;
using log4cplus::ERROR_LOG_LEVEL;

class SenderListenerTest : public SenderTest
{
protected:
    // Whatever the sender sends to all connections next; reading it right behind a greeting
    // proves that the greeting had no further message.
    const Buffer m_marker{0xAB, 0xCD, 0xEF};
};

TEST_F(SenderListenerTest, AClientBeforeTheFirstSequenceIsGreetedWithInitialInfoAlone)
{
    ASSERT_TRUE(m_sender.initializeSender(m_address, "", "192.168.17.4", 4660, TimeSyncProtocol::GstNetClock,
                                          NanomsgProtocol::PubSub));
    const std::string uri = nanomsgUriOf(senderDirectory());

    SidechannelClient client(m_address);
    ASSERT_TRUE(client.connected());
    const Buffer expected = framed(expectedInitialInfo("192.168.17.4", 4660, TimeSyncProtocol::GstNetClock,
                                                       NanomsgProtocol::PubSub, uri));
    EXPECT_EQ(client.readMessage(), expected);
    // The port travels as 34 12, right behind the address and its terminator.
    EXPECT_EQ(expected[4 + 2 + 12 + 1], 0x34);
    EXPECT_EQ(expected[4 + 2 + 12 + 2], 0x12);

    m_sender.sendDataOverAllClientConnections(m_marker);
    EXPECT_EQ(client.readMessage(), framed(m_marker));

    const std::vector<int> clients = acceptedClientDescriptors(m_log);
    ASSERT_EQ(clients.size(), 1u);
    const std::string fd = std::to_string(clients.front());
    EXPECT_EQ(m_log.count(DEBUG_LOG_LEVEL, "Sending InitialInfo packet with " +
                                               std::to_string(expected.size() - 4) +
                                               " bytes to connection with FD " + fd),
              1u);
    EXPECT_FALSE(m_log.contains("Sending SequenceInfo packet"));
}

TEST_F(SenderListenerTest, AClientAfterASequenceStartedAlsoGetsTheCurrentSequenceInfo)
{
    ASSERT_TRUE(initialize(NanomsgProtocol::PubSub));
    const std::string uri = nanomsgUriOf(senderDirectory());
    m_sender.setCurrentPayloader(m_payloader);
    m_sender.startNewSequence();
    EXPECT_EQ(m_log.count(DEBUG_LOG_LEVEL,
                          "There are no client connections; no need to send SequenceInfo packet now"),
              1u);

    SidechannelClient first(m_address);
    ASSERT_TRUE(first.connected());
    EXPECT_EQ(first.readMessage(), framed(expectedInitialInfo("", 0, TimeSyncProtocol::MonotonicSystemClock,
                                                              NanomsgProtocol::PubSub, uri)));
    EXPECT_EQ(first.readMessage(), framed(expectedPcmSequenceInfo(1)));
    m_sender.sendDataOverAllClientConnections(m_marker);
    EXPECT_EQ(first.readMessage(), framed(m_marker));
    EXPECT_EQ(
        m_log.count(DEBUG_LOG_LEVEL, "Sending SequenceInfo packet with 14 bytes to connection with FD " +
                                         std::to_string(acceptedClientDescriptors(m_log).at(0))),
        1u);

    // A new format reaches the connected client over the main channel, not the sidechannel;
    // later clients get it in their greeting.
    m_payloader.setNewFormat(44100, 1, audioUtils::PcmFormat::F32LE);
    m_sender.startNewSequence();
    EXPECT_EQ(m_log.count(DEBUG_LOG_LEVEL, "Sending out new SequenceInfo packet to client connections"), 1u);

    SidechannelClient second(m_address);
    ASSERT_TRUE(second.connected());
    EXPECT_TRUE(second.readMessage());
    EXPECT_EQ(second.readMessage(),
              framed(Buffer{0x01, 0x00, 0x02, 0x00, 'P', 'C', 'M', 'A', 0x44, 0xAC, 0x00, 0x00, 0x01, 0x0A}));

    m_sender.sendDataOverAllClientConnections(m_marker);
    EXPECT_EQ(first.readMessage(), framed(m_marker)) << "nothing else reached the first client's sidechannel";
    EXPECT_EQ(second.readMessage(), framed(m_marker));
}

TEST_F(SenderListenerTest, ATimeSyncPortAbove65535ReachesReceiversInItsLow16Bits)
{
    ASSERT_TRUE(m_sender.initializeSender(m_address, "", "", 70000, TimeSyncProtocol::GstNetClock,
                                          NanomsgProtocol::Pipeline));
    SidechannelClient client(m_address);
    EXPECT_EQ(client.readMessage(),
              framed(expectedInitialInfo("", 70000 - 65536, TimeSyncProtocol::GstNetClock,
                                         NanomsgProtocol::Pipeline, nanomsgUriOf(senderDirectory()))));
    EXPECT_TRUE(m_log.messages(ERROR_LOG_LEVEL).empty());
}

TEST_F(SenderListenerTest, TheAlternativeAddressIsUsedWhenTheMainOneIsTaken)
{
    ASSERT_TRUE(initialize(NanomsgProtocol::PubSub));
    const std::vector<std::string> firstDirectory = senderDirectories(m_scratch.path());

    Sender second;
    const std::string alternative = uniqueSocketAddress("alternative");
    m_log.clear();
    ASSERT_TRUE(second.initializeSender(m_address, alternative, "", 0, TimeSyncProtocol::MonotonicSystemClock,
                                        NanomsgProtocol::PubSub));

    const std::vector<std::string> debug = m_log.messages(DEBUG_LOG_LEVEL);
    const std::string bindFailure =
        "Could not bind listener socket: " + miscUtils::strerror_r_safe(EADDRINUSE) + " (" +
        std::to_string(EADDRINUSE) + ")";
    const auto failure = std::find(debug.begin(), debug.end(), bindFailure);
    ASSERT_NE(failure, debug.end());
    ASSERT_NE(std::next(failure), debug.end());
    EXPECT_EQ(*std::next(failure), "Binding to alternative address " + alternative);
    EXPECT_EQ(m_log.count("Alternative socket address \"" + alternative + "\""), 1u);

    // Each address greets with its own sender's main channel.
    std::vector<std::string> secondDirectory;
    for (const std::string& directory : senderDirectories(m_scratch.path()))
        if (directory != firstDirectory.at(0))
            secondDirectory.push_back(directory);
    ASSERT_EQ(secondDirectory.size(), 1u);
    SidechannelClient onAlternative(alternative);
    EXPECT_EQ(onAlternative.readMessage(),
              framed(expectedInitialInfo("", 0, TimeSyncProtocol::MonotonicSystemClock,
                                         NanomsgProtocol::PubSub, nanomsgUriOf(secondDirectory.front()))));
    SidechannelClient onMain(m_address);
    EXPECT_EQ(onMain.readMessage(),
              framed(expectedInitialInfo("", 0, TimeSyncProtocol::MonotonicSystemClock,
                                         NanomsgProtocol::PubSub, nanomsgUriOf(firstDirectory.at(0)))));
}

// Sockets of this process, by their /proc/self/fd entries.
std::vector<std::string> openSockets()
{
    std::vector<std::string> sockets;
    for (const std::string& descriptor : openDescriptors())
        if (descriptor.find("socket:") != std::string::npos)
            sockets.push_back(descriptor);
    return sockets;
}

TEST_F(SenderListenerTest, WithoutAUsableAddressSetUpFailsAndLeavesNoSocketOpen)
{
    ASSERT_TRUE(initialize(NanomsgProtocol::PubSub));
    Sender holderOfAlternative;
    const std::string alternative = uniqueSocketAddress("alternative");
    ASSERT_TRUE(holderOfAlternative.initializeSender(
        alternative, "", "", 0, TimeSyncProtocol::MonotonicSystemClock, NanomsgProtocol::PubSub));
    const std::vector<std::string> socketsBefore = openSockets();
    const std::string bindFailure =
        "Could not bind listener socket: " + miscUtils::strerror_r_safe(EADDRINUSE) + " (" +
        std::to_string(EADDRINUSE) + ")";

    {
        Sender sender;
        m_log.clear();
        EXPECT_FALSE(sender.initializeSender(m_address, "", "", 0, TimeSyncProtocol::MonotonicSystemClock,
                                             NanomsgProtocol::PubSub));
        EXPECT_EQ(m_log.count(DEBUG_LOG_LEVEL, bindFailure), 1u);
        EXPECT_FALSE(m_log.contains("Binding to alternative address"));
        EXPECT_EQ(openSockets(), socketsBefore);
    }
    {
        Sender sender;
        m_log.clear();
        EXPECT_FALSE(sender.initializeSender(
            m_address, alternative, "", 0, TimeSyncProtocol::MonotonicSystemClock, NanomsgProtocol::PubSub));
        EXPECT_EQ(m_log.count(DEBUG_LOG_LEVEL, bindFailure), 2u);
        EXPECT_EQ(m_log.count(DEBUG_LOG_LEVEL, "Binding to alternative address " + alternative), 1u);
        EXPECT_EQ(openSockets(), socketsBefore);
    }
    EXPECT_FALSE(m_log.contains("Could not connect the nanomsg SP socket"));
    // The two running senders; the failed ones took their directories with them.
    EXPECT_EQ(senderDirectories(m_scratch.path()).size(), 2u);
}

TEST_F(SenderListenerTest, ConnectionsAreCountedUntilTheirClientsClose)
{
    ASSERT_TRUE(initialize(NanomsgProtocol::PubSub));
    EXPECT_FALSE(m_sender.areThereClientConnections());

    SidechannelClient first(m_address);
    ASSERT_TRUE(first.readMessage());
    EXPECT_TRUE(m_sender.areThereClientConnections())
        << "the greeting is sent after the connection is counted";
    SidechannelClient second(m_address);
    ASSERT_TRUE(second.readMessage());
    const std::vector<int> clients = acceptedClientDescriptors(m_log);
    ASSERT_EQ(clients.size(), 2u);

    first.close();
    EXPECT_TRUE(waitForLog(m_log, "Client connection with FD " + std::to_string(clients[0]) +
                                      " got closed; 1 connection(s) remain"));
    EXPECT_TRUE(m_sender.areThereClientConnections());

    second.close();
    EXPECT_TRUE(waitForLog(m_log, "Client connection with FD " + std::to_string(clients[1]) +
                                      " got closed; 0 connection(s) remain"));
    EXPECT_FALSE(m_sender.areThereClientConnections());

    // The listener goes on serving after its clients have gone.
    SidechannelClient third(m_address);
    EXPECT_TRUE(third.readMessage());
    EXPECT_TRUE(m_sender.areThereClientConnections());
    EXPECT_TRUE(m_log.messages(ERROR_LOG_LEVEL).empty());
}

TEST_F(SenderListenerTest, SendingToAllConnectionsAlsoTriesTheWakeupPipeAndTheListeningSocket)
{
    ASSERT_TRUE(initialize(NanomsgProtocol::PubSub));
    SidechannelClient client(m_address);
    ASSERT_TRUE(client.readMessage());
    const int clientFD = acceptedClientDescriptors(m_log).at(0);
    m_log.clear();

    m_sender.sendDataOverAllClientConnections(m_marker);
    EXPECT_EQ(client.readMessage(), framed(m_marker));

    const std::vector<std::string> messages = m_log.messages();
    const std::string sizeFailure = "Could not send message size to client connection with FD ";
    ASSERT_EQ(messages.size(), 5u);
    // Entry 0, the wake-up pipe's read end, is no socket; entry 1 listens and has no peer.
    EXPECT_TRUE(messages[0].starts_with("Sending message with 3 bytes over client connection with FD "));
    EXPECT_TRUE(messages[1].starts_with(sizeFailure));
    EXPECT_TRUE(messages[1].ends_with(": " + miscUtils::strerror_r_safe(ENOTSOCK) + " (" +
                                      std::to_string(ENOTSOCK) + ")"));
    EXPECT_TRUE(messages[2].starts_with("Sending message with 3 bytes over client connection with FD "));
    EXPECT_TRUE(messages[3].starts_with(sizeFailure));
    EXPECT_TRUE(messages[3].ends_with(": " + miscUtils::strerror_r_safe(ENOTCONN) + " (" +
                                      std::to_string(ENOTCONN) + ")"));
    EXPECT_EQ(messages[4],
              "Sending message with 3 bytes over client connection with FD " + std::to_string(clientFD));
    EXPECT_EQ(m_log.messages(ERROR_LOG_LEVEL).size(), 2u);
}

} // namespace
} // namespace vrx::test
