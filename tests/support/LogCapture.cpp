#include "LogCapture.h"

#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

class LogCapture::Appender : public log4cplus::Appender
{
public:
    explicit Appender(std::shared_ptr<Store> store) : m_store(std::move(store)) {}
    ~Appender() override { destructorImpl(); }
    void close() override { closed = true; }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        std::lock_guard<std::mutex> lock(m_store->mutex);
        m_store->lines.append(Line{QString::fromStdString(event.getLoggerName()), event.getLogLevel(),
                                   QString::fromUtf8(event.getMessage().c_str())});
    }

private:
    std::shared_ptr<Store> m_store;
};

LogCapture::LogCapture() : m_store(std::make_shared<Store>())
{
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    m_previousLevel = root.getLogLevel();
    m_appender = log4cplus::SharedAppenderPtr(new Appender(m_store));
    m_appender->setName("LogCapture");
    root.addAppender(m_appender);
    root.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
}

LogCapture::~LogCapture()
{
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    root.removeAppender(m_appender);
    root.setLogLevel(m_previousLevel);
}

QList<LogCapture::Line> LogCapture::lines() const
{
    std::lock_guard<std::mutex> lock(m_store->mutex);
    return m_store->lines;
}

void LogCapture::clear()
{
    std::lock_guard<std::mutex> lock(m_store->mutex);
    m_store->lines.clear();
}

QStringList LogCapture::messages(log4cplus::LogLevel level, const QString& logger) const
{
    QStringList result;
    for (const Line& line : lines())
        if (line.level == level && (logger.isEmpty() || line.logger == logger))
            result << line.message;
    return result;
}

QStringList LogCapture::messagesAtLeast(log4cplus::LogLevel level) const
{
    QStringList result;
    for (const Line& line : lines())
        if (line.level >= level)
            result << line.message;
    return result;
}

int LogCapture::count(log4cplus::LogLevel level, const QString& message) const
{
    int n = 0;
    for (const Line& line : lines())
        if (line.level == level && line.message == message)
            ++n;
    return n;
}

QString LogCapture::dump() const
{
    QString text;
    for (const Line& line : lines())
        text += QString::fromStdString(log4cplus::getLogLevelManager().toString(line.level)) + QLatin1Char(' ')
            + line.logger + QStringLiteral(": ") + line.message + QLatin1Char('\n');
    return text;
}
