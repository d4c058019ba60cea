#pragma once

#include "model/cmpath.h"
#include "vrax/vraxvalue.h"

#include <QHash>
#include <QString>

#include <mutex>

namespace vrax {

// The device's settings: typed values by path, persisted as a JSON object from path string to
// a plain JSON value (string, integer, bool). Thread-safe. Every change is written back
// atomically before it counts; a change that cannot be written is refused and not kept.
class SettingsStore
{
public:
    // Loads file. A missing file is an empty store when createIfMissing (it is written on the
    // first change), an error otherwise. On error the store is left as it was.
    bool open(const QString& file, bool createIfMissing, QString* error);
    QString fileName() const;

    // The typed hash at path; empty when nobody set it.
    VraxValue value(const CMPath& path) const;
    // Stores value (one typed entry; an empty value removes the setting).
    bool setValue(const CMPath& path, const VraxValue& value, QString* error);
    QHash<CMPath, VraxValue> all() const;

    // Typed value of a plain JSON value; false (and error) for anything but a string, a 32-bit
    // integer or a bool.
    static bool typedFromJson(const class QJsonValue& json, VraxValue* value, QString* error);

private:
    bool writeLocked(const QHash<CMPath, VraxValue>& values, QString* error) const;

    mutable std::mutex m_mutex;
    QString m_file;
    QHash<CMPath, VraxValue> m_values;
};

} // namespace vrax
