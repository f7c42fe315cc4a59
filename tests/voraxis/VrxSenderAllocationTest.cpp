// The frame paths must not allocate once their buffers have grown to the largest frame: the
// sender's packet, the receiving end's media buffer. Counting needs the global operator new of
// this executable, so this suite stands alone.

#include "TestHelpers.h"

#include <voraxis/VrxPayload.h>
#include <voraxis/VrxSender.h>

#include <cstdlib>
#include <new>

namespace {
// Only the test's own thread counts: the listener, nanomsg and logging threads allocate on
// their own schedules.
thread_local bool countAllocations = false;
thread_local std::size_t allocationCount = 0;
} // namespace

void* operator new(std::size_t size)
{
    if (countAllocations)
        ++allocationCount;
    if (void* memory = std::malloc(size != 0 ? size : 1))
        return memory;
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

namespace vrx::test {
namespace {

TEST(SenderFramePath, SendsFramesWithoutAllocatingOnceItsBufferHasGrown)
{
    ScratchTmpdir scratch;
    PcmPayloader payloader;
    Sender sender;
    ASSERT_TRUE(sender.initializeSender(uniqueSocketAddress(), "", "", 0,
                                        TimeSyncProtocol::MonotonicSystemClock, NanomsgProtocol::PubSub));
    sender.setCurrentPayloader(payloader);
    sender.startNewSequence();

    const Buffer largest(1920, 1), smaller(960, 2);
    sender.sendMediaData(0, 10'000'000, largest);
    countAllocations = true;
    for (std::uint64_t frame = 1; frame <= 200; ++frame)
        sender.sendMediaData(frame, 10'000'000, frame % 2 == 0 ? largest : smaller);
    countAllocations = false;
    EXPECT_EQ(allocationCount, 0u);
}

TEST(ReceiverFramePath, TakesFramesWithoutAllocatingOnceItsBufferHasGrown)
{
    PcmPayloader payloader;
    PcmDepayloader depayloader;
    DepayloaderList depayloaders;
    depayloaders.addDepayloader(depayloader);
    Buffer packet, largest, smaller;
    produceSequenceInfoPacket(packet, PcmFourcc, payloader.getCodecHeader(), 1);
    depayloaders.consumePacket(packet);
    payloader.produceFramePacket(largest, 1, 0, 10'000'000, Buffer(1920, 1));
    payloader.produceFramePacket(smaller, 1, 1, 10'000'000, Buffer(960, 2));
    depayloaders.consumePacket(largest);
    allocationCount = 0;
    countAllocations = true;
    for (int frame = 1; frame <= 200; ++frame)
        depayloaders.consumePacket(frame % 2 == 0 ? largest : smaller);
    countAllocations = false;
    EXPECT_EQ(allocationCount, 0u);
    EXPECT_EQ(depayloaders.getCurrentFrameMediaData(), Buffer(1920, 1));
}

} // namespace
} // namespace vrx::test
