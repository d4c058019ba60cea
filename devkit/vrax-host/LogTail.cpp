#include "LogTail.h"

#include "EventHub.h"

#include <QJsonObject>
#include <QString>

#include <log4cplus/layout.h>
#include <log4cplus/spi/loggingevent.h>

LogTail::LogTail(EventHub* hub) : m_hub(hub)
{
    // The same line as the console shows, without its newline.
    layout = std::make_unique<log4cplus::PatternLayout>("%D{%H:%M:%S.%q} %-5p [%c] %m");
    setThreshold(log4cplus::INFO_LOG_LEVEL);
}

LogTail::~LogTail()
{
    destructorImpl();
}

void LogTail::close()
{
    closed = true;
}

void LogTail::append(const log4cplus::spi::InternalLoggingEvent& event)
{
    const log4cplus::tstring& level = log4cplus::getLogLevelManager().toString(event.getLogLevel());
    m_hub->publishLog(EventHub::event("log", QJsonObject{{QStringLiteral("level"), QString::fromStdString(level)},
                                                         {QStringLiteral("text"), QString::fromStdString(formatEvent(event))}}));
}
