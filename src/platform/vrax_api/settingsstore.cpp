#include "settingsstore.h"

#include "vrax/dbglog.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QTimer>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>

namespace vrax {

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("Vrax");

constexpr int kFirstRetryMs = 1000;
constexpr int kLastRetryMs = 60000;

// "what (reason of errno)"; what says "it" for the settings file itself.
QString systemError(const QString& what)
{
    return QStringLiteral("%1 (%2)").arg(what, QString::fromLocal8Bit(std::strerror(errno)));
}

// Replaces file with bytes through a temporary file beside it and a rename, so a crash leaves
// the old or the new file. QSaveFile would create a first file with whatever mode the umask
// leaves (0644, or 0666 under umask 000), readable by every account, and the settings hold
// secrets: the temporary file is created 0600, then given the mode of the file it replaces.
// Who could not read the old file cannot read the new one: when its owner or group cannot be
// carried over (the process is not root), group and others lose access.
bool writeAtomically(const QString& file, const QByteArray& bytes, QString* error)
{
    // A link stays a link: its target is what gets replaced.
    const QFileInfo info(file);
    const QString target = info.isSymLink() && info.exists() ? info.canonicalFilePath() : file;
    const QByteArray path = QFile::encodeName(target);
    struct stat existing = {};
    const bool exists = ::stat(path.constData(), &existing) == 0;
    if (exists && !S_ISREG(existing.st_mode)) {
        *error = QStringLiteral("it is not a regular file");
        return false;
    }
    // A file made read-only (or on a read-only mount) is not replaced behind its owner's back.
    if (exists && ::access(path.constData(), W_OK) != 0) {
        *error = systemError(QStringLiteral("it is not writable"));
        return false;
    }
    QByteArray temporary = path + ".XXXXXX";
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        *error = systemError(QStringLiteral("cannot create a temporary file beside it"));
        return false;
    }
    const QString temporaryName = QFile::decodeName(temporary);
    auto failWith = [&](const QString& why) {
        ::close(fd);
        ::unlink(temporary.constData());
        *error = why;
        return false;
    };
    mode_t mode = exists ? existing.st_mode & 0777 : 0600;
    if (exists && (existing.st_uid != ::geteuid() || existing.st_gid != ::getegid())
        && ::fchown(fd, existing.st_uid, existing.st_gid) != 0)
        mode &= 0700;
    if (::fchmod(fd, mode) != 0)
        return failWith(systemError(QStringLiteral("cannot set the mode of ") + temporaryName));
    for (qsizetype written = 0; written < bytes.size();) {
        const ssize_t n = ::write(fd, bytes.constData() + written, std::size_t(bytes.size() - written));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return failWith(systemError(QStringLiteral("cannot write ") + temporaryName));
        written += n;
    }
    if (::fsync(fd) != 0)
        return failWith(systemError(QStringLiteral("cannot flush ") + temporaryName));
    ::close(fd);
    if (::rename(temporary.constData(), path.constData()) != 0) {
        *error = systemError(QStringLiteral("cannot rename %1 over it").arg(temporaryName));
        ::unlink(temporary.constData());
        return false;
    }
    // The rename itself survives a power cut once the directory is flushed.
    const int dir = ::open(QFile::encodeName(QFileInfo(target).absolutePath()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        ::fsync(dir);
        ::close(dir);
    }
    return true;
}

QString pathList(const QSet<CMPath>& paths)
{
    QStringList names;
    for (const CMPath& path : paths)
        names << path.toString();
    names.sort();
    return names.join(QStringLiteral(", "));
}
} // namespace

SettingsStore::SettingsStore() : m_retryTimer(std::make_unique<QTimer>())
{
    m_retryTimer->setSingleShot(true);
    QObject::connect(m_retryTimer.get(), &QTimer::timeout, m_retryTimer.get(), [this] { retry(); });
}

SettingsStore::~SettingsStore()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_unsaved.isEmpty())
        return;
    QString why;
    writeLocked(Attempt::Exit, &why);
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
    m_unsaved.clear();
    m_failing = false;
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

bool SettingsStore::setValue(const CMPath& path, const VraxValue& value, QString* error, bool* unsaved)
{
    if (unsaved)
        *unsaved = false;
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
    const bool changed = values != m_values;
    if (m_file.isEmpty() || (!changed && m_unsaved.isEmpty())) {
        m_values = values;
        return true;
    }
    m_values = values;
    // Each value is reported once, however often the file fails it afterwards.
    const bool firstFailure = changed && !m_unsaved.contains(path);
    if (changed)
        m_unsaved.insert(path);
    const bool wasFailing = m_failing;
    QString why;
    if (writeLocked(Attempt::Change, &why))
        return true;
    // Callers often ignore the reply (the module's token writer does); the log is what a device
    // maker sees of a setting that is not on disk yet.
    if (firstFailure)
        LOG4CPLUS_ERROR(logger, "Cannot write settings file " << m_file << ": " << why << "; " << path
                                                              << " keeps its new value unsaved until the file can be "
                                                                 "written (retried with back-off, and at exit)");
    // A new run of failures starts its back-off afresh.
    if (!wasFailing || m_retryDelayMs == 0)
        scheduleRetry(kFirstRetryMs);
    *error = QStringLiteral("settings file %1 cannot be written (%2); the new value is in effect and is saved as soon "
                            "as the file can be written")
                 .arg(m_file, why);
    if (unsaved)
        *unsaved = true;
    return false;
}

bool SettingsStore::writeLocked(Attempt attempt, QString* error)
{
    QJsonObject object;
    for (auto it = m_values.begin(); it != m_values.end(); ++it) {
        const QVariantHash& typed = it.value().hash();
        object.insert(it.key().toString(), QJsonValue::fromVariant(typed.begin().value()));
    }
    if (!writeAtomically(m_file, QJsonDocument(object).toJson(), error)) {
        m_failing = true;
        if (attempt == Attempt::Exit)
            LOG4CPLUS_ERROR(logger, "Cannot write settings file " << m_file << " at exit: " << *error
                                                                  << "; lost: " << pathList(m_unsaved));
        return false;
    }
    if (m_failing || attempt != Attempt::Change)
        LOG4CPLUS_INFO(logger, "Settings file " << m_file << " written" << (attempt == Attempt::Exit ? " at exit" : "")
                                                << "; saved at last: " << pathList(m_unsaved));
    m_failing = false;
    m_unsaved.clear();
    return true;
}

void SettingsStore::scheduleRetry(int delayMs)
{
    m_retryDelayMs = delayMs;
    QTimer* timer = m_retryTimer.get();
    QMetaObject::invokeMethod(timer, [timer, delayMs] { timer->start(delayMs); });
}

void SettingsStore::retry()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const int next = std::min(2 * m_retryDelayMs, kLastRetryMs);
    m_retryDelayMs = 0;
    if (m_unsaved.isEmpty())
        return;
    QString why;
    if (writeLocked(Attempt::Retry, &why))
        return;
    LOG4CPLUS_DEBUG(logger, "Settings file " << m_file << " still cannot be written: " << why << "; next try in "
                                             << next / 1000 << " s");
    scheduleRetry(next);
}

} // namespace vrax
