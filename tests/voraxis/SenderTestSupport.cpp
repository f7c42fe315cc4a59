#include "SenderTestSupport.h"

#include <nanomsg/nn.h>
#include <nanomsg/pipeline.h>
#include <nanomsg/pubsub.h>

#include <dirent.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>

namespace vrx::test {

namespace {

constexpr const char* scratchVariable = "VRX_SENDER_TEST_SCRATCH";

int remainingMilliseconds(std::chrono::steady_clock::time_point end)
{
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

void appendLittleEndian(Buffer& buffer, std::uint64_t value, std::size_t size)
{
    for (std::size_t index = 0; index < size; ++index)
        buffer.push_back(static_cast<unsigned char>(value >> (8 * index)));
}

std::uint64_t readLittleEndian(const Buffer& buffer, std::size_t offset, std::size_t size)
{
    std::uint64_t value = 0;
    for (std::size_t index = 0; index < size; ++index)
        value |= static_cast<std::uint64_t>(buffer[offset + index]) << (8 * index);
    return value;
}

} // namespace

bool waitForLog(const LogCapture& log, const std::string& message)
{
    return waitFor([&] { return log.count(message) > 0; });
}

ScratchDirectory::ScratchDirectory()
{
    if (const char* inherited = std::getenv(scratchVariable))
    {
        m_path = inherited;
        m_owned = false;
        return;
    }
    std::string directoryTemplate = "/tmp/vrx-sender-test-XXXXXX";
    if (mkdtemp(directoryTemplate.data()) == nullptr)
        throw std::runtime_error("cannot create a scratch directory: " + std::string(std::strerror(errno)));
    m_path = directoryTemplate;
    m_owned = true;
    setenv(scratchVariable, m_path.c_str(), 1);
}

ScratchDirectory::~ScratchDirectory()
{
    if (!m_owned)
        return;
    unsetenv(scratchVariable);
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

ScopedEnvironmentVariable::ScopedEnvironmentVariable(std::string name,
                                                     const std::optional<std::string>& value)
    : m_name(std::move(name))
{
    if (const char* previous = std::getenv(m_name.c_str()))
        m_previous = previous;
    if (value)
        setenv(m_name.c_str(), value->c_str(), 1);
    else
        unsetenv(m_name.c_str());
}

ScopedEnvironmentVariable::~ScopedEnvironmentVariable()
{
    if (m_previous)
        setenv(m_name.c_str(), m_previous->c_str(), 1);
    else
        unsetenv(m_name.c_str());
}

std::string uniqueSocketAddress(const std::string& tag)
{
    static std::atomic<unsigned int> counter{0};
    return "vrx-sender-test-" + std::to_string(getpid()) + "-" + tag + "-" + std::to_string(counter++);
}

std::vector<std::string> senderDirectories(const std::string& parent)
{
    std::vector<std::string> directories;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(parent, error))
    {
        const std::string name = entry.path().filename().string();
        if (name.size() == 16 && name.starts_with("VrxSender-"))
            directories.push_back(entry.path().string());
    }
    std::sort(directories.begin(), directories.end());
    return directories;
}

std::string nanomsgUriOf(const std::string& senderDirectory)
{
    return "ipc://" + senderDirectory + "/nanomsgChannel.ipc";
}

SidechannelClient::SidechannelClient(const std::string& address)
{
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un socketAddress{};
    socketAddress.sun_family = AF_UNIX;
    const std::size_t length = std::min(address.size(), sizeof(socketAddress.sun_path) - 1);
    std::memcpy(socketAddress.sun_path + 1, address.data(), length);
    const auto addressLength = static_cast<socklen_t>(sizeof(socketAddress.sun_family) + 1 + length);
    if (connect(m_fd, reinterpret_cast<const sockaddr*>(&socketAddress), addressLength) < 0)
    {
        m_connectError = errno;
        close();
    }
}

SidechannelClient::~SidechannelClient()
{
    close();
}

void SidechannelClient::close()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}

bool SidechannelClient::readExactly(unsigned char* data, std::size_t size)
{
    const auto end = std::chrono::steady_clock::now() + conditionDeadline;
    std::size_t done = 0;
    while (done < size)
    {
        pollfd entry{m_fd, POLLIN, 0};
        const int ready = poll(&entry, 1, remainingMilliseconds(end));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return false;
        const ssize_t received = recv(m_fd, data + done, size - done, 0);
        if (received <= 0)
            return false;
        done += static_cast<std::size_t>(received);
    }
    return true;
}

std::optional<Buffer> SidechannelClient::readMessage()
{
    if (m_fd < 0)
        return std::nullopt;
    Buffer message(4);
    if (!readExactly(message.data(), 4))
        return std::nullopt;
    const auto payloadSize = static_cast<std::size_t>(readLittleEndian(message, 0, 4));
    message.resize(4 + payloadSize);
    if (!readExactly(message.data() + 4, payloadSize))
        return std::nullopt;
    return message;
}

bool SidechannelClient::waitForClose()
{
    const auto end = std::chrono::steady_clock::now() + conditionDeadline;
    while (true)
    {
        pollfd entry{m_fd, POLLIN, 0};
        if (poll(&entry, 1, remainingMilliseconds(end)) <= 0)
            return false;
        unsigned char unread[256];
        const ssize_t received = recv(m_fd, unread, sizeof(unread), 0);
        if (received <= 0)
            return received == 0;
    }
}

NanomsgSocket::NanomsgSocket(Kind kind, const std::string& uri)
{
    m_fd = nn_socket(AF_SP, kind == Kind::Subscriber ? NN_SUB : NN_PULL);
    if (m_fd < 0)
        return;
    if (kind == Kind::Subscriber)
    {
        nn_setsockopt(m_fd, NN_SUB, NN_SUB_SUBSCRIBE, "", 0);
        m_endpoint = nn_connect(m_fd, uri.c_str());
    }
    else
    {
        m_endpoint = nn_bind(m_fd, uri.c_str());
    }
}

NanomsgSocket::~NanomsgSocket()
{
    if (m_fd >= 0)
        nn_close(m_fd);
}

std::optional<Buffer> NanomsgSocket::receive(std::chrono::milliseconds timeout)
{
    const int timeoutMs = static_cast<int>(timeout.count());
    nn_setsockopt(m_fd, NN_SOL_SOCKET, NN_RCVTIMEO, &timeoutMs, sizeof(timeoutMs));
    void* message = nullptr;
    const int size = nn_recv(m_fd, &message, NN_MSG, 0);
    if (size < 0)
        return std::nullopt;
    const auto* bytes = static_cast<const unsigned char*>(message);
    Buffer packet(bytes, bytes + size);
    nn_freemsg(message);
    return packet;
}

std::optional<Buffer> sendUntilReceived(NanomsgSocket& socket, const std::function<void()>& send,
                                        const std::function<bool(const Buffer&)>& accept)
{
    const auto end = std::chrono::steady_clock::now() + conditionDeadline;
    while (std::chrono::steady_clock::now() < end)
    {
        send();
        // Whatever is still queued from earlier sends comes first; drain it before resending.
        while (const std::optional<Buffer> packet = socket.receive(200ms))
            if (accept(*packet))
                return packet;
    }
    return std::nullopt;
}

Buffer framed(const Buffer& payload)
{
    Buffer message;
    appendLittleEndian(message, payload.size(), 4);
    message.insert(message.end(), payload.begin(), payload.end());
    return message;
}

Buffer expectedInitialInfo(const std::string& timeSyncIPAddress, std::uint16_t timeSyncPort,
                           TimeSyncProtocol timeSyncProtocol, NanomsgProtocol nanomsgProtocol,
                           const std::string& nanomsgUri)
{
    Buffer packet{0x01, 0x00};
    packet.insert(packet.end(), timeSyncIPAddress.begin(), timeSyncIPAddress.end());
    packet.push_back(0);
    appendLittleEndian(packet, timeSyncPort, 2);
    packet.push_back(static_cast<unsigned char>(timeSyncProtocol));
    packet.push_back(static_cast<unsigned char>(nanomsgProtocol));
    packet.insert(packet.end(), nanomsgUri.begin(), nanomsgUri.end());
    packet.push_back(0);
    return packet;
}

Buffer expectedPcmSequenceInfo(std::uint16_t sequenceNr)
{
    Buffer packet{0x01, 0x00};
    appendLittleEndian(packet, sequenceNr, 2);
    const Buffer rest{'P', 'C', 'M', 'A', 0x80, 0xBB, 0x00, 0x00, 0x02, 0x02};
    packet.insert(packet.end(), rest.begin(), rest.end());
    return packet;
}

Buffer expectedFrame(std::uint16_t sequenceNr, std::uint64_t timestamp, std::uint64_t duration,
                     const Buffer& media)
{
    Buffer packet{0x02, 0x00};
    appendLittleEndian(packet, sequenceNr, 2);
    appendLittleEndian(packet, timestamp, 8);
    appendLittleEndian(packet, duration, 8);
    packet.insert(packet.end(), media.begin(), media.end());
    return packet;
}

Buffer mediaFrame(unsigned char seed)
{
    Buffer media(1920);
    for (std::size_t index = 0; index < media.size(); ++index)
        media[index] = static_cast<unsigned char>(seed + index * 7);
    return media;
}

bool isSequenceInfo(const Buffer& packet)
{
    return packet.size() >= 8 && packet[0] == 1;
}

bool isFrameWithTimestamp(const Buffer& packet, std::uint64_t timestamp)
{
    return packet.size() >= 20 && packet[0] == 2 && readLittleEndian(packet, 4, 8) == timestamp;
}

std::uint16_t sequenceNrOf(const Buffer& packet)
{
    return static_cast<std::uint16_t>(readLittleEndian(packet, 2, 2));
}

std::vector<int> acceptedClientDescriptors(const LogCapture& log)
{
    const std::string prefix = "New client connection: FD ";
    std::vector<int> descriptors;
    for (const std::string& message : log.messages(log4cplus::DEBUG_LOG_LEVEL))
        if (message.starts_with(prefix))
            descriptors.push_back(std::stoi(message.substr(prefix.size())));
    return descriptors;
}

SenderTest::SenderTest()
{
    m_payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
}

bool SenderTest::initialize(NanomsgProtocol protocol, const std::string& alternativeAddress)
{
    return m_sender.initializeSender(m_address, alternativeAddress, "", 0,
                                     TimeSyncProtocol::MonotonicSystemClock, protocol);
}

std::string SenderTest::senderDirectory() const
{
    const std::vector<std::string> directories = senderDirectories(m_scratch.path());
    return directories.size() == 1 ? directories.front() : std::string();
}

} // namespace vrx::test
