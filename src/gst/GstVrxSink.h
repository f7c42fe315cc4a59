#pragma once

// vrxsink: makes a GStreamer pipeline the producer of a stream.
//
// Every buffer becomes one frame of a vrx::Sender at `address` (or `alternative-address` when
// that is taken), over publish/subscribe or pipeline (`protocol`). The frame's timestamp is the
// buffer's clock time (running time + base time) on the stream clock, and its duration the
// buffer's. Caps (interleaved audio/x-raw in the twelve PCM sample formats) announce a sequence;
// a caps change starts a new one.
//
// Clock: the element provides the stream clock, so that a pipeline without an upstream clock
// provider runs on it: the host's monotonic clock, or with `time-server` (IP:PORT) a clock that
// follows that network time server through miscUtils::SyncedNetClock, which the sender then
// announces to its receivers. In a pipeline that runs on another clock, clock times are
// converted through the difference of the two clocks' readings at each frame. Buffers are
// rendered when they are due (sync=true), so a non-live source streams in real time.
//
// Threads: the sender is set up on the thread that takes the element from READY to PAUSED
// (start), which also waits, up to 5 s, until the network clock is synchronised. Caps and
// frames go out on the streaming thread, the sender's one producer thread. Over pipeline a
// frame waits until the receiver takes it; a flush or a state change out of PLAYING (unlock)
// releases that wait, and the frame is dropped. At the end of the stream the sender stays open
// 200 ms for receivers to take the last frames.
//
// Failure: no address, a bad time-server, a time server that does not answer, or a sender that
// cannot start (its addresses are taken) fail the state change with an element error. A frame
// that no receiver takes is dropped, as the sender does; the pipeline never stalls over
// publish/subscribe.

#include <gst/gst.h>

G_BEGIN_DECLS

#define GST_TYPE_VRX_SINK (gst_vrx_sink_get_type())
GType gst_vrx_sink_get_type(void);

G_END_DECLS
