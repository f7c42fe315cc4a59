#include "GstVrxSink.h"

#include "ElementSupport.h"
#include "StreamClock.h"
#include "StreamFormat.h"

#include <miscutils/SyncedNetClock.h>
#include <voraxis/SideChannel.h>
#include <voraxis/VrxSender.h>

#include <gst/audio/audio.h>
#include <gst/base/gstbasesink.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

GST_DEBUG_CATEGORY_STATIC(gst_vrx_sink_debug);
#define GST_CAT_DEFAULT gst_vrx_sink_debug

namespace {

using namespace std::chrono_literals;
using miscUtils::TimeValue;

// A network clock that has not synchronised within this time makes the start fail.
constexpr auto clockSyncTimeout = 5s;
// SyncedNetClock's poll interval and the longest round trip it uses; a loopback or LAN server
// answers far within it.
constexpr unsigned int netClockPollMs = 100;
constexpr unsigned long long netClockMaxRoundTripNs = 175'000'000;
// At the end of the stream the channel stays open this long, so that receivers get the last
// frames (a closing socket drops what it has not written yet).
constexpr auto lingerAtEos = 200ms;

enum Property
{
    PropAddress = 1,
    PropAlternativeAddress,
    PropProtocol,
    PropTimeServer,
};

/// The element's C++ state. Settings are guarded by the object lock; the sender, the payloader
/// and the format belong to the streaming thread once started.
struct SinkState
{
    // Settings.
    std::string address;
    std::string alternativeAddress;
    vrx::NanomsgProtocol protocol = vrx::NanomsgProtocol::PubSub;
    std::string timeServer;

    vrx::PcmPayloader payloader; // declared before the sender, which uses it
    vrx::Sender sender;
    // The stream clock; the object lock guards the pointer. A network clock's SyncedNetClock is
    // shared with the clock's read function.
    GstClock* clock = nullptr;
    std::shared_ptr<miscUtils::SyncedNetClock> netClock;
    GstAudioInfo info{};

    // Set by unlock, cleared by unlock_stop; ends the linger at the end of the stream.
    std::mutex flushMutex;
    std::condition_variable flushChanged;
    bool flushing = false;
};

struct GstVrxSink
{
    GstBaseSink parent;
    SinkState* state;
};

struct GstVrxSinkClass
{
    GstBaseSinkClass parentClass;
};

} // namespace

G_DEFINE_TYPE(GstVrxSink, gst_vrx_sink, GST_TYPE_BASE_SINK)

namespace {

#define GST_VRX_SINK(object) (reinterpret_cast<GstVrxSink*>(object))

SinkState& stateOf(gpointer sink)
{
    return *GST_VRX_SINK(sink)->state;
}

GType protocolType()
{
    static const GEnumValue values[] = {
        {static_cast<gint>(vrx::NanomsgProtocol::PubSub), "Publish/subscribe: any number of receivers", "pubsub"},
        {static_cast<gint>(vrx::NanomsgProtocol::Pipeline), "Pipeline: exactly one receiver", "pipeline"},
        {0, nullptr, nullptr},
    };
    static const GType type = g_enum_register_static("GstVrxSinkProtocol", values);
    return type;
}

/// Splits "IP:PORT" (IPv6 as "[IP]:PORT"); false when it is not of that form.
bool parseTimeServer(const std::string& text, std::string& ip, unsigned int& port)
{
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size() || colon + 6 < text.size())
        return false;
    ip = text.substr(0, colon);
    if (ip.front() == '[' && ip.back() == ']')
        ip = ip.substr(1, ip.size() - 2);
    port = 0;
    for (const char digit : text.substr(colon + 1))
    {
        if (digit < '0' || digit > '9')
            return false;
        port = port * 10 + static_cast<unsigned int>(digit - '0');
    }
    return port >= 1 && port <= 65535 && !ip.empty();
}

/// Follows the time server; false (after an element error) when it does not synchronise in time.
bool startNetClock(GstVrxSink* sink, SinkState& state, const std::string& ip, unsigned int port)
{
    struct Synchronised
    {
        std::mutex mutex;
        std::condition_variable changed;
    };
    auto netClock = std::make_shared<miscUtils::SyncedNetClock>();
    auto synchronised = std::make_shared<Synchronised>();
    netClock->startSynchronization(ip, port, netClockPollMs, netClockMaxRoundTripNs, [synchronised] {
        const std::lock_guard lock(synchronised->mutex);
        synchronised->changed.notify_all();
    });
    {
        std::unique_lock lock(synchronised->mutex);
        synchronised->changed.wait_for(lock, clockSyncTimeout, [&] { return netClock->isSynchronized(); });
    }
    if (!netClock->isSynchronized())
    {
        netClock->stopSynchronization();
        GST_ELEMENT_ERROR(sink, RESOURCE, NOT_FOUND, ("Time server does not answer"),
                          ("no synchronisation with the time server at %s:%u within %lld s", ip.c_str(), port,
                           static_cast<long long>(clockSyncTimeout.count())));
        return false;
    }
    GstClock* clock = vrxGst::newStreamClock("vrxsink-netclock", [netClock] { return netClock->getSynchronizedTime(); });
    GST_OBJECT_LOCK(sink);
    std::swap(state.clock, clock);
    state.netClock = std::move(netClock);
    GST_OBJECT_UNLOCK(sink);
    if (clock != nullptr)
        gst_object_unref(clock);
    return true;
}

void useMonotonicClock(GstVrxSink* sink, SinkState& state)
{
    GstClock* clock = vrxGst::newMonotonicClock("vrxsink-monotonic");
    GST_OBJECT_LOCK(sink);
    std::swap(state.clock, clock);
    GST_OBJECT_UNLOCK(sink);
    if (clock != nullptr)
        gst_object_unref(clock);
}

// ---- Life of the element: set-up, start, caps, frames, end of stream, stop -----------------

gboolean start(GstBaseSink* base)
{
    auto* sink = GST_VRX_SINK(base);
    SinkState& state = stateOf(sink);
    GST_OBJECT_LOCK(sink);
    const std::string address = state.address, alternativeAddress = state.alternativeAddress;
    const std::string timeServer = state.timeServer;
    const vrx::NanomsgProtocol protocol = state.protocol;
    GST_OBJECT_UNLOCK(sink);

    if (!vrxGst::checkAddress(GST_ELEMENT(sink), address, "vrxsink address=my-audio"))
        return FALSE;
    std::string ip;
    unsigned int port = 0;
    if (!timeServer.empty() && !parseTimeServer(timeServer, ip, port))
    {
        GST_ELEMENT_ERROR(sink, RESOURCE, SETTINGS, ("Bad time server"),
                          ("'time-server' is '%s'; expected IP:PORT, e.g. 127.0.0.1:5000", timeServer.c_str()));
        return FALSE;
    }
    if (!vrxGst::ensureSenderDirectory(GST_ELEMENT(sink)))
        return FALSE;
    if (timeServer.empty())
        useMonotonicClock(sink, state);
    else if (!startNetClock(sink, state, ip, port))
        return FALSE;

    if (!state.sender.initializeSender(address, alternativeAddress, ip, port,
                                       timeServer.empty() ? vrx::TimeSyncProtocol::MonotonicSystemClock
                                                          : vrx::TimeSyncProtocol::GstNetClock,
                                       protocol))
    {
        state.sender.shutdownSender(); // a failed set-up leaves what it made
        if (state.netClock)
            state.netClock->stopSynchronization();
        GST_ELEMENT_ERROR(sink, RESOURCE, OPEN_WRITE, ("Cannot start a sender at '%s'", address.c_str()),
                          ("the address%s taken, or no socket could be made (GST_DEBUG=voraxis:4 shows why)",
                           alternativeAddress.empty() ? " is" : "es are"));
        return FALSE;
    }
    gst_audio_info_init(&state.info);
    GST_INFO_OBJECT(sink, "sender at '%s', %s clock", address.c_str(), timeServer.empty() ? "monotonic" : "network");
    return TRUE;
}

gboolean setCaps(GstBaseSink* base, GstCaps* caps)
{
    SinkState& state = stateOf(base);
    GstAudioInfo info;
    std::optional<audioUtils::PcmFormat> format;
    if (!gst_audio_info_from_caps(&info, caps) || !(format = vrxGst::toPcmFormat(GST_AUDIO_INFO_FORMAT(&info))))
    {
        GST_WARNING_OBJECT(base, "caps a stream cannot carry: %" GST_PTR_FORMAT, static_cast<void*>(caps));
        return FALSE;
    }
    if (gst_audio_info_is_equal(&info, &state.info))
        return TRUE; // the same format again: the sequence goes on
    state.info = info;
    state.payloader.setNewFormat(static_cast<unsigned int>(GST_AUDIO_INFO_RATE(&info)),
                                 static_cast<unsigned int>(GST_AUDIO_INFO_CHANNELS(&info)), *format);
    state.sender.setCurrentPayloader(state.payloader);
    state.sender.startNewSequence();
    GST_DEBUG_OBJECT(base, "new sequence: %" GST_PTR_FORMAT, static_cast<void*>(caps));
    return TRUE;
}

GstFlowReturn render(GstBaseSink* base, GstBuffer* buffer)
{
    SinkState& state = stateOf(base);
    GST_OBJECT_LOCK(base);
    GstClock* streamClock = GST_CLOCK(gst_object_ref(state.clock));
    const GstClockTime running = gst_segment_to_running_time(&base->segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
    GST_OBJECT_UNLOCK(base);

    // The buffer's clock time; without a timestamp or a pipeline clock, the time it is rendered.
    GstClockTime timestamp = GST_CLOCK_TIME_NONE;
    if (GST_CLOCK_TIME_IS_VALID(running))
        timestamp = vrxGst::pipelineToStreamTime(GST_ELEMENT(base), streamClock,
                                                 running + gst_element_get_base_time(GST_ELEMENT(base)));
    if (!GST_CLOCK_TIME_IS_VALID(timestamp))
        timestamp = gst_clock_get_time(streamClock);
    gst_object_unref(streamClock);

    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ))
        return GST_FLOW_ERROR;
    TimeValue duration = GST_BUFFER_DURATION(buffer);
    if (!GST_CLOCK_TIME_IS_VALID(duration))
        duration = GST_AUDIO_INFO_BPF(&state.info) == 0
                       ? 0
                       : gst_util_uint64_scale(map.size / static_cast<gsize>(GST_AUDIO_INFO_BPF(&state.info)),
                                               GST_SECOND, static_cast<guint64>(GST_AUDIO_INFO_RATE(&state.info)));
    state.sender.sendMediaData(timestamp, duration, vrx::ByteSpan(map.data, map.size));
    gst_buffer_unmap(buffer, &map);
    return GST_FLOW_OK;
}

gboolean event(GstBaseSink* base, GstEvent* event)
{
    SinkState& state = stateOf(base);
    if (GST_EVENT_TYPE(event) == GST_EVENT_EOS && state.sender.areThereClientConnections())
    {
        std::unique_lock lock(state.flushMutex);
        state.flushChanged.wait_for(lock, lingerAtEos, [&] { return state.flushing; });
    }
    return GST_BASE_SINK_CLASS(gst_vrx_sink_parent_class)->event(base, event);
}

gboolean unlock(GstBaseSink* base)
{
    SinkState& state = stateOf(base);
    {
        const std::lock_guard lock(state.flushMutex);
        state.flushing = true;
    }
    state.flushChanged.notify_all();
    state.sender.disableSend(true); // releases a send that waits for a pipeline receiver
    return TRUE;
}

gboolean unlockStop(GstBaseSink* base)
{
    SinkState& state = stateOf(base);
    {
        const std::lock_guard lock(state.flushMutex);
        state.flushing = false;
    }
    state.sender.disableSend(false);
    return TRUE;
}

gboolean stop(GstBaseSink* base)
{
    SinkState& state = stateOf(base);
    state.sender.shutdownSender();
    // The pipeline may hold the clock a while longer; it keeps running on its last estimate.
    if (state.netClock)
        state.netClock->stopSynchronization();
    return TRUE;
}

GstClock* provideClock(GstElement* element)
{
    SinkState& state = stateOf(element);
    GST_OBJECT_LOCK(element);
    GstClock* clock = state.clock != nullptr ? GST_CLOCK(gst_object_ref(state.clock)) : nullptr;
    GST_OBJECT_UNLOCK(element);
    return clock;
}

// ---- Properties and type ---------------------------------------------------------------

void setProperty(GObject* object, guint id, const GValue* value, GParamSpec* property)
{
    SinkState& state = stateOf(object);
    GST_OBJECT_LOCK(object);
    const char* text = G_VALUE_HOLDS_STRING(value) && g_value_get_string(value) ? g_value_get_string(value) : "";
    switch (id)
    {
    case PropAddress: state.address = text; break;
    case PropAlternativeAddress: state.alternativeAddress = text; break;
    case PropProtocol: state.protocol = static_cast<vrx::NanomsgProtocol>(g_value_get_enum(value)); break;
    case PropTimeServer: state.timeServer = text; break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property); break;
    }
    GST_OBJECT_UNLOCK(object);
}

void getProperty(GObject* object, guint id, GValue* value, GParamSpec* property)
{
    SinkState& state = stateOf(object);
    GST_OBJECT_LOCK(object);
    switch (id)
    {
    case PropAddress: g_value_set_string(value, state.address.c_str()); break;
    case PropAlternativeAddress: g_value_set_string(value, state.alternativeAddress.c_str()); break;
    case PropProtocol: g_value_set_enum(value, static_cast<gint>(state.protocol)); break;
    case PropTimeServer: g_value_set_string(value, state.timeServer.c_str()); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property); break;
    }
    GST_OBJECT_UNLOCK(object);
}

void finalize(GObject* object)
{
    SinkState* state = GST_VRX_SINK(object)->state;
    state->sender.shutdownSender();
    if (state->clock != nullptr)
        gst_object_unref(state->clock);
    delete state;
    G_OBJECT_CLASS(gst_vrx_sink_parent_class)->finalize(object);
}

} // namespace

static void gst_vrx_sink_class_init(GstVrxSinkClass* klass)
{
    GST_DEBUG_CATEGORY_INIT(gst_vrx_sink_debug, "vrxsink", 0, "Producer of a voraxis stream");
    auto* objectClass = G_OBJECT_CLASS(klass);
    objectClass->set_property = setProperty;
    objectClass->get_property = getProperty;
    objectClass->finalize = finalize;
    const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                                GST_PARAM_MUTABLE_READY);
    // Static: the flags let GObject keep a pointer to it.
    static const std::string addressBlurb =
        "Sidechannel address receivers connect to: an abstract Unix socket name of 1 to " +
        std::to_string(vrx::MaxSocketAddressLength) + " bytes (required)";
    g_object_class_install_property(
        objectClass, PropAddress, g_param_spec_string("address", "Address", addressBlurb.c_str(), "", flags));
    g_object_class_install_property(
        objectClass, PropAlternativeAddress,
        g_param_spec_string("alternative-address", "Alternative address",
                            "Address to listen on when 'address' is taken by another sender (empty: none)", "",
                            flags));
    g_object_class_install_property(
        objectClass, PropProtocol,
        g_param_spec_enum("protocol", "Protocol",
                          "Data channel: pubsub (any number of receivers; a frame a receiver cannot take at once "
                          "is dropped for it) or pipeline (exactly one receiver; a frame waits until it is taken)",
                          protocolType(), static_cast<gint>(vrx::NanomsgProtocol::PubSub), flags));
    g_object_class_install_property(
        objectClass, PropTimeServer,
        g_param_spec_string("time-server", "Time server",
                            "Network time server as IP:PORT (GStreamer's net time provider protocol): the element's "
                            "clock follows it and receivers are told to; empty for the host's monotonic clock",
                            "", flags));

    auto* elementClass = GST_ELEMENT_CLASS(klass);
    gst_element_class_set_static_metadata(elementClass, "Voraxis stream sink", "Sink/Audio/Network",
                                          "Sends raw audio as the frames of a voraxis stream to local receivers",
                                          "libkavo_voraxis");
    GstCaps* caps = vrxGst::newStreamTemplateCaps();
    gst_element_class_add_pad_template(elementClass, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps));
    gst_caps_unref(caps);
    elementClass->provide_clock = provideClock;
    gst_type_mark_as_plugin_api(protocolType(), static_cast<GstPluginAPIFlags>(0));

    auto* sinkClass = GST_BASE_SINK_CLASS(klass);
    sinkClass->start = start;
    sinkClass->set_caps = setCaps;
    sinkClass->render = render;
    sinkClass->event = event;
    sinkClass->unlock = unlock;
    sinkClass->unlock_stop = unlockStop;
    sinkClass->stop = stop;
}

static void gst_vrx_sink_init(GstVrxSink* sink)
{
    sink->state = new SinkState;
    gst_base_sink_set_sync(GST_BASE_SINK(sink), TRUE);
    // A frame's timestamp comes from its buffer, not from when it is rendered: a buffer a little
    // late loses nothing, and a processing deadline would only add latency to every frame.
    gst_base_sink_set_processing_deadline(GST_BASE_SINK(sink), 0);
    GST_OBJECT_FLAG_SET(sink, GST_ELEMENT_FLAG_PROVIDE_CLOCK | GST_ELEMENT_FLAG_SINK);
}
