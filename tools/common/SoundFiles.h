#pragma once

// Audio files through libsndfile: which wire format a file's samples travel in, and which file
// format an output name asks for.

#include "StreamStats.h"

#include <audioutils/PcmFormat.h>

#include <sndfile.h>

#include <memory>
#include <string>

namespace vrxTools {

/// An open libsndfile handle. Closing it, once, finalises a written file's header.
struct SoundFileCloser
{
    void operator()(SNDFILE* file) const { sf_close(file); }
};
using SoundFile = std::unique_ptr<SNDFILE, SoundFileCloser>;

/// The wire format in which a file's samples travel unchanged: its own width for integer PCM
/// (8, 16, 24 or 32 bit), F32LE for float, double and compressed files.
audioUtils::PcmFormat wireFormatOf(const SF_INFO& info);

/// The major format (SF_FORMAT_WAV, ...) libsndfile writes for the extension of `path`;
/// 0 when it writes none.
int majorFormatForPath(const std::string& path);

/// "aiff, au, ..., wav": the extensions majorFormatForPath knows.
std::string writableExtensions();

/// The full libsndfile format (major and subtype) in which to write samples of `format`: one
/// that keeps every sample exactly where the major format has one (unsigned 16-bit samples
/// become signed ones offset by half the range, like libsndfile's own unsigned 8-bit), else the
/// nearest it has. 0 when the major format cannot hold this rate and channel count.
int fileFormatFor(int majorFormat, const StreamFormat& format);

} // namespace vrxTools
