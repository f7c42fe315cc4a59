#pragma once

// What the fuzz targets share: how an input stands for stream packets, what a frame must look
// like, and a receiver following a fake sender on real sockets. A broken expectation stops the
// run through MISCUTILS_ASSERT, which libFuzzer reports as a crash with the input.

#include "Peers.h"

#include <miscutils/Assert.h>
#include <voraxis/VrxReceiver.h>

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

/// Waits until `condition` holds, looking every 20 microseconds: an input takes a few
/// milliseconds. Ten seconds without it is a hang, which ends the run.
inline void until(const std::function<bool()>& condition)
{
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10); !condition();
         std::this_thread::sleep_for(std::chrono::microseconds(20)))
        MISCUTILS_ASSERT(std::chrono::steady_clock::now() < end && "a hang");
}

/// A receiver following a fake sender, one per process (a target keeps it in a static): a new
/// receiver would take far longer to connect than an input takes. renew() starts every input on
/// a new connection with no sequence yet, so that an input does the same whatever ran before.
///
/// The harness knows where the receiver is from its log (TRACE and all): each packet it takes
/// is followed by one `listening` line, unless it ends the connection (`gone`).
class FollowedFake : test::NonCopyable
{
public:
    FollowedFake()
    {
        receiver.addDepayloader(depayloader);
        // A frame must be the packet just pushed, as sent, in the sequence set last; once.
        receiver.setMediaDataCallback([this](auto timestamp, auto duration, const Buffer& media) {
            MISCUTILS_ASSERT(!pushed.empty() && isFrame(pushed, current(), timestamp, duration, media));
            pushed = {};
        });
        receiver.setNewSequenceCallback([this](auto&) { rates.push_back(depayloader.getSampleRate()); });
        MISCUTILS_ASSERT(receiver.initializeReceiver(address));
    }

    /// How many lines of the log start with `line` (copying only those).
    std::size_t seen(const std::string& line) const { return log.lines(line).size(); }

    /// The sequence the receiver set last on this connection (0: none yet).
    std::uint16_t current() const
    {
        const test::LogLines set = log.lines("DEBUG setting sequence nr ");
        return set.empty() ? 0 : static_cast<std::uint16_t>(std::stoul(set.back().substr(26)));
    }

    /// Ends the connection, unless the input did, with a 5-byte Frame of the current sequence on
    /// the sidechannel (too short, or without a depayloader: an error there); the send fails
    /// before the first input, which has no connection yet. Then greets the next connection,
    /// `chunk` bytes a write, each once the receiver has read the last.
    void renew(std::size_t chunk = SIZE_MAX)
    {
        const std::uint16_t number = current();
        if (seen(gone) == 0 &&
            fake.send({2, 0, static_cast<unsigned char>(number), static_cast<unsigned char>(number >> 8), 0}))
            until([&] { return seen(gone) > 0; });
        MISCUTILS_ASSERT(fake.accept());
        until([&] { return seen(waiting) > 0; });
        log.clear(); // the receiver waits for the greeting meanwhile, and logs nothing
        MISCUTILS_ASSERT(fake.send(fake.greeting(), chunk, afterRead(waiting)));
        until([&] { return seen(listening) > 0; });
        log.clear(); // the receiver waits for input
        rates.clear();
    }

    /// For a write in pieces: waits until the receiver has logged `line` once more, after a read.
    std::function<void()> afterRead(const std::string& line)
    {
        return [this, &line, reads = seen(line)]() mutable {
            until([&] { return seen(line) > reads; }), reads = seen(line);
        };
    }

    const std::string listening = "TRACE Listening for input", waiting = "DEBUG Waiting for initial info",
                      gone = "DEBUG Connection gone because of ";
    test::ScratchTmpdir scratch;
    test::LogCapture log;
    const std::string address = test::uniqueSocketAddress();
    test::FakeSender fake{address, scratch.path()};
    PcmDepayloader depayloader;
    ByteSpan pushed;                 // the packet the receiver takes now, until it delivered it
    std::vector<unsigned int> rates; // the sample rate of each new sequence
    Receiver receiver;               // stops first, while what its callbacks use still exists
};

} // namespace vrx::fuzz
