// Figures 4–4c (and 3c, the chunk latency at realtime pace, from the same runs): the update
// 1.0.0 -> 1.1.0 at the end of the first track, or its rollback, seen in the pipeline's received
// stream.
#include "Figures.h"

#include "Trace.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

namespace bench {

namespace {

struct SwapRun
{
    double gapMs = 0;              // last audio of the old library to the first of the new, as read
    double silenceMs = 0;          // first new audio read minus when the old audio has been played
    double otherGapMs = 0;         // the longest gap between two reads elsewhere in the stream
    double otherSilenceMs = 0;     // the worst silence elsewhere (negative: audio was waiting)
    double libraryMs = 0;          // old library's shutdown to the new library's init
    double cushionMs = 0;          // new library's first chunk handed over to the old audio's end of play
    QVector<double> latenciesUs;
    QVector<QPointF> window;       // (ms from the old library's last audio, MB read) around the swap
};

// bad: the service offers random bytes as 1.1.0 over an installed 1.0.0, which is rolled back.
SwapRun swapRun(Bench& bench, int i, bool realtime, bool bad = false)
{
    auto rig = bench.newRig(QStringLiteral("%1-%2-%3").arg(bad ? "rollback" : "swap", realtime ? "realtime" : "fast").arg(i));
    const QString first = referenceLibrary(QStringLiteral("1.0.0")), update = referenceLibrary(QStringLiteral("1.1.0"));
    QString error;
    QString offered = update;
    if (bad) {
        offered = rig->workDir() + QStringLiteral("/random.so");
        QFile random(offered);
        QByteArray bytes(int(QFileInfo(update).size()), Qt::Uninitialized);
        for (char& byte : bytes)
            byte = char(QRandomGenerator::global()->bounded(256));
        const QString installed = rig->dataDir() + QStringLiteral("/data-rw/orvello/liboplayer-1.so");
        if (!random.open(QIODevice::WriteOnly) || random.write(bytes) != bytes.size() || !QDir().mkpath(QFileInfo(installed).path())
            || !QFile::copy(first, installed))
            fail(QStringLiteral("cannot prepare the rollback run in %1").arg(rig->workDir()));
    }
    if (!rig->startService(QStringLiteral("1.1.0"), offered, &error))
        fail(error);
    // Long enough for the update check, download and check to finish within the first track.
    const QString track = realtime ? QStringLiteral("5") : QStringLiteral("20");
    bench.startHost(*rig, bench.settings(*rig, true, 1), realtime ? QStringLiteral("realtime") : QStringLiteral("fast"),
                    {QStringLiteral("OPLAYER_REF_TRACK_SECONDS=") + track}, true);
    const QString swapped = bad ? QStringLiteral("the previous library is back in its place") : QStringLiteral("Running SDK version: 1.1.0");
    if (!rig->waitForLog(swapped, 40000))
        fail(QStringLiteral("the update was not %1:\n").arg(bad ? "rolled back" : "swapped in")
             + rig->hostLog().join(QLatin1Char('\n')));
    wait(realtime ? 1500 : 1000);
    stopHost(*rig);

    const QVector<Event> host = readTrace(bench.traceOf(*rig)), library = readTrace(bench.libraryTraceOf(*rig));
    QVector<int> audio;
    int lastOld = -1, firstNew = -1;
    for (int k = 0; k < host.size(); ++k) {
        if (host.at(k).name == "audio")
            audio << k;
        else if (host.at(k).name == "end" && lastOld < 0 && !audio.isEmpty())
            lastOld = audio.last();
    }
    for (int k : audio) {
        if (lastOld >= 0 && k > lastOld) {
            firstNew = k;
            break;
        }
    }
    if (lastOld < 0 || firstNew < 0)
        fail(QStringLiteral("no sequence change in the pipeline's trace"));
    SwapRun run;
    const Event& old = host.at(lastOld);
    const Event& fresh = host.at(firstNew);
    run.gapMs = double(fresh.ns - old.ns) / 1e6;
    run.silenceMs = double(fresh.ns - old.c) / 1e6;
    run.otherGapMs = 0;
    run.otherSilenceMs = -1e9;
    // From half a second into the stream, past the start-up.
    const qint64 from = host.at(audio.first()).ns + 500000000LL;
    for (int k = 1; k < audio.size(); ++k) {
        const Event& p = host.at(audio.at(k - 1));
        const Event& e = host.at(audio.at(k));
        if (audio.at(k) == firstNew || p.ns < from)
            continue;
        run.otherGapMs = std::max(run.otherGapMs, double(e.ns - p.ns) / 1e6);
        run.otherSilenceMs = std::max(run.otherSilenceMs, double(e.ns - p.c) / 1e6);
    }
    // The first library's shutdown, then the next one's init and first data.
    qint64 shutdown = 0, init = 0, firstData = 0;
    for (const Event& e : library) {
        if (e.name == "shutdown" && !shutdown)
            shutdown = e.ns;
        else if (e.name == "init" && shutdown && !init)
            init = e.ns;
        else if (e.name == "data" && init && !firstData)
            firstData = e.ns;
    }
    run.libraryMs = shutdown && init ? double(init - shutdown) / 1e6 : std::nan("");
    run.cushionMs = firstData ? double(old.c - firstData) / 1e6 : std::nan("");
    run.latenciesUs = chunkLatenciesUs(library, host);
    const qint64 span = std::max<qint64>(5 * (fresh.ns - old.ns), 20000000LL);
    for (int k : audio) {
        const Event& e = host.at(k);
        if (e.ns >= old.ns - span && e.ns <= old.ns + span)
            run.window << QPointF(double(e.ns - old.ns) / 1e6, double(e.b) / 1e6);
    }
    return run;
}

} // namespace

SwapFigures measureSwaps(Bench& bench)
{
    SwapFigures f;
    const int runs = bench.runs();
    for (int i = 0; i < runs; ++i) {
        const SwapRun swap = swapRun(bench, i, false);
        f.swapGap.add(swap.gapMs);
        f.swapOther.add(swap.otherGapMs);
        f.swapLibrary.add(swap.libraryMs);
        if (i == 0)
            f.swapWindow = swap.window;
        bench.say(QStringLiteral("swap at fast pace %1/%2: %3 ms without audio (longest other gap %4 ms)")
                      .arg(i + 1).arg(runs).arg(num(swap.gapMs)).arg(num(swap.otherGapMs)));
    }
    for (int i = 0; i < runs; ++i) {
        const SwapRun swap = swapRun(bench, i, true);
        f.rtSilence.add(std::max(0.0, swap.silenceMs));
        f.rtCushion.add(swap.cushionMs);
        f.rtOtherSilence.add(std::max(0.0, swap.otherSilenceMs));
        f.rtLatencyMedian.add(percentile(swap.latenciesUs, 0.5));
        f.rtLatencyP99.add(percentile(swap.latenciesUs, 0.99));
        bench.say(QStringLiteral("swap at realtime pace %1/%2: %3 ms of silence; the new library's first chunk came "
                                 "%4 ms before the old audio had played")
                      .arg(i + 1).arg(runs).arg(num(std::max(0.0, swap.silenceMs))).arg(num(swap.cushionMs)));
    }
    for (int i = 0; i < runs; ++i) {
        const SwapRun rollback = swapRun(bench, i, true, true);
        f.rbSilence.add(std::max(0.0, rollback.silenceMs));
        f.rbCushion.add(rollback.cushionMs);
        f.rbLibrary.add(rollback.libraryMs);
        bench.say(QStringLiteral("rollback of a bad update at realtime pace %1/%2: %3 ms of silence; the previous "
                                 "library's first chunk came %4 ms before the old audio had played")
                      .arg(i + 1).arg(runs).arg(num(std::max(0.0, rollback.silenceMs))).arg(num(rollback.cushionMs)));
    }
    return f;
}

} // namespace bench
