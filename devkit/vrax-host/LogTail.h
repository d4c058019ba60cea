#pragma once

#include <log4cplus/appender.h>

class EventHub;

// The host's log as the device page shows it: an appender on the root logger that hands each
// line at INFO and above to the event hub, which keeps the last ones and pushes new ones to the
// open pages. Log lines come from any thread; append runs under the appender's own lock.
// Remove it from the root logger before the hub goes.
class LogTail : public log4cplus::Appender
{
public:
    explicit LogTail(EventHub* hub);
    ~LogTail() override;

    void close() override;

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override;

private:
    EventHub* m_hub;
};
