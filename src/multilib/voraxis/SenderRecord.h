#pragma once

// The record a sender keeps in its directory, so that findLiveSenders can tell who runs.
// Private to the library.

#include "voraxis/SideChannel.h"

#include <string>

namespace vrx::detail {

/// Replaces the record in `directoryFD` at once (a reader finds the last one or this one, never
/// a part of either); false (errno set) when it cannot be written.
bool writeSenderRecord(int directoryFD, const std::string& address, const ByteSpan& initialInfoPacket,
                       const ByteSpan& sequenceInfoPacket, std::size_t receivers);
/// Removes the record from `directoryFD`, when there is one.
void removeSenderRecord(int directoryFD);

} // namespace vrx::detail
