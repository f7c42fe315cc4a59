// PcmDepayloader::processCodecHeader on any bytes, after a good header: each field the bytes
// cover is stored as read and the others keep what the good header left; the header is taken
// only when complete, with a non-zero rate and channel count and a known format.

#include "Fuzzing.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace vrx;
    PcmPayloader good, stored;
    good.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
    PcmDepayloader pcm;
    MISCUTILS_ASSERT(pcm.processCodecHeader(good.getCodecHeader()));
    const bool taken = pcm.processCodecHeader({data, size});
    // What a payloader makes of the fields stored: the bytes given, then the good header's.
    stored.setNewFormat(pcm.getSampleRate(), pcm.getNumChannels(), pcm.getSampleFormat());
    Buffer expected(data, data + std::min<std::size_t>(size < 4 ? 0 : size, 6));
    expected.insert(expected.end(), good.getCodecHeader().begin() + expected.size(),
                    good.getCodecHeader().end());
    MISCUTILS_ASSERT(stored.getCodecHeader() == expected);
    MISCUTILS_ASSERT(taken == (size >= 6 && pcm.getSampleRate() != 0 && data[4] != 0 && data[5] < 12));
    return 0;
}
