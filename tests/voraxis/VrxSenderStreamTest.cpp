// The main channel of vrx::Sender seen by raw nanomsg receivers: SequenceInfo and Frame
// packets byte for byte in both protocols, sequence numbers, disableSend and its wake-up, and
// shut-down while a send waits.

#include "SenderTestSupport.h"

#include <atomic>
#include <thread>

#include "AssertionRegex.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <future>

namespace vrx::test {
namespace {

using log4cplus::DEBUG_LOG_LEVEL;
using log4cplus::ERROR_LOG_LEVEL;
using log4cplus::TRACE_LOG_LEVEL;

constexpr std::uint64_t frameDuration = 10'000'000;

class SenderStreamTest : public SenderTest
{
protected:
    // A send runs on its own thread here when it is expected to wait for the main channel.
    std::future<void> sendInTheBackground(std::uint64_t timestamp)
    {
        return std::async(std::launch::async,
                          [this, timestamp] { m_sender.sendMediaData(timestamp, frameDuration, m_media); });
    }

    // True when the background send has returned; a send that stays stuck is released by
    // shutting the sender down, so that the test can report instead of hanging.
    bool returns(std::future<void>& send)
    {
        if (send.wait_for(conditionDeadline) == std::future_status::ready)
        {
            send.get(); // also waits for the thread to end
            return true;
        }
        m_sender.shutdownSender();
        return false;
    }

    const Buffer m_media = mediaFrame(42);
    const std::string m_waitingLine = "Sending data with 1940 bytes over nanomsg SP socket";
};

TEST_F(SenderStreamTest, ASubscriberReceivesSequenceInfoAndFramesByteForByte)
{
    ASSERT_TRUE(initialize(NanomsgProtocol::PubSub));
    NanomsgSocket subscriber(NanomsgSocket::Kind::Subscriber, nanomsgUriOf(senderDirectory()));
    ASSERT_TRUE(subscriber.attached());
    SidechannelClient client(m_address); // a sequence goes out over nanomsg only to connected receivers
    ASSERT_TRUE(client.readMessage());
    m_sender.setCurrentPayloader(m_payloader);
    EXPECT_EQ(m_log.count(DEBUG_LOG_LEVEL, "Set payloader with FourCC \"PCMA\""), 1u);

    // Before any sequence, frames carry the number 0. Sending until one arrives also waits
    // for the subscription to be in place.
    const Buffer early = mediaFrame(1);
    const std::optional<Buffer> earlyFrame = sendUntilReceived(
        subscriber, [&] { m_sender.sendMediaData(1, frameDuration, early); },
        [](const Buffer& packet) { return isFrameWithTimestamp(packet, 1); });
    EXPECT_EQ(earlyFrame, expectedFrame(0, 1, frameDuration, early));

    std::uint16_t latestSequence = 0;
    const std::optional<Buffer> sequenceInfo = sendUntilReceived(
        subscriber,
        [&] {
            m_sender.startNewSequence();
            ++latestSequence;
        },
        isSequenceInfo);
    ASSERT_TRUE(sequenceInfo);
    EXPECT_GE(sequenceNrOf(*sequenceInfo), 1);
    EXPECT_LE(sequenceNrOf(*sequenceInfo), latestSequence);
    EXPECT_EQ(sequenceInfo, expectedPcmSequenceInfo(sequenceNrOf(*sequenceInfo)));

    const std::uint64_t timestamp = 0x0123456789ABCDEFull;
    const std::optional<Buffer> frame = sendUntilReceived(
        subscriber, [&] { m_sender.sendMediaData(timestamp, frameDuration, m_media); },
        [&](const Buffer& packet) { return isFrameWithTimestamp(packet, timestamp); });
    EXPECT_EQ(frame, expectedFrame(latestSequence, timestamp, frameDuration, m_media));

    EXPECT_GE(m_log.count(TRACE_LOG_LEVEL,
                          "Payloader wrapped media data with 1920 byte into packet with 1940 byte"),
              1u);
    EXPECT_GE(m_log.count(TRACE_LOG_LEVEL, "Nanomsg watch FD activity"), 1u);
    EXPECT_TRUE(m_log.messages(ERROR_LOG_LEVEL).empty());
}

TEST_F(SenderStreamTest, APipelineReceiverThatBindsTheUriReceivesEveryPacket)
{
    ASSERT_TRUE(initialize(NanomsgProtocol::Pipeline));
    SidechannelClient client(m_address);
    ASSERT_TRUE(client.readMessage());
    NanomsgSocket puller(NanomsgSocket::Kind::Puller, nanomsgUriOf(senderDirectory()));
    ASSERT_TRUE(puller.attached());
    m_sender.setCurrentPayloader(m_payloader);

    // The sender waits until the channel can take each packet, so nothing is lost here.
    m_sender.startNewSequence();
    EXPECT_EQ(puller.receive(), expectedPcmSequenceInfo(1));
    for (std::uint64_t index = 0; index < 20; ++index)
    {
        const Buffer media = mediaFrame(static_cast<unsigned char>(index));
        m_sender.sendMediaData(1000 + index, frameDuration, media);
        EXPECT_EQ(puller.receive(), expectedFrame(1, 1000 + index, frameDuration, media))
            << "frame " << index;
    }
    EXPECT_TRUE(m_log.messages(ERROR_LOG_LEVEL).empty());
}

TEST_F(SenderStreamTest, SequenceNumbersRunFrom1To65535AndThenStartAgainAt1)
{
    ASSERT_TRUE(initialize(NanomsgProtocol::PubSub));
    m_sender.setCurrentPayloader(m_payloader);
    for (int sequence = 1; sequence <= 65535; ++sequence)
    {
        m_sender.startNewSequence();
        if (sequence % 4096 == 0)
            m_log.clear(); // keeps the capture small; the numbers are checked on the wire
    }

    SidechannelClient atTheTop(m_address);
    ASSERT_TRUE(atTheTop.readMessage());
    EXPECT_EQ(atTheTop.readMessage(), framed(expectedPcmSequenceInfo(65535)));

    m_log.clear();
    m_sender.startNewSequence();
    EXPECT_EQ(m_log.count(DEBUG_LOG_LEVEL, "Starting new sequence with nr 1"), 1u);
    SidechannelClient afterTheWrap(m_address);
    ASSERT_TRUE(afterTheWrap.readMessage());
    EXPECT_EQ(afterTheWrap.readMessage(), framed(expectedPcmSequenceInfo(1)));
}

TEST_F(SenderStreamTest, SequencesAndFramesNeedARunningSenderAndTheNumberSurvivesShutdown)
{
    m_sender.setCurrentPayloader(m_payloader);
    m_sender.startNewSequence();
    EXPECT_EQ(
        m_log.count(DEBUG_LOG_LEVEL, "Not starting new sequence since the listener thread is not running"),
        1u);
    m_sender.sendMediaData(1, frameDuration, m_media);
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, "Cannot send media data: Listener thread is not running"), 1u);

    ASSERT_TRUE(initialize(NanomsgProtocol::PubSub));
    m_sender.startNewSequence();
    EXPECT_EQ(m_log.count(DEBUG_LOG_LEVEL, "Starting new sequence with nr 1"), 1u)
        << "the early call did not advance the number";
    m_sender.shutdownSender();

    m_log.clear();
    m_sender.startNewSequence();
    m_sender.sendMediaData(1, frameDuration, m_media);
    EXPECT_EQ(
        m_log.count(DEBUG_LOG_LEVEL, "Not starting new sequence since the listener thread is not running"),
        1u);
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, "Cannot send media data: Listener thread is not running"), 1u);
    EXPECT_FALSE(m_log.contains("Sending data with"));

    // The packet of the last sequence and its number outlive the shut-down.
    ASSERT_TRUE(initialize(NanomsgProtocol::PubSub));
    SidechannelClient early(m_address);
    ASSERT_TRUE(early.readMessage());
    EXPECT_EQ(early.readMessage(), framed(expectedPcmSequenceInfo(1)));
    m_sender.startNewSequence();
    SidechannelClient late(m_address);
    ASSERT_TRUE(late.readMessage());
    EXPECT_EQ(late.readMessage(), framed(expectedPcmSequenceInfo(2)));
}

TEST_F(SenderStreamTest, APayloaderFourccIsLoggedWithBlanksForLowBytes)
{
    Payloader payloader('A' | 0x00 << 8 | 'B' << 16 | 'C' << 24);
    m_sender.setCurrentPayloader(payloader);
    EXPECT_EQ(m_log.count(DEBUG_LOG_LEVEL, "Set payloader with FourCC \"A BC\""), 1u);
}

TEST_F(SenderStreamTest, DisableSendWakesASendThatWaitsForAPipelineReceiver)
{
    ASSERT_TRUE(initialize(NanomsgProtocol::Pipeline));
    m_sender.setCurrentPayloader(m_payloader);

    // Nobody has bound the URI, so the socket never becomes writable and the send waits.
    std::future<void> send = sendInTheBackground(7);
    ASSERT_TRUE(waitForLog(m_log, m_waitingLine));
    m_sender.disableSend(true);
    ASSERT_TRUE(returns(send));
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, "Send operations are now disabled"), 1u);
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, "Nanomsg wakeup pipe activity"), 1u);
    EXPECT_FALSE(m_log.contains("Nanomsg watch FD activity")) << "the packet is dropped";

    m_sender.sendMediaData(8, frameDuration, m_media);
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, "Cannot send anything; sending is disabled"), 1u);

    m_sender.disableSend(false);
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, "Send operations are now enabled"), 1u);
    m_log.clear();
    NanomsgSocket puller(NanomsgSocket::Kind::Puller, nanomsgUriOf(senderDirectory()));
    ASSERT_TRUE(puller.attached());
    m_sender.sendMediaData(9, frameDuration, m_media);
    EXPECT_EQ(puller.receive(), expectedFrame(0, 9, frameDuration, m_media));
    EXPECT_FALSE(m_log.contains("Nanomsg wakeup pipe activity"))
        << "the waiting send drained the wake-up byte";
    EXPECT_TRUE(m_log.messages(ERROR_LOG_LEVEL).empty());
}

TEST_F(SenderStreamTest, DisableSendLogsOnlyChangesAndTheNextEnabledSendDrainsItsWakeup)
{
    ASSERT_TRUE(initialize(NanomsgProtocol::PubSub));
    NanomsgSocket subscriber(NanomsgSocket::Kind::Subscriber, nanomsgUriOf(senderDirectory()));
    m_sender.setCurrentPayloader(m_payloader);

    m_sender.disableSend(true);
    m_sender.disableSend(true);
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, "Send operations are now disabled"), 1u);
    m_sender.sendMediaData(1, frameDuration, m_media);
    m_sender.sendMediaData(2, frameDuration, m_media);
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, "Cannot send anything; sending is disabled"), 2u);
    EXPECT_FALSE(m_log.contains(m_waitingLine));

    m_sender.disableSend(false);
    m_sender.disableSend(false);
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, "Send operations are now enabled"), 1u);

    // Nobody waited for the byte of the disable; the next send finds it, drains it and, the
    // socket being writable as well, still sends.
    m_log.clear();
    m_sender.sendMediaData(3, frameDuration, m_media);
    EXPECT_EQ(m_log.messages(TRACE_LOG_LEVEL),
              (std::vector<std::string>{
                  "Payloader wrapped media data with 1920 byte into packet with 1940 byte", m_waitingLine,
                  "Nanomsg wakeup pipe activity", "Nanomsg watch FD activity"}));
    m_log.clear();
    m_sender.sendMediaData(4, frameDuration, m_media);
    EXPECT_FALSE(m_log.contains("Nanomsg wakeup pipe activity"));

    const std::optional<Buffer> frame = sendUntilReceived(
        subscriber, [&] { m_sender.sendMediaData(5, frameDuration, m_media); },
        [](const Buffer& packet) { return isFrameWithTimestamp(packet, 5); });
    EXPECT_EQ(frame, expectedFrame(0, 5, frameDuration, m_media));
}

TEST_F(SenderStreamTest, DisableSendFromAnotherThreadIsSafeWhileTheSenderComesAndGoes)
{
    std::atomic<bool> stop{false};
    std::thread toggler([&] {
        while (!stop)
        {
            m_sender.disableSend(true);
            m_sender.disableSend(false);
            std::this_thread::yield();
        }
    });
    bool allInitialized = true;
    for (int cycle = 0; cycle < 20; ++cycle)
    {
        allInitialized = initialize(NanomsgProtocol::PubSub) && allInitialized;
        m_sender.shutdownSender();
    }
    stop = true;
    toggler.join();

    EXPECT_TRUE(allInitialized);
    // A wake-up byte written to a pipe that shut-down had closed would fail with EBADF.
    EXPECT_TRUE(m_log.messages(ERROR_LOG_LEVEL).empty());
}

TEST_F(SenderStreamTest, SendingIsEnabledAgainAfterShutdownAndReinitialisation)
{
    ASSERT_TRUE(initialize(NanomsgProtocol::PubSub));
    m_sender.setCurrentPayloader(m_payloader);
    m_sender.disableSend(true);
    m_sender.shutdownSender();

    ASSERT_TRUE(initialize(NanomsgProtocol::PubSub));
    NanomsgSocket subscriber(NanomsgSocket::Kind::Subscriber, nanomsgUriOf(senderDirectory()));
    m_log.clear();
    const std::optional<Buffer> frame = sendUntilReceived(
        subscriber, [&] { m_sender.sendMediaData(11, frameDuration, m_media); },
        [](const Buffer& packet) { return isFrameWithTimestamp(packet, 11); });
    EXPECT_EQ(frame, expectedFrame(0, 11, frameDuration, m_media));
    EXPECT_FALSE(m_log.contains("Cannot send anything; sending is disabled"));
}

TEST_F(SenderStreamTest, ShutdownWakesASendThatWaitsAndLeavesNothingBehind)
{
    if (m_sender.initializeSender(m_address, "", "", 0, TimeSyncProtocol::MonotonicSystemClock,
                                  NanomsgProtocol::Pipeline))
        m_sender.shutdownSender(); // see the set-up suite: counts are taken after one cycle
    const ProcessResources baseline = processResources();

    ASSERT_TRUE(initialize(NanomsgProtocol::Pipeline));
    const std::string directory = senderDirectory();
    m_sender.setCurrentPayloader(m_payloader);
    std::future<void> send = sendInTheBackground(7);
    ASSERT_TRUE(waitForLog(m_log, m_waitingLine));

    m_sender.shutdownSender();
    ASSERT_TRUE(returns(send));
    EXPECT_EQ(m_log.count(TRACE_LOG_LEVEL, "Nanomsg wakeup pipe activity"), 1u);
    EXPECT_FALSE(m_log.contains("Nanomsg watch FD activity"));
    EXPECT_TRUE(m_log.messages(ERROR_LOG_LEVEL).empty());
    EXPECT_FALSE(std::filesystem::exists(directory));
    EXPECT_TRUE(settlesAt(baseline));
}

TEST_F(SenderStreamTest, UseWithoutAPayloaderStopsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ASSERT_TRUE(initialize(NanomsgProtocol::PubSub));
    EXPECT_DEATH(m_sender.startNewSequence(),
                 assertionFailure("m_payloader != nullptr") + "void vrx::Sender::startNewSequence\\(\\)");
    EXPECT_DEATH(m_sender.sendMediaData(1, frameDuration, m_media),
                 assertionFailure("m_payloader != nullptr") + "void vrx::Sender::sendMediaData\\(");
}

} // namespace
} // namespace vrx::test
