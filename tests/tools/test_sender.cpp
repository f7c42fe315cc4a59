// A sender in a process of its own, for tests that kill it: it streams frames of 48 kHz stereo
// S16LE whose duration and media follow from their timestamps (FIRST, FIRST + 1, ...), one per
// millisecond, until it is killed.
//
//   vrx_test_sender ADDRESS pubsub|pipeline FIRST_TIMESTAMP

#include "Peers.h"

#include <voraxis/VrxSender.h>

int main(int argc, char** argv)
{
    if (argc != 4)
        return 2;
    vrx::PcmPayloader payloader;
    payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
    vrx::Sender sender;
    if (!sender.initializeSender(argv[1], "", "", 0, vrx::TimeSyncProtocol::MonotonicSystemClock,
                                 vrx::toNanomsgProtocol(argv[2])))
        return 1;
    sender.setCurrentPayloader(payloader);
    sender.startNewSequence();
    for (std::uint64_t timestamp = std::strtoull(argv[3], nullptr, 10);; ++timestamp)
    {
        sender.sendMediaData(timestamp, vrx::test::durationOf(timestamp), vrx::test::mediaOf(timestamp));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}
