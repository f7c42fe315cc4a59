#pragma once

// What the fuzz targets share: how an input stands for stream packets and what a frame must look
// like. A broken expectation stops the run through MISCUTILS_ASSERT, which libFuzzer reports as
// a crash with the input.

#include "Peers.h"

#include <miscutils/Assert.h>
#include <voraxis/VrxPayload.h>

namespace vrx::fuzz {

/// The stream packets an input stands for: each byte L starts a packet of the next 5 + L bytes
/// (of the rest, when fewer remain): consumePacket stops the process on shorter ones, by design.
inline std::vector<ByteSpan> packets(const std::uint8_t* data, std::size_t size)
{
    std::vector<ByteSpan> result;
    for (std::size_t at = 0; at + 5 < size; at += 1 + result.back().size())
        result.emplace_back(data + at + 1, std::min<std::size_t>(5u + data[at], size - at - 1));
    return result;
}

/// True when `packet` is the Frame a payloader makes of these facts (byte 1, unused, aside).
inline bool isFrame(const ByteSpan& packet, std::uint16_t sequenceNr, std::uint64_t timestamp,
                    std::uint64_t duration, const Buffer& media)
{
    Buffer frame;
    PcmPayloader().produceFramePacket(frame, sequenceNr, timestamp, duration, media);
    frame[1] = packet[1];
    return std::equal(frame.begin(), frame.end(), packet.begin(), packet.end());
}

} // namespace vrx::fuzz
