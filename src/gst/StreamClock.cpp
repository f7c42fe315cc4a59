#include "StreamClock.h"

namespace vrxGst {

namespace {

struct VrxStreamClock
{
    GstSystemClock parent;
    std::function<miscUtils::TimeValue()>* read;
};

struct VrxStreamClockClass
{
    GstSystemClockClass parentClass;
};

G_DEFINE_TYPE(VrxStreamClock, vrx_stream_clock, GST_TYPE_SYSTEM_CLOCK)

GstClockTime getInternalTime(GstClock* clock)
{
    return (*reinterpret_cast<VrxStreamClock*>(clock)->read)();
}

void finalize(GObject* object)
{
    delete reinterpret_cast<VrxStreamClock*>(object)->read;
    G_OBJECT_CLASS(vrx_stream_clock_parent_class)->finalize(object);
}

void vrx_stream_clock_class_init(VrxStreamClockClass* klass)
{
    G_OBJECT_CLASS(klass)->finalize = finalize;
    GST_CLOCK_CLASS(klass)->get_internal_time = getInternalTime;
}

void vrx_stream_clock_init(VrxStreamClock* clock)
{
    clock->read = nullptr;
}

GstClock* owned(GstClock* clock)
{
    gst_object_ref_sink(clock); // clocks start floating
    return clock;
}

/// Signed difference of two clocks' readings, `to` minus `from`, taken back to back.
GstClockTimeDiff clockOffset(GstClock* from, GstClock* to)
{
    const GstClockTime fromNow = gst_clock_get_time(from);
    return GST_CLOCK_DIFF(fromNow, gst_clock_get_time(to));
}

GstClockTime shifted(GstClockTime time, GstClockTimeDiff offset)
{
    if (!GST_CLOCK_TIME_IS_VALID(time))
        return time;
    const auto result = static_cast<GstClockTimeDiff>(time) + offset;
    return result < 0 ? 0 : static_cast<GstClockTime>(result);
}

// A time on the element's pipeline clock as the stream clock reads it, or the other way round.
GstClockTime betweenClocks(GstElement* element, GstClock* streamClock, GstClockTime time, bool toStream)
{
    GstClock* pipelineClock = gst_element_get_clock(element);
    if (pipelineClock == nullptr)
        return GST_CLOCK_TIME_NONE;
    const GstClockTimeDiff offset = pipelineClock == streamClock ? 0
                                    : toStream                   ? clockOffset(pipelineClock, streamClock)
                                                                 : clockOffset(streamClock, pipelineClock);
    gst_object_unref(pipelineClock);
    return shifted(time, offset);
}

} // namespace

GstClock* newStreamClock(const char* name, std::function<miscUtils::TimeValue()> read)
{
    auto* clock = static_cast<VrxStreamClock*>(g_object_new(vrx_stream_clock_get_type(), "name", name,
                                                            "clock-type", GST_CLOCK_TYPE_MONOTONIC, nullptr));
    clock->read = new std::function<miscUtils::TimeValue()>(std::move(read));
    return owned(GST_CLOCK(clock));
}

GstClock* newMonotonicClock(const char* name)
{
    return owned(GST_CLOCK(
        g_object_new(GST_TYPE_SYSTEM_CLOCK, "name", name, "clock-type", GST_CLOCK_TYPE_MONOTONIC, nullptr)));
}

GstClockTime pipelineToStreamTime(GstElement* element, GstClock* streamClock, GstClockTime clockTime)
{
    return betweenClocks(element, streamClock, clockTime, true);
}

GstClockTime streamToPipelineTime(GstElement* element, GstClock* streamClock, GstClockTime streamTime)
{
    return betweenClocks(element, streamClock, streamTime, false);
}

} // namespace vrxGst
