#include "Faults.h"

bool parseNumber(const QString& text, int min, int max, int* value)
{
    bool ok = false;
    const int number = text.toInt(&ok);
    if (!ok || number < min || number > max)
        return false;
    *value = number;
    return true;
}

bool addFault(Faults& faults, const QString& mode, QString* error)
{
    const int eq = mode.indexOf(QLatin1Char('='));
    const QString name = eq < 0 ? mode : mode.left(eq);
    const QString argument = eq < 0 ? QString() : mode.mid(eq + 1);
    const bool hasArgument = eq >= 0;
    bool ok = true;
    if (name == QLatin1String("config-status"))
        ok = hasArgument && parseNumber(argument, 100, 599, &faults.configStatus);
    else if (name == QLatin1String("library-status"))
        ok = hasArgument && parseNumber(argument, 100, 599, &faults.libraryStatus);
    else if (name == QLatin1String("config-delay"))
        ok = hasArgument && parseNumber(argument, 0, 600000, &faults.configDelayMs);
    else if (name == QLatin1String("library-delay"))
        ok = hasArgument && parseNumber(argument, 0, 600000, &faults.libraryDelayMs);
    else if (name == QLatin1String("library-stall"))
        ok = hasArgument && parseNumber(argument, 0, 600000, &faults.libraryStallMs);
    else if (name == QLatin1String("config-drip"))
        ok = hasArgument && parseNumber(argument, 1, 600000, &faults.configDripMs);
    else if (name == QLatin1String("signature-version") && hasArgument)
        faults.signatureVersion = argument;
    else if (hasArgument)
        ok = false;
    else if (name == QLatin1String("config-empty"))
        faults.configEmpty = true;
    else if (name == QLatin1String("config-not-json"))
        faults.configNotJson = true;
    else if (name == QLatin1String("config-missing-fields"))
        faults.configMissingFields = true;
    else if (name == QLatin1String("config-wrong-types"))
        faults.configWrongTypes = true;
    else if (name == QLatin1String("config-long-version"))
        faults.configLongVersion = true;
    else if (name == QLatin1String("library-truncated"))
        faults.libraryTruncated = true;
    else if (name == QLatin1String("library-oversized"))
        faults.libraryOversized = true;
    else if (name == QLatin1String("library-oversized-chunked"))
        faults.libraryOversizedChunked = true;
    else if (name == QLatin1String("wrong-checksum"))
        faults.wrongChecksum = true;
    else if (name == QLatin1String("uppercase-checksum"))
        faults.uppercaseChecksum = true;
    else if (name == QLatin1String("signature-missing"))
        faults.signatureMissing = true;
    else if (name == QLatin1String("signature-other-key"))
        faults.signatureOtherKey = true;
    else if (name == QLatin1String("config-endless"))
        faults.configEndless = true;
    else if (name == QLatin1String("config-control-version"))
        faults.configControlVersion = true;
    else if (name == QLatin1String("config-control-link"))
        faults.configControlLink = true;
    else {
        *error = QStringLiteral("unknown failure mode '%1'").arg(mode);
        return false;
    }
    if (!ok) {
        *error = QStringLiteral("malformed failure mode '%1'").arg(mode);
        return false;
    }
    faults.modes << mode;
    return true;
}

QString missingForFaults(const Faults& faults, bool hasOtherKey)
{
    if (faults.signatureOtherKey && !hasOtherKey)
        return QStringLiteral("signature-other-key needs --other-signing-key");
    return QString();
}
