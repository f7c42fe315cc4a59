#pragma once

// Small helpers every suite shares: packet bytes from literals, waiting for a condition, and
// the process's own threads and descriptors for checking that shut-down leaves nothing behind.

#include <voraxis/SideChannel.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace vrx::test {

using namespace std::chrono_literals;

/// Generous: machines running the suite are shared and noisy.
inline constexpr std::chrono::milliseconds conditionDeadline = 30s;

/// Packet bytes written as a string literal ("\x01\x00" "ab"sv ...); embedded 0 bytes are kept.
Buffer bytes(std::string_view text);

/// Polls `condition` until it holds or the deadline passes; the result is its last value.
bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds deadline = conditionDeadline);

/// Open descriptors of this process as "number -> target", sorted.
std::vector<std::string> openDescriptors();
std::size_t descriptorCount();

/// Number of threads of this process.
std::size_t threadCount();

} // namespace vrx::test
