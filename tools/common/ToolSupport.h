#pragma once

// What vrx-send, vrx-recv and vrx-probe share: the command line, the library's logging, the
// directory in which senders appear, messages and the live status line on stderr, and
// signals as a descriptor that a poll can wait for.

#include <audioutils/PcmFormat.h>
#include <voraxis/AccessPolicy.h>
#include <miscutils/MiscUtils.h>

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vrxTools {

/// The monotonic clock, on which the tools pace, stamp and measure frames.
inline miscUtils::TimeValue now()
{
    return miscUtils::getMonotonicSysclockTime();
}

// ---- Messages and the status line ----------------------------------------------------------

/// Names the program in every message ("vrx-send"); call first.
void setProgramName(std::string name);
const std::string& programName();

/// "<program>: <message>" as one line on stderr, on a line of its own even while a status
/// line is shown. Safe from any thread.
void printNote(std::string_view message);

/// `text` in single quotes, with control characters and backslashes escaped (\n, \x1b, \\),
/// so that an address or a path from the command line cannot break a line or move the cursor.
std::string printable(std::string_view text);

/// The one-line live status on stderr, redrawn in place with '\r'. Only when stderr is a
/// terminal: otherwise every call does nothing, so that logs and pipes stay clean.
class StatusLine
{
public:
    StatusLine();
    bool enabled() const { return m_enabled; }
    /// True at most four times a second: whether to build and show a new line now.
    bool due(std::uint64_t now);
    /// Replaces the line with the fields joined by " | ", as many from the left as fit the
    /// terminal's width (80 columns when it does not say) without wrapping.
    void show(const std::vector<std::string>& fields);
    /// Removes the line before the program prints its last words.
    void clear();

private:
    bool m_enabled;
    std::uint64_t m_nextUpdate = 0;
};

// ---- Command line -----------------------------------------------------------------------

/// The options every tool has.
struct CommonOptions
{
    std::string logLevel = "warn";
    std::string logConfigFile;
    CLI::Option* logLevelOption = nullptr;
    vrx::AccessPolicy allow = vrx::AccessPolicy::fromEnvironment();
};

/// --log-level, --log-config, --allow (who may take part, VRX_ALLOW's value by default) and
/// --version (which prints "<program> <project version>").
void addCommonOptions(CLI::App& app, CommonOptions& options);

/// The positional ADDRESS: the sender's sidechannel address, an abstract Unix socket name of
/// 1 to vrx::MaxSocketAddressLength bytes.
CLI::Option* addAddressArgument(CLI::App& app, std::string& address, const std::string& description);
/// The same check for an optional address, which may be empty.
CLI::Validator addressLength();

/// An option taking a sample format name such as S16LE or ALSA's S16_LE, in any letter case.
CLI::Option* addFormatOption(CLI::App& app, const std::string& name, audioUtils::PcmFormat& format,
                             const std::string& description);

/// A validator for whole numbers in [low, high] with a message that says so.
CLI::Validator wholeNumberIn(unsigned long low, unsigned long high);
/// A validator for positive decimal numbers (seconds).
CLI::Validator positiveNumber();

/// Parses the command line. Returns -1 when the program goes on, else its exit code: 0 after
/// printing --help or --version, 2 after printing a one-line error.
int parseCommandLine(CLI::App& app, int argc, char** argv);

// ---- Set-up -----------------------------------------------------------------------------

/// Configures log4cplus, through which the library logs under the logger "Voraxis": from the
/// properties file when one is given (with --log-level, when given too, applied to "Voraxis"
/// afterwards), else one-line records on stderr at the chosen level.
void configureLogging(const CommonOptions& options);

/// Creates vrx::getSenderParentDirectory() when it is missing, with mode 1777 like /tmp so that
/// producers and consumers of different users meet there, and says so. False, after a
/// message, when it is missing and cannot be made.
bool ensureSenderParentDirectory();

/// A Unix stream socket connected to the abstract socket name `address` (where a sender
/// listens), or -1 with errno set.
int connectAbstractSocket(const std::string& address);

/// SIGINT, SIGTERM and SIGHUP (a closed terminal or ssh session) delivered through a
/// descriptor instead of a handler. Construct it first in main: it blocks them in the calling
/// thread, so every thread started afterwards (the library's too) inherits the mask and only
/// the descriptor sees them. SIGPIPE is ignored, so that writing to a closed pipe fails with
/// EPIPE instead of killing the program.
class SignalDescriptor
{
public:
    SignalDescriptor();
    ~SignalDescriptor();
    SignalDescriptor(const SignalDescriptor&) = delete;
    SignalDescriptor& operator=(const SignalDescriptor&) = delete;

    int fd() const { return m_fd; }
    /// The pending signal's number, or 0; does not wait.
    int take();

private:
    int m_fd = -1;
};

/// A descriptor that any thread can make readable to wake a poll (an eventfd).
class WakeUpEvent
{
public:
    WakeUpEvent();
    ~WakeUpEvent();
    WakeUpEvent(const WakeUpEvent&) = delete;
    WakeUpEvent& operator=(const WakeUpEvent&) = delete;

    int fd() const { return m_fd; }
    void notify();

private:
    int m_fd = -1;
};

} // namespace vrxTools
