#include "vraxlogging.h"

#include <QFileInfo>

#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>

namespace vrax {

bool initLogging(const QString& propertiesFile, QString* error)
{
    if (!propertiesFile.isEmpty()) {
        const QFileInfo info(propertiesFile);
        if (!info.isFile() || !info.isReadable()) {
            *error = QStringLiteral("Cannot read log configuration %1").arg(propertiesFile);
            return false;
        }
        log4cplus::PropertyConfigurator::doConfigure(propertiesFile.toStdString());
        return true;
    }
    log4cplus::SharedAppenderPtr appender(new log4cplus::ConsoleAppender(true, true));
    appender->setLayout(std::make_unique<log4cplus::PatternLayout>("%D{%H:%M:%S.%q} %-5p [%c] %m%n"));
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    root.removeAllAppenders();
    root.addAppender(appender);
    root.setLogLevel(log4cplus::INFO_LOG_LEVEL);
    return true;
}

} // namespace vrax
