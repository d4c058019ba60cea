#pragma once

#include "model/cmpath.h"
#include "vrax/vraxvalue.h"

#include <QHash>
#include <QSet>
#include <QString>

#include <memory>
#include <mutex>

class QTimer;

namespace vrax {

// The device's settings: typed values by path, persisted as a JSON object from path string to
// a plain JSON value (string, integer, bool). Thread-safe.
//
// Every change takes effect at once and is written back atomically (a temporary file renamed
// over the old one, which carries the old file's mode; a new file is 0600 whatever the umask).
// A change the file cannot take stays in the store, unsaved: it is reported at ERROR once, and
// written with everything else by the next change, by a retry (1 s, doubling up to 60 s) or at
// the latest when the store is destroyed. Retries run on the thread that created the store,
// from its event loop.
class SettingsStore
{
public:
    SettingsStore();
    // Writes what is still unsaved (the process's exit).
    ~SettingsStore();
    SettingsStore(const SettingsStore&) = delete;
    SettingsStore& operator=(const SettingsStore&) = delete;

    // Loads file. A missing file is an empty store when createIfMissing (it is written on the
    // first change), an error otherwise. On error the store is left as it was; on success
    // nothing is unsaved any more.
    bool open(const QString& file, bool createIfMissing, QString* error);
    QString fileName() const;

    // The typed hash at path; empty when nobody set it.
    VraxValue value(const CMPath& path) const;
    // Stores value (one typed entry; an empty value removes the setting). False with the reason
    // in error when the value is refused (not stored), or when it is stored but the file cannot
    // be written now (*unsaved is then true: the value is in effect and written later).
    bool setValue(const CMPath& path, const VraxValue& value, QString* error, bool* unsaved = nullptr);
    QHash<CMPath, VraxValue> all() const;

    // Typed value of a plain JSON value; false (and error) for anything but a string, a 32-bit
    // integer or a bool.
    static bool typedFromJson(const class QJsonValue& json, VraxValue* value, QString* error);

private:
    enum class Attempt { Change, Retry, Exit };
    // With m_mutex held: writes m_values, logs what became of the unsaved values; false with the
    // reason in error.
    bool writeLocked(Attempt attempt, QString* error);
    void scheduleRetry(int delayMs);
    void retry();

    mutable std::mutex m_mutex;
    QString m_file;
    QHash<CMPath, VraxValue> m_values;
    QSet<CMPath> m_unsaved;
    bool m_failing = false; // the last write failed
    int m_retryDelayMs = 0; // 0 while no retry is scheduled
    // Lives on the creating thread; started through its event loop from any thread.
    std::unique_ptr<QTimer> m_retryTimer;
};

} // namespace vrax
