#pragma once

// Small helpers every suite shares: packet bytes from literals, waiting for a condition, and
// the process's own threads and descriptors for checking that shut-down leaves nothing behind.

#include <voraxis/SideChannel.h>

#include <gtest/gtest.h>

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

/// What this process holds: its open descriptors and its threads' ids, each sorted.
struct ProcessResources
{
    std::vector<std::string> descriptors;
    std::vector<std::string> threads;
};
ProcessResources processResources();

/// How many threads and descriptors a check allows beyond a baseline; `anyCount` skips one.
inline constexpr std::size_t anyCount = static_cast<std::size_t>(-1);
struct Extra
{
    std::size_t threads = 0;
    std::size_t descriptors = 0;
};

/// Waits, bounded, until the process holds exactly `extra` beyond `baseline` (entries of the
/// baseline that have gone since do not count), and reports what it holds beyond it when that
/// does not happen. Waiting matters: a joined thread's task entry can stay listed for a moment
/// after the join, so a count taken at once races the kernel.
/// `EXPECT_TRUE(settlesAt(baseline));`, `EXPECT_TRUE(settlesAt(baseline, {.threads = 1}));`
::testing::AssertionResult settlesAt(const ProcessResources& baseline, Extra extra = {});

} // namespace vrx::test
