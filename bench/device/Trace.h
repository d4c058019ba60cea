#pragma once

// The trace files of a traced run: the host's (--trace, a line per message the pipeline reads) and
// the reference library's (OPLAYER_REF_TRACE). Both stamp CLOCK_MONOTONIC nanoseconds.
#include <QByteArray>
#include <QString>
#include <QVector>

namespace bench {

// One trace line: "NS NAME [numbers...] [VERSION]".
struct Event
{
    qint64 ns = 0;
    QByteArray name;
    qint64 a = 0, b = 0, c = 0;
    QByteArray version;
};

// Every line of the trace at path; fails when there is none.
QVector<Event> readTrace(const QString& path);

// Per chunk the library handed over: from the library calling the data callback with it to the
// pipeline having read its last byte, in µs. The call, not its return: on two cores the threads
// the call wakes can run first, so the return may come after the pipeline already has the bytes.
// Nothing is lost on the way, so the byte totals line up.
QVector<double> chunkLatenciesUs(const QVector<Event>& library, const QVector<Event>& host);

} // namespace bench
