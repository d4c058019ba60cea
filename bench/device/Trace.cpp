#include "Trace.h"

#include "Bench.h"

#include <QFile>
#include <QList>

namespace bench {

QVector<Event> readTrace(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        fail(QStringLiteral("no trace at %1").arg(path));
    QVector<Event> events;
    for (const QByteArray& line : file.readAll().split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() < 2)
            continue;
        Event e;
        bool ok = false;
        e.ns = fields.at(0).toLongLong(&ok);
        if (!ok)
            continue;
        e.name = fields.at(1);
        qint64* numbers[] = {&e.a, &e.b, &e.c};
        int n = 0;
        for (int i = 2; i < fields.size(); ++i) {
            const qint64 value = fields.at(i).toLongLong(&ok);
            if (ok && n < 3)
                *numbers[n++] = value;
            else if (!ok)
                e.version = fields.at(i);
        }
        events << e;
    }
    return events;
}

QVector<double> chunkLatenciesUs(const QVector<Event>& library, const QVector<Event>& host)
{
    QVector<double> latencies;
    qint64 handed = 0;
    int next = 0;
    for (const Event& e : library) {
        if (e.name != "data")
            continue;
        handed += e.a;
        while (next < host.size() && (host.at(next).name != "audio" || host.at(next).b < handed))
            ++next;
        if (next == host.size())
            break;
        latencies << double(host.at(next).ns - e.b) / 1000.0;
    }
    return latencies;
}

} // namespace bench
