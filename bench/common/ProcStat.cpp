#include "ProcStat.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QList>

#include <sys/utsname.h>
#include <unistd.h>

namespace bench {

namespace {

// The fields of a /proc/.../stat file from the state (field 3) on; name gets the command name.
// Empty when the file cannot be read.
QList<QByteArray> statFields(const QString& path, QByteArray* name = nullptr)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray text = file.readAll();
    const int open = text.indexOf('('), close = text.lastIndexOf(')');
    if (open < 0 || close < open)
        return {};
    if (name)
        *name = text.mid(open + 1, close - open - 1);
    return text.mid(close + 2).simplified().split(' ');
}

// user+sys CPU seconds from statFields; -1 when they are not there.
double cpuSeconds(const QList<QByteArray>& fields)
{
    if (fields.size() < 13)
        return -1;
    return double(fields.at(11).toLongLong() + fields.at(12).toLongLong()) / double(sysconf(_SC_CLK_TCK));
}

QString cpuModel()
{
    QFile file(QStringLiteral("/proc/cpuinfo"));
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    for (const QByteArray& line : file.readAll().split('\n'))
        if (line.startsWith("model name"))
            return QString::fromUtf8(line.mid(line.indexOf(':') + 1)).trimmed();
    return QString();
}

} // namespace

double processCpuSeconds(qint64 pid)
{
    return cpuSeconds(statFields(QStringLiteral("/proc/%1/stat").arg(pid)));
}

std::map<QString, double> threadCpuSeconds(qint64 pid)
{
    std::map<QString, double> byName;
    const QDir tasks(QStringLiteral("/proc/%1/task").arg(pid));
    for (const QString& tid : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QByteArray name;
        const double seconds = cpuSeconds(statFields(tasks.filePath(tid) + QStringLiteral("/stat"), &name));
        if (seconds < 0)
            continue;
        const QString key = tid.toLongLong() == pid ? QStringLiteral("main") : QString::fromUtf8(name);
        byName[key] += seconds;
    }
    return byName;
}

qint64 statusValue(qint64 pid, const char* key)
{
    QFile file(QStringLiteral("/proc/%1/status").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : file.readAll().split('\n'))
        if (line.startsWith(key))
            return line.mid(int(qstrlen(key))).trimmed().split(' ').first().toLongLong();
    return -1;
}

int openFileDescriptors(qint64 pid)
{
    return int(QDir(QStringLiteral("/proc/%1/fd").arg(pid)).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System).size());
}

QString loadAverage()
{
    QFile file(QStringLiteral("/proc/loadavg"));
    return file.open(QIODevice::ReadOnly) ? QString::fromLatin1(file.readAll()).section(QLatin1Char(' '), 0, 2) : QString();
}

int cpuCores()
{
    return int(sysconf(_SC_NPROCESSORS_ONLN));
}

QString machine()
{
    utsname uts{};
    uname(&uts);
    return QStringLiteral("%1 cores, %2, %3 %4")
        .arg(cpuCores())
        .arg(cpuModel(), QString::fromUtf8(uts.sysname), QString::fromUtf8(uts.release));
}

} // namespace bench
