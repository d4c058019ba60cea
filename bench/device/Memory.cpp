// Figures 6c–6e: memory of one host through many update swaps (RSS, and the heap under
// heaptrack), and through hours of audio, each after a warm-up that is its baseline.
#include "Figures.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>

namespace bench {

namespace {

// Where heaptrack keeps its preloaded library and its interpreter (Debian's heaptrack package).
const QString kHeaptrackPreload = QStringLiteral("/usr/lib/heaptrack/libheaptrack_preload.so");
const QString kHeaptrackInterpret = QStringLiteral("/usr/lib/heaptrack/libexec/heaptrack_interpret");

bool heaptrackAvailable()
{
    return QFileInfo::exists(kHeaptrackPreload) && QFileInfo::exists(kHeaptrackInterpret)
           && !QStandardPaths::findExecutable(QStringLiteral("heaptrack_print")).isEmpty();
}

// The heap in use over time from heaptrack's data, as heaptrack_print's massif output gives it:
// (seconds since the process started, bytes); leakedKiB gets what the exit did not free. The
// interpreted data stays in work (heaptrack.data) for heaptrack_print.
QVector<QPointF> heaptrackSeries(const QString& raw, const QString& work, double* leakedKiB)
{
    const QString interpreted = work + QStringLiteral("/heaptrack.data");
    const QString massif = work + QStringLiteral("/heaptrack.massif");
    QProcess interpret;
    interpret.setStandardInputFile(raw);
    interpret.setStandardOutputFile(interpreted);
    interpret.start(kHeaptrackInterpret, QStringList());
    if (!interpret.waitForFinished(300000) || interpret.exitCode() != 0)
        fail(QStringLiteral("heaptrack_interpret failed on %1").arg(raw));
    QProcess print;
    print.start(QStringLiteral("heaptrack_print"),
                {QStringLiteral("-f"), interpreted, QStringLiteral("--print-peaks"), QStringLiteral("0"),
                 QStringLiteral("--print-allocators"), QStringLiteral("0"), QStringLiteral("--print-temporary"),
                 QStringLiteral("0"), QStringLiteral("--print-leaks"), QStringLiteral("0"), QStringLiteral("--print-massif"),
                 massif});
    if (!print.waitForFinished(300000) || print.exitCode() != 0)
        fail(QStringLiteral("heaptrack_print failed on %1").arg(interpreted));
    const QRegularExpression leaked(QStringLiteral("total memory leaked: ([\\d.]+)([KMG]?)"));
    const QRegularExpressionMatch m = leaked.match(QString::fromLocal8Bit(print.readAllStandardOutput()));
    if (m.hasMatch()) {
        const QString unit = m.captured(2);
        const double scale = unit == QLatin1String("M") ? 1024 : unit == QLatin1String("G") ? 1024 * 1024 : unit.isEmpty() ? 1.0 / 1024 : 1;
        *leakedKiB = m.captured(1).toDouble() * scale;
    }
    QFile file(massif);
    if (!file.open(QIODevice::ReadOnly))
        fail(QStringLiteral("heaptrack_print wrote no %1").arg(massif));
    QVector<QPointF> series;
    double time = -1;
    for (const QByteArray& line : file.readAll().split('\n')) {
        if (line.startsWith("time="))
            time = line.mid(5).toDouble();
        else if (line.startsWith("mem_heap_B=") && time >= 0)
            series << QPointF(time, line.mid(11).toDouble());
    }
    QFile::remove(raw);
    return series;
}

// Update swaps back to back. The running library reports its own version, 1.0.0 or 1.1.0, and the
// updater takes whatever sorts after it as text, so each offer is the running version with a
// number behind it ("1.0.0.00001") and the other build's file; once the exit is requested the
// service offers 1.0.0 again, which sorts after neither, so every offer makes one swap.
SwapMemoryRun swapMemoryRun(Bench& bench, int swaps, bool heaptrack)
{
    auto rig = bench.newRig(heaptrack ? QStringLiteral("swaps-heaptrack") : QStringLiteral("swaps"));
    QString error;
    if (!rig->startService(QStringLiteral("1.0.0"), referenceLibrary(QStringLiteral("1.0.0")), &error))
        fail(error);
    for (const QString& version : {QStringLiteral("1.0.0"), QStringLiteral("1.1.0")})
        if (!QFile::copy(referenceLibrary(version), rig->serviceDir() + QStringLiteral("/%1.so").arg(version)))
            fail(QStringLiteral("cannot copy %1 for the service").arg(referenceLibrary(version)));
    // Tracks of 2 s end a few milliseconds after the exit request at fast pace.
    QStringList env{QStringLiteral("OPLAYER_REF_TRACK_SECONDS=2")};
    const QString raw = rig->workDir() + QStringLiteral("/heaptrack.raw");
    if (heaptrack)
        env << QStringLiteral("LD_PRELOAD=") + kHeaptrackPreload << QStringLiteral("DUMP_HEAPTRACK_OUTPUT=") + raw;
    const qint64 started = nowNs();
    bench.startHost(*rig, bench.settings(*rig, true, 1), QStringLiteral("fast"), env, false);
    const qint64 pid = rig->hostPid();

    const QString loadedText = QStringLiteral("Running SDK version: ");
    const QString exitText = QStringLiteral("Requesting exit at end of song");
    auto loads = [&](QString* last) {
        int count = 0;
        for (const QString& line : rig->hostLog()) {
            const int at = line.indexOf(loadedText);
            if (at >= 0) {
                ++count;
                *last = line.mid(at + loadedText.size()).trimmed();
            }
        }
        return count;
    };
    auto exits = [&] { return rig->hostLog().filter(exitText).size(); };
    QString running;
    if (!waitUntil([&] { return loads(&running) == 1; }, 15000))
        fail(QStringLiteral("the library did not load:\n") + rig->hostLog().join(QLatin1Char('\n')));

    SwapMemoryRun run;
    QVector<double> loadedS;
    const qint64 firstLoad = nowNs();
    for (int swap = 0;; ++swap) {
        run.rssKiB << QPointF(swap, statusKiB(pid, "VmRSS:"));
        loadedS << double(nowNs() - started) / 1e9;
        if (swap == swaps)
            break;
        const QString target = running == QLatin1String("1.0.0") ? QStringLiteral("1.1.0") : QStringLiteral("1.0.0");
        const int exitsBefore = exits();
        if (!rig->setServiceState({{QStringLiteral("version"), QStringLiteral("%1.%2").arg(running).arg(swap + 1, 5, 10, QLatin1Char('0'))},
                                   {QStringLiteral("library"), target + QStringLiteral(".so")}},
                                  &error))
            fail(error);
        if (!waitUntil([&] { return exits() > exitsBefore; }, 30000))
            fail(QStringLiteral("swap %1: no exit was requested").arg(swap + 1));
        if (!rig->setServiceState({{QStringLiteral("version"), QStringLiteral("1.0.0")}}, &error))
            fail(error);
        if (!waitUntil([&] { return loads(&running) == swap + 2; }, 30000))
            fail(QStringLiteral("swap %1: no library loaded after the exit").arg(swap + 1));
        if (running != target)
            fail(QStringLiteral("swap %1 loaded %2, not %3").arg(swap + 1).arg(running, target));
    }
    run.secondsPerSwap = double(nowNs() - firstLoad) / 1e9 / swaps;
    stopHost(*rig);
    if (heaptrack) {
        // The heap at rest: the least in use from a little after a swap to the next one.
        const QVector<QPointF> heap = heaptrackSeries(raw, rig->workDir(), &run.heapLeakedKiB);
        for (int swap = 0; swap + 1 < loadedS.size(); ++swap) {
            double least = std::nan("");
            for (const QPointF& p : heap)
                if (p.x() >= loadedS.at(swap) + 0.1 && p.x() < loadedS.at(swap + 1) && !(p.y() >= least))
                    least = p.y();
            if (!std::isnan(least))
                run.heapKiB << QPointF(swap, least / 1024);
        }
    }
    return run;
}

// Hours of audio at fast pace, RSS sampled against the audio played.
AudioMemoryRun audioMemoryRun(Bench& bench, double hours)
{
    auto rig = bench.newRig(QStringLiteral("hours"));
    bench.startHost(*rig, bench.settings(*rig, true, 0), QStringLiteral("fast"), {}, false);
    const qint64 pid = rig->hostPid();
    if (!waitUntil([&] { return pipelineValue(*rig, "bytes") > 0; }, 15000))
        fail(QStringLiteral("no audio reached the pipeline"));
    AudioMemoryRun run;
    const qint64 start = nowNs();
    const QDeadlineTimer deadline(30 * 60 * 1000);
    for (double played = 0; played < hours;) {
        if (deadline.hasExpired())
            fail(QStringLiteral("%1 h of audio took more than 30 minutes").arg(hours));
        wait(250);
        played = pipelineValue(*rig, "seconds") / 3600;
        run.rssKiB << QPointF(played, statusKiB(pid, "VmRSS:"));
    }
    run.wallSeconds = double(nowNs() - start) / 1e9;
    stopHost(*rig);
    return run;
}

} // namespace

MemoryFigures measureMemory(Bench& bench)
{
    MemoryFigures f;
    f.swapMemory = swapMemoryRun(bench, kWarmupSwaps + kMeasuredSwaps, false);
    bench.say(QStringLiteral("memory over %1 swaps: %2 KiB RSS per swap after the first %3 (%4 s per swap)")
                  .arg(kWarmupSwaps + kMeasuredSwaps)
                  .arg(num(slope(f.swapMemory.rssKiB, kWarmupSwaps, kWarmupSwaps + kMeasuredSwaps)))
                  .arg(kWarmupSwaps).arg(num(f.swapMemory.secondsPerSwap)));
    if (heaptrackAvailable()) {
        f.heapMemory = swapMemoryRun(bench, kHeaptrackSwaps, true);
        bench.say(QStringLiteral("heap under heaptrack over %1 swaps: %2 KiB at rest after swap %3, %4 after swap %5")
                      .arg(kHeaptrackSwaps)
                      .arg(num(medianY(f.heapMemory.heapKiB, kWarmupSwaps, kWarmupSwaps + kHeaptrackBlock - 1)))
                      .arg(kWarmupSwaps)
                      .arg(num(medianY(f.heapMemory.heapKiB, kWarmupSwaps + kHeaptrackBlock, kHeaptrackSwaps)))
                      .arg(kWarmupSwaps + kHeaptrackBlock));
    } else {
        bench.say(QStringLiteral("heaptrack is not installed: no heap figures (./dev bench installs it)"));
    }
    f.audioMemory = audioMemoryRun(bench, kWarmupHours + kMeasuredHours);
    bench.say(QStringLiteral("memory over %1 h of audio: %2 KiB RSS per hour after the first (%3 s)")
                  .arg(kWarmupHours + kMeasuredHours)
                  .arg(num(slope(f.audioMemory.rssKiB, kWarmupHours, kWarmupHours + kMeasuredHours)))
                  .arg(num(f.audioMemory.wallSeconds)));
    return f;
}

} // namespace bench
