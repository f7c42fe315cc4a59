// Built against an installed libkavo_voraxis: produces and parses an InitialInfo and a Frame.
#include <voraxis/SideChannel.h>
#include <voraxis/VrxPayload.h>

#include <cstdio>

// An application's own payload format: deriving needs the library's exported typeinfo and vtables.
struct TaggedPayloader : vrx::Payloader
{
    TaggedPayloader() : vrx::Payloader(0x47415454) {}
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
    vrx::InitialInfo info;
    info.version = 1;
    info.timeSyncProtocol = vrx::TimeSyncProtocol::MonotonicSystemClock;
    info.nanomsgProtocol = vrx::NanomsgProtocol::PubSub;
    info.nanomsgUri = "ipc:///tmp/vrx/example/nanomsgChannel.ipc";
    if (!(vrx::parseInitialInfoPacket(vrx::produceInitialInfoPacket(info)) == info))
        return 1;

    vrx::PcmPayloader payloader;
    payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
    vrx::PcmDepayloader depayloader;
    vrx::DepayloaderList depayloaders;
    depayloaders.addDepayloader(depayloader);

    vrx::Buffer packet;
    vrx::produceSequenceInfoPacket(packet, payloader.getFourcc(), payloader.getCodecHeader(), 7);
    if (depayloaders.consumePacket(packet) != vrx::DepayloaderList::ConsumePacketRetcode::Ok)
        return 2;
    const vrx::Buffer samples{1, 2, 3, 4};
    payloader.produceFramePacket(packet, 7, 1000, 2000, samples);
    if (depayloaders.consumePacket(packet) != vrx::DepayloaderList::ConsumePacketRetcode::Ok ||
        depayloaders.getCurrentFrameMediaData() != samples || depayloader.getSampleRate() != 48000)
        return 3;
    TaggedPayloader tagged;
    tagged.produceFramePacket(packet, 8, 0, 0, samples);
    if (packet.size() != 20 + 1 + samples.size() || packet[20] != 0x7A || packet[21] != 1)
        return 4;
    std::puts("consumer: InitialInfo and Frame round trip ok");
    return 0;
}
