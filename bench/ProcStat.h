#pragma once

// What the benchmarks read of a running process from /proc, and how they print Qt text.
#include <QByteArray>
#include <QFile>
#include <QList>
#include <QString>

#include <unistd.h>

#include <ostream>

namespace bench {

inline std::ostream& operator<<(std::ostream& out, const QString& text)
{
    return out << text.toUtf8().constData();
}

// The fields of a /proc/.../stat file from the state (field 3) on; name gets the command name.
// Empty when the file cannot be read.
inline QList<QByteArray> statFields(const QString& path, QByteArray* name = nullptr)
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
inline double cpuSeconds(const QList<QByteArray>& fields)
{
    if (fields.size() < 13)
        return -1;
    return double(fields.at(11).toLongLong() + fields.at(12).toLongLong()) / double(sysconf(_SC_CLK_TCK));
}

// The number after key ("VmRSS:", "Threads:") in /proc/PID/status; -1 when the process or the line
// is not there.
inline qint64 statusValue(qint64 pid, const char* key)
{
    QFile file(QStringLiteral("/proc/%1/status").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : file.readAll().split('\n'))
        if (line.startsWith(key))
            return line.mid(int(qstrlen(key))).trimmed().split(' ').first().toLongLong();
    return -1;
}

} // namespace bench
