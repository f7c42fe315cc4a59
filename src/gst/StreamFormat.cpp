#include "StreamFormat.h"

#include <array>
#include <string>
#include <utility>

namespace vrxGst {

namespace {

using audioUtils::PcmFormat;

constexpr std::array<std::pair<PcmFormat, GstAudioFormat>, audioUtils::PcmFormatCount> formats{{
    {PcmFormat::S8, GST_AUDIO_FORMAT_S8},
    {PcmFormat::U8, GST_AUDIO_FORMAT_U8},
    {PcmFormat::S16LE, GST_AUDIO_FORMAT_S16LE},
    {PcmFormat::S16BE, GST_AUDIO_FORMAT_S16BE},
    {PcmFormat::U16LE, GST_AUDIO_FORMAT_U16LE},
    {PcmFormat::U16BE, GST_AUDIO_FORMAT_U16BE},
    {PcmFormat::S24LE, GST_AUDIO_FORMAT_S24LE}, // 3 bytes per sample in both
    {PcmFormat::S24BE, GST_AUDIO_FORMAT_S24BE},
    {PcmFormat::S32LE, GST_AUDIO_FORMAT_S32LE},
    {PcmFormat::S32BE, GST_AUDIO_FORMAT_S32BE},
    {PcmFormat::F32LE, GST_AUDIO_FORMAT_F32LE},
    {PcmFormat::F32BE, GST_AUDIO_FORMAT_F32BE},
}};

// The table is indexed by the PcmFormat value.
constexpr bool inEnumerationOrder()
{
    for (std::size_t index = 0; index < formats.size(); ++index)
        if (formats[index].first != PcmFormat{static_cast<std::uint32_t>(index)})
            return false;
    return true;
}
static_assert(inEnumerationOrder());

constexpr unsigned int maxChannels = 255;

} // namespace

GstAudioFormat toGstAudioFormat(PcmFormat format)
{
    const auto index = static_cast<std::size_t>(format);
    return index < formats.size() ? formats[index].second : GST_AUDIO_FORMAT_UNKNOWN;
}

std::optional<PcmFormat> toPcmFormat(GstAudioFormat format)
{
    for (const auto& [pcm, gst] : formats)
        if (gst == format)
            return pcm;
    return std::nullopt;
}

GstCaps* newStreamTemplateCaps()
{
    std::string names;
    for (const auto& entry : formats)
        names += (names.empty() ? "" : ", ") + std::string(gst_audio_format_to_string(entry.second));
    const std::string caps = "audio/x-raw, format = (string) { " + names +
                             " }, rate = (int) [ 1, MAX ], channels = (int) [ 1, " +
                             std::to_string(maxChannels) + " ], layout = (string) interleaved";
    return gst_caps_from_string(caps.c_str());
}

GstCaps* newStreamCaps(unsigned int sampleRate, unsigned int channels, PcmFormat format)
{
    if (sampleRate == 0 || sampleRate > G_MAXINT || channels == 0 || channels > maxChannels ||
        toGstAudioFormat(format) == GST_AUDIO_FORMAT_UNKNOWN)
        return nullptr;
    GstAudioInfo info;
    gst_audio_info_init(&info);
    gst_audio_info_set_format(&info, toGstAudioFormat(format), static_cast<gint>(sampleRate),
                              static_cast<gint>(channels), nullptr);
    return gst_audio_info_to_caps(&info);
}

} // namespace vrxGst
