// vrx-probe: asks the sender at ADDRESS what it streams and prints it as one JSON object.
//
// It reads the sender's sidechannel greeting directly, as a receiver's first step does: the
// InitialInfo packet, then, when a sequence has started, its SequenceInfo packet, each framed
// by a 4-byte little-endian length. No main channel is opened, so probing disturbs no stream.

#include "ToolSupport.h"

#include <miscutils/MiscUtils.h>
#include <voraxis/SideChannel.h>
#include <voraxis/VrxPayload.h>

#include <log4cplus/initializer.h>

#include <nlohmann/json.hpp>

#include <poll.h>
#include <unistd.h>

#include <cmath>
#include <iostream>

namespace {

using namespace vrxTools;
using miscUtils::TimeValue;

// A sender writes its SequenceInfo right behind the InitialInfo; this is only how long a probe
// waits for it before concluding that no sequence has started.
constexpr TimeValue sequenceInfoWait = 200'000'000;
// Far beyond any greeting: a longer length prefix means the peer is no sender.
constexpr std::uint32_t maxMessageSize = 64 * 1024;
constexpr int retryMs = 20;

int millisecondsUntil(TimeValue deadline)
{
    const TimeValue current = now();
    return current >= deadline ? 0 : static_cast<int>((deadline - current + 999'999) / 1'000'000);
}

/// Connects to the sender, retrying while nobody listens; -1 when the deadline passes.
int connectUntil(const std::string& address, TimeValue deadline)
{
    for (;;)
    {
        const int fd = connectAbstractSocket(address);
        if (fd >= 0)
            return fd;
        if (now() >= deadline)
            return -1;
        poll(nullptr, 0, std::min(retryMs, millisecondsUntil(deadline)));
    }
}

/// Reads exactly `size` bytes before the deadline.
bool readUntil(int fd, unsigned char* data, std::size_t size, TimeValue deadline)
{
    while (size > 0)
    {
        pollfd readable{fd, POLLIN, 0};
        if (poll(&readable, 1, millisecondsUntil(deadline)) <= 0)
            return false;
        const ssize_t got = read(fd, data, size);
        if (got <= 0)
            return false;
        data += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

enum class ReadResult
{
    Message,
    None,   // nothing before the deadline, or the sender closed the connection
    NotVrx, // a length no sender would send
};

/// One framed sidechannel message.
ReadResult readMessage(int fd, vrx::Buffer& message, TimeValue deadline)
{
    vrx::SidechannelMessageSize sizeBytes{};
    if (!readUntil(fd, sizeBytes.data(), sizeBytes.size(), deadline))
        return ReadResult::None;
    const std::uint32_t size = vrx::parseSidechannelMessageSize(sizeBytes);
    if (size == 0 || size > maxMessageSize)
        return ReadResult::NotVrx;
    message.resize(size);
    return readUntil(fd, message.data(), size, deadline) ? ReadResult::Message : ReadResult::None;
}

nlohmann::ordered_json describeSequence(const vrx::Buffer& packet)
{
    vrx::PcmDepayloader pcm;
    vrx::DepayloaderList depayloaders;
    depayloaders.addDepayloader(pcm);
    if (packet.size() < 8 || vrx::parsePacketType(packet) != vrx::PacketType::SequenceInfo)
        return nullptr;
    const unsigned int fourcc =
        packet[4] | packet[5] << 8 | packet[6] << 16 | static_cast<unsigned int>(packet[7]) << 24;
    nlohmann::ordered_json sequence{{"sequenceNr", vrx::parsePacketSequenceNr(packet)},
                                    {"fourcc", vrx::fourccToString(fourcc)}};
    if (depayloaders.consumePacket(packet) == vrx::DepayloaderList::ConsumePacketRetcode::Ok &&
        depayloaders.getCurrentDepayloader() == &pcm)
    {
        sequence["sampleRate"] = pcm.getSampleRate();
        sequence["numChannels"] = pcm.getNumChannels();
        sequence["sampleFormat"] = audioUtils::toString(pcm.getSampleFormat());
    }
    return sequence;
}

int probe(const std::string& address, double timeoutSeconds)
{
    const TimeValue deadline = now() + static_cast<TimeValue>(std::llround(timeoutSeconds * 1e9));
    const int fd = connectUntil(address, deadline);
    if (fd < 0)
    {
        printNote("no sender answers at '" + address + "' (waited " +
                  std::to_string(std::lround(timeoutSeconds * 1000)) + " ms)");
        return 1;
    }
    vrx::Buffer message;
    const ReadResult greeting = readMessage(fd, message, deadline);
    if (greeting != ReadResult::Message)
    {
        close(fd);
        printNote(greeting == ReadResult::NotVrx
                      ? "the socket at '" + address + "' is no VRX sender"
                      : "the sender at '" + address + "' sent no greeting in time");
        return 1;
    }
    // A malformed InitialInfo stops the process in the library: the peer speaks another protocol.
    const vrx::InitialInfo info = vrx::parseInitialInfoPacket(message);
    nlohmann::ordered_json sequence = nullptr;
    if (readMessage(fd, message, std::min(deadline, now() + sequenceInfoWait)) == ReadResult::Message)
        sequence = describeSequence(message);
    close(fd);

    const nlohmann::ordered_json result{{"address", address},
                                        {"version", info.version},
                                        {"timeSyncProtocol", vrx::toString(info.timeSyncProtocol)},
                                        {"timeSyncIPAddress", info.timeSyncIPAddress},
                                        {"timeSyncPort", info.timeSyncPort},
                                        {"nanomsgProtocol", vrx::toString(info.nanomsgProtocol)},
                                        {"nanomsgUri", info.nanomsgUri},
                                        {"sequence", sequence}};
    std::cout << result.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    setProgramName("vrx-probe");
    log4cplus::Initializer logging;

    CLI::App app{"vrx-probe: print what the sender at ADDRESS streams, as one JSON object.", "vrx-probe"};
    std::string address;
    double timeoutSeconds = 2;
    LoggingOptions loggingOptions;
    addAddressArgument(app, address,
                       "Sidechannel address of the sender (as given to vrx-send). Example: my-audio");
    app.add_option("-t,--timeout", timeoutSeconds,
                   "Wait at most SECONDS for a sender to answer (default 2). Example: --timeout 0.5")
        ->type_name("SECONDS")
        ->check(positiveNumber());
    addLoggingOptions(app, loggingOptions);
    app.footer(
        R"(Prints the sender's greeting: protocol version, the clock its timestamps are on (sysclock, or
gstnetclock with the time server's address and port), the data channel's protocol and URI, and the
current sequence (number, FourCC and, for PCM, rate, channels and sample format; null before the
first sequence). Exits 0 after printing, 1 when no sender answers within the timeout.

Example:
  $ vrx-probe my-audio
  {
    "address": "my-audio",
    "version": 1,
    "timeSyncProtocol": "sysclock",
    ...
    "sequence": {"sequenceNr": 1, "fourcc": "PCMA", "sampleRate": 48000, "numChannels": 2,
                 "sampleFormat": "S16LE"}
  })");
    if (const int exitCode = parseCommandLine(app, argc, argv); exitCode >= 0)
        return exitCode;
    configureLogging(loggingOptions);
    return probe(address, timeoutSeconds);
}
