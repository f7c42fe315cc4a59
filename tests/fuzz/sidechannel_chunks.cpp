// vrx::Receiver putting sidechannel messages together from what it reads: the greeting, then
// SequenceInfo messages of increasing sequence numbers, each written in pieces of a size the
// input gives, each piece once the receiver has read the last. Input: the greeting's piece
// size, then per message its piece size and codec header length. Every message must be taken
// once, whole and in order (the sample rate of message N is N), up to one longer than the
// receiver takes: its length alone makes the receiver refuse it and give up the connection.

#include "Fuzzing.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace vrx;
    static fuzz::FollowedFake stream;
    stream.renew(size > 0 ? 1 + data[0] % 32 : SIZE_MAX);
    std::vector<unsigned int> rates;
    Buffer message;
    for (std::size_t at = 1; at + 1 < size && rates.size() < 16; at += 2)
    {
        const auto number = static_cast<unsigned char>(rates.size() + 1);
        // Rate N, stereo, S16LE; up to 130 kB long, of which the receiver takes up to 64 KiB.
        Buffer header(6 + 2 * data[at + 1] * data[at + 1]);
        header[0] = number, header[4] = header[5] = 2;
        produceSequenceInfoPacket(message, PcmFourcc, header, number);
        if (message.size() > 64 * 1024)
        {
            const SidechannelMessageSize length =
                produceSidechannelMessageSize(static_cast<std::uint32_t>(message.size()));
            MISCUTILS_ASSERT(write(stream.fake.connection(), length.data(), length.size()) == 4);
            fuzz::until([&] { return stream.seen(stream.gone) > 0; });
            MISCUTILS_ASSERT(stream.rates == rates);
            return 0;
        }
        rates.push_back(number);
        MISCUTILS_ASSERT(stream.fake.send(message, (1 + data[at]) * (1 + message.size() / 256),
                                          stream.afterRead(stream.listening)));
    }
    // Last, a packet of no known type: only a trace line answers it, after all that came before.
    MISCUTILS_ASSERT(stream.fake.send({9, 0, static_cast<unsigned char>(rates.size()), 0, 0}));
    fuzz::until([&] { return stream.seen("TRACE Received sidechannel VRX packet with 5 byte(s)") > 0; });
    MISCUTILS_ASSERT(stream.rates == rates);
    return 0;
}
