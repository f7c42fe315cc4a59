#pragma once

// What both elements check and prepare before they start their end of a stream.

#include <gst/gst.h>

#include <string>

namespace vrxGst {

/// True for a usable address; otherwise posts an element error on `element` that says what to
/// set (`example` shows a pipeline) and returns false.
bool checkAddress(GstElement* element, const std::string& address, const char* example);

/// Makes sure the directory in which senders appear and receivers look ($TMPDIR, default
/// /tmp/vrx) exists, creating it with mode 1777 like /tmp so that producers and consumers of
/// different users meet there. False after an element error when it cannot be had.
bool ensureSenderDirectory(GstElement* element);

} // namespace vrxGst
