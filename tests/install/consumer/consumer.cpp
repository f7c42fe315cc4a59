// Built against an installed libkavo_voraxis: produces and parses an InitialInfo and a Frame.
#include <voraxis/SideChannel.h>
#include <voraxis/VrxPayload.h>

#include <cstdio>

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
    std::puts("consumer: InitialInfo and Frame round trip ok");
    return 0;
}
