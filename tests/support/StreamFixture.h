#pragma once

// Both ends of a stream in one fixture, as an application sees them: a vrx::Sender on a scratch
// TMPDIR and an address of its own, and a vrx::Receiver whose callbacks are recorded.

#include "Peers.h"

#include <voraxis/VrxReceiver.h>
#include <voraxis/VrxSender.h>

namespace vrx::test {

using namespace std::literals;
using ClockType = Receiver::StreamClockType;

inline const std::string sequence48k = "sequence 48000 2 S16LE",
                         readyMonotonic = "ready monotonic system clock";

/// What the application saw: one event per callback, in order ("state running", "sequence
/// 48000 2 S16LE", "ready no clock", "failed"; "@caller" marks one that ran on the thread that
/// attached the recorder, "@elsewhere" one that ran neither there nor on the receiver's thread),
/// and the timestamps of the frames, each checked against what the frame scheme says it carries. A connection
/// rebuilt before it saw a sequence (it came just before its sender started the first one and missed the
/// announcement) is left out of the events.
struct Seen
{
    LogLines events;
    std::vector<std::uint64_t> frames;
    bool intact = true; // every frame was one that was sent, whole, came after the one before,
                        // and on the receiver's thread
};

/// A depayloader that asks its receiver what any callback may ask, from where the receiver
/// calls it (at each sequence and whenever a connection is rebuilt).
class QueryingDepayloader : public PcmDepayloader
{
public:
    const Receiver* receiver = nullptr;
    bool processCodecHeader(const ByteSpan& codecHeader) override
    {
        query();
        return PcmDepayloader::processCodecHeader(codecHeader);
    }
    void reset() override
    {
        query();
        PcmDepayloader::reset();
    }

private:
    void query() const
    {
        if (receiver != nullptr)
            receiver->getState(), receiver->getCurrentStreamTime();
    }
};

class Callbacks : NonCopyable
{
public:
    void attach(Receiver& receiver, PcmDepayloader& depayloader)
    {
        receiver.addDepayloader(depayloader);
        receiver.setStateChangedCallback(
            [this](Receiver::State state) { record("state "s + toString(state)); });
        receiver.setConnectionAttemptFailedCallback([this] { record("failed"); });
        receiver.setNewSequenceCallback([this, &depayloader](Depayloader& selected) {
            record("sequence " + std::to_string(depayloader.getSampleRate()) + " " +
                   std::to_string(depayloader.getNumChannels()) + " " +
                   audioUtils::toString(depayloader.getSampleFormat()) +
                   (&selected == &depayloader ? "" : "?"));
        });
        receiver.setReceiverIsReadyCallback([this, &depayloader](Depayloader& selected, ClockType clock) {
            record("ready "s + toString(clock) + (&selected == &depayloader ? "" : "?"));
        });
        receiver.setMediaDataCallback([this](unsigned long long timestamp, unsigned long long duration,
                                             const std::vector<unsigned char>& media) {
            const std::lock_guard lock(m_mutex);
            m_seen.intact = m_seen.intact && duration == durationOf(timestamp) &&
                            media == mediaOf(timestamp) &&
                            (m_seen.frames.empty() || timestamp > m_seen.frames.back()) &&
                            std::this_thread::get_id() == m_receiverThread;
            m_seen.frames.push_back(timestamp);
        });
    }
    Seen seen() const
    {
        const std::lock_guard lock(m_mutex);
        Seen seen = m_seen;
        const LogLines rebuilt{"state running", "state connecting"};
        for (auto at = std::ranges::search(seen.events, rebuilt); !at.empty();
             at = std::ranges::search(seen.events, rebuilt))
            seen.events.erase(at.begin(), at.end());
        return seen;
    }
    /// Waits, bounded, until `event` has come `times` times.
    bool waitFor(const std::string& event, long times = 1) const
    {
        return test::waitFor([&] { return std::ranges::count(seen().events, event) >= times; });
    }
    void clear()
    {
        const std::lock_guard lock(m_mutex);
        m_seen = {};
    }

    /// Called with each event once it is recorded, on the thread of its callback.
    std::function<void(const std::string& event)> whenRecorded;

private:
    void record(const std::string& event)
    {
        {
            const std::lock_guard lock(m_mutex);
            const std::thread::id thread = std::this_thread::get_id();
            std::string mark = thread == m_caller ? "@caller" : "";
            // A receiver's callbacks all come from its thread; the next thread comes after Idle.
            if (mark.empty() && m_receiverThreadEnded)
                m_receiverThread = thread;
            else if (mark.empty() && thread != m_receiverThread)
                mark = "@elsewhere";
            m_receiverThreadEnded = mark.empty() ? event == "state idle" : m_receiverThreadEnded;
            m_seen.events.push_back(event + mark);
        }
        if (whenRecorded)
            whenRecorded(event);
    }

    const std::thread::id m_caller = std::this_thread::get_id();
    std::thread::id m_receiverThread;
    bool m_receiverThreadEnded = true;
    mutable std::mutex m_mutex;
    Seen m_seen;
};

class ReceiverTest : public LogCaptureTest
{
protected:
    ReceiverTest()
    {
        m_payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
        m_depayloader.receiver = &m_receiver;
        m_callbacks.attach(m_receiver, m_depayloader);
    }

    /// A SequenceInfo of the fixture's payloader, or of another FourCC, or with another header.
    Buffer sequenceInfo(std::uint16_t number, unsigned int fourcc = PcmFourcc,
                        const Buffer& header = {}) const
    {
        Buffer packet;
        produceSequenceInfoPacket(packet, fourcc, header.empty() ? m_payloader.getCodecHeader() : header,
                                  number);
        return packet;
    }
    /// A Frame of the frame scheme.
    Buffer frame(std::uint16_t number, std::uint64_t timestamp)
    {
        Buffer packet;
        m_payloader.produceFramePacket(packet, number, timestamp, durationOf(timestamp), mediaOf(timestamp));
        return packet;
    }

    /// A sender on the fixture's address whose first sequence has started.
    bool startSender(NanomsgProtocol protocol = NanomsgProtocol::PubSub,
                     TimeSyncProtocol clock = TimeSyncProtocol::MonotonicSystemClock, unsigned int port = 0)
    {
        if (!m_sender.initializeSender(m_address, "", "127.0.0.1", port, clock, protocol))
            return false;
        m_sender.setCurrentPayloader(m_payloader);
        m_sender.startNewSequence();
        return true;
    }

    /// Sends frames, each once the last has arrived or been lost (a publisher drops what a busy
    /// pipe cannot take), until `count` more have arrived.
    bool stream(std::size_t count)
    {
        const std::size_t target = m_callbacks.seen().frames.size() + count;
        return waitFor([&] {
            const std::size_t before = m_callbacks.seen().frames.size();
            m_sender.sendMediaData(m_timestamp, durationOf(m_timestamp), mediaOf(m_timestamp));
            ++m_timestamp;
            test::waitFor([&] { return m_callbacks.seen().frames.size() > before; }, 200ms);
            return m_callbacks.seen().frames.size() >= target;
        });
    }

    ScratchTmpdir m_scratch;
    const std::string m_address = uniqueSocketAddress();
    PcmPayloader m_payloader;
    Sender m_sender;
    QueryingDepayloader m_depayloader;
    Callbacks m_callbacks;
    Receiver m_receiver; // stops first, while what its callbacks use still exists
    std::uint64_t m_timestamp = 1;
};

} // namespace vrx::test
