#include "SoundFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <vector>

namespace vrxTools {

namespace {

using audioUtils::PcmFormat;

std::vector<SF_FORMAT_INFO> formatList(int countCommand, int itemCommand)
{
    int count = 0;
    sf_command(nullptr, countCommand, &count, sizeof(count));
    std::vector<SF_FORMAT_INFO> formats(static_cast<std::size_t>(std::max(count, 0)));
    for (std::size_t i = 0; i < formats.size(); ++i)
    {
        formats[i].format = static_cast<int>(i);
        sf_command(nullptr, itemCommand, &formats[i], sizeof(SF_FORMAT_INFO));
    }
    return formats;
}

/// A file in memory, so that a format can be tried without creating anything.
class MemoryFile
{
public:
    /// Opens, writes a frame of silence and closes a file of this format: what libsndfile
    /// cannot encode fails here rather than at the first frame of a stream.
    static bool writes(int fileFormat, const StreamFormat& format)
    {
        SF_INFO info{};
        info.samplerate = static_cast<int>(format.sampleRate);
        info.channels = static_cast<int>(format.channels);
        info.format = fileFormat;
        if (sf_format_check(&info) == 0)
            return false;
        MemoryFile file;
        SF_VIRTUAL_IO io{&MemoryFile::length, &MemoryFile::seek, &MemoryFile::read, &MemoryFile::write,
                         &MemoryFile::tell};
        SoundFile handle(sf_open_virtual(&io, SFM_WRITE, &info, &file));
        const std::vector<int> silence(format.channels, 0);
        return handle && sf_writef_int(handle.get(), silence.data(), 1) == 1;
    }

private:
    static MemoryFile& of(void* user) { return *static_cast<MemoryFile*>(user); }
    static sf_count_t length(void* user) { return static_cast<sf_count_t>(of(user).m_bytes.size()); }
    static sf_count_t tell(void* user) { return of(user).m_position; }
    static sf_count_t seek(sf_count_t offset, int whence, void* user)
    {
        MemoryFile& file = of(user);
        const sf_count_t base = whence == SEEK_CUR ? file.m_position : whence == SEEK_END ? length(user) : 0;
        file.m_position = std::max<sf_count_t>(base + offset, 0);
        return file.m_position;
    }
    static sf_count_t read(void* data, sf_count_t count, void* user)
    {
        MemoryFile& file = of(user);
        const sf_count_t available = std::clamp<sf_count_t>(length(user) - file.m_position, 0, count);
        std::memcpy(data, file.m_bytes.data() + file.m_position, static_cast<std::size_t>(available));
        file.m_position += available;
        return available;
    }
    static sf_count_t write(const void* data, sf_count_t count, void* user)
    {
        MemoryFile& file = of(user);
        const auto end = static_cast<std::size_t>(file.m_position + count);
        file.m_bytes.resize(std::max(file.m_bytes.size(), end));
        std::memcpy(file.m_bytes.data() + file.m_position, data, static_cast<std::size_t>(count));
        file.m_position += count;
        return count;
    }

    std::vector<char> m_bytes;
    sf_count_t m_position = 0;
};

/// The subtypes that keep every sample of `format`: its own width, then wider ones. Floats keep
/// integers of up to 24 bits exactly, doubles of up to 32.
std::vector<int> losslessSubtypes(PcmFormat format)
{
    const audioUtils::PcmSampleLayout layout = audioUtils::getSampleLayout(format);
    if (layout.isFloat)
        return {SF_FORMAT_FLOAT, SF_FORMAT_DOUBLE};
    switch (layout.bytesPerSample)
    {
    case 1:
        return {SF_FORMAT_PCM_S8, SF_FORMAT_PCM_U8, SF_FORMAT_PCM_16, SF_FORMAT_PCM_24,
                SF_FORMAT_PCM_32, SF_FORMAT_FLOAT,  SF_FORMAT_DOUBLE};
    case 2: return {SF_FORMAT_PCM_16, SF_FORMAT_PCM_24, SF_FORMAT_PCM_32, SF_FORMAT_FLOAT, SF_FORMAT_DOUBLE};
    case 3: return {SF_FORMAT_PCM_24, SF_FORMAT_PCM_32, SF_FORMAT_FLOAT, SF_FORMAT_DOUBLE};
    default: return {SF_FORMAT_PCM_32, SF_FORMAT_DOUBLE};
    }
}

} // namespace

PcmFormat wireFormatOf(const SF_INFO& info)
{
    switch (info.format & SF_FORMAT_SUBMASK)
    {
    case SF_FORMAT_PCM_S8: return PcmFormat::S8;
    case SF_FORMAT_PCM_U8: return PcmFormat::U8;
    case SF_FORMAT_PCM_16: return PcmFormat::S16LE;
    case SF_FORMAT_PCM_24: return PcmFormat::S24LE;
    case SF_FORMAT_PCM_32: return PcmFormat::S32LE;
    default: return PcmFormat::F32LE;
    }
}

int majorFormatForPath(const std::string& path)
{
    const std::size_t dot = path.find_last_of("./");
    if (dot == std::string::npos || path[dot] != '.')
        return 0;
    std::string extension = path.substr(dot + 1);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    // Common spellings that libsndfile lists under another name.
    if (extension == "aif")
        extension = "aiff";
    else if (extension == "ogg")
        extension = "oga";
    else if (extension == "mp3")
        extension = "m1a";
    for (const SF_FORMAT_INFO& major : formatList(SFC_GET_FORMAT_MAJOR_COUNT, SFC_GET_FORMAT_MAJOR))
        if (extension == major.extension)
            return major.format;
    return 0;
}

std::string writableExtensions()
{
    std::vector<std::string> extensions;
    for (const SF_FORMAT_INFO& major : formatList(SFC_GET_FORMAT_MAJOR_COUNT, SFC_GET_FORMAT_MAJOR))
        extensions.emplace_back(major.extension);
    std::sort(extensions.begin(), extensions.end());
    extensions.erase(std::unique(extensions.begin(), extensions.end()), extensions.end());
    std::string text;
    for (const std::string& extension : extensions)
        text += (text.empty() ? "" : ", ") + extension;
    return text;
}

FileFormat chooseFileFormat(int majorFormat, const StreamFormat& format)
{
    for (const int subtype : losslessSubtypes(format.sampleFormat))
        if (MemoryFile::writes(majorFormat | subtype, format))
            return {majorFormat | subtype, true};
    // Narrower PCM first, then whatever encoding libsndfile offers (Vorbis, MPEG layer III).
    std::vector<int> lossy = {SF_FORMAT_PCM_24, SF_FORMAT_PCM_16};
    for (const SF_FORMAT_INFO& subtype : formatList(SFC_GET_FORMAT_SUBTYPE_COUNT, SFC_GET_FORMAT_SUBTYPE))
        lossy.push_back(subtype.format);
    for (const int subtype : lossy)
        if (MemoryFile::writes(majorFormat | subtype, format))
            return {majorFormat | subtype, false};
    return {};
}

std::string refuseFileFormat(int majorFormat, bool lossyAccepted)
{
    const FileFormat common = chooseFileFormat(majorFormat, {48000, 2, PcmFormat::S16LE});
    if (common.format == 0)
        return "libsndfile cannot write " + describeFileFormat(majorFormat) + " files";
    if (!common.keepsEverySample && !lossyAccepted)
        return describeFileFormat(common.format) +
               " is lossy and does not keep every sample (--lossy accepts that)";
    return {};
}

bool writesToPipe(int majorFormat)
{
    int pipeFDs[2];
    if (pipe2(pipeFDs, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    SF_INFO info{};
    info.samplerate = 48000;
    info.channels = 2;
    info.format = chooseFileFormat(majorFormat, {48000, 2, PcmFormat::S16LE}).format;
    const bool writes = SoundFile(sf_open_fd(pipeFDs[1], SFM_WRITE, &info, SF_FALSE)) != nullptr;
    close(pipeFDs[0]);
    close(pipeFDs[1]);
    return writes;
}

std::string describeFileFormat(int format)
{
    SF_FORMAT_INFO major{format & SF_FORMAT_TYPEMASK, nullptr, nullptr};
    SF_FORMAT_INFO subtype{format & SF_FORMAT_SUBMASK, nullptr, nullptr};
    std::string text =
        sf_command(nullptr, SFC_GET_FORMAT_INFO, &major, sizeof(major)) == 0 ? major.name : "?";
    // "WAV (Microsoft)": the maker says nothing about the samples.
    text = text.substr(0, text.find(" ("));
    if (subtype.format != 0 && sf_command(nullptr, SFC_GET_FORMAT_INFO, &subtype, sizeof(subtype)) == 0)
        text += std::string(", ") + subtype.name;
    return text;
}

} // namespace vrxTools
