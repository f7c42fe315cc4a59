#pragma once

#include <log4cplus/appender.h>
#include <log4cplus/loglevel.h>

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

namespace vrx::test {

struct LogRecord
{
    log4cplus::LogLevel level;
    std::string message;
};

/// Records every event of the "Voraxis" logger, at every level, for the lifetime of the object.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogRecord> records() const;
    std::vector<std::string> messages() const;
    /// Messages logged at exactly `level`.
    std::vector<std::string> messages(log4cplus::LogLevel level) const;
    /// How many records have exactly this message (and, when given, this level).
    std::size_t count(const std::string& message) const;
    std::size_t count(log4cplus::LogLevel level, const std::string& message) const;
    /// True when a record's message contains `fragment`.
    bool contains(const std::string& fragment) const;
    void clear();

private:
    class Appender;
    log4cplus::SharedAppenderPtr m_appender;
    Appender* m_recorder;
    log4cplus::LogLevel m_previousLevel;
    bool m_previousAdditivity;
};

/// Fixture for suites that check what the library logs.
class LogCaptureTest : public ::testing::Test
{
protected:
    LogCapture m_log;
};

} // namespace vrx::test
