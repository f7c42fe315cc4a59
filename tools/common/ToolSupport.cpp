#include "ToolSupport.h"

#include <miscutils/MiscUtils.h>
#include <voraxis/SideChannel.h>

#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>

#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <sstream>

namespace vrxTools {

namespace {

std::string& programNameStorage()
{
    static std::string name = "vrx";
    return name;
}

// Notes and the status line share stderr; one lock keeps their bytes apart.
std::mutex terminalMutex;
bool statusLineShown = false; // terminalMutex

constexpr const char* eraseLine = "\r\x1b[K";

void writeToStderr(const std::string& text)
{
    std::size_t written = 0;
    while (written < text.size())
    {
        const ssize_t result = write(STDERR_FILENO, text.data() + written, text.size() - written);
        if (result <= 0)
            return;
        written += static_cast<std::size_t>(result);
    }
}

constexpr std::string_view logLevels[] = {"trace", "debug", "info", "warn", "error"};

log4cplus::LogLevel toLog4cplusLevel(const std::string& level)
{
    std::string upper = level;
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return std::toupper(c); });
    return log4cplus::getLogLevelManager().fromString(LOG4CPLUS_STRING_TO_TSTRING(upper));
}

// --help on 80 columns: descriptions wrapped under each other, and each option with only its
// value's name (the rules between options are in the descriptions).
class HelpFormatter : public CLI::Formatter
{
public:
    HelpFormatter() { column_width(26); }

    std::string make_option_opts(const CLI::Option* option) const override
    {
        return option->get_type_name().empty() ? "" : " " + option->get_type_name();
    }

    std::string make_option_desc(const CLI::Option* option) const override
    {
        constexpr std::size_t width = 80 - 26;
        std::string wrapped, line, word;
        std::istringstream words(option->get_description());
        while (words >> word)
        {
            if (!line.empty() && line.size() + 1 + word.size() > width)
            {
                wrapped += line + "\n";
                line.clear();
            }
            line += (line.empty() ? "" : " ") + word;
        }
        return wrapped + line;
    }
};

} // namespace

// ---- Messages and the status line ----------------------------------------------------------

void setProgramName(std::string name)
{
    programNameStorage() = std::move(name);
}

const std::string& programName()
{
    return programNameStorage();
}

void printNote(std::string_view message)
{
    std::lock_guard lock(terminalMutex);
    writeToStderr((statusLineShown ? std::string(eraseLine) : std::string()) + programName() + ": " +
                  std::string(message) + "\n");
    statusLineShown = false;
}

std::string printable(std::string_view text)
{
    std::string result = "'";
    for (const char c : text)
    {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\\')
            result += "\\\\";
        else if (c == '\n')
            result += "\\n";
        else if (c == '\t')
            result += "\\t";
        else if (byte < 0x20 || byte == 0x7f)
        {
            char escape[5];
            std::snprintf(escape, sizeof(escape), "\\x%02x", byte);
            result += escape;
        }
        else
            result += c;
    }
    return result + "'";
}

StatusLine::StatusLine() : m_enabled(isatty(STDERR_FILENO) == 1)
{}

bool StatusLine::due(std::uint64_t now)
{
    if (!m_enabled || now < m_nextUpdate)
        return false;
    m_nextUpdate = now + 250'000'000;
    return true;
}

void StatusLine::show(const std::vector<std::string>& fields)
{
    if (!m_enabled)
        return;
    // One column less than the terminal has: a character in the last one may wrap the line.
    std::size_t width = 79;
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1)
        width = size.ws_col - 1u;
    // Whole fields from the left: a cut one (a level meter without its channels) misleads.
    std::string text;
    for (const std::string& field : fields)
    {
        const std::string joined = text.empty() ? field : text + " | " + field;
        if (joined.size() > width)
            break;
        text = joined;
    }
    if (text.empty() && !fields.empty())
        text = fields.front().substr(0, width);
    std::lock_guard lock(terminalMutex);
    writeToStderr(eraseLine + text);
    statusLineShown = true;
}

void StatusLine::clear()
{
    std::lock_guard lock(terminalMutex);
    if (statusLineShown)
        writeToStderr(eraseLine);
    statusLineShown = false;
}

// ---- Command line -----------------------------------------------------------------------

void addCommonOptions(CLI::App& app, CommonOptions& options)
{
    options.logLevelOption =
        app.add_option("--log-level", options.logLevel,
                       "Level of the library's log records on stderr: trace, debug, info, warn or error "
                       "(default warn). Example: --log-level debug")
            ->type_name("LEVEL")
            ->check(CLI::Validator(
                [](std::string& level) -> std::string {
                    std::transform(level.begin(), level.end(), level.begin(),
                                   [](unsigned char c) { return std::tolower(c); });
                    if (std::find(std::begin(logLevels), std::end(logLevels), level) != std::end(logLevels))
                        return {};
                    return "must be trace, debug, info, warn or error, not " + printable(level);
                },
                ""));
    app.add_option("--log-config", options.logConfigFile,
                   "log4cplus properties file configuring the library's logger \"Voraxis\" (appenders, "
                   "layouts, levels). Example: --log-config log4cplus.properties")
        ->type_name("FILE")
        ->check(CLI::Validator(
            [](std::string& path) -> std::string {
                return access(path.c_str(), R_OK) == 0 ? "" : "cannot read " + printable(path);
            },
            ""));
    app.add_option_function<std::string>(
           "--allow",
           [&options](const std::string& text) {
               if (const std::optional<vrx::AccessPolicy> policy = vrx::AccessPolicy::parse(text))
                   options.allow = *policy;
           },
           "Who may take part in the stream besides this user and root: user (nobody else, the default "
           "unless VRX_ALLOW says otherwise), group:NAME (processes in the group NAME, a name or a "
           "number) or everyone (any local process). Both ends of a stream must allow each other. "
           "Example: --allow group:audio")
        ->type_name("WHO")
        ->check(CLI::Validator(
            [](std::string& text) -> std::string {
                return vrx::AccessPolicy::parse(text) ? ""
                                                      : "must be user, group:NAME of an existing group, or "
                                                        "everyone, not " +
                                                            printable(text);
            },
            ""));
    app.set_version_flag("--version", programName() + " " + VRX_VERSION,
                         "Print the program's name and version, then exit.");
}

CLI::Validator addressLength()
{
    // The library would silently cut a longer name.
    return CLI::Validator(
        [](std::string& value) -> std::string {
            if (value.size() <= vrx::MaxSocketAddressLength)
                return {};
            return "too long (" + std::to_string(value.size()) +
                   " bytes); a sender's address is an abstract Unix socket name of at most " +
                   std::to_string(vrx::MaxSocketAddressLength) + " bytes";
        },
        "");
}

CLI::Option* addAddressArgument(CLI::App& app, std::string& address, const std::string& description)
{
    return app.add_option("ADDRESS", address, description)
        ->required()
        ->type_name("")
        ->check(CLI::Validator(
            [](std::string& value) -> std::string { return value.empty() ? "must not be empty" : ""; }, ""))
        ->check(addressLength());
}

CLI::Option* addFormatOption(CLI::App& app, const std::string& name, audioUtils::PcmFormat& format,
                             const std::string& description)
{
    return app
        .add_option_function<std::string>(
            name, [&format](const std::string& value) { format = *audioUtils::toPcmFormat(value); },
            description)
        ->type_name("FORMAT")
        ->check(CLI::Validator(
            [](std::string& value) -> std::string {
                if (audioUtils::toPcmFormat(value))
                    return {};
                std::string known;
                for (std::uint32_t i = 0; i < audioUtils::PcmFormatCount; ++i)
                    known += std::string(i == 0 ? "" : ", ") +
                             audioUtils::toString(static_cast<audioUtils::PcmFormat>(i));
                return "unknown sample format " + printable(value) + " (known: " + known +
                       ", or ALSA's names such as S16_LE)";
            },
            ""));
}

CLI::Validator wholeNumberIn(unsigned long low, unsigned long high)
{
    return CLI::Validator(
        [low, high](std::string& value) -> std::string {
            char* end = nullptr;
            errno = 0;
            const unsigned long number = std::strtoul(value.c_str(), &end, 10);
            if (!value.empty() && value[0] != '-' && *end == '\0' && errno == 0 && number >= low &&
                number <= high)
                return {};
            return "must be a whole number from " + std::to_string(low) + " to " + std::to_string(high) +
                   ", not " + printable(value);
        },
        "");
}

CLI::Validator positiveNumber()
{
    return CLI::Validator(
        [](std::string& value) -> std::string {
            char* end = nullptr;
            const double number = std::strtod(value.c_str(), &end);
            if (!value.empty() && *end == '\0' && number > 0 && number < 1e9)
                return {};
            return "must be a positive number, not " + printable(value);
        },
        "");
}

int parseCommandLine(CLI::App& app, int argc, char** argv)
{
    app.formatter(std::make_shared<HelpFormatter>());
    try
    {
        app.parse(argc, argv);
        return -1;
    }
    catch (const CLI::CallForHelp&)
    {
        std::cout << app.help();
        return 0;
    }
    catch (const CLI::CallForVersion& version)
    {
        std::cout << version.what() << "\n";
        return 0;
    }
    catch (const CLI::ParseError& error)
    {
        printNote(std::string(error.what()) + " (see --help)");
        return 2;
    }
}

// ---- Set-up -----------------------------------------------------------------------------

void configureLogging(const CommonOptions& options)
{
    log4cplus::Logger library = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Voraxis"));
    if (!options.logConfigFile.empty())
    {
        log4cplus::PropertyConfigurator::doConfigure(LOG4CPLUS_STRING_TO_TSTRING(options.logConfigFile));
        if (options.logLevelOption != nullptr && options.logLevelOption->count() > 0)
            library.setLogLevel(toLog4cplusLevel(options.logLevel));
        return;
    }
    // On a terminal with a status line, a record first erases the line it would run into.
    const std::string prefix = isatty(STDERR_FILENO) == 1 ? eraseLine : "";
    log4cplus::SharedAppenderPtr appender(
        new log4cplus::ConsoleAppender(true /* stderr */, true /* flush */));
    appender->setLayout(std::make_unique<log4cplus::PatternLayout>(
        LOG4CPLUS_STRING_TO_TSTRING(prefix + programName() + ": [%c %p] %m%n")));
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    root.removeAllAppenders();
    root.addAppender(appender);
    root.setLogLevel(toLog4cplusLevel(options.logLevel));
    library.setLogLevel(toLog4cplusLevel(options.logLevel));
}

bool ensureSenderParentDirectory()
{
    const std::string directory = vrx::getSenderParentDirectory();
    if (directory.empty())
    {
        printNote("TMPDIR is set but empty; set it to the directory in which senders appear");
        return false;
    }
    switch (vrx::makeSenderParentDirectory())
    {
    case vrx::SenderParentDirectory::Existing: return true;
    case vrx::SenderParentDirectory::Created:
        printNote("created " + printable(directory) +
                  " (mode 1777, like /tmp), where senders appear and receivers look");
        return true;
    case vrx::SenderParentDirectory::NotADirectory:
        printNote(printable(directory) + " is not a directory; senders appear in the directory TMPDIR names");
        return false;
    case vrx::SenderParentDirectory::Failed: break;
    }
    printNote("cannot create " + printable(directory) + ": " + miscUtils::strerror_r_safe(errno));
    return false;
}

int connectAbstractSocket(const std::string& address)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    sockaddr_un socketAddress;
    const socklen_t addressLength = vrx::makeAbstractSocketAddress(address, socketAddress);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&socketAddress), addressLength) == 0)
        return fd;
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

SignalDescriptor::SignalDescriptor()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    m_fd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

SignalDescriptor::~SignalDescriptor()
{
    if (m_fd >= 0)
        close(m_fd);
}

int SignalDescriptor::take()
{
    signalfd_siginfo info{};
    if (read(m_fd, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info)))
        return static_cast<int>(info.ssi_signo);
    return 0;
}

WakeUpEvent::WakeUpEvent() : m_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{}

WakeUpEvent::~WakeUpEvent()
{
    if (m_fd >= 0)
        close(m_fd);
}

void WakeUpEvent::notify()
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(m_fd, &one, sizeof(one));
}

} // namespace vrxTools
