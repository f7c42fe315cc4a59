// Built against an installed libkavo_voraxis: a payloader of its own (which needs the library's
// exported typeinfo and vtables), a Frame through a DepayloaderList, an InitialInfo round trip.
#include <voraxis/SideChannel.h>
#include <voraxis/VrxPayload.h>

#include <cstdio>

struct TaggedPayloader : vrx::Payloader
{
    TaggedPayloader() : vrx::Payloader(vrx::PcmFourcc) {}
    std::size_t getSizeForWrappedFrame(const vrx::ByteSpan& mediaData) const override
    {
        return mediaData.size() + 1;
    }
    void wrapFrame(vrx::Buffer& packet, std::size_t offset, const vrx::ByteSpan& mediaData) override
    {
        packet[offset] = 0x7A;
        vrx::Payloader::wrapFrame(packet, offset + 1, mediaData);
    }
};

int main()
{
    vrx::InitialInfo info{
        1, "", 0, vrx::TimeSyncProtocol::MonotonicSystemClock, vrx::NanomsgProtocol::PubSub, "ipc://x"};
    vrx::PcmDepayloader depayloader;
    vrx::DepayloaderList depayloaders;
    depayloaders.addDepayloader(depayloader);
    vrx::Buffer packet;
    vrx::produceSequenceInfoPacket(packet, vrx::PcmFourcc, vrx::Buffer{0x80, 0xBB, 0, 0, 2, 2}, 7);
    depayloaders.consumePacket(packet);
    TaggedPayloader().produceFramePacket(packet, 7, 1000, 2000, vrx::Buffer{1, 2, 3, 4});
    if (depayloaders.consumePacket(packet) != vrx::DepayloaderList::ConsumePacketRetcode::Ok ||
        depayloaders.getCurrentFrameMediaData() != vrx::Buffer{0x7A, 1, 2, 3, 4} ||
        depayloader.getSampleRate() != 48000 ||
        !(vrx::parseInitialInfoPacket(vrx::produceInitialInfoPacket(info)) == info))
        return 1;
    std::puts("consumer: InitialInfo, a payloader of its own and a Frame round trip ok");
    return 0;
}
