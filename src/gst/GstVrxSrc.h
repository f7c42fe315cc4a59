#pragma once

// vrxsrc: makes a GStreamer pipeline a consumer of a stream.
//
// A live source that follows the sender at `address` with a vrx::Receiver and pushes each frame
// as one buffer: PTS from the frame's timestamp, DURATION from its duration, DISCONT on the
// first buffer after a gap in the timestamps, a reconnection or a frame dropped here. Caps come
// from the current sequence; a new sequence renegotiates. Latency: one frame's duration at
// least, plus what the hand-over queue holds at most. Without a pipeline clock buffers carry
// no PTS.
//
// Clock: the element provides the stream clock as vrxsink does: the host's monotonic clock for
// "sysclock" streams, or for a stream on a network clock a clock that reads the receiver's
// synchronised stream time. When the pipeline runs on that clock, PTS = timestamp - base time;
// on another clock, timestamps are converted through the difference of the two clocks'
// readings. When a new connection brings another kind of clock, the element posts clock-lost,
// so that the pipeline (gst-launch-1.0 does) selects the new one by going through PAUSED.
//
// Threads: the receiver's callbacks run on its own thread and never block there: a frame is
// copied once, into a new GstBuffer, and handed to the streaming thread through a queue
// bounded to 200 ms of media (beyond it the oldest frame is dropped and the next one marked
// DISCONT); the streaming thread waits on the queue's condition variable in create. unlock
// wakes it at once, and stop shuts the receiver down, so that going to NULL ends within
// milliseconds in every state, also while no sender is there.
//
// Failure: no address fails the state change with an element error; so does a receiver that
// cannot start. A sender that is not there yet, or goes away, is no error: the element posts an
// element message "vrx-sender" (field "status": "waiting", "connected" or "gone", the last one
// after a second without a connection) and waits for the next sender, or with
// `exit-on-sender-gone` ends the stream with EOS. A connection that fails for good (a second
// consumer of a pipeline stream) is an element error.

#include <gst/gst.h>

G_BEGIN_DECLS

#define GST_TYPE_VRX_SRC (gst_vrx_src_get_type())
GType gst_vrx_src_get_type(void);

G_END_DECLS
