#include "voraxis/SideChannel.h"

#include "miscutils/Assert.h"
#include "miscutils/Descriptors.h"
#include "voraxis/LittleEndian.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

namespace vrx {

namespace {

// Appends the string's bytes and its 0 terminator.
void appendTerminatedString(Buffer& buffer, const std::string& text)
{
    buffer.insert(buffer.end(), text.begin(), text.end());
    buffer.push_back(0);
}

// Reads a 0-terminated string starting at offset; on success moves offset past the terminator.
bool readTerminatedString(const ByteSpan& packetData, std::size_t& offset, std::string& text)
{
    if (offset >= packetData.size())
        return false;
    const auto begin = packetData.begin() + static_cast<std::ptrdiff_t>(offset);
    const auto terminator = std::find(begin, packetData.end(), 0);
    if (terminator == packetData.end())
        return false;
    text.assign(begin, terminator);
    offset += text.size() + 1;
    return true;
}

bool parseFields(const ByteSpan& packetData, InitialInfo& initialInfo)
{
    if (packetData.size() < 2)
        return false;
    initialInfo.version = detail::readLittleEndian<std::uint16_t>(packetData.data());

    std::size_t offset = 2;
    if (!readTerminatedString(packetData, offset, initialInfo.timeSyncIPAddress))
        return false;

    // Port (2 bytes) and the two protocol bytes.
    if (packetData.size() < offset + 4)
        return false;
    initialInfo.timeSyncPort = detail::readLittleEndian<std::uint16_t>(packetData.data() + offset);
    initialInfo.timeSyncProtocol = static_cast<TimeSyncProtocol>(packetData[offset + 2]);
    initialInfo.nanomsgProtocol = static_cast<NanomsgProtocol>(packetData[offset + 3]);
    offset += 4;

    return readTerminatedString(packetData, offset, initialInfo.nanomsgUri);
}

} // namespace

const char* toString(TimeSyncProtocol protocol)
{
    switch (protocol)
    {
    case TimeSyncProtocol::GstNetClock: return "gstnetclock";
    case TimeSyncProtocol::MonotonicSystemClock: return "sysclock";
    default: return "unknown";
    }
}

const char* toString(NanomsgProtocol protocol)
{
    switch (protocol)
    {
    case NanomsgProtocol::Pipeline: return "pipeline";
    case NanomsgProtocol::PubSub: return "pubsub";
    default: return "unknown";
    }
}

TimeSyncProtocol toTimeSyncProtocol(const std::string& text)
{
    if (text == "sysclock")
        return TimeSyncProtocol::MonotonicSystemClock;
    if (text == "gstnetclock")
        return TimeSyncProtocol::GstNetClock;
    return TimeSyncProtocol::Unknown;
}

NanomsgProtocol toNanomsgProtocol(const std::string& text)
{
    if (text == "pipeline")
        return NanomsgProtocol::Pipeline;
    if (text == "pubsub")
        return NanomsgProtocol::PubSub;
    return NanomsgProtocol::Unknown;
}

Buffer produceInitialInfoPacket(const InitialInfo& initialInfo)
{
    Buffer packet;
    packet.reserve(initialInfo.timeSyncIPAddress.size() + initialInfo.nanomsgUri.size() + 8);
    detail::appendLittleEndian(packet, initialInfo.version);
    appendTerminatedString(packet, initialInfo.timeSyncIPAddress);
    detail::appendLittleEndian(packet, initialInfo.timeSyncPort);
    packet.push_back(static_cast<unsigned char>(initialInfo.timeSyncProtocol));
    packet.push_back(static_cast<unsigned char>(initialInfo.nanomsgProtocol));
    appendTerminatedString(packet, initialInfo.nanomsgUri);
    return packet;
}

std::optional<InitialInfo> tryParseInitialInfoPacket(const ByteSpan& packetData)
{
    InitialInfo initialInfo;
    if (!parseFields(packetData, initialInfo))
        return std::nullopt;
    return initialInfo;
}

InitialInfo parseInitialInfoPacket(const ByteSpan& packetData)
{
    std::optional<InitialInfo> initialInfo = tryParseInitialInfoPacket(packetData);
    const bool ok = initialInfo.has_value();
    MISCUTILS_ASSERT(ok);
    return std::move(*initialInfo);
}

SidechannelMessageSize produceSidechannelMessageSize(std::uint32_t payloadSize)
{
    SidechannelMessageSize sizeBytes{};
    detail::writeLittleEndian(sizeBytes.data(), payloadSize);
    return sizeBytes;
}

std::uint32_t parseSidechannelMessageSize(const SidechannelMessageSize& sizeBytes)
{
    return detail::readLittleEndian<std::uint32_t>(sizeBytes.data());
}

std::string getSenderParentDirectory()
{
    const char* directory = std::getenv("TMPDIR");
    return directory != nullptr ? directory : "/tmp/vrx";
}

SenderParentDirectory makeSenderParentDirectory()
{
    const std::string directory = getSenderParentDirectory();
    if (directory.empty())
    {
        errno = ENOENT;
        return SenderParentDirectory::Failed;
    }
    if (mkdir(directory.c_str(), 0700) == 0)
    {
        // Opened up on what was made: the umask would narrow mkdir's mode, and a path could
        // lead elsewhere by now.
        const miscUtils::FileDescriptor made(
            open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        return made >= 0 && fchmod(made, 01777) == 0 ? SenderParentDirectory::Created
                                                     : SenderParentDirectory::Failed;
    }
    struct stat status
    {};
    if (errno != EEXIST || stat(directory.c_str(), &status) != 0)
        return SenderParentDirectory::Failed;
    return S_ISDIR(status.st_mode) ? SenderParentDirectory::Existing : SenderParentDirectory::NotADirectory;
}

socklen_t makeAbstractSocketAddress(const std::string& name, sockaddr_un& address)
{
    address = sockaddr_un{};
    address.sun_family = AF_UNIX;
    const std::size_t length = std::min(name.size(), MaxSocketAddressLength);
    std::copy_n(name.begin(), length, address.sun_path + 1);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
}

} // namespace vrx
