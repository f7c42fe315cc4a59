// Produces the packets a sender puts on the wire and parses them as a receiver does.
#include <voraxis/SideChannel.h>
#include <voraxis/VrxPayload.h>

#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>

#include <cstdio>

int main()
{
    log4cplus::Initializer logging; // the library logs, the application configures
    log4cplus::BasicConfigurator::doConfigure();

    // The sidechannel greeting: which clock the timestamps are on, where the stream is.
    vrx::InitialInfo info{1,
                          "",
                          0,
                          vrx::TimeSyncProtocol::MonotonicSystemClock,
                          vrx::NanomsgProtocol::PubSub,
                          "ipc:///tmp/vrx/VrxSender-abc123/nanomsgChannel.ipc"};
    const vrx::InitialInfo parsed = vrx::parseInitialInfoPacket(vrx::produceInitialInfoPacket(info));
    std::printf("clock %s, channel %s at %s\n", vrx::toString(parsed.timeSyncProtocol),
                vrx::toString(parsed.nanomsgProtocol), parsed.nanomsgUri.c_str());

    // A sequence of 48 kHz stereo 16-bit PCM: one SequenceInfo, then Frame packets.
    vrx::PcmPayloader payloader;
    payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
    vrx::PcmDepayloader depayloader;
    vrx::DepayloaderList depayloaders;
    depayloaders.addDepayloader(depayloader);

    vrx::Buffer packet;
    vrx::produceSequenceInfoPacket(packet, payloader.getFourcc(), payloader.getCodecHeader(), 1);
    depayloaders.consumePacket(packet);

    const vrx::Buffer samples(480 * 2 * 2, 0); // 10 ms of silence
    payloader.produceFramePacket(packet, 1, 1'000'000'000, 10'000'000, samples);
    if (depayloaders.consumePacket(packet) != vrx::DepayloaderList::ConsumePacketRetcode::Ok)
        return 1;
    std::printf("%u Hz, %u channels, %s: frame at %llu ns, %zu bytes\n", depayloader.getSampleRate(),
                depayloader.getNumChannels(), audioUtils::toString(depayloader.getSampleFormat()),
                static_cast<unsigned long long>(depayloaders.getCurrentFrameTimestamp()),
                depayloaders.getCurrentFrameMediaData().size());
    return 0;
}
