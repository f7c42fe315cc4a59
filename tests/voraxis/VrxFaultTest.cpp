// Faults around a stream, as they come in production: senders and receivers killed, stopped,
// restarted and coming and going in processes of their own, thousands of set-ups, peers of
// other users, and greetings no sender would send. Nothing may stall the producer, corrupt a
// frame or leave anything behind.

#include "StreamFixture.h"

#include <malloc.h>

#include <random>

namespace vrx::test {
namespace {

namespace fs = std::filesystem;

class FaultTest : public ReceiverTest
{
protected:
    std::unique_ptr<ChildProcess> startReceiver()
    {
        return std::make_unique<ChildProcess>(std::vector<std::string>{VRX_TEST_PEER, "receiver", m_address});
    }

    /// How many descriptors and threads another process holds.
    static std::pair<std::size_t, std::size_t> resourcesOf(pid_t pid)
    {
        const ProcessResources resources = processResources(pid);
        return {resources.descriptors.size(), resources.threads.size()};
    }
};

TEST_F(FaultTest, ReceiversFollowASenderRestartedFiftyTimesWithoutGrowing)
{
    ASSERT_TRUE(startSender());
    std::vector<std::unique_ptr<ChildProcess>> receivers;
    receivers.push_back(startReceiver());
    receivers.push_back(startReceiver());
    std::vector<std::pair<std::size_t, std::size_t>> baseline;
    for (const auto& receiver : receivers)
    {
        ASSERT_TRUE(receiver->waitFor("running"));
        baseline.push_back(resourcesOf(receiver->pid()));
    }
    for (long restart = 1; restart <= 50; ++restart)
    {
        SCOPED_TRACE(restart);
        m_sender.shutdownSender();
        ASSERT_TRUE(startSender());
        for (const auto& receiver : receivers)
            ASSERT_TRUE(receiver->waitFor("running", restart + 1)) << "each receiver follows every time";
    }
    for (std::size_t index = 0; index < receivers.size(); ++index)
        EXPECT_TRUE(waitFor([&] { return resourcesOf(receivers[index]->pid()) == baseline[index]; }))
            << "descriptors and threads of receiver " << index;
}

TEST_F(FaultTest, AStoppedReceiverNeitherStallsTheSenderNorHoldsUpAnother)
{
    ASSERT_TRUE(startSender());
    const auto stopped = startReceiver(), other = startReceiver();
    ASSERT_TRUE(stopped->waitFor("running") && other->waitFor("running"));
    auto slowestSend = std::chrono::steady_clock::duration::zero();
    auto due = std::chrono::steady_clock::now();
    // 50 frames/s: the channel holds about two frames, so a receiver loses one only when it is
    // held up for 40 ms, which a loaded machine does now and then at higher rates.
    for (int frame = 0; frame < 200; ++frame, ++m_timestamp)
    {
        if (frame == 25)
            kill(stopped->pid(), SIGSTOP);
        if (frame == 175)
            kill(stopped->pid(), SIGCONT);
        const auto start = std::chrono::steady_clock::now();
        m_sender.sendMediaData(m_timestamp, durationOf(m_timestamp), mediaOf(m_timestamp));
        slowestSend = std::max(slowestSend, std::chrono::steady_clock::now() - start);
        std::this_thread::sleep_until(due += 20ms);
    }
    EXPECT_LT(slowestSend, 1s) << "the stop lasted 3 s: a send that waited for it would show";
    other->stop(SIGTERM);
    stopped->stop(SIGTERM);
    // A receiver held up with the stopped one would lose the 150 frames of the stop; a machine
    // under load may cost one or two now and then.
    EXPECT_THAT(other->lines().back(), ::testing::MatchesRegex("frames [1-9][0-9]+ lost [0-9] corrupt 0"));
    EXPECT_THAT(stopped->lines().back(), ::testing::EndsWith(" corrupt 0"));
}

TEST_F(FaultTest, ReceiversComingAndGoingAtRandomLeaveNothingInTheSender)
{
    ASSERT_TRUE(startSender());
    const ProcessResources baseline = processResources();
    std::atomic<bool> streaming{true};
    std::thread producer([&] {
        for (auto due = std::chrono::steady_clock::now(); streaming;
             std::this_thread::sleep_until(due += 1ms))
            m_sender.sendMediaData(m_timestamp, durationOf(m_timestamp), mediaOf(m_timestamp)), ++m_timestamp;
    });
    {
        std::mt19937 random(7);
        std::vector<std::unique_ptr<ChildProcess>> receivers;
        for (int joined = 0; joined < 200; ++joined)
        {
            receivers.push_back(startReceiver());
            if (random() % 2 == 0)
                receivers.back()->waitFor("running");
            while (receivers.size() > random() % 4)
            {
                const auto leaving = receivers.begin() + static_cast<long>(random() % receivers.size());
                (*leaving)->stop(random() % 2 == 0 ? SIGKILL : SIGTERM);
                receivers.erase(leaving);
            }
        }
    }
    EXPECT_TRUE(waitFor([&] { return !m_sender.areThereClientConnections(); }));
    streaming = false;
    producer.join();
    EXPECT_TRUE(settlesAt(baseline));
}

TEST(SetUpCycles, AThousandOfEachEndLeaveNoDescriptorThreadMemoryOrFile)
{
    ScratchTmpdir scratch;
    const std::string address = uniqueSocketAddress();
    Sender sender;
    Receiver receiver;
    const auto cycle = [&](int times) {
        for (int index = 0; index < times; ++index)
        {
            EXPECT_TRUE(sender.initializeSender(address, "", "", 0, TimeSyncProtocol::MonotonicSystemClock,
                                                NanomsgProtocol::PubSub));
            sender.shutdownSender();
            EXPECT_TRUE(receiver.initializeReceiver(address + "-none"));
            receiver.shutdownReceiver();
        }
    };
    cycle(20); // logging, nanomsg and the allocator settle
    const ProcessResources baseline = processResources();
    const std::size_t allocated = mallinfo2().uordblks;
    cycle(1000);
    EXPECT_TRUE(settlesAt(baseline));
    EXPECT_TRUE(fs::is_empty(scratch.path()));
    // Counted where the allocator is glibc's (the sanitizers bring their own, and LeakSanitizer).
    EXPECT_LT(mallinfo2().uordblks, allocated + 64 * 1024);
}

TEST_F(FaultTest, APipelineSendWaitsForAStoppedReceiverUntilSendingIsDisabled)
{
    ASSERT_TRUE(startSender(NanomsgProtocol::Pipeline));
    const auto receiver = startReceiver();
    ASSERT_TRUE(receiver->waitFor("running"));
    kill(receiver->pid(), SIGSTOP);
    std::atomic<bool> streaming{true};
    std::atomic<std::int64_t> sendStarted{0}; // steady-clock ticks; 0 between sends
    std::thread producer([&] {
        while (streaming)
        {
            sendStarted = std::chrono::steady_clock::now().time_since_epoch().count();
            m_sender.sendMediaData(m_timestamp, durationOf(m_timestamp), mediaOf(m_timestamp));
            ++m_timestamp;
            sendStarted = 0;
        }
    });
    const auto waitingFor = [&] {
        const std::int64_t started = sendStarted;
        return std::chrono::steady_clock::duration(
            started == 0 ? 0 : std::chrono::steady_clock::now().time_since_epoch().count() - started);
    };
    EXPECT_TRUE(waitFor([&] { return waitingFor() > 300ms; })) << "nanomsg's push waits for its stopped peer";
    m_sender.disableSend(true);
    EXPECT_TRUE(waitFor([&] { return waitingFor() < 300ms; }, 2s))
        << "a disable releases the waiting send at once";
    streaming = false;
    producer.join();
}

TEST_F(FaultTest, AGreetingCutShortOrOfNoLengthIsLoggedAndTheConnectionRebuilt)
{
    FakeSender fake(m_address, m_scratch.path());
    ASSERT_TRUE(m_receiver.initializeReceiver(m_address));
    for (const auto& [name, send] : std::initializer_list<std::pair<const char*, std::function<void()>>>{
             {"a length prefix of 0", [&] { fake.send({}), fake.send(fake.greeting()); }},
             {"a sender gone in the middle of its greeting",
              [&] { fake.send(fake.greeting(), 9, [&] { fake.disconnect(); }); }}})
    {
        SCOPED_TRACE(name);
        m_log.clear();
        ASSERT_TRUE(fake.accept());
        send();
        ASSERT_TRUE(m_log.waitFor("DEBUG Closing sidechannel with FD #"));
        EXPECT_EQ(m_log.lines("DEBUG VRX"), LogLines{"DEBUG VRX sidechannel socket got closed"});
    }
    ASSERT_TRUE(fake.accept() && fake.send(fake.greeting()) && fake.push(sequenceInfo(1)));
    EXPECT_TRUE(m_callbacks.waitFor(sequence48k)) << "the next greeting is taken as the first";
    EXPECT_EQ(m_log.lines("ERROR"), LogLines{}) << "the error of the first came once";
    EXPECT_EQ(m_log.lines("WARN"), LogLines{"WARN The last connection error came 2 times in a row"});
}

} // namespace
} // namespace vrx::test
