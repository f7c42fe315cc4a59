#pragma once

// How the elements make a stream's clock the pipeline clock, and how they convert times
// between the pipeline clock and the stream clock when the pipeline runs on another one.

#include <miscutils/MiscUtils.h>

#include <gst/gst.h>

#include <functional>

namespace vrxGst {

/// A GstClock that reads its time from `read`, which must be cheap and safe from any thread.
/// It derives from GstSystemClock, which waits on the monotonic clock for the difference
/// between a target time and the current reading: waits follow `read` as long as it runs at
/// the monotonic clock's rate, as a network clock does within its rate corrections. `read` is
/// destroyed with the clock, on whichever thread drops the last reference.
GstClock* newStreamClock(const char* name, std::function<miscUtils::TimeValue()> read);

/// The host's monotonic clock as a GstClock: the stream clock of "sysclock" streams.
GstClock* newMonotonicClock(const char* name);

/// The time on `streamClock` that corresponds to `clockTime` on the pipeline clock of
/// `element`: the same value when the pipeline runs on `streamClock`, else shifted by the
/// difference of the two clocks' readings now; GST_CLOCK_TIME_NONE without a pipeline clock.
GstClockTime pipelineToStreamTime(GstElement* element, GstClock* streamClock, GstClockTime clockTime);

/// The inverse: the time on the pipeline clock of `element` that corresponds to `streamTime`.
GstClockTime streamToPipelineTime(GstElement* element, GstClock* streamClock, GstClockTime streamTime);

} // namespace vrxGst
