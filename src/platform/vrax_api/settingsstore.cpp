#include "settingsstore.h"

#include "vrax/dbglog.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QSaveFile>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <cmath>
#include <limits>

namespace vrax {

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("Vrax");
}

bool SettingsStore::typedFromJson(const QJsonValue& json, VraxValue* value, QString* error)
{
    VraxValue typed;
    if (json.isString()) {
        typed.setString_(json.toString());
    } else if (json.isBool()) {
        typed.setBool_(json.toBool());
    } else if (json.isDouble()) {
        const double number = json.toDouble();
        if (std::trunc(number) != number || number < std::numeric_limits<qint32>::min()
            || number > std::numeric_limits<qint32>::max()) {
            *error = QStringLiteral("%1 is not a 32-bit integer").arg(number);
            return false;
        }
        typed.setI32_(static_cast<qint32>(number));
    } else {
        *error = QStringLiteral("only strings, integers and booleans are settings");
        return false;
    }
    *value = typed;
    return true;
}

bool SettingsStore::open(const QString& file, bool createIfMissing, QString* error)
{
    QHash<CMPath, VraxValue> values;
    QFile in(file);
    if (!in.exists()) {
        if (!createIfMissing) {
            *error = QStringLiteral("Settings file %1 does not exist").arg(file);
            return false;
        }
    } else {
        if (!in.open(QIODevice::ReadOnly)) {
            *error = QStringLiteral("Cannot read settings file %1: %2").arg(file, in.errorString());
            return false;
        }
        QJsonParseError parseError;
        const QJsonDocument doc = QJsonDocument::fromJson(in.readAll(), &parseError);
        if (parseError.error != QJsonParseError::NoError) {
            *error = QStringLiteral("Settings file %1 is not valid JSON: %2 at offset %3")
                         .arg(file, parseError.errorString())
                         .arg(parseError.offset);
            return false;
        }
        if (!doc.isObject()) {
            *error = QStringLiteral("Settings file %1 must hold one JSON object").arg(file);
            return false;
        }
        const QJsonObject object = doc.object();
        for (auto it = object.begin(); it != object.end(); ++it) {
            VraxValue value;
            QString why;
            if (!typedFromJson(it.value(), &value, &why)) {
                *error = QStringLiteral("Settings file %1, setting \"%2\": %3").arg(file, it.key(), why);
                return false;
            }
            values.insert(CMPath(it.key()), value);
        }
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_file = file;
    m_values = values;
    return true;
}

QString SettingsStore::fileName() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_file;
}

VraxValue SettingsStore::value(const CMPath& path) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_values.value(path);
}

QHash<CMPath, VraxValue> SettingsStore::all() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_values;
}

bool SettingsStore::setValue(const CMPath& path, const VraxValue& value, QString* error)
{
    if (value.hash().size() > 1
        || (value.hash().size() == 1 && !value.hash().contains(VraxValue::I32Key())
            && !value.hash().contains(VraxValue::StringKey()) && !value.hash().contains(VraxValue::BoolKey()))) {
        *error = QStringLiteral("a setting holds one value of type i32_, string_ or bool_");
        return false;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    QHash<CMPath, VraxValue> values = m_values;
    if (value.isEmpty())
        values.remove(path);
    else
        values.insert(path, value);
    if (values == m_values)
        return true;
    // Callers often ignore the reply (the module's token writer does); the log is what a device
    // maker sees of a setting that would be gone after a restart.
    if (!m_file.isEmpty() && !writeLocked(values, error)) {
        LOG4CPLUS_ERROR(logger, *error << "; " << path << " keeps its previous value");
        return false;
    }
    m_values = values;
    return true;
}

bool SettingsStore::writeLocked(const QHash<CMPath, VraxValue>& values, QString* error) const
{
    QJsonObject object;
    for (auto it = values.begin(); it != values.end(); ++it) {
        const QVariantHash& typed = it.value().hash();
        object.insert(it.key().toString(), QJsonValue::fromVariant(typed.begin().value()));
    }
    QSaveFile out(m_file);
    if (!out.open(QIODevice::WriteOnly) || out.write(QJsonDocument(object).toJson()) < 0 || !out.commit()) {
        *error = QStringLiteral("Cannot write settings file %1: %2").arg(m_file, out.errorString());
        return false;
    }
    return true;
}

} // namespace vrax
