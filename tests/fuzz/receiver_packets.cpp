// vrx::Receiver's packet filter and consumer on the packets an input stands for (see packets()),
// pushed one at a time, each once the last was taken, over the main channel of a new connection.
// A packet may end the connection (the input ends there, and the receiver must be back once
// greeted again); a frame reaches the application only as it was sent, once, and only in the
// sequence the receiver set last (checked as it arrives, see FollowedFake).

#include "Fuzzing.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static vrx::fuzz::FollowedFake stream;
    stream.renew();
    for (const vrx::ByteSpan& packet : vrx::fuzz::packets(data, size))
    {
        const std::size_t taken = stream.seen(stream.listening);
        stream.pushed = packet;
        MISCUTILS_ASSERT(stream.fake.push(vrx::Buffer(packet.begin(), packet.end())));
        vrx::fuzz::until(
            [&] { return stream.seen(stream.listening) > taken || stream.seen(stream.gone) > 0; });
        if (stream.seen(stream.gone) > 0)
            break;
    }
    stream.pushed = {};
    return 0;
}
