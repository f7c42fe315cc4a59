#pragma once

// Audio files through libsndfile: which wire format a file's samples travel in, and in which
// file format a stream's samples are written.

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

/// The major format (SF_FORMAT_WAV, ...) libsndfile writes for the extension of `path`
/// ("x.flac"; ".au" alone names the extension); 0 when it writes none.
int majorFormatForPath(const std::string& path);

/// "aiff, au, ..., wav": the extensions majorFormatForPath knows.
std::string writableExtensions();

/// A full libsndfile format (major and subtype) for a stream's samples.
struct FileFormat
{
    int format = 0; ///< 0: the major format cannot hold this rate and channel count
    bool keepsEverySample = false;
};

/// The format in which to write samples of `format` into a file of `majorFormat`: the first
/// that keeps every sample, as it is or wider (unsigned samples become signed ones offset by
/// half the range, as libsndfile itself does for 8 bits), else the nearest that libsndfile
/// can write, lossy. Each candidate is tried on a file in memory, so that one libsndfile
/// lists but cannot encode (MPEG layer I) is never chosen.
FileFormat chooseFileFormat(int majorFormat, const StreamFormat& format);

/// Why `majorFormat` is no choice for an output, or "" when it is: libsndfile cannot write
/// it at all, or (without `lossyAccepted`) it keeps no sample of a common stream exactly.
std::string refuseFileFormat(int majorFormat, bool lossyAccepted);

/// Whether libsndfile writes `majorFormat` to a pipe, where it cannot go back to finish a
/// header; tried on a pipe of its own.
bool writesToPipe(int majorFormat);

/// "FLAC, Signed 24 bit PCM": a full format in libsndfile's words.
std::string describeFileFormat(int format);

} // namespace vrxTools
