#pragma once

// What every suite shares: packet bytes from literals, the text of a failed assertion, socket
// addresses of its own, checking that shut-down leaves no thread or descriptor behind, and the
// log; on top of Processes.h (waiting, scratch TMPDIR, processes), which the benchmarks share.

#include "Processes.h"

#include <voraxis/SideChannel.h>

#include <log4cplus/callbackappender.h>
#include <log4cplus/logger.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <regex>

namespace vrx::test {

/// Packet bytes written as a string literal ("\x01\x00xy"sv); embedded 0 bytes are kept.
inline Buffer bytes(std::string_view text)
{
    return Buffer(text.begin(), text.end());
}

/// Matches what a failed MISCUTILS_ASSERT prints for exactly `expression` (the closing quote is
/// part of it, so a longer expression does not match) in the function `signature`.
inline auto assertionFailure(const std::string& expression, const std::string& signature)
{
    return ::testing::AllOf(::testing::HasSubstr("Assertion \"" + expression + "\" failed in "),
                            ::testing::HasSubstr(signature));
}

/// errno as the library logs it: the system's text, then the number in parentheses.
inline std::string errnoText(int errorNumber)
{
    return std::strerror(errorNumber) + (" (" + std::to_string(errorNumber) + ")");
}

/// An abstract socket address that no other test, in this process or another, uses.
inline std::string uniqueSocketAddress()
{
    static std::atomic<unsigned int> counter{0};
    return "vrx-test-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
}

/// How many threads and descriptors a check allows beyond a baseline; `anyCount` skips one.
inline constexpr std::size_t anyCount = static_cast<std::size_t>(-1);
struct Extra
{
    std::size_t threads = 0, descriptors = 0;
};

/// Waits, bounded, until the process holds exactly `extra` beyond `baseline` (entries of the
/// baseline that have gone since do not count), and reports what it holds beyond it when that
/// does not happen. Waiting matters: a joined thread's task entry can stay listed for a moment
/// after the join, so a count taken at once races the kernel.
/// `EXPECT_TRUE(settlesAt(baseline));`, `EXPECT_TRUE(settlesAt(baseline, {.threads = 1}));`
inline ::testing::AssertionResult settlesAt(const ProcessResources& baseline, Extra extra = {})
{
    ProcessResources added;
    const auto holds = [](std::size_t count, std::size_t wanted) {
        return wanted == anyCount || count == wanted;
    };
    const bool settled = waitFor(
        [&] {
            const ProcessResources now = processResources();
            added = {};
            std::ranges::set_difference(now.descriptors, baseline.descriptors,
                                        std::back_inserter(added.descriptors));
            std::ranges::set_difference(now.threads, baseline.threads, std::back_inserter(added.threads));
            return holds(added.threads.size(), extra.threads) &&
                   holds(added.descriptors.size(), extra.descriptors);
        },
        10s);
    return settled ? ::testing::AssertionSuccess()
                   : ::testing::AssertionFailure()
                         << "held beyond the baseline: threads " << ::testing::PrintToString(added.threads)
                         << ", descriptors " << ::testing::PrintToString(added.descriptors);
}

/// While it lives, this process can open no further descriptor: its limit is the lowest free
/// descriptor number.
class DescriptorLimit : NonCopyable
{
public:
    DescriptorLimit()
    {
        getrlimit(RLIMIT_NOFILE, &m_saved);
        const int lowestFree = dup(STDIN_FILENO);
        ::close(lowestFree);
        rlimit lowered = m_saved;
        lowered.rlim_cur = static_cast<rlim_t>(lowestFree);
        setrlimit(RLIMIT_NOFILE, &lowered);
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &m_saved); }

private:
    rlimit m_saved{};
};

/// Logged events, each as its level (as log4cplus names it: "TRACE", "DEBUG", "ERROR", ...), a
/// blank, and its text.
using LogLines = std::vector<std::string>;

/// Records every event of the "Voraxis" logger, at every level, while it lives. Descriptor
/// numbers and the random part of sender directory names change from run to run: the lines
/// show them as "FD #" and "VrxSender-XXXXXX", so that a test can spell out what it expects.
class LogCapture : NonCopyable
{
public:
    LogCapture()
    {
        m_logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
        m_logger.setAdditivity(false);
        log4cplus::SharedAppenderPtr appender(new log4cplus::CallbackAppender(
            [](void* self, const char* text, const char*, int level, const char*, const char*,
               unsigned long long, unsigned long, const char*, const char*, int) {
                static const std::regex descriptor("(FD:? )[0-9]+"), directory("(VrxSender-)[A-Za-z0-9]{6}");
                const std::string line = log4cplus::getLogLevelManager().toString(level) + " " + text;
                auto& capture = *static_cast<LogCapture*>(self);
                const std::lock_guard lock(capture.m_mutex);
                capture.m_lines.push_back(
                    std::regex_replace(std::regex_replace(line, descriptor, "$1#"), directory, "$1XXXXXX"));
            },
            this));
        appender->setName("vrx-test-capture");
        m_logger.addAppender(appender);
    }
    ~LogCapture()
    {
        m_logger.removeAppender("vrx-test-capture");
        m_logger.setLogLevel(m_previousLevel);
        m_logger.setAdditivity(m_previousAdditivity);
    }

    /// The lines in the order they were logged; only those of `level` when it is given.
    LogLines lines(std::string_view level = {}) const
    {
        const std::lock_guard lock(m_mutex);
        LogLines result;
        std::ranges::copy_if(m_lines, std::back_inserter(result),
                             [&](auto& line) { return line.starts_with(level); });
        return result;
    }
    /// How many lines read exactly `line` ("LEVEL text").
    std::size_t count(const std::string& line) const { return std::ranges::count(lines(), line); }
    /// Waits, bounded, until a line reads exactly `line`.
    bool waitFor(const std::string& line) const
    {
        return test::waitFor([&] { return count(line) > 0; });
    }
    void clear()
    {
        const std::lock_guard lock(m_mutex);
        m_lines.clear();
    }

private:
    log4cplus::Logger m_logger = log4cplus::Logger::getInstance("Voraxis");
    const int m_previousLevel = m_logger.getLogLevel();
    const bool m_previousAdditivity = m_logger.getAdditivity();
    mutable std::mutex m_mutex;
    LogLines m_lines;
};

/// Fixture for suites that check what the library logs.
class LogCaptureTest : public ::testing::Test
{
protected:
    LogCapture m_log;
};

} // namespace vrx::test
