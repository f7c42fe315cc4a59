#pragma once

#include <voraxis/SideChannel.h>

#include <audioutils/PcmFormat.h>
#include <miscutils/Export.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace vrx {

/// Type byte of a stream packet (byte 0 of every SequenceInfo and Frame packet).
enum class PacketType : std::uint32_t
{
    Unknown = 0,
    SequenceInfo = 1, ///< opens a sequence: FourCC and codec header
    Frame = 2,        ///< one media frame with timestamp and duration
    Count = 3,        ///< end marker, never on the wire
};

/// "unknown", "sequenceInfo", "frame"; "<dummy>" for values beyond the enumeration.
/// Count is not a packet type and stops the process.
VRX_EXPORT std::string toString(PacketType packetType);

/// The four characters of a FourCC, lowest byte first, bytes below 32 shown as blanks.
VRX_EXPORT std::string fourccToString(std::uint32_t fourcc);

/// Type of a stream packet of at least 1 byte; any type byte other than 1 or 2 is Unknown.
VRX_EXPORT PacketType parsePacketType(const ByteSpan& packetData);

/// Sequence number (bytes 2 and 3) of a stream packet of at least 4 bytes.
VRX_EXPORT std::uint16_t parsePacketSequenceNr(const ByteSpan& packetData);

/// FourCC (bytes 4 to 7, little-endian) of a SequenceInfo packet of at least 8 bytes.
VRX_EXPORT std::uint32_t parseSequenceInfoFourcc(const ByteSpan& packetData);

/// Overwrites `packet` with a SequenceInfo packet, reusing its capacity.
VRX_EXPORT void produceSequenceInfoPacket(Buffer& packet, unsigned int fourcc, const ByteSpan& codecHeader,
                                          unsigned short sequenceNr);

/// Sender-side payload format: wraps media frames into Frame packets and supplies the codec
/// header that SequenceInfo packets announce. Owned by the application.
class VRX_EXPORT Payloader
{
public:
    explicit Payloader(unsigned int fourcc);
    virtual ~Payloader();

    Payloader(const Payloader&) = delete;
    Payloader& operator=(const Payloader&) = delete;

    /// Bytes the wrapped form of `mediaData` occupies behind the 20-byte Frame header.
    virtual std::size_t getSizeForWrappedFrame(const ByteSpan& mediaData) const;

    /// Writes the wrapped media into `packet` from `packetOffset` on; `packet` has already
    /// been sized for getSizeForWrappedFrame() bytes there.
    virtual void wrapFrame(Buffer& packet, std::size_t packetOffset, const ByteSpan& mediaData);

    unsigned int getFourcc() const { return m_fourcc; }
    const Buffer& getCodecHeader() const { return m_codecHeader; }

    /// Overwrites `packet` with a Frame packet, reusing its capacity so that a steady stream
    /// of frames allocates nothing once the buffer has grown to the largest frame.
    void produceFramePacket(Buffer& packet, unsigned short sequenceNr, unsigned long long timestamp,
                            unsigned long long duration, const ByteSpan& mediaData);

private:
    const unsigned int m_fourcc;

protected:
    Buffer m_codecHeader;
};

/// Receiver-side payload format: accepts codec headers and unwraps Frame media.
/// Owned by the application.
class VRX_EXPORT Depayloader
{
public:
    explicit Depayloader(unsigned int fourcc);
    virtual ~Depayloader();

    Depayloader(const Depayloader&) = delete;
    Depayloader& operator=(const Depayloader&) = delete;

    /// Takes the codec header of a SequenceInfo packet; true when it describes a usable stream.
    virtual bool processCodecHeader(const ByteSpan& codecHeader) = 0;

    /// Media bytes of a Frame packet (everything behind its 20-byte header) as a new buffer.
    virtual Buffer unwrapFrame(const ByteSpan& mediaData);

    /// The same into `frame`, which the receiver reuses from frame to frame: by default what
    /// unwrapFrame returns. A depayloader that takes the bytes as they are copies them in
    /// without allocating once `frame` has grown (PcmDepayloader does).
    virtual void unwrapFrameInto(const ByteSpan& mediaData, Buffer& frame);

    /// Forgets per-connection state; the base has none.
    virtual void reset();

    unsigned int getFourcc() const { return m_fourcc; }

private:
    const unsigned int m_fourcc;
};

/// FourCC of raw PCM audio: the bytes P, C, M, A in memory.
VRX_EXPORT extern const unsigned int PcmFourcc;

/// Raw PCM: samples travel as the producer hands them over; the codec header carries sample
/// rate, channel count and sample format.
class VRX_EXPORT PcmPayloader : public Payloader
{
public:
    PcmPayloader();
    ~PcmPayloader() override;

    /// Replaces the codec header; receivers see it with the next sequence the sender starts.
    /// A channel count above 255 is truncated to its low 8 bits.
    void setNewFormat(unsigned int sampleRate, unsigned int numChannels, audioUtils::PcmFormat format);
};

class VRX_EXPORT PcmDepayloader : public Depayloader
{
public:
    PcmDepayloader();
    ~PcmDepayloader() override;

    /// Stores the fields as it reads them, so a short header leaves a partial update behind;
    /// true only for a complete header with non-zero rate and channels and a known format.
    bool processCodecHeader(const ByteSpan& codecHeader) override;
    /// Samples travel as they are. A subclass that changes them overrides this one too.
    void unwrapFrameInto(const ByteSpan& mediaData, Buffer& frame) override;

    unsigned int getSampleRate() const { return m_sampleRate; }
    unsigned int getNumChannels() const { return m_numChannels; }
    audioUtils::PcmFormat getSampleFormat() const { return m_sampleFormat; }

private:
    std::uint32_t m_sampleRate = 0;
    std::uint32_t m_numChannels = 0;
    audioUtils::PcmFormat m_sampleFormat = audioUtils::PcmFormat{0};
};

/// The receiver's packet consumer: picks the depayloader that the latest SequenceInfo names
/// and unwraps Frame packets with it, keeping the facts of the last packet consumed.
class VRX_EXPORT DepayloaderList
{
public:
    enum class ConsumePacketRetcode : std::uint32_t
    {
        Ok = 0,                    ///< consumed (packets of unknown type are ignored)
        Error = 1,                 ///< too short for its type, or codec header refused
        NoMatchingDepayloader = 2, ///< SequenceInfo names a FourCC nobody registered
        NoDepayloaderSelected = 3, ///< Frame while no depayloader is current
    };

    DepayloaderList();

    DepayloaderList(const DepayloaderList&) = delete;
    DepayloaderList& operator=(const DepayloaderList&) = delete;

    /// Registers under its FourCC, replacing an earlier one with the same FourCC.
    /// The depayloader must outlive the list.
    void addDepayloader(Depayloader& depayloader);

    /// Consumes one stream packet of more than 4 bytes.
    ConsumePacketRetcode consumePacket(const ByteSpan& packetData);

    /// Selects the depayloader for `fourcc` without a SequenceInfo packet.
    bool setOutOfBandInfo(unsigned int fourcc, const ByteSpan& codecHeader);

    /// Forgets the current stream (keeping registrations) and resets every depayloader.
    void reset();

    const Buffer& getCurrentFrameMediaData() const { return m_currentFrameMediaData; }
    std::uint64_t getCurrentFrameTimestamp() const { return m_currentFrameTimestamp; }
    std::uint64_t getCurrentFrameDuration() const { return m_currentFrameDuration; }
    std::uint16_t getCurrentSequenceNr() const { return m_currentSequenceNr; }
    PacketType getCurrentPacketType() const { return m_currentPacketType; }
    Depayloader* getCurrentDepayloader() const { return m_currentDepayloader; }

    /// Hands the media of the last Frame over without a copy; leaves no bytes, no capacity.
    Buffer stealCurrentFrameMediaData();

private:
    ConsumePacketRetcode consumeSequenceInfoPacket(const ByteSpan& packetData);
    ConsumePacketRetcode consumeFramePacket(const ByteSpan& packetData);

    std::map<std::uint32_t, Depayloader*> m_depayloaders;
    Buffer m_currentFrameMediaData;
    std::uint64_t m_currentFrameTimestamp = 0;
    std::uint64_t m_currentFrameDuration = 0;
    std::uint16_t m_currentSequenceNr = 0;
    PacketType m_currentPacketType = PacketType::Unknown;
    Depayloader* m_currentDepayloader = nullptr;
};

VRX_EXPORT const char* toString(DepayloaderList::ConsumePacketRetcode retcode);

} // namespace vrx
