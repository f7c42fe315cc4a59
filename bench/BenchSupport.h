#pragma once

// What the benchmarks that run their senders and receivers as separate processes share: the
// program runs itself again with a role (fork and exec, before any thread exists), and the
// orchestrating process talks to each child in lines over its standard input and output.

#include <miscutils/MiscUtils.h>

#include <log4cplus/configurator.h>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace vrxBench {

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

/// A private directory under /tmp, made $TMPDIR of this process and of the children it
/// starts, so that a run sees only its own senders; removed with what is left in it.
class ScratchTmpdir
{
public:
    explicit ScratchTmpdir(const std::string& name) : m_path("/tmp/" + name + "-XXXXXX")
    {
        if (mkdtemp(m_path.data()) == nullptr || setenv("TMPDIR", m_path.c_str(), 1) != 0)
            fail("cannot create a scratch directory");
    }
    ~ScratchTmpdir() { std::filesystem::remove_all(m_path); }
    ScratchTmpdir(const ScratchTmpdir&) = delete;
    ScratchTmpdir& operator=(const ScratchTmpdir&) = delete;

    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

/// The median of `values`; 0 for none.
inline double median(std::vector<double> values)
{
    if (values.empty())
        return 0.0;
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

/// Library log for the processes of a run: warnings and errors only, as in production, so the
/// frame path's TRACE lines are off. VRX_BENCH_LOG_LEVEL (DEBUG, TRACE, ...) shows more, with
/// time and process id, to find out why a run failed.
inline void configureLogging()
{
    const char* level = std::getenv("VRX_BENCH_LOG_LEVEL");
    std::istringstream properties(std::string("log4cplus.rootLogger=") + (level != nullptr ? level : "WARN") +
                                  ", console\n"
                                  "log4cplus.appender.console=log4cplus::ConsoleAppender\n"
                                  "log4cplus.appender.console.logToStdErr=true\n"
                                  "log4cplus.appender.console.layout=log4cplus::PatternLayout\n"
                                  "log4cplus.appender.console.layout.ConversionPattern="
                                  "%D{%H:%M:%S.%q} [%i] %-5p %m%n\n");
    log4cplus::PropertyConfigurator configurator(properties);
    configurator.configure();
}

// ---- Lines between the orchestrating process and its children ------------------------------

/// One line to `fd` with a single write, so that lines from two threads never mix.
inline void say(int fd, const char* format, ...) __attribute__((format(printf, 2, 3)));
inline void say(int fd, const char* format, ...)
{
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(line, sizeof(line) - 1, format, arguments);
    va_end(arguments);
    if (length <= 0)
        return;
    const std::size_t size = std::min(static_cast<std::size_t>(length), sizeof(line) - 2);
    line[size] = '\n';
    if (write(fd, line, size + 1) < 0)
    {} // the reader is gone; the run fails on its side
}

class LineReader
{
public:
    enum class Result
    {
        Line,
        Nothing, ///< no complete line within the time-out
        Closed,
    };

    explicit LineReader(int fd) : m_fd(fd) {}

    /// Waits up to `timeoutMs` (-1: without limit) for a complete line.
    Result read(std::string& line, int timeoutMs)
    {
        const TimeValue deadline = now() + static_cast<TimeValue>(std::max(timeoutMs, 0)) * 1'000'000;
        for (;;)
        {
            const std::size_t end = m_buffer.find('\n');
            if (end != std::string::npos)
            {
                line = m_buffer.substr(0, end);
                m_buffer.erase(0, end + 1);
                return Result::Line;
            }
            int waitMs = -1;
            if (timeoutMs >= 0)
            {
                const TimeValue current = now();
                waitMs =
                    current >= deadline ? 0 : static_cast<int>((deadline - current + 999'999) / 1'000'000);
            }
            pollfd entry{m_fd, POLLIN, 0};
            const int ready = poll(&entry, 1, waitMs);
            if (ready < 0 && errno == EINTR)
                continue;
            if (ready <= 0)
                return Result::Nothing;
            char chunk[512];
            const ssize_t count = ::read(m_fd, chunk, sizeof(chunk));
            if (count <= 0)
                return Result::Closed;
            m_buffer.append(chunk, static_cast<std::size_t>(count));
        }
    }

private:
    int m_fd;
    std::string m_buffer;
};

inline std::vector<std::string> words(const std::string& line)
{
    std::istringstream stream(line);
    std::vector<std::string> result;
    for (std::string word; stream >> word;)
        result.push_back(word);
    return result;
}

inline std::uint64_t number(const std::vector<std::string>& fields, std::size_t index)
{
    return index < fields.size() ? std::strtoull(fields[index].c_str(), nullptr, 10) : 0;
}

// ---- Children ------------------------------------------------------------------------------

/// A child process running this program with a role; its stdin and stdout are pipes to us,
/// its stderr is ours.
class Child
{
public:
    /// `realtimePriority` above 0 runs the child with SCHED_FIFO at that priority.
    Child(const std::vector<std::string>& arguments, int realtimePriority)
    {
        int toChild[2], fromChild[2];
        if (pipe2(toChild, O_CLOEXEC) < 0 || pipe2(fromChild, O_CLOEXEC) < 0)
            fail("cannot create pipes");
        // The program's own path rather than /proc/self/exe, so that ps and perf show its name.
        static const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(self.c_str()));
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        m_pid = fork();
        if (m_pid < 0)
            fail("cannot fork");
        if (m_pid == 0)
        {
            // Only async-signal-safe calls between fork and exec.
            if (dup2(toChild[0], 0) < 0 || dup2(fromChild[1], 1) < 0)
                _exit(127);
            const sched_param priority{realtimePriority};
            if (realtimePriority > 0 && sched_setscheduler(0, SCHED_FIFO, &priority) < 0)
                _exit(126);
            execv(self.c_str(), argv.data());
            _exit(127);
        }
        close(toChild[0]);
        close(fromChild[1]);
        m_input = toChild[1];
        m_output = fromChild[0];
        m_reader = LineReader(m_output);
    }

    /// Ends the child as end() does with two seconds, stopping it if it has not ended by then.
    ~Child()
    {
        if (!end(2'000))
        {
            std::fprintf(stderr, "stopping child %d, which did not end\n", static_cast<int>(m_pid));
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        close(m_output);
    }

    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return m_pid; }

    void tell(const char* line) { say(m_input, "%s", line); }

    /// The fields of the first line the child says that starts with `key` (said earlier or
    /// within `timeoutMs`); nothing when it does not come. The line stays for later calls.
    std::optional<std::vector<std::string>> await(const std::string& key, int timeoutMs)
    {
        const TimeValue deadline = now() + static_cast<TimeValue>(timeoutMs) * 1'000'000;
        for (;;)
        {
            const auto found = m_said.find(key);
            if (found != m_said.end() && !found->second.empty())
                return found->second.front();
            const TimeValue current = now();
            if (current >= deadline)
                return std::nullopt;
            std::string line;
            const LineReader::Result result =
                m_reader.read(line, static_cast<int>((deadline - current) / 1'000'000) + 1);
            if (result == LineReader::Result::Closed) // a child that has gone says nothing more
                return std::nullopt;
            if (result == LineReader::Result::Nothing)
                continue;
            std::vector<std::string> fields = words(line);
            if (!fields.empty())
                m_said[fields[0]].push_back(std::move(fields));
        }
    }

    /// As await, but the line is used up: a child that says `key` again is heard again.
    std::optional<std::vector<std::string>> take(const std::string& key, int timeoutMs)
    {
        std::optional<std::vector<std::string>> fields = await(key, timeoutMs);
        if (fields)
            m_said[key].pop_front();
        return fields;
    }

    /// Closes the child's input, which ends every role, and waits up to `timeoutMs` for the
    /// child to end; true once it has. exitStatus() tells how it ended.
    bool end(int timeoutMs)
    {
        if (m_input >= 0)
        {
            close(m_input);
            m_input = -1;
        }
        for (int waited = 0; !m_ended; waited += 10)
        {
            m_ended = waitpid(m_pid, &m_status, WNOHANG) != 0;
            if (m_ended || waited >= timeoutMs)
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return m_ended;
    }

    /// The wait status of a child that end() saw ending.
    int exitStatus() const { return m_status; }

private:
    pid_t m_pid = -1;
    int m_input = -1;
    int m_output = -1;
    bool m_ended = false;
    int m_status = 0;
    LineReader m_reader{-1};
    std::map<std::string, std::deque<std::vector<std::string>>> m_said;
};

} // namespace vrxBench
