// DepayloaderList::consumePacket on the packets an input stands for (see packets()), with a PCM
// depayloader: after each packet, the verdict is one of the four and fits the packet, the facts
// left are the packet's own, and only a SequenceInfo changes which depayloader is selected.

#include "Fuzzing.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace vrx;
    using enum PacketType;
    using enum DepayloaderList::ConsumePacketRetcode;
    PcmDepayloader pcm;
    DepayloaderList list;
    list.addDepayloader(pcm);
    for (const ByteSpan& packet : fuzz::packets(data, size))
    {
        const Depayloader* selected = list.getCurrentDepayloader();
        const auto verdict = list.consumePacket(packet);
        const PacketType type = parsePacketType(packet);
        const Depayloader* current = list.getCurrentDepayloader();
        MISCUTILS_ASSERT(static_cast<std::uint32_t>(verdict) < 4 && list.getCurrentPacketType() == type &&
                         list.getCurrentSequenceNr() == parsePacketSequenceNr(packet));
        MISCUTILS_ASSERT(type == SequenceInfo ? verdict != NoDepayloaderSelected
                                              : current == selected && verdict != NoMatchingDepayloader);
        MISCUTILS_ASSERT((type != Unknown || verdict == Ok) &&
                         (verdict != NoMatchingDepayloader || !current));
        MISCUTILS_ASSERT(type != Frame || (verdict == NoDepayloaderSelected) == (selected == nullptr));
        MISCUTILS_ASSERT(type != Frame || verdict != Ok ||
                         fuzz::isFrame(packet, list.getCurrentSequenceNr(), list.getCurrentFrameTimestamp(),
                                       list.getCurrentFrameDuration(), list.getCurrentFrameMediaData()));
        MISCUTILS_ASSERT(type != SequenceInfo || verdict != Ok || current == &pcm);
    }
    return 0;
}
