#pragma once

#include <QString>

namespace vrax {

// Logging of a platform process: with no file, INFO and above to standard error; otherwise
// the log4cplus properties file replaces that. False (and error) when the file is unreadable.
bool initLogging(const QString& propertiesFile, QString* error);

} // namespace vrax
