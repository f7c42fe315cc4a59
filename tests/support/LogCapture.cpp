#include "LogCapture.h"

#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

#include <algorithm>

namespace vrx::test {

class LogCapture::Appender : public log4cplus::Appender
{
public:
    ~Appender() override { destructorImpl(); }

    void close() override {}

    std::vector<LogRecord> records() const
    {
        std::lock_guard lock(m_recordsMutex);
        return m_records;
    }

    void clear()
    {
        std::lock_guard lock(m_recordsMutex);
        m_records.clear();
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        std::lock_guard lock(m_recordsMutex);
        m_records.push_back({event.getLogLevel(), event.getMessage()});
    }

private:
    mutable std::mutex m_recordsMutex;
    std::vector<LogRecord> m_records;
};

namespace {
log4cplus::Logger voraxisLogger()
{
    return log4cplus::Logger::getInstance("Voraxis");
}
} // namespace

LogCapture::LogCapture() : m_recorder(new Appender)
{
    m_appender = log4cplus::SharedAppenderPtr(m_recorder);
    log4cplus::Logger logger = voraxisLogger();
    m_previousLevel = logger.getLogLevel();
    m_previousAdditivity = logger.getAdditivity();
    logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
    logger.setAdditivity(false);
    logger.addAppender(m_appender);
}

LogCapture::~LogCapture()
{
    log4cplus::Logger logger = voraxisLogger();
    logger.removeAppender(m_appender);
    logger.setLogLevel(m_previousLevel);
    logger.setAdditivity(m_previousAdditivity);
}

std::vector<LogRecord> LogCapture::records() const
{
    return m_recorder->records();
}

std::vector<std::string> LogCapture::messages() const
{
    std::vector<std::string> result;
    for (const LogRecord& record : records())
        result.push_back(record.message);
    return result;
}

std::vector<std::string> LogCapture::messages(log4cplus::LogLevel level) const
{
    std::vector<std::string> result;
    for (const LogRecord& record : records())
        if (record.level == level)
            result.push_back(record.message);
    return result;
}

std::size_t LogCapture::count(const std::string& message) const
{
    const auto all = records();
    return static_cast<std::size_t>(std::count_if(
        all.begin(), all.end(), [&](const LogRecord& record) { return record.message == message; }));
}

std::size_t LogCapture::count(log4cplus::LogLevel level, const std::string& message) const
{
    const auto all = records();
    return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), [&](const LogRecord& record) {
        return record.level == level && record.message == message;
    }));
}

bool LogCapture::contains(const std::string& fragment) const
{
    const auto all = records();
    return std::any_of(all.begin(), all.end(), [&](const LogRecord& record) {
        return record.message.find(fragment) != std::string::npos;
    });
}

void LogCapture::clear()
{
    m_recorder->clear();
}

} // namespace vrx::test
