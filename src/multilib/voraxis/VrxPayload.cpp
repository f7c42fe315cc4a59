#include "voraxis/VrxPayload.h"

#include "miscutils/Assert.h"
#include "voraxis/LittleEndian.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <algorithm>

namespace vrx {

namespace {

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Voraxis"));

constexpr std::size_t packetHeaderSize = 4;
constexpr std::size_t sequenceInfoHeaderSize = 8;
constexpr std::size_t frameTimestampEnd = 12;
constexpr std::size_t frameHeaderSize = 20;

void appendPacketHeader(Buffer& packet, PacketType packetType, unsigned short sequenceNr)
{
    packet.clear();
    packet.push_back(static_cast<unsigned char>(packetType));
    packet.push_back(0);
    detail::appendLittleEndian(packet, static_cast<std::uint16_t>(sequenceNr));
}

} // namespace

std::string toString(PacketType packetType)
{
    switch (packetType)
    {
    case PacketType::Unknown: return "unknown";
    case PacketType::SequenceInfo: return "sequenceInfo";
    case PacketType::Frame: return "frame";
    case PacketType::Count: MISCUTILS_ASSERT(false);
    }
    return "<dummy>";
}

std::string fourccToString(std::uint32_t fourcc)
{
    std::string text(4, ' ');
    for (std::size_t index = 0; index < text.size(); ++index)
    {
        const auto character = static_cast<unsigned char>(fourcc >> (8 * index));
        if (character >= 32)
            text[index] = static_cast<char>(character);
    }
    return text;
}

PacketType parsePacketType(const ByteSpan& packetData)
{
    MISCUTILS_ASSERT(packetData.size() >= 1);
    switch (packetData[0])
    {
    case static_cast<unsigned char>(PacketType::SequenceInfo): return PacketType::SequenceInfo;
    case static_cast<unsigned char>(PacketType::Frame): return PacketType::Frame;
    default: return PacketType::Unknown;
    }
}

std::uint16_t parsePacketSequenceNr(const ByteSpan& packetData)
{
    MISCUTILS_ASSERT(packetData.size() >= 4);
    return detail::readLittleEndian<std::uint16_t>(packetData.data() + 2);
}

std::uint32_t parseSequenceInfoFourcc(const ByteSpan& packetData)
{
    MISCUTILS_ASSERT(packetData.size() >= 8);
    return detail::readLittleEndian<std::uint32_t>(packetData.data() + packetHeaderSize);
}

void produceSequenceInfoPacket(Buffer& packet, unsigned int fourcc, const ByteSpan& codecHeader,
                               unsigned short sequenceNr)
{
    appendPacketHeader(packet, PacketType::SequenceInfo, sequenceNr);
    detail::appendLittleEndian(packet, static_cast<std::uint32_t>(fourcc));
    packet.insert(packet.end(), codecHeader.begin(), codecHeader.end());
}

// --- Payloader -------------------------------------------------------------------------------

Payloader::Payloader(unsigned int fourcc) : m_fourcc(fourcc)
{}

Payloader::~Payloader() = default;

std::size_t Payloader::getSizeForWrappedFrame(const ByteSpan& mediaData) const
{
    return mediaData.size();
}

void Payloader::wrapFrame(Buffer& packet, std::size_t packetOffset, const ByteSpan& mediaData)
{
    MISCUTILS_ASSERT((packetOffset + mediaData.size()) <= packet.size());
    std::copy(mediaData.begin(), mediaData.end(), packet.begin() + static_cast<std::ptrdiff_t>(packetOffset));
}

void Payloader::produceFramePacket(Buffer& packet, unsigned short sequenceNr, unsigned long long timestamp,
                                   unsigned long long duration, const ByteSpan& mediaData)
{
    appendPacketHeader(packet, PacketType::Frame, sequenceNr);
    detail::appendLittleEndian(packet, static_cast<std::uint64_t>(timestamp));
    detail::appendLittleEndian(packet, static_cast<std::uint64_t>(duration));
    packet.resize(frameHeaderSize + getSizeForWrappedFrame(mediaData));
    wrapFrame(packet, frameHeaderSize, mediaData);
}

// --- Depayloader -----------------------------------------------------------------------------

Depayloader::Depayloader(unsigned int fourcc) : m_fourcc(fourcc)
{}

Depayloader::~Depayloader() = default;

Buffer Depayloader::unwrapFrame(const ByteSpan& mediaData)
{
    return Buffer(mediaData.begin(), mediaData.end());
}

void Depayloader::unwrapFrameInto(const ByteSpan& mediaData, Buffer& frame)
{
    frame = unwrapFrame(mediaData);
}

void Depayloader::reset()
{}

// --- PCM -------------------------------------------------------------------------------------

const unsigned int PcmFourcc = 0x414D4350;

PcmPayloader::PcmPayloader() : Payloader(PcmFourcc)
{}

PcmPayloader::~PcmPayloader() = default;

void PcmPayloader::setNewFormat(unsigned int sampleRate, unsigned int numChannels,
                                audioUtils::PcmFormat format)
{
    m_codecHeader.clear();
    detail::appendLittleEndian(m_codecHeader, static_cast<std::uint32_t>(sampleRate));
    m_codecHeader.push_back(static_cast<unsigned char>(numChannels));
    m_codecHeader.push_back(static_cast<unsigned char>(format));
}

PcmDepayloader::PcmDepayloader() : Depayloader(PcmFourcc)
{}

PcmDepayloader::~PcmDepayloader() = default;

void PcmDepayloader::unwrapFrameInto(const ByteSpan& mediaData, Buffer& frame)
{
    frame.assign(mediaData.begin(), mediaData.end());
}

bool PcmDepayloader::processCodecHeader(const ByteSpan& codecHeader)
{
    // Each field is stored as soon as it is read: a short header updates what it covers.
    if (codecHeader.size() < 4)
        return false;
    m_sampleRate = detail::readLittleEndian<std::uint32_t>(codecHeader.data());
    if (codecHeader.size() == 4)
        return false;
    m_numChannels = codecHeader[4];
    if (codecHeader.size() == 5)
        return false;
    m_sampleFormat = static_cast<audioUtils::PcmFormat>(codecHeader[5]);

    return m_sampleRate != 0 && m_numChannels != 0 &&
           static_cast<std::uint32_t>(m_sampleFormat) < audioUtils::PcmFormatCount;
}

// --- DepayloaderList -------------------------------------------------------------------------

DepayloaderList::DepayloaderList()
{
    reset();
}

void DepayloaderList::addDepayloader(Depayloader& depayloader)
{
    m_depayloaders[depayloader.getFourcc()] = &depayloader;
}

DepayloaderList::ConsumePacketRetcode DepayloaderList::consumePacket(const ByteSpan& packetData)
{
    MISCUTILS_ASSERT(packetData.size() > 4);

    // Type and sequence number are taken as they stand, also from a packet that turns out bad.
    m_currentPacketType = static_cast<PacketType>(packetData[0]);
    m_currentSequenceNr = parsePacketSequenceNr(packetData);

    switch (m_currentPacketType)
    {
    case PacketType::SequenceInfo: return consumeSequenceInfoPacket(packetData);
    case PacketType::Frame: return consumeFramePacket(packetData);
    default: m_currentPacketType = PacketType::Unknown; return ConsumePacketRetcode::Ok;
    }
}

DepayloaderList::ConsumePacketRetcode DepayloaderList::consumeSequenceInfoPacket(const ByteSpan& packetData)
{
    if (packetData.size() < sequenceInfoHeaderSize)
    {
        LOG4CPLUS_ERROR(logger, "Could not read VRX SequenceInfo packet FourCC");
        return ConsumePacketRetcode::Error;
    }

    const std::uint32_t fourcc = parseSequenceInfoFourcc(packetData);
    LOG4CPLUS_DEBUG(logger, "Consumed SequenceInfo packet; looking for payloader with FourCC \""
                                << fourccToString(fourcc) << "\"");

    const auto found = m_depayloaders.find(fourcc);
    if (found == m_depayloaders.end())
    {
        m_currentDepayloader = nullptr;
        LOG4CPLUS_DEBUG(logger, "No matching payloader found");
        return ConsumePacketRetcode::NoMatchingDepayloader;
    }

    // The depayloader stays current even if it refuses the header: a later SequenceInfo for
    // the same FourCC then only needs to bring a good header.
    m_currentDepayloader = found->second;
    LOG4CPLUS_DEBUG(logger, "Matching payloader found");
    if (!m_currentDepayloader->processCodecHeader(packetData.subspan(sequenceInfoHeaderSize)))
    {
        LOG4CPLUS_ERROR(logger, "Could not process codec header from VRX SequenceInfo packet");
        return ConsumePacketRetcode::Error;
    }
    return ConsumePacketRetcode::Ok;
}

DepayloaderList::ConsumePacketRetcode DepayloaderList::consumeFramePacket(const ByteSpan& packetData)
{
    if (m_currentDepayloader == nullptr)
        return ConsumePacketRetcode::NoDepayloaderSelected;

    // The timestamp is stored before the duration is checked for: a packet cut between the
    // two leaves the new timestamp with the old duration.
    if (packetData.size() < frameTimestampEnd)
    {
        LOG4CPLUS_ERROR(logger, "Could not read VRX Frame packet timestamp and duration");
        return ConsumePacketRetcode::Error;
    }
    m_currentFrameTimestamp = detail::readLittleEndian<std::uint64_t>(packetData.data() + packetHeaderSize);
    if (packetData.size() < frameHeaderSize)
    {
        LOG4CPLUS_ERROR(logger, "Could not read VRX Frame packet timestamp and duration");
        return ConsumePacketRetcode::Error;
    }
    m_currentFrameDuration = detail::readLittleEndian<std::uint64_t>(packetData.data() + frameTimestampEnd);

    m_currentDepayloader->unwrapFrameInto(packetData.subspan(frameHeaderSize), m_currentFrameMediaData);
    return ConsumePacketRetcode::Ok;
}

bool DepayloaderList::setOutOfBandInfo(unsigned int fourcc, const ByteSpan& codecHeader)
{
    const auto found = m_depayloaders.find(fourcc);
    if (found == m_depayloaders.end())
    {
        m_currentDepayloader = nullptr;
        return false;
    }
    m_currentDepayloader = found->second;
    return m_currentDepayloader->processCodecHeader(codecHeader);
}

void DepayloaderList::reset()
{
    m_currentFrameMediaData.clear();
    m_currentFrameTimestamp = 0;
    m_currentFrameDuration = 0;
    m_currentSequenceNr = 0;
    m_currentPacketType = PacketType::Unknown;
    m_currentDepayloader = nullptr;
    for (auto& [fourcc, depayloader] : m_depayloaders)
        depayloader->reset();
}

Buffer DepayloaderList::stealCurrentFrameMediaData()
{
    Buffer mediaData = std::move(m_currentFrameMediaData);
    m_currentFrameMediaData = Buffer();
    return mediaData;
}

const char* toString(DepayloaderList::ConsumePacketRetcode retcode)
{
    switch (retcode)
    {
    case DepayloaderList::ConsumePacketRetcode::Ok: return "ok";
    case DepayloaderList::ConsumePacketRetcode::Error: return "error";
    case DepayloaderList::ConsumePacketRetcode::NoMatchingDepayloader: return "no matching depayloader";
    case DepayloaderList::ConsumePacketRetcode::NoDepayloaderSelected: return "no depayloader selected";
    }
    return "unknown";
}

} // namespace vrx
