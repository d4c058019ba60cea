#pragma once

#include <log4cplus/appender.h>
#include <log4cplus/loglevel.h>

#include <QList>
#include <QString>
#include <QStringList>

#include <mutex>

// Captures every log line (all loggers, TRACE and up) while it lives, with logger and level,
// so tests can assert on exact text and level. Thread-safe: lines may come from any thread.
class LogCapture
{
public:
    struct Line
    {
        QString logger;
        log4cplus::LogLevel level;
        QString message;
    };

    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    QList<Line> lines() const;
    void clear();

    // Messages at exactly this level, in order (optionally of one logger).
    QStringList messages(log4cplus::LogLevel level, const QString& logger = QString()) const;
    // Messages at this level or above.
    QStringList messagesAtLeast(log4cplus::LogLevel level) const;
    // How many lines have exactly this level and text.
    int count(log4cplus::LogLevel level, const QString& message) const;
    bool contains(log4cplus::LogLevel level, const QString& message) const { return count(level, message) > 0; }
    // Every line as "LEVEL logger: message", for failure output.
    QString dump() const;

private:
    class Appender;
    struct Store
    {
        mutable std::mutex mutex;
        QList<Line> lines;
    };
    std::shared_ptr<Store> m_store;
    log4cplus::SharedAppenderPtr m_appender;
    log4cplus::LogLevel m_previousLevel;
};
