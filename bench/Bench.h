#pragma once

// What the benchmarks that run senders and receivers in processes of their own share, on top
// of the suites' Processes.h: each process is the program again, started with a role, that
// talks with the orchestrating process in lines over its standard input and output.

#include <Processes.h>

#include <miscutils/MiscUtils.h>

#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>

#include <time.h>

#include <cerrno>
#include <cstdio>
#include <memory>

namespace vrxBench {

using namespace vrx::test;
using miscUtils::TimeValue;

inline TimeValue now()
{
    return miscUtils::getMonotonicSysclockTime();
}

/// Sleeps until the monotonic clock reads `deadline`.
inline void sleepUntil(TimeValue deadline)
{
    const timespec until{static_cast<time_t>(deadline / 1'000'000'000),
                         static_cast<long>(deadline % 1'000'000'000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR)
    {}
}

/// Ends the process with exit code 1 after printing `what` behind the program's name.
[[noreturn]] inline void fail(const char* what)
{
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what);
    std::exit(1);
}

/// Reads the `--name number` pairs of `arguments` into the integers `options` name; false for
/// anything else, or a number below `least`.
inline bool readOptions(const std::vector<std::string>& arguments,
                        std::initializer_list<std::pair<std::string, int*>> options, int least)
{
    for (std::size_t index = 0; index < arguments.size(); index += 2)
    {
        const auto option =
            std::ranges::find(options, arguments[index], &std::pair<std::string, int*>::first);
        if (option == options.end() || index + 1 == arguments.size() ||
            (*option->second = std::atoi(arguments[index + 1].c_str())) < least)
            return false;
    }
    return true;
}

/// A process of a run: the library logs warnings and errors only, as in production, to standard
/// error; standard output carries whole lines to the orchestrating process.
class Role
{
public:
    Role()
    {
        log4cplus::BasicConfigurator(log4cplus::Logger::getDefaultHierarchy(), true).configure();
        log4cplus::Logger::getRoot().setLogLevel(log4cplus::WARN_LOG_LEVEL);
        setvbuf(stdout, nullptr, _IOLBF, 0);
    }

private:
    log4cplus::Initializer m_logging;
};

/// This program again, in a process of its own with the role `arguments`, lines to and from it.
inline std::unique_ptr<ChildProcess> startRole(std::vector<std::string> arguments)
{
    // The program's own path rather than /proc/self/exe, so that ps and perf show its name.
    static const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    arguments.insert(arguments.begin(), {self, "--role"});
    return std::make_unique<ChildProcess>(std::move(arguments), true);
}

/// The numbers after the word `word` of the next line a process says with it, waiting up to
/// `timeout` ("done 3 4" gives 3, 4); missing numbers read 0.
inline std::optional<std::vector<std::uint64_t>> hear(ChildProcess& process, const std::string& word,
                                                      std::chrono::milliseconds timeout)
{
    const std::optional<std::string> line = process.take(word, timeout);
    if (!line)
        return std::nullopt;
    std::istringstream fields(line->substr(word.size()));
    std::vector<std::uint64_t> numbers(16, 0);
    for (std::uint64_t& number : numbers)
        fields >> number;
    return numbers;
}

/// A fixed rate on the monotonic clock. A tick that comes late lets its frame go at once and
/// skips the ticks that have passed meanwhile: frames back to back would meet the stream's
/// one-message buffers, which drop all but the first few.
class Pacer
{
public:
    Pacer(TimeValue period, TimeValue first) : m_period(period), m_due(first) {}
    /// Sleeps until the next tick.
    void wait()
    {
        if (const TimeValue current = now(); current >= m_due + m_period)
        {
            const TimeValue missed = (current - m_due) / m_period;
            skipped += missed;
            m_due += missed * m_period;
        }
        sleepUntil(m_due);
        m_due += m_period;
    }
    std::uint64_t skipped = 0;

private:
    const TimeValue m_period;
    TimeValue m_due;
};

} // namespace vrxBench
