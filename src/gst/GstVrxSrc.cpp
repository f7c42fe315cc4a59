#include "GstVrxSrc.h"

#include "ElementSupport.h"
#include "StreamClock.h"
#include "StreamFormat.h"

#include <voraxis/VrxReceiver.h>

#include <gst/base/gstpushsrc.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

GST_DEBUG_CATEGORY_STATIC(gst_vrx_src_debug);
#define GST_CAT_DEFAULT gst_vrx_src_debug

namespace {

using namespace std::chrono_literals;
using miscUtils::TimeValue;
using SteadyTime = std::chrono::steady_clock::time_point;

// Media the hand-over queue holds at most; the oldest frame beyond it is dropped.
constexpr TimeValue queueLimit = 200 * GST_MSECOND;
// A lost connection that does not come back this soon means the sender is gone (a receiver
// also rebuilds a connection to a sender that is still there).
constexpr auto senderGoneAfter = 1s;

enum Property
{
    PropAddress = 1,
    PropExitOnSenderGone,
};

/// The receiver and the depayloader it uses, which must outlive it. Shared with the network
/// clock's read function, which may outlive the element in a pipeline.
struct Consumer
{
    vrx::PcmDepayloader depayloader;
    vrx::Receiver receiver;
};

/// What the receiver thread hands to the streaming thread.
struct Item
{
    enum class Kind
    {
        Frame,
        Format, ///< a new sequence
        Failed, ///< the receiver failed to connect for good
    };
    Kind kind;
    GstBuffer* buffer = nullptr; // Frame: owned while queued
    TimeValue timestamp = 0, duration = 0;
    unsigned int sampleRate = 0, channels = 0;
    audioUtils::PcmFormat format{};
};

struct SrcState
{
    // Settings, under the object lock.
    std::string address;
    bool exitOnSenderGone = false;

    std::shared_ptr<Consumer> consumer = std::make_shared<Consumer>();

    // The hand-over between the receiver thread and the streaming thread, under `mutex`.
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Item> queue;
    TimeValue queuedDuration = 0;
    bool flushing = false;                ///< unlock until unlock_stop
    bool discontNext = false;             ///< a reconnection or a dropped frame comes before the next one
    bool wasRunning = false;              ///< a connection has run since start
    std::optional<SteadyTime> lostAt;     ///< when the connection went, while it is away
    bool goneReported = false;            ///< "gone" was posted for this loss
    bool exitWhenGone = false;            ///< exit-on-sender-gone as it was at start
    std::atomic<bool> arrivalTimes{false}; ///< the sender names no clock: frames are stamped on arrival

    // The stream clock the element provides; the object lock guards both.
    GstClock* clock = nullptr;
    bool netTimeBase = false; ///< `clock` reads the receiver's network clock

    // Streaming thread only.
    GstCaps* caps = nullptr;
    unsigned int sampleRate = 0;
    GstClockTime expected = GST_CLOCK_TIME_NONE; ///< the next frame's timestamp without a gap
    // The longest frame of the sequence, the latency reported; read by queries on any thread.
    std::atomic<GstClockTime> frameDuration{GST_CLOCK_TIME_NONE};
};

struct GstVrxSrc
{
    GstPushSrc parent;
    SrcState* state;
};

struct GstVrxSrcClass
{
    GstPushSrcClass parentClass;
};

} // namespace

G_DEFINE_TYPE(GstVrxSrc, gst_vrx_src, GST_TYPE_PUSH_SRC)

namespace {

#define GST_VRX_SRC(object) (reinterpret_cast<GstVrxSrc*>(object))

SrcState& stateOf(gpointer src)
{
    return *GST_VRX_SRC(src)->state;
}

void postSenderStatus(GstVrxSrc* src, const char* status)
{
    GST_OBJECT_LOCK(src);
    const std::string address = src->state->address;
    GST_OBJECT_UNLOCK(src);
    GST_INFO_OBJECT(src, "sender at '%s': %s", address.c_str(), status);
    gst_element_post_message(GST_ELEMENT(src),
                             gst_message_new_element(GST_OBJECT(src), gst_structure_new("vrx-sender", "address",
                                                                                        G_TYPE_STRING, address.c_str(),
                                                                                        "status", G_TYPE_STRING,
                                                                                        status, nullptr)));
}

void clearQueue(SrcState& state)
{
    for (Item& item : state.queue)
        if (item.buffer != nullptr)
            gst_buffer_unref(item.buffer);
    state.queue.clear();
    state.queuedDuration = 0;
}

// ---- Receiver thread: callbacks, each brief ----------------------------------------------

void push(GstVrxSrc* src, Item item)
{
    SrcState& state = *src->state;
    {
        const std::lock_guard lock(state.mutex);
        state.queue.push_back(item);
        if (item.kind == Item::Kind::Frame)
            state.queuedDuration += item.duration;
        // Drop the oldest frames beyond the bound, keeping the newest.
        for (auto oldest = state.queue.begin();
             state.queuedDuration > queueLimit && oldest != state.queue.end() - 1;)
        {
            if (oldest->kind != Item::Kind::Frame)
            {
                ++oldest;
                continue;
            }
            state.queuedDuration -= oldest->duration;
            gst_buffer_unref(oldest->buffer);
            oldest = state.queue.erase(oldest);
            state.discontNext = true;
            GST_DEBUG_OBJECT(src, "dropped a frame: the streaming thread falls behind");
        }
    }
    state.changed.notify_one();
}

void onMediaData(GstVrxSrc* src, unsigned long long timestamp, unsigned long long duration,
                 const std::vector<unsigned char>& media)
{
    // The one copy: the library's buffer is valid during this call only.
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, media.size(), nullptr);
    gst_buffer_fill(buffer, 0, media.data(), media.size());
    if (src->state->arrivalTimes.load(std::memory_order_relaxed))
        timestamp = miscUtils::getMonotonicSysclockTime();
    push(src, {.kind = Item::Kind::Frame, .buffer = buffer, .timestamp = timestamp, .duration = duration});
}

void onNewSequence(GstVrxSrc* src)
{
    const vrx::PcmDepayloader& depayloader = src->state->consumer->depayloader;
    push(src, {.kind = Item::Kind::Format,
               .sampleRate = depayloader.getSampleRate(),
               .channels = depayloader.getNumChannels(),
               .format = depayloader.getSampleFormat()});
}

void onStateChanged(GstVrxSrc* src, vrx::Receiver::State newState)
{
    SrcState& state = *src->state;
    const char* status = nullptr;
    {
        const std::lock_guard lock(state.mutex);
        if (newState == vrx::Receiver::State::Running)
        {
            state.discontNext = state.discontNext || state.wasRunning; // a reconnection
            state.wasRunning = true;
            state.lostAt.reset();
            state.goneReported = false;
            status = "connected";
        }
        else if (newState == vrx::Receiver::State::Connecting)
        {
            if (state.wasRunning)
                state.lostAt = std::chrono::steady_clock::now(); // "gone" follows if it stays away
            else
                status = "waiting"; // on the thread that starts the receiver
        }
    }
    state.changed.notify_one();
    if (status != nullptr)
        postSenderStatus(src, status);
}

/// Makes the element's clock read the stream's time base: on a change, a new clock and
/// clock-lost for the old one, so that the pipeline selects the new one.
void onReceiverReady(GstVrxSrc* src, vrx::Receiver::StreamClockType clockType)
{
    SrcState& state = *src->state;
    const bool netTimeBase = clockType == vrx::Receiver::StreamClockType::SyncedNetClock;
    state.arrivalTimes = clockType == vrx::Receiver::StreamClockType::NoClock;
    GST_OBJECT_LOCK(src);
    const bool change = netTimeBase != state.netTimeBase;
    GST_OBJECT_UNLOCK(src);
    if (!change)
        return;
    GstClock* clock = nullptr;
    if (netTimeBase)
    {
        std::shared_ptr<Consumer> consumer = state.consumer;
        clock = vrxGst::newStreamClock("vrxsrc-netclock",
                                       [consumer] { return consumer->receiver.getCurrentStreamTime(); });
    }
    else
        clock = vrxGst::newMonotonicClock("vrxsrc-monotonic");
    GST_OBJECT_LOCK(src);
    std::swap(state.clock, clock);
    state.netTimeBase = netTimeBase;
    GST_OBJECT_UNLOCK(src);
    GST_INFO_OBJECT(src, "stream clock: %s", netTimeBase ? "network" : "monotonic");
    gst_element_post_message(GST_ELEMENT(src), gst_message_new_clock_lost(GST_OBJECT(src), clock));
    gst_object_unref(clock);
}

// ---- Streaming thread -------------------------------------------------------------------

/// Announces a new sequence's format downstream; false after an element error.
bool takeFormat(GstVrxSrc* src, const Item& item)
{
    SrcState& state = *src->state;
    GstCaps* caps = vrxGst::newStreamCaps(item.sampleRate, item.channels, item.format);
    if (caps == nullptr)
    {
        GST_ELEMENT_ERROR(src, STREAM, FORMAT, ("Unsupported stream format"),
                          ("%u Hz, %u channels, %s", item.sampleRate, item.channels, audioUtils::toString(item.format)));
        return false;
    }
    GST_DEBUG_OBJECT(src, "new sequence: %" GST_PTR_FORMAT, static_cast<void*>(caps));
    gst_caps_replace(&state.caps, caps);
    gst_caps_unref(caps);
    state.sampleRate = item.sampleRate;
    state.expected = GST_CLOCK_TIME_NONE;
    state.frameDuration = GST_CLOCK_TIME_NONE;
    if (!gst_base_src_set_caps(GST_BASE_SRC(src), state.caps))
    {
        GST_ELEMENT_ERROR(src, CORE, NEGOTIATION, ("Downstream does not take the stream's format"),
                          ("%" GST_PTR_FORMAT, static_cast<void*>(state.caps)));
        return false;
    }
    return true;
}

/// Stamps a frame's buffer; false when it lies before the pipeline started (it is dropped).
bool stampFrame(GstVrxSrc* src, const Item& item, bool discont)
{
    SrcState& state = *src->state;
    GST_OBJECT_LOCK(src);
    GstClock* streamClock = GST_CLOCK(gst_object_ref(state.clock));
    GST_OBJECT_UNLOCK(src);
    const GstClockTime clockTime = vrxGst::streamToPipelineTime(GST_ELEMENT(src), streamClock, item.timestamp);
    gst_object_unref(streamClock);
    const GstClockTime baseTime = gst_element_get_base_time(GST_ELEMENT(src));
    if (GST_CLOCK_TIME_IS_VALID(clockTime) && clockTime < baseTime)
        return false;

    // A gap: more than half a sample away from where the last frame ended.
    const GstClockTime tolerance = state.sampleRate != 0 ? GST_SECOND / 2 / state.sampleRate : 0;
    if (GST_CLOCK_TIME_IS_VALID(state.expected) &&
        (item.timestamp > state.expected + tolerance || item.timestamp + tolerance < state.expected))
        discont = true;
    state.expected = item.timestamp + item.duration;

    GST_BUFFER_PTS(item.buffer) = GST_CLOCK_TIME_IS_VALID(clockTime) ? clockTime - baseTime : GST_CLOCK_TIME_NONE;
    GST_BUFFER_DURATION(item.buffer) = item.duration;
    if (discont)
        GST_BUFFER_FLAG_SET(item.buffer, GST_BUFFER_FLAG_DISCONT);
    // Frames of one sequence differ by a nanosecond of rounding: only a longer one changes the latency.
    if (const GstClockTime longest = state.frameDuration; !GST_CLOCK_TIME_IS_VALID(longest) || item.duration > longest)
    {
        state.frameDuration = item.duration;
        gst_element_post_message(GST_ELEMENT(src), gst_message_new_latency(GST_OBJECT(src)));
    }
    return true;
}

GstFlowReturn create(GstPushSrc* pushSrc, GstBuffer** buffer)
{
    auto* src = GST_VRX_SRC(pushSrc);
    SrcState& state = *src->state;
    std::unique_lock lock(state.mutex);
    for (;;)
    {
        if (state.flushing)
            return GST_FLOW_FLUSHING;
        if (state.queue.empty())
        {
            if (!state.lostAt || state.goneReported)
            {
                state.changed.wait(lock);
                continue;
            }
            const SteadyTime goneAt = *state.lostAt + senderGoneAfter;
            if (std::chrono::steady_clock::now() < goneAt)
            {
                state.changed.wait_until(lock, goneAt);
                continue;
            }
            state.goneReported = true;
            const bool exit = state.exitWhenGone;
            lock.unlock();
            postSenderStatus(src, "gone");
            if (exit)
                return GST_FLOW_EOS;
            lock.lock();
            continue;
        }

        Item item = state.queue.front();
        state.queue.pop_front();
        bool discont = false;
        if (item.kind == Item::Kind::Frame)
        {
            state.queuedDuration -= item.duration;
            discont = std::exchange(state.discontNext, false);
        }
        lock.unlock();
        switch (item.kind)
        {
        case Item::Kind::Failed:
            GST_ELEMENT_ERROR(src, RESOURCE, OPEN_READ, ("Cannot follow the sender"),
                              ("the receiver's connection failed for good (is there another consumer of a "
                               "pipeline stream?)"));
            return GST_FLOW_ERROR;
        case Item::Kind::Format:
            if (!takeFormat(src, item))
                return GST_FLOW_NOT_NEGOTIATED;
            break;
        case Item::Kind::Frame:
            if (state.caps != nullptr && stampFrame(src, item, discont))
            {
                *buffer = item.buffer;
                return GST_FLOW_OK;
            }
            gst_buffer_unref(item.buffer); // before the pipeline started, or before any format
            lock.lock();
            state.discontNext = true;
            lock.unlock();
            break;
        }
        lock.lock();
    }
}

gboolean negotiate(GstBaseSrc* base)
{
    // The stream decides the format: none until a sequence names it, then that one.
    SrcState& state = stateOf(base);
    return state.caps == nullptr || gst_base_src_set_caps(base, state.caps);
}

gboolean query(GstBaseSrc* base, GstQuery* query)
{
    if (GST_QUERY_TYPE(query) != GST_QUERY_LATENCY)
        return GST_BASE_SRC_CLASS(gst_vrx_src_parent_class)->query(base, query);
    const GstClockTime frame = stateOf(base).frameDuration.load();
    const GstClockTime min = GST_CLOCK_TIME_IS_VALID(frame) ? frame : 0;
    gst_query_set_latency(query, TRUE, min, min + queueLimit);
    return TRUE;
}

gboolean unlock(GstBaseSrc* base)
{
    SrcState& state = stateOf(base);
    {
        const std::lock_guard lock(state.mutex);
        state.flushing = true;
    }
    state.changed.notify_all();
    return TRUE;
}

gboolean unlockStop(GstBaseSrc* base)
{
    SrcState& state = stateOf(base);
    const std::lock_guard lock(state.mutex);
    state.flushing = false;
    return TRUE;
}

// ---- Start and stop ---------------------------------------------------------------------

gboolean start(GstBaseSrc* base)
{
    auto* src = GST_VRX_SRC(base);
    SrcState& state = *src->state;
    GST_OBJECT_LOCK(src);
    const std::string address = state.address;
    const bool exitWhenGone = state.exitOnSenderGone;
    GST_OBJECT_UNLOCK(src);
    if (!vrxGst::checkAddress(GST_ELEMENT(src), address, "vrxsrc address=my-audio") ||
        !vrxGst::ensureSenderDirectory(GST_ELEMENT(src)))
        return FALSE;
    {
        const std::lock_guard lock(state.mutex);
        clearQueue(state);
        state.discontNext = state.wasRunning = state.goneReported = false;
        state.lostAt.reset();
        state.exitWhenGone = exitWhenGone;
    }
    state.expected = GST_CLOCK_TIME_NONE;
    state.frameDuration = GST_CLOCK_TIME_NONE;
    if (!state.consumer->receiver.initializeReceiver(address))
    {
        GST_ELEMENT_ERROR(src, RESOURCE, OPEN_READ, ("Cannot start a receiver"),
                          ("no wake-up pipe could be made (GST_DEBUG=voraxis:4 shows why)"));
        return FALSE;
    }
    return TRUE;
}

gboolean stop(GstBaseSrc* base)
{
    SrcState& state = stateOf(base);
    state.consumer->receiver.shutdownReceiver();
    const std::lock_guard lock(state.mutex);
    clearQueue(state);
    gst_caps_replace(&state.caps, nullptr);
    return TRUE;
}

GstClock* provideClock(GstElement* element)
{
    GST_OBJECT_LOCK(element);
    GstClock* clock = GST_CLOCK(gst_object_ref(stateOf(element).clock));
    GST_OBJECT_UNLOCK(element);
    return clock;
}

// ---- Properties and type ---------------------------------------------------------------

void setProperty(GObject* object, guint id, const GValue* value, GParamSpec* property)
{
    SrcState& state = stateOf(object);
    GST_OBJECT_LOCK(object);
    switch (id)
    {
    case PropAddress: state.address = g_value_get_string(value) ? g_value_get_string(value) : ""; break;
    case PropExitOnSenderGone: state.exitOnSenderGone = g_value_get_boolean(value); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property); break;
    }
    GST_OBJECT_UNLOCK(object);
}

void getProperty(GObject* object, guint id, GValue* value, GParamSpec* property)
{
    SrcState& state = stateOf(object);
    GST_OBJECT_LOCK(object);
    switch (id)
    {
    case PropAddress: g_value_set_string(value, state.address.c_str()); break;
    case PropExitOnSenderGone: g_value_set_boolean(value, state.exitOnSenderGone); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property); break;
    }
    GST_OBJECT_UNLOCK(object);
}

void finalize(GObject* object)
{
    SrcState* state = GST_VRX_SRC(object)->state;
    state->consumer->receiver.shutdownReceiver();
    clearQueue(*state);
    gst_caps_replace(&state->caps, nullptr);
    gst_object_unref(state->clock);
    delete state;
    G_OBJECT_CLASS(gst_vrx_src_parent_class)->finalize(object);
}

} // namespace

static void gst_vrx_src_class_init(GstVrxSrcClass* klass)
{
    GST_DEBUG_CATEGORY_INIT(gst_vrx_src_debug, "vrxsrc", 0, "Consumer of a voraxis stream");
    auto* objectClass = G_OBJECT_CLASS(klass);
    objectClass->set_property = setProperty;
    objectClass->get_property = getProperty;
    objectClass->finalize = finalize;
    const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                                GST_PARAM_MUTABLE_READY);
    g_object_class_install_property(
        objectClass, PropAddress,
        g_param_spec_string("address", "Address",
                            "Sidechannel address of the sender to follow (as given to vrxsink or vrx-send); the "
                            "element waits for it and follows it again when it comes back (required)",
                            "", flags));
    g_object_class_install_property(
        objectClass, PropExitOnSenderGone,
        g_param_spec_boolean("exit-on-sender-gone", "Exit on sender gone",
                             "End the stream (EOS) when the sender is gone for a second, instead of waiting for "
                             "the next one",
                             FALSE, flags));

    auto* elementClass = GST_ELEMENT_CLASS(klass);
    gst_element_class_set_static_metadata(elementClass, "Voraxis stream source", "Source/Audio/Network",
                                          "Receives the frames of a voraxis stream from a local sender as raw audio",
                                          "libkavo_voraxis");
    GstCaps* caps = vrxGst::newStreamTemplateCaps();
    gst_element_class_add_pad_template(elementClass, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
    gst_caps_unref(caps);
    elementClass->provide_clock = provideClock;

    auto* baseSrcClass = GST_BASE_SRC_CLASS(klass);
    baseSrcClass->start = start;
    baseSrcClass->stop = stop;
    baseSrcClass->negotiate = negotiate;
    baseSrcClass->query = query;
    baseSrcClass->unlock = unlock;
    baseSrcClass->unlock_stop = unlockStop;
    GST_PUSH_SRC_CLASS(klass)->create = create;
}

static void gst_vrx_src_init(GstVrxSrc* src)
{
    src->state = new SrcState;
    SrcState& state = *src->state;
    state.clock = vrxGst::newMonotonicClock("vrxsrc-monotonic"); // until a stream names another
    gst_base_src_set_live(GST_BASE_SRC(src), TRUE);
    gst_base_src_set_format(GST_BASE_SRC(src), GST_FORMAT_TIME);
    GST_OBJECT_FLAG_SET(src, GST_ELEMENT_FLAG_PROVIDE_CLOCK);

    vrx::Receiver& receiver = state.consumer->receiver;
    receiver.addDepayloader(state.consumer->depayloader);
    receiver.setMediaDataCallback([src](unsigned long long timestamp, unsigned long long duration,
                                        const std::vector<unsigned char>& media) {
        onMediaData(src, timestamp, duration, media);
    });
    receiver.setNewSequenceCallback([src](vrx::Depayloader&) { onNewSequence(src); });
    receiver.setStateChangedCallback([src](vrx::Receiver::State newState) { onStateChanged(src, newState); });
    receiver.setReceiverIsReadyCallback(
        [src](vrx::Depayloader&, vrx::Receiver::StreamClockType clockType) { onReceiverReady(src, clockType); });
    receiver.setConnectionAttemptFailedCallback([src] { push(src, {.kind = Item::Kind::Failed}); });
}
