// DepayloaderList consuming stream packets: the facts each packet leaves, the depayloader it
// selects, and what it logs.

#include "TestHelpers.h"

#include <voraxis/VrxPayload.h>

namespace vrx::test {
namespace {

using namespace std::literals;
using Lines = LogLines;

Buffer sequenceInfo(unsigned int fourcc, std::string_view codecHeader, unsigned short number)
{
    Buffer packet;
    produceSequenceInfoPacket(packet, fourcc, bytes(codecHeader), number);
    return packet;
}

Buffer frame(unsigned short number, std::uint64_t timestamp, std::uint64_t duration, std::string_view media)
{
    Buffer packet;
    Payloader(0).produceFramePacket(packet, number, timestamp, duration, bytes(media));
    return packet;
}

class DepayloaderListTest : public LogCaptureTest
{
protected:
    // What consuming the packet returned, the facts it left ("type number, depayloader,
    // timestamp/duration media, PCM sample rate"), then what it logged.
    Lines consume(const Buffer& packet)
    {
        m_log.clear();
        const auto retcode = m_list.consumePacket(packet);
        const Depayloader* current = m_list.getCurrentDepayloader();
        const Buffer& media = m_list.getCurrentFrameMediaData();
        Lines lines{std::string(toString(retcode)) + ": " + toString(m_list.getCurrentPacketType()) + " " +
                    std::to_string(m_list.getCurrentSequenceNr()) + ", " +
                    (current != nullptr ? fourccToString(current->getFourcc()) : "none") + ", " +
                    std::to_string(m_list.getCurrentFrameTimestamp()) + "/" +
                    std::to_string(m_list.getCurrentFrameDuration()) + " " +
                    std::string(media.begin(), media.end()) + ", " + std::to_string(m_pcm.getSampleRate()) +
                    " Hz"};
        const LogLines logged = m_log.lines();
        lines.insert(lines.end(), logged.begin(), logged.end());
        return lines;
    }

    PcmDepayloader m_pcm;
    DepayloaderList m_list;
};

TEST_F(DepayloaderListTest, EachPacketLeavesItsFactsSelectsItsDepayloaderAndLogs)
{
    m_list.addDepayloader(m_pcm);
    const std::string pcma = "DEBUG Consumed SequenceInfo packet; looking for payloader with FourCC \"PCMA\"",
                      matching = "DEBUG Matching payloader found",
                      refused = "ERROR Could not process codec header from VRX SequenceInfo packet",
                      cut = "ERROR Could not read VRX Frame packet timestamp and duration";
    // The codec header is all behind the FourCC; a refused one leaves its depayloader selected.
    EXPECT_EQ(consume(sequenceInfo(PcmFourcc, "\x80\xBB\x00\x00\x02\x03"sv, 1)),
              (Lines{"ok: sequenceInfo 1, PCMA, 0/0 , 48000 Hz", pcma, matching}));
    EXPECT_EQ(consume(sequenceInfo(PcmFourcc, "", 6)),
              (Lines{"error: sequenceInfo 6, PCMA, 0/0 , 48000 Hz", pcma, matching, refused}));
    EXPECT_EQ(consume(sequenceInfo(PcmFourcc, "\x22\x56\x00\x00\x00\x03"sv, 5)),
              (Lines{"error: sequenceInfo 5, PCMA, 0/0 , 22050 Hz", pcma, matching, refused}));
    EXPECT_EQ(consume(frame(5, 0x0102030405060708, 0xA0B0C0D0E0F00010, "cd")),
              Lines{"ok: frame 5, PCMA, 72623859790382856/11578966645329100816 cd, 22050 Hz"});
    EXPECT_EQ(consume(bytes("\x01\x00\x02\x03PCM"sv)),
              (Lines{"error: sequenceInfo 770, PCMA, 72623859790382856/11578966645329100816 cd, 22050 Hz",
                     "ERROR Could not read VRX SequenceInfo packet FourCC"}));
    // A cut Frame keeps a whole timestamp, not the duration behind it.
    const Buffer full = frame(4, 0x1111, 0x2222, "");
    EXPECT_EQ(consume(Buffer(full.begin(), full.begin() + 11)),
              (Lines{"error: frame 4, PCMA, 72623859790382856/11578966645329100816 cd, 22050 Hz", cut}));
    EXPECT_EQ(consume(Buffer(full.begin(), full.begin() + 12)),
              (Lines{"error: frame 4, PCMA, 4369/11578966645329100816 cd, 22050 Hz", cut}));
    EXPECT_EQ(consume(full), Lines{"ok: frame 4, PCMA, 4369/8738 , 22050 Hz"});
    for (const std::string_view unknownType : {"\x00\x00\x22\x11\x01"sv, "\x03\x00\x22\x11\x01"sv})
        EXPECT_EQ(consume(bytes(unknownType)), Lines{"ok: unknown 4386, PCMA, 4369/8738 , 22050 Hz"});
    // FourCC bytes below 32 are logged as blanks.
    EXPECT_EQ(consume(sequenceInfo(0x1F7E4D41, "", 2)),
              (Lines{"no matching depayloader: sequenceInfo 2, none, 4369/8738 , 22050 Hz",
                     "DEBUG Consumed SequenceInfo packet; looking for payloader with FourCC \"AM~ \"",
                     "DEBUG No matching payloader found"}));
    EXPECT_EQ(consume(frame(7, 1, 2, "xyz")),
              Lines{"no depayloader selected: frame 7, none, 4369/8738 , 22050 Hz"});

    // Reset forgets the stream, its media too, but not the registrations; stolen media leave no
    // storage behind.
    consume(sequenceInfo(PcmFourcc, "\x80\xBB\x00\x00\x02\x03"sv, 9));
    EXPECT_EQ(consume(frame(9, 1, 2, "ab"))[0], "ok: frame 9, PCMA, 1/2 ab, 48000 Hz");
    m_list.reset();
    EXPECT_EQ(consume(frame(10, 1, 2, "")), Lines{"no depayloader selected: frame 10, none, 0/0 , 48000 Hz"});
    consume(sequenceInfo(PcmFourcc, "\x80\xBB\x00\x00\x02\x03"sv, 11));
    EXPECT_EQ(consume(frame(11, 3, 4, "cd"))[0], "ok: frame 11, PCMA, 3/4 cd, 48000 Hz");
    const unsigned char* const storage = m_list.getCurrentFrameMediaData().data();
    const Buffer stolen = m_list.stealCurrentFrameMediaData();
    EXPECT_EQ(std::tuple(stolen, stolen.data(), m_list.getCurrentFrameMediaData().capacity()),
              std::tuple(bytes("cd"), storage, 0u));

    // Out of band, with no SequenceInfo: a registered FourCC selects its depayloader with the
    // header given, any other none.
    EXPECT_TRUE(m_list.setOutOfBandInfo(PcmFourcc, bytes("\x22\x56\x00\x00\x01\x03"sv)));
    EXPECT_EQ(consume(frame(11, 5, 6, "ef"))[0], "ok: frame 11, PCMA, 5/6 ef, 22050 Hz");
    EXPECT_FALSE(m_list.setOutOfBandInfo(0x44434241, bytes("\x80\xBB\x00\x00\x02\x03"sv)));
    EXPECT_EQ(m_list.getCurrentDepayloader(), nullptr);
}

} // namespace
} // namespace vrx::test
