// vrx-probe: asks the sender at ADDRESS what it streams and prints it as one JSON object.
//
// It reads the sender's sidechannel greeting directly, as a receiver's first step does: the
// InitialInfo packet, then, when a sequence has started, its SequenceInfo packet, each framed
// by a 4-byte little-endian length. No main channel is opened, so probing disturbs no stream.

#include "StreamStats.h"
#include "ToolSupport.h"

#include <miscutils/MiscUtils.h>
#include <voraxis/SideChannel.h>
#include <voraxis/VrxPayload.h>

#include <log4cplus/initializer.h>

#include <nlohmann/json.hpp>

#include <poll.h>
#include <pwd.h>
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

enum class ReadResult
{
    Ok,
    None,        // nothing before the deadline, or the sender closed the connection
    NotVrx,      // a length no sender would send
    Interrupted, // a signal came first
};

/// The sidechannel as a receiver's first step reads it, every wait bounded by the deadline
/// and ended by a signal.
class Greeting
{
public:
    Greeting(std::string address, TimeValue deadline, const SignalDescriptor& signals)
        : m_address(std::move(address)), m_deadline(deadline), m_signals(signals)
    {}
    ~Greeting()
    {
        if (m_fd >= 0)
            close(m_fd);
    }
    Greeting(const Greeting&) = delete;
    Greeting& operator=(const Greeting&) = delete;

    /// Connects, retrying while nobody listens.
    ReadResult connect()
    {
        for (;;)
        {
            m_fd = connectAbstractSocket(m_address);
            if (m_fd >= 0)
                return ReadResult::Ok;
            if (now() >= m_deadline)
                return ReadResult::None;
            if (waitReadable(-1, std::min(retryMs, millisecondsUntil(m_deadline))) == ReadResult::Interrupted)
                return ReadResult::Interrupted;
        }
    }

    /// One framed sidechannel message, by `deadline` at the latest.
    ReadResult readMessage(vrx::Buffer& message, TimeValue deadline)
    {
        vrx::SidechannelMessageSize sizeBytes{};
        if (const ReadResult result = read(sizeBytes.data(), sizeBytes.size(), deadline);
            result != ReadResult::Ok)
            return result;
        const std::uint32_t size = vrx::parseSidechannelMessageSize(sizeBytes);
        if (size == 0 || size > maxMessageSize)
            return ReadResult::NotVrx;
        message.resize(size);
        return read(message.data(), size, deadline);
    }

    TimeValue deadline() const { return m_deadline; }

    /// Whether the process that answered is one the policy allows; `who` names it.
    bool isAllowedBy(const vrx::AccessPolicy& policy, std::string& who) const
    {
        return policy.allowsPeerOf(m_fd, who);
    }

private:
    /// Waits until `fd` is readable (or, with -1, only for the time) or a signal comes.
    ReadResult waitReadable(int fd, int milliseconds) const
    {
        pollfd fds[2] = {{m_signals.fd(), POLLIN, 0}, {fd, POLLIN, 0}};
        const int ready = poll(fds, fd >= 0 ? 2 : 1, milliseconds);
        if (ready > 0 && fds[0].revents != 0)
            return ReadResult::Interrupted;
        return ready > 0 ? ReadResult::Ok : ReadResult::None;
    }

    ReadResult read(unsigned char* data, std::size_t size, TimeValue deadline)
    {
        while (size > 0)
        {
            if (const ReadResult ready = waitReadable(m_fd, millisecondsUntil(deadline));
                ready != ReadResult::Ok)
                return ready;
            const ssize_t got = ::read(m_fd, data, size);
            if (got <= 0)
                return ReadResult::None;
            data += got;
            size -= static_cast<std::size_t>(got);
        }
        return ReadResult::Ok;
    }

    const std::string m_address;
    const TimeValue m_deadline;
    const SignalDescriptor& m_signals;
    int m_fd = -1;
};

nlohmann::ordered_json describeSequence(const vrx::Buffer& packet)
{
    vrx::PcmDepayloader pcm;
    vrx::DepayloaderList depayloaders;
    depayloaders.addDepayloader(pcm);
    if (packet.size() < 8 || vrx::parsePacketType(packet) != vrx::PacketType::SequenceInfo)
        return nullptr;
    nlohmann::ordered_json sequence{{"sequenceNr", vrx::parsePacketSequenceNr(packet)},
                                    {"fourcc", vrx::fourccToString(vrx::parseSequenceInfoFourcc(packet))}};
    if (depayloaders.consumePacket(packet) == vrx::DepayloaderList::ConsumePacketRetcode::Ok &&
        depayloaders.getCurrentDepayloader() == &pcm)
    {
        sequence["sampleRate"] = pcm.getSampleRate();
        sequence["numChannels"] = pcm.getNumChannels();
        sequence["sampleFormat"] = audioUtils::toString(pcm.getSampleFormat());
    }
    return sequence;
}

nlohmann::ordered_json describeGreeting(const std::string& address, const vrx::InitialInfo& info,
                                        const nlohmann::ordered_json& sequence)
{
    return {{"address", address},
            {"version", info.version},
            {"timeSyncProtocol", vrx::toString(info.timeSyncProtocol)},
            {"timeSyncIPAddress", info.timeSyncIPAddress},
            {"timeSyncPort", info.timeSyncPort},
            {"nanomsgProtocol", vrx::toString(info.nanomsgProtocol)},
            {"nanomsgUri", info.nanomsgUri},
            {"sequence", sequence}};
}

int probe(const std::string& address, double timeoutSeconds, const vrx::AccessPolicy& policy,
          const SignalDescriptor& signals)
{
    const TimeValue start = now();
    Greeting greeting(address, start + static_cast<TimeValue>(std::llround(timeoutSeconds * 1e9)), signals);
    const auto waited = [start] { return " (waited " + describeSeconds(now() - start) + ")"; };
    ReadResult result = greeting.connect();
    if (std::string who; result == ReadResult::Ok && !greeting.isAllowedBy(policy, who))
    {
        printNote("refusing what answers at " + printable(address) + ": " + who +
                  " is not allowed by the access policy \"" + policy.toString() + "\" (see --allow)");
        return 1;
    }
    vrx::Buffer message;
    if (result == ReadResult::Ok)
        result = greeting.readMessage(message, greeting.deadline());
    std::optional<vrx::InitialInfo> info;
    if (result == ReadResult::Ok)
        info = vrx::tryParseInitialInfoPacket(message);
    switch (result)
    {
    case ReadResult::Ok:
        if (info)
            break;
        [[fallthrough]];
    case ReadResult::NotVrx:
        printNote("what answers at " + printable(address) + " is not a VRX sender");
        return 1;
    case ReadResult::Interrupted:
        printNote("interrupted; no sender answered at " + printable(address) + waited());
        return 1;
    case ReadResult::None: printNote("no sender answers at " + printable(address) + waited()); return 1;
    }
    nlohmann::ordered_json sequence = nullptr;
    if (greeting.readMessage(message, std::min(greeting.deadline(), now() + sequenceInfoWait)) ==
        ReadResult::Ok)
        sequence = describeSequence(message);

    std::cout << describeGreeting(address, *info, sequence).dump(2, ' ', false,
                                                                 nlohmann::json::error_handler_t::replace)
              << std::endl;
    return 0;
}

// One line per live sender, or one JSON array of them: what each one's record says.
int list(bool json)
{
    nlohmann::ordered_json senders = nlohmann::ordered_json::array();
    for (const vrx::LiveSender& sender : vrx::findLiveSenders())
    {
        const passwd* user = getpwuid(sender.uid);
        const std::string userName = user != nullptr ? user->pw_name : std::to_string(sender.uid);
        const nlohmann::ordered_json sequence = describeSequence(sender.sequenceInfo);
        nlohmann::ordered_json entry = describeGreeting(sender.address, sender.initialInfo, sequence);
        entry["pid"] = sender.pid;
        entry["user"] = userName;
        entry["receivers"] = sender.receivers;
        senders.push_back(entry);
        if (json)
            continue;
        std::string format = "no sequence yet";
        if (sequence.is_object())
            format = sequence.contains("sampleRate")
                         ? std::to_string(sequence["sampleRate"].get<unsigned int>()) + " Hz, " +
                               std::to_string(sequence["numChannels"].get<unsigned int>()) + " channels, " +
                               sequence["sampleFormat"].get<std::string>()
                         : sequence["fourcc"].get<std::string>();
        std::cout << printable(sender.address) << "  pid " << sender.pid << "  user " << userName << "  "
                  << vrx::toString(sender.initialInfo.nanomsgProtocol) << "  "
                  << vrx::toString(sender.initialInfo.timeSyncProtocol) << "  " << format << "  "
                  << sender.receivers << (sender.receivers == 1 ? " receiver" : " receivers") << '\n';
    }
    if (json)
        std::cout << senders.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    SignalDescriptor signals; // first: every thread started later inherits the blocked signals
    setProgramName("vrx-probe");
    log4cplus::Initializer logging;

    CLI::App app{"vrx-probe: print what the sender at ADDRESS streams, as one JSON object.", "vrx-probe"};
    std::string address;
    double timeoutSeconds = 2;
    CommonOptions commonOptions;
    bool listSenders = false, json = false;
    CLI::Option* addressArgument = addAddressArgument(
        app, address, "Sidechannel address of the sender (as given to vrx-send). Example: my-audio");
    CLI::Option* listFlag = app.add_flag(
        "-l,--list", listSenders,
        "Instead of asking one sender, list the senders that run in $TMPDIR (default /tmp/vrx) and that "
        "this user may see: one line each with address, process, user, data channel protocol, clock, "
        "format and receivers connected.");
    app.add_flag("--json", json, "With --list, one JSON array of what vrx-probe ADDRESS prints, each with "
                                 "\"pid\", \"user\" and \"receivers\" too.")
        ->needs(listFlag);
    addressArgument->required(false)->excludes(listFlag);
    app.add_option("-t,--timeout", timeoutSeconds,
                   "Wait at most SECONDS for a sender to answer (default 2). Example: --timeout 0.5")
        ->type_name("SECONDS")
        ->check(positiveNumber());
    addCommonOptions(app, commonOptions);
    app.footer(
        R"(Prints the sender's greeting: protocol version, the clock its timestamps are on (sysclock, or
gstnetclock with the time server's address and port), the data channel's protocol and URI, and the
current sequence (number, FourCC and, for PCM, rate, channels and sample format; null before the
first sequence). Exits 0 after printing, 1 when no sender answers within the timeout, when what
answers is no VRX sender or a process that --allow does not allow, or when a signal (Ctrl-C)
ends the wait.

Examples:
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
    configureLogging(commonOptions);
    if (listSenders)
        return list(json);
    if (address.empty())
    {
        printNote("ADDRESS is required (or --list)");
        return 2;
    }
    return probe(address, timeoutSeconds, commonOptions.allow, signals);
}
