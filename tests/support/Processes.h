#pragma once

// What the suites and the benchmarks share, without GoogleTest: waiting for a condition, a
// scratch TMPDIR, what a process holds, programs in processes of their own with lines to and
// from them, the GStreamer framework's network time provider, and percentiles of a sample.

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace vrx::test {

using namespace std::chrono_literals;

/// Generous: machines running the suite are shared and noisy.
inline constexpr std::chrono::milliseconds conditionDeadline = 30s;

/// Owners of descriptors, directories or registrations are not copied: a copy would release twice.
class NonCopyable
{
public:
    NonCopyable() = default;
    NonCopyable(const NonCopyable&) = delete;
    NonCopyable& operator=(const NonCopyable&) = delete;
};

/// Polls `condition` until it holds (true) or the deadline passes (false).
inline bool waitFor(const std::function<bool()>& condition,
                    std::chrono::milliseconds deadline = conditionDeadline)
{
    for (const auto end = std::chrono::steady_clock::now() + deadline; !condition();
         std::this_thread::sleep_for(1ms))
        if (std::chrono::steady_clock::now() > end)
            return false;
    return true;
}

/// A directory of its own under /tmp, named by TMPDIR from now on (for this process and the
/// children it starts); removed with its content at the end. A death test's child runs its test
/// again from the start and dies without cleaning up: it finds the parent's directory in the
/// environment and works there, so that the parent removes what the child leaves.
class ScratchTmpdir : NonCopyable
{
public:
    ScratchTmpdir() : m_owned(std::getenv("VRX_TEST_SCRATCH") == nullptr)
    {
        m_path = m_owned ? "/tmp/vrx-test-XXXXXX" : std::getenv("VRX_TEST_SCRATCH");
        if (m_owned &&
            (mkdtemp(m_path.data()) == nullptr || setenv("VRX_TEST_SCRATCH", m_path.c_str(), 1) != 0))
            throw std::runtime_error("cannot create a scratch directory");
        setTmpdir(m_path.c_str());
    }
    ~ScratchTmpdir()
    {
        std::error_code ignored;
        if (m_owned && unsetenv("VRX_TEST_SCRATCH") == 0)
            std::filesystem::remove_all(m_path, ignored);
    }
    const std::string& path() const { return m_path; }
    /// Points TMPDIR elsewhere (nullptr unsets it).
    void setTmpdir(const char* value) const { value ? setenv("TMPDIR", value, 1) : unsetenv("TMPDIR"); }

private:
    const bool m_owned;
    std::string m_path;
};

/// What a process (this one by default) holds: its open descriptors ("number -> target") and
/// its threads' ids, each sorted; without the descriptor of the listing itself.
struct ProcessResources
{
    std::vector<std::string> descriptors, threads;
};
inline ProcessResources processResources(pid_t pid = getpid())
{
    const std::filesystem::path process = "/proc/" + std::to_string(pid), self = process / "fd";
    ProcessResources resources;
    for (const auto& [directory, entries] :
         {std::pair{self, &resources.descriptors}, {process / "task", &resources.threads}})
    {
        std::error_code error; // entries may go while they are listed
        for (const auto& entry : std::filesystem::directory_iterator(directory, error))
            if (const std::filesystem::path target = std::filesystem::read_symlink(entry, error);
                target != self)
                entries->push_back(entry.path().filename().string() + " -> " + target.string());
        std::sort(entries->begin(), entries->end());
    }
    return resources;
}

/// The lines that come through a pipe (not owned): all of them, or one after the other.
class LineReader : NonCopyable
{
public:
    explicit LineReader(int fd) : m_fd(fd) {}
    /// Every line so far, taken or not; the last one may still be incomplete.
    std::vector<std::string> lines()
    {
        read(0);
        return split(true);
    }
    /// The next complete line whose first word is `word` (any line for ""), passing over the
    /// lines before it; waits up to `timeout` (for ever when negative). Nothing when none comes
    /// before the time is up or the writer closes its end.
    std::optional<std::string> take(const std::string& word = "", std::chrono::milliseconds timeout = -1ms)
    {
        const auto end = std::chrono::steady_clock::now() + timeout;
        for (int waitMs = 0;;)
        {
            read(waitMs);
            for (const std::vector<std::string> complete = split(false); m_next < complete.size();)
                if ((complete[m_next++] + " ").starts_with(word.empty() ? "" : word + " "))
                    return complete[m_next - 1];
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            if (m_closed || (timeout.count() >= 0 && left.count() <= 0))
                return std::nullopt;
            waitMs = timeout.count() < 0 ? -1 : static_cast<int>(left.count());
        }
    }
    /// True once the writer has closed its end and everything has been read.
    bool closed() const { return m_closed; }

private:
    /// Takes in what has come, waiting up to `timeoutMs` for the first of it; works on blocking
    /// descriptors too, as it reads only what poll reports.
    void read(int timeoutMs)
    {
        pollfd input{m_fd, POLLIN, 0};
        for (char chunk[4096]; !m_closed && ::poll(&input, 1, timeoutMs) > 0; timeoutMs = 0)
        {
            const ssize_t size = ::read(m_fd, chunk, sizeof(chunk));
            m_closed = size == 0;
            if (size < 0)
                return;
            m_text.append(chunk, static_cast<std::size_t>(size));
        }
    }
    std::vector<std::string> split(bool withIncomplete) const
    {
        std::vector<std::string> lines;
        std::istringstream text(m_text);
        for (std::string line; std::getline(text, line) && (withIncomplete || !text.eof());)
            lines.push_back(line);
        return lines;
    }

    const int m_fd;
    std::string m_text;
    std::size_t m_next = 0; // the first line that take() has not passed
    bool m_closed = false;
};

/// A program in a process of its own, its standard output captured; its standard input is ours,
/// or a pipe that tell() writes to. Killed and reaped at the end unless it has ended.
class ChildProcess : NonCopyable
{
public:
    /// `arguments` start with the program's path.
    explicit ChildProcess(std::vector<std::string> arguments, bool withInput = false)
    {
        std::vector<char*> argv;
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        int output[2], input[2] = {-1, -1};
        posix_spawn_file_actions_t actions;
        if (pipe2(output, O_CLOEXEC | O_NONBLOCK) < 0 || (withInput && pipe2(input, O_CLOEXEC) < 0) ||
            posix_spawn_file_actions_init(&actions) != 0)
            throw std::runtime_error("cannot start " + arguments[0]);
        posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
        if (withInput)
            posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
        if (posix_spawn(&m_pid, argv[0], &actions, nullptr, argv.data(), environ) != 0)
            m_pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        for (const int end : {output[1], input[0]})
            ::close(end);
        m_output = output[0];
        m_input = input[1];
        m_printed.emplace(m_output);
    }
    ~ChildProcess()
    {
        stop(SIGKILL);
        for (const int end : {m_output, m_input})
            ::close(end);
    }
    pid_t pid() const { return m_pid; }
    /// The lines the program has printed so far.
    std::vector<std::string> lines() { return m_printed->lines(); }
    /// See LineReader::take.
    std::optional<std::string> take(const std::string& word, std::chrono::milliseconds timeout)
    {
        return m_printed->take(word, timeout);
    }
    /// Waits, bounded, until the program has printed `line` `times` times.
    bool waitFor(const std::string& line, long times = 1)
    {
        return test::waitFor([&] { return std::ranges::count(lines(), line) >= times; });
    }
    /// One line to the program's input; a caller that may outlive its program ignores SIGPIPE.
    void tell(const std::string& line)
    {
        const std::string text = line + "\n";
        if (::write(m_input, text.data(), text.size()) < 0)
        {} // the program has gone; what it failed to say tells
    }
    /// Closes the program's input, which tells it to end, and waits up to `timeout` for it: its
    /// wait status, or nothing when it has not ended.
    std::optional<int> end(std::chrono::milliseconds timeout)
    {
        ::close(std::exchange(m_input, -1));
        int status = 0;
        if (m_pid <= 0 || !test::waitFor([&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; }, timeout))
            return std::nullopt;
        m_pid = -1;
        return status;
    }
    /// Sends `signal` and waits for the process to end; what it printed stays readable.
    void stop(int signal)
    {
        if (m_pid > 0 && ::kill(m_pid, signal) == 0)
            waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }

private:
    pid_t m_pid = -1;
    int m_output = -1, m_input = -1;
    std::optional<LineReader> m_printed;
};

/// The GStreamer framework's own network time provider (tests/tools/gst_net_time_provider.cpp)
/// in a child process, serving its monotonic clock `offsetSeconds` ahead on 127.0.0.1.
class FrameworkTimeProvider : NonCopyable
{
public:
    /// Port 0 picks a free one; port() is 0 when the provider did not come up.
    explicit FrameworkTimeProvider(unsigned int port = 0, long long offsetSeconds = 1000)
        : m_process({VRX_GST_NET_TIME_PROVIDER, std::to_string(port), std::to_string(offsetSeconds)})
    {
        const std::optional<std::string> line = m_process.take("", conditionDeadline);
        m_port = line ? static_cast<unsigned int>(std::atoi(line->c_str())) : 0;
    }
    unsigned int port() const { return m_port; }
    /// Ends the provider and waits for it.
    void stop() { m_process.stop(SIGTERM); }

private:
    ChildProcess m_process;
    unsigned int m_port;
};

/// The value at `fraction` of a sample, between the two nearest ranks: 0.5 the median, 0 the
/// least, 1 the largest; 0 for an empty sample.
template <typename T>
double percentile(std::vector<T> sample, double fraction)
{
    if (sample.empty())
        return 0;
    const double rank = std::clamp(fraction, 0.0, 1.0) * static_cast<double>(sample.size() - 1);
    const auto below = sample.begin() + static_cast<std::ptrdiff_t>(rank);
    std::nth_element(sample.begin(), below, sample.end());
    const double low = static_cast<double>(*below);
    return below + 1 == sample.end()
               ? low
               : low + (rank - std::floor(rank)) *
                           (static_cast<double>(*std::min_element(below + 1, sample.end())) - low);
}

} // namespace vrx::test
