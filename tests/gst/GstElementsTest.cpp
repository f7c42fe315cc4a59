// vrxsink and vrxsrc in this process: through GstHarness and real pipelines, against each other
// and against the library's own sender.

#include "Peers.h"

#include <voraxis/VrxSender.h>

#include <gst/audio/audio.h>
#include <gst/check/gstharness.h>
#include <gst/gst.h>

#include <atomic>
#include <memory>

namespace vrx::test {
namespace {

using audioUtils::PcmFormat;

struct HarnessDeleter
{
    void operator()(GstHarness* harness) const { gst_harness_teardown(harness); }
};
using Harness = std::unique_ptr<GstHarness, HarnessDeleter>;

/// A pipeline from a gst-launch line, set to NULL and released at the end.
struct PipelineDeleter
{
    void operator()(GstElement* pipeline) const
    {
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
    }
};
using Pipeline = std::unique_ptr<GstElement, PipelineDeleter>;
Pipeline launch(const std::string& line)
{
    return Pipeline(gst_parse_launch(line.c_str(), nullptr));
}

struct CapsDeleter
{
    void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
};
using Caps = std::unique_ptr<GstCaps, CapsDeleter>;
Caps audioCaps(PcmFormat format, unsigned int rate, unsigned int channels)
{
    GstAudioInfo info;
    gst_audio_info_set_format(&info, gst_audio_format_from_string(audioUtils::toString(format)),
                              static_cast<gint>(rate), static_cast<gint>(channels), nullptr);
    return Caps(gst_audio_info_to_caps(&info));
}

Buffer contentOf(GstBuffer* buffer)
{
    Buffer content(gst_buffer_get_size(buffer));
    gst_buffer_extract(buffer, 0, content.data(), content.size());
    return content;
}

/// The messages of `type` that have come to `bus` so far, each as "source: text" (errors with
/// their debug text, element messages as name and status), repeats of one message in a row once.
LogLines messages(GstBus* bus, GstMessageType type)
{
    LogLines texts;
    while (GstMessage* message = gst_bus_pop_filtered(bus, type))
    {
        std::string text = std::string(GST_OBJECT_NAME(message->src)) + ": ";
        if (type == GST_MESSAGE_ERROR)
        {
            GError* error = nullptr;
            gchar* debug = nullptr;
            gst_message_parse_error(message, &error, &debug);
            text += error->message + (" (" + std::string(debug ? debug : "") + ")");
            g_error_free(error);
            g_free(debug);
        }
        else if (const GstStructure* structure = gst_message_get_structure(message))
        {
            const char* status = gst_structure_get_string(structure, "status");
            text += gst_structure_get_name(structure) + (" " + std::string(status ? status : ""));
        }
        if (texts.empty() || texts.back() != text)
            texts.push_back(text);
        gst_message_unref(message);
    }
    return texts;
}

class GstElementsTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        // The plugin of the build tree, loaded here rather than found by GStreamer's scanner
        // program, which cannot load a sanitized plugin; a registry of the suite's own.
        setenv("GST_REGISTRY", VRX_GST_REGISTRY, 1);
        gst_init(nullptr, nullptr);
        GError* error = nullptr;
        GstPlugin* plugin = gst_plugin_load_file(VRX_GST_PLUGIN_FILE, &error);
        ASSERT_NE(plugin, nullptr) << error->message;
        gst_object_unref(plugin);
    }

    /// vrxsrc following m_address, on the system clock, its messages on m_bus.
    Harness sourceHarness()
    {
        Harness harness(gst_harness_new_parse(("vrxsrc name=src address=" + m_address).c_str()));
        gst_harness_use_systemclock(harness.get());
        gst_element_set_bus(harness->element, m_bus);
        gst_harness_play(harness.get());
        return harness;
    }

    ScratchTmpdir m_tmpdir;
    const std::string m_address = uniqueSocketAddress();
    GstBus* m_bus = gst_bus_new();
    ~GstElementsTest() override { gst_object_unref(m_bus); }
};

// Each format in turn from vrxsink to vrxsrc: every caps change is a new sequence, and vrxsrc
// renegotiates downstream to the same caps, with the bytes unchanged.
TEST_F(GstElementsTest, everyFormatCrossesWithItsCaps)
{
    struct Row
    {
        PcmFormat format;
        unsigned int rate, channels;
    };
    const Row rows[] = {
        {PcmFormat::S8, 8000, 1},      {PcmFormat::U8, 11025, 2},     {PcmFormat::S16LE, 48000, 2},
        {PcmFormat::S16BE, 44100, 1},  {PcmFormat::U16LE, 22050, 2},  {PcmFormat::U16BE, 16000, 1},
        {PcmFormat::S24LE, 96000, 2},  {PcmFormat::S24BE, 48000, 6},  {PcmFormat::S32LE, 32000, 1},
        {PcmFormat::S32BE, 48000, 2},  {PcmFormat::F32LE, 44100, 8},  {PcmFormat::F32BE, 192000, 2},
    };
    Harness sink(gst_harness_new_parse(("vrxsink sync=false address=" + m_address).c_str()));
    Harness source = sourceHarness();
    for (std::size_t row = 0; row < std::size(rows); ++row)
    {
        const auto& [format, rate, channels] = rows[row];
        SCOPED_TRACE(audioUtils::toString(format));
        const Caps caps = audioCaps(format, rate, channels);
        gst_harness_set_src_caps(sink.get(), gst_caps_ref(caps.get()));
        // 240 sample frames, the first byte the row, then a count: whole and in order, or not.
        Buffer frame(240 * channels * audioUtils::getBytesPerSample(format));
        std::iota(frame.begin(), frame.end(), static_cast<unsigned char>(row * 3));
        frame[0] = static_cast<unsigned char>(row);
        bool arrived = false;
        ASSERT_TRUE(waitFor([&] {
            gst_harness_push(sink.get(), gst_buffer_new_memdup(frame.data(), frame.size()));
            while (GstBuffer* buffer = gst_harness_try_pull(source.get()))
            {
                arrived = arrived || contentOf(buffer) == frame;
                gst_buffer_unref(buffer);
            }
            return arrived;
        }));
        Caps received(gst_pad_get_current_caps(source->sinkpad));
        EXPECT_TRUE(gst_caps_is_equal(received.get(), caps.get()))
            << gst_caps_to_string(received.get()) << " for " << gst_caps_to_string(caps.get());
    }
    EXPECT_THAT(messages(m_bus, GST_MESSAGE_ERROR), ::testing::IsEmpty());
}

// A break in the stream reaches downstream as DISCONT on the first buffer after it, and a
// sender that goes and comes back is no error.
TEST_F(GstElementsTest, aBreakInTheStreamIsDiscont)
{
    struct Row
    {
        const char* name;
        bool restartSender;
        LogLines messages;
    };
    const Row rows[] = {
        {"a gap in the timestamps", false, {"src: vrx-sender waiting", "src: vrx-sender connected"}},
        {"a sender restart", true,
         {"src: vrx-sender waiting", "src: vrx-sender connected", "src: vrx-sender gone",
          "src: vrx-sender connected"}},
    };
    constexpr std::uint64_t frameNs = 10'000'000;
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.name);
        Harness source = sourceHarness();
        PcmPayloader payloader;
        payloader.setNewFormat(48000, 2, PcmFormat::S16LE);
        auto sender = std::make_unique<Sender>();
        const auto startSender = [&] {
            // Over pipeline no frame is lost to a busy machine: a send waits for the receiver.
            ASSERT_TRUE(sender->initializeSender(m_address, "", "", 0, TimeSyncProtocol::MonotonicSystemClock,
                                                 NanomsgProtocol::Pipeline));
            sender->setCurrentPayloader(payloader);
            sender->startNewSequence();
        };
        startSender();
        const std::uint64_t start = miscUtils::getMonotonicSysclockTime();
        std::uint64_t next = 0;
        // Sends frames until the one numbered `until` or later arrives; what its buffer was flagged.
        const auto sendUntil = [&](std::uint64_t until) {
            std::optional<bool> discont;
            EXPECT_TRUE(waitFor([&] {
                sender->sendMediaData(start + next * frameNs, frameNs, mediaOf(next));
                ++next;
                while (GstBuffer* buffer = gst_harness_try_pull(source.get()))
                {
                    for (std::uint64_t frame = until; frame < next && !discont; ++frame)
                        if (contentOf(buffer) == mediaOf(frame))
                            discont = GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT);
                    gst_buffer_unref(buffer);
                }
                return discont.has_value();
            }));
            return discont.value_or(false);
        };
        sendUntil(0);
        EXPECT_FALSE(sendUntil(next)) << "a frame right after the one before";
        LogLines seen = messages(m_bus, GST_MESSAGE_ELEMENT);
        if (row.restartSender)
        {
            sender->shutdownSender();
            EXPECT_TRUE(waitFor([&] {
                std::ranges::copy(messages(m_bus, GST_MESSAGE_ELEMENT), std::back_inserter(seen));
                return seen.back() == "src: vrx-sender gone";
            }));
            sender = std::make_unique<Sender>();
            startSender();
        }
        else
            next += 5;
        EXPECT_TRUE(sendUntil(next)) << "the first frame after the break";
        EXPECT_FALSE(sendUntil(next)) << "and the next one";

        GstQuery* latency = gst_query_new_latency();
        ASSERT_TRUE(gst_pad_peer_query(source->sinkpad, latency));
        gboolean live = FALSE;
        GstClockTime min = 0;
        gst_query_parse_latency(latency, &live, &min, nullptr);
        gst_query_unref(latency);
        EXPECT_TRUE(live);
        EXPECT_EQ(min, frameNs) << "a frame's duration";
        std::ranges::copy(messages(m_bus, GST_MESSAGE_ELEMENT), std::back_inserter(seen));
        seen.erase(std::unique(seen.begin(), seen.end()), seen.end()); // connections rebuilt at once
        EXPECT_EQ(seen, row.messages);
        EXPECT_THAT(messages(m_bus, GST_MESSAGE_ERROR), ::testing::IsEmpty());
    }
}

// Each element fails its start with an element error that says what is wrong, and leaves
// nothing behind.
TEST_F(GstElementsTest, badSettingsFailTheStateChange)
{
    struct Row
    {
        const char* name;
        std::string pipeline, error;
    };
    const std::string address = " address=" + m_address;
    const Row rows[] = {
        {"vrxsink without an address", "audiotestsrc ! vrxsink name=sink", "sink: No address set"},
        {"vrxsrc without an address", "vrxsrc name=src ! fakesink", "src: No address set"},
        {"an address longer than 107 bytes", "vrxsrc name=src address=" + std::string(108, 'x') + " ! fakesink",
         "src: Address too long"},
        {"a time server without a port", "audiotestsrc ! vrxsink name=sink time-server=127.0.0.1" + address,
         "sink: Bad time server"},
        {"an address taken by another sender",
         "audiotestsrc ! vrxsink" + address + " audiotestsrc ! vrxsink name=sink" + address,
         ": Cannot start a sender at '" + m_address + "'"}, // either of the two
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.name);
        const ProcessResources before = processResources();
        {
            Pipeline pipeline = launch(row.pipeline);
            ASSERT_TRUE(pipeline);
            gst_element_set_bus(pipeline.get(), m_bus);
            EXPECT_EQ(gst_element_set_state(pipeline.get(), GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
            // The element's own error first; GStreamer adds a general one for any failed start.
            const LogLines errors = messages(m_bus, GST_MESSAGE_ERROR);
            ASSERT_FALSE(errors.empty());
            EXPECT_THAT(errors.front(), ::testing::HasSubstr(row.error));
        }
        EXPECT_TRUE(settlesAt(before));
    }
}

// Both elements go from NULL to PLAYING and back 100 times, streaming or waiting for a sender,
// on either clock: no thread and no descriptor stays behind.
TEST_F(GstElementsTest, stateChangesLeaveNothingBehind)
{
    FrameworkTimeProvider timeServer;
    ASSERT_NE(timeServer.port(), 0u);
    for (const std::string& timeServerSetting :
         {std::string(), " time-server=127.0.0.1:" + std::to_string(timeServer.port())})
    {
        SCOPED_TRACE(timeServerSetting.empty() ? "monotonic clock" : "network clock");
        Pipeline producer = launch("audiotestsrc is-live=true samplesperbuffer=480 ! vrxsink address=" +
                                   m_address + timeServerSetting);
        Pipeline consumer = launch("vrxsrc address=" + m_address + " ! fakesink name=out");
        std::atomic<int> buffers{0};
        GstElement* out = gst_bin_get_by_name(GST_BIN(consumer.get()), "out");
        GstPad* pad = gst_element_get_static_pad(out, "sink");
        gst_pad_add_probe(
            pad, GST_PAD_PROBE_TYPE_BUFFER,
            [](GstPad*, GstPadProbeInfo*, gpointer count) {
                ++*static_cast<std::atomic<int>*>(count);
                return GST_PAD_PROBE_OK;
            },
            &buffers, nullptr);
        gst_object_unref(pad);
        gst_object_unref(out);

        ProcessResources baseline;
        for (int cycle = 0; cycle <= 100; ++cycle)
        {
            // Odd cycles: the consumer waits for a sender that never comes.
            const bool streaming = cycle % 2 == 0;
            ASSERT_NE(gst_element_set_state(consumer.get(), GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
            if (streaming)
            {
                const int before = buffers;
                ASSERT_NE(gst_element_set_state(producer.get(), GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
                ASSERT_TRUE(waitFor([&] { return buffers > before; })) << "cycle " << cycle;
            }
            gst_element_set_state(consumer.get(), GST_STATE_NULL);
            gst_element_set_state(producer.get(), GST_STATE_NULL);
            if (cycle == 0)
                baseline = processResources(); // GStreamer's thread pools have grown
        }
        EXPECT_TRUE(settlesAt(baseline));
    }
}

} // namespace
} // namespace vrx::test
