#pragma once

// What both elements share about a stream's format: the one table between the library's PCM
// sample formats and GStreamer's, and the caps that describe a stream.

#include <audioutils/PcmFormat.h>

#include <gst/audio/audio.h>

#include <optional>

namespace vrxGst {

/// GStreamer's name for a sample format; every PcmFormat has one.
GstAudioFormat toGstAudioFormat(audioUtils::PcmFormat format);

/// The PcmFormat of a GStreamer sample format; nothing for one that a stream cannot carry.
std::optional<audioUtils::PcmFormat> toPcmFormat(GstAudioFormat format);

/// Interleaved audio/x-raw in every sample format, rate and channel count a stream carries
/// (PcmPayloader keeps 8 bits of the channel count): the pad template of both elements.
GstCaps* newStreamTemplateCaps();

/// Fixed caps of one stream format. A stream carries no channel positions: mono and stereo get
/// GStreamer's usual ones, more channels are unpositioned. Nothing (nullptr) for a format
/// GStreamer cannot describe (a rate beyond its integer range).
GstCaps* newStreamCaps(unsigned int sampleRate, unsigned int channels, audioUtils::PcmFormat format);

} // namespace vrxGst
