// The "voraxis" plugin: vrxsink and vrxsrc, and the library's log records in GStreamer's debug
// log (category "voraxis", e.g. GST_DEBUG=voraxis:5) unless the application configured log4cplus.

#include "GstVrxSink.h"
#include "GstVrxSrc.h"

#include <log4cplus/callbackappender.h>
#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>

#include <gst/gst.h>

GST_DEBUG_CATEGORY_STATIC(voraxis_library_debug);

namespace {

GstDebugLevel toGstLevel(int level)
{
    if (level >= log4cplus::ERROR_LOG_LEVEL)
        return GST_LEVEL_ERROR;
    if (level >= log4cplus::WARN_LOG_LEVEL)
        return GST_LEVEL_WARNING;
    if (level >= log4cplus::INFO_LOG_LEVEL)
        return GST_LEVEL_INFO;
    return level >= log4cplus::DEBUG_LOG_LEVEL ? GST_LEVEL_DEBUG : GST_LEVEL_TRACE;
}

log4cplus::LogLevel toLog4cplusLevel(GstDebugLevel threshold)
{
    switch (threshold)
    {
    case GST_LEVEL_NONE: return log4cplus::OFF_LOG_LEVEL;
    case GST_LEVEL_ERROR: return log4cplus::ERROR_LOG_LEVEL;
    case GST_LEVEL_WARNING: return log4cplus::WARN_LOG_LEVEL;
    case GST_LEVEL_FIXME:
    case GST_LEVEL_INFO: return log4cplus::INFO_LOG_LEVEL;
    case GST_LEVEL_DEBUG: return log4cplus::DEBUG_LOG_LEVEL;
    default: return log4cplus::TRACE_LOG_LEVEL;
    }
}

/// The library logs under "Voraxis" and leaves the configuration to its users; inside a
/// GStreamer application that is GStreamer's debug log. The logger's level follows the
/// category's threshold when the plugin loads, so disabled records cost one level check.
void routeLibraryLog()
{
    GST_DEBUG_CATEGORY_INIT(voraxis_library_debug, "voraxis", 0, "libkavo_voraxis, the stream library");
    log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Voraxis"));
    if (!logger.getAllAppenders().empty() || !log4cplus::Logger::getRoot().getAllAppenders().empty())
        return; // configured by the application
    log4cplus::SharedAppenderPtr appender(new log4cplus::CallbackAppender(
        [](void*, const char* message, const char*, int level, const char*, const char*, unsigned long long,
           unsigned long, const char* file, const char* function, int line) {
            gst_debug_log(voraxis_library_debug, toGstLevel(level), file != nullptr ? file : "",
                          function != nullptr ? function : "", line, nullptr, "%s", message);
        },
        nullptr));
    appender->setName(LOG4CPLUS_TEXT("gstreamer-debug-log"));
    logger.addAppender(appender);
    logger.setAdditivity(false);
    logger.setLogLevel(toLog4cplusLevel(gst_debug_category_get_threshold(voraxis_library_debug)));
}

gboolean pluginInit(GstPlugin* plugin)
{
    routeLibraryLog();
    return gst_element_register(plugin, "vrxsink", GST_RANK_NONE, GST_TYPE_VRX_SINK) &&
           gst_element_register(plugin, "vrxsrc", GST_RANK_NONE, GST_TYPE_VRX_SRC);
}

} // namespace

// The plugin's source module, as GStreamer lists it.
#define PACKAGE "libkavo_voraxis"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, voraxis,
                  "Streams of timestamped PCM audio frames between the processes of a host", pluginInit,
                  VRX_PLUGIN_VERSION, "Proprietary", "libkavo_voraxis", "libkavo_voraxis")
