#include "SoundFiles.h"

#include <algorithm>
#include <cctype>
#include <vector>

namespace vrxTools {

namespace {

using audioUtils::PcmFormat;

std::vector<SF_FORMAT_INFO> majorFormats()
{
    int count = 0;
    sf_command(nullptr, SFC_GET_FORMAT_MAJOR_COUNT, &count, sizeof(count));
    std::vector<SF_FORMAT_INFO> formats(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
    {
        formats[static_cast<std::size_t>(i)].format = i;
        sf_command(nullptr, SFC_GET_FORMAT_MAJOR, &formats[static_cast<std::size_t>(i)],
                   sizeof(SF_FORMAT_INFO));
    }
    return formats;
}

bool fits(int fileFormat, const StreamFormat& format)
{
    SF_INFO info{};
    info.samplerate = static_cast<int>(format.sampleRate);
    info.channels = static_cast<int>(format.channels);
    info.format = fileFormat;
    return sf_format_check(&info) != 0;
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
    for (const SF_FORMAT_INFO& major : majorFormats())
        if (extension == major.extension)
            return major.format;
    return 0;
}

std::string writableExtensions()
{
    std::vector<std::string> extensions;
    for (const SF_FORMAT_INFO& major : majorFormats())
        extensions.emplace_back(major.extension);
    std::sort(extensions.begin(), extensions.end());
    extensions.erase(std::unique(extensions.begin(), extensions.end()), extensions.end());
    std::string text;
    for (const std::string& extension : extensions)
        text += (text.empty() ? "" : ", ") + extension;
    return text;
}

int fileFormatFor(int majorFormat, const StreamFormat& format)
{
    // Exact first, then wider, then whatever comes nearest.
    std::vector<int> subtypes;
    switch (format.sampleFormat)
    {
    case PcmFormat::S8:
    case PcmFormat::U8:
        subtypes = {SF_FORMAT_PCM_S8, SF_FORMAT_PCM_U8, SF_FORMAT_PCM_16, SF_FORMAT_PCM_24};
        break;
    case PcmFormat::S16LE:
    case PcmFormat::S16BE:
    case PcmFormat::U16LE:
    case PcmFormat::U16BE:
        subtypes = {SF_FORMAT_PCM_16, SF_FORMAT_PCM_24, SF_FORMAT_PCM_32, SF_FORMAT_FLOAT};
        break;
    case PcmFormat::S24LE:
    case PcmFormat::S24BE: subtypes = {SF_FORMAT_PCM_24, SF_FORMAT_PCM_32, SF_FORMAT_FLOAT}; break;
    case PcmFormat::S32LE:
    case PcmFormat::S32BE:
        subtypes = {SF_FORMAT_PCM_32, SF_FORMAT_DOUBLE, SF_FORMAT_FLOAT, SF_FORMAT_PCM_24};
        break;
    case PcmFormat::F32LE:
    case PcmFormat::F32BE: subtypes = {SF_FORMAT_FLOAT, SF_FORMAT_DOUBLE, SF_FORMAT_PCM_24}; break;
    }
    subtypes.push_back(SF_FORMAT_PCM_16);
    for (const int subtype : subtypes)
        if (fits(majorFormat | subtype, format))
            return majorFormat | subtype;

    // Lossy-only containers (Ogg, MPEG): the first encoding libsndfile offers for them.
    int count = 0;
    sf_command(nullptr, SFC_GET_FORMAT_SUBTYPE_COUNT, &count, sizeof(count));
    for (int i = 0; i < count; ++i)
    {
        SF_FORMAT_INFO subtype{};
        subtype.format = i;
        sf_command(nullptr, SFC_GET_FORMAT_SUBTYPE, &subtype, sizeof(subtype));
        if (fits(majorFormat | subtype.format, format))
            return majorFormat | subtype.format;
    }
    return 0;
}

} // namespace vrxTools
