#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// What the service is told to get wrong; every field off by default.
struct Faults
{
    int configStatus = 0;
    int libraryStatus = 0;
    int configDelayMs = 0;
    int libraryDelayMs = 0;
    int libraryStallMs = 0;
    bool configEmpty = false;
    bool configNotJson = false;
    bool configMissingFields = false;
    bool configWrongTypes = false;
    bool configLongVersion = false;
    bool libraryTruncated = false;
    bool libraryOversized = false;
    bool libraryOversizedChunked = false;
    bool wrongChecksum = false;
    bool uppercaseChecksum = false;
    bool signatureMissing = false;
    bool signatureOtherKey = false;
    std::optional<QString> signatureVersion; // signed instead of the offered version
    bool configEndless = false;
    int configDripMs = 0;
    bool configControlVersion = false;
    bool configControlLink = false;
    QStringList modes;
};

// A whole number from min to max in text; false, leaving value alone, for anything else.
bool parseNumber(const QString& text, int min, int max, int* value);
// Adds one failure mode (as --fail and the admin API name it); false with a message when the
// mode is unknown or malformed.
bool addFault(Faults& faults, const QString& mode, QString* error);
// A mode that needs something the service was not started with; empty when none does.
QString missingForFaults(const Faults& faults, bool hasOtherKey);
