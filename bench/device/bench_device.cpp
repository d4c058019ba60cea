// bench_device: the module's figures on the emulated device (vrax-host running liborvello.so with
// the reference player library), each beside a baseline measured in the same run, written as a
// Markdown report plus the data of its plot.
//
// Every device run is a fresh vrax-host in a fresh directory (settings, data, cache), and the
// runs of a figure and of its baseline alternate, so a change in the machine's load reaches both.
// Times come from the host's --trace file and the library's OPLAYER_REF_TRACE file (both
// CLOCK_MONOTONIC, the clock of std::chrono::steady_clock here), CPU and memory from /proc.
// Figures.h lists the figure families.
//
//   bench_device --results DIR --work-dir DIR [--runs N]
#include "Figures.h"
#include "ProcStat.h"
#include "Report.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include <cstdio>
#include <exception>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Measures the module on the emulated device and writes the report."));
    parser.addHelpOption();
    const QCommandLineOption resultsOption(QStringLiteral("results"), QStringLiteral("Where latest.md goes."),
                                           QStringLiteral("DIR"));
    const QCommandLineOption workOption(QStringLiteral("work-dir"), QStringLiteral("Scratch directory (emptied)."),
                                        QStringLiteral("DIR"));
    const QCommandLineOption runsOption(QStringLiteral("runs"), QStringLiteral("Runs per figure (at least 5 for the report)."),
                                        QStringLiteral("N"), QStringLiteral("5"));
    parser.addOptions({resultsOption, workOption, runsOption});
    parser.process(app);
    bool ok = false;
    const int runs = parser.value(runsOption).toInt(&ok);
    if (!parser.isSet(resultsOption) || !parser.isSet(workOption) || !ok || runs < 1 || runs > 100) {
        std::fprintf(stderr, "bench_device: --results DIR and --work-dir DIR are needed; --runs takes 1 to 100\n");
        return 2;
    }
    const QString results = QFileInfo(parser.value(resultsOption)).absoluteFilePath();
    const QString work = QFileInfo(parser.value(workOption)).absoluteFilePath();
    QDir(work).removeRecursively();
    if (!QDir().mkpath(work) || !QDir().mkpath(results)) {
        std::fprintf(stderr, "bench_device: cannot create %s or %s\n", qPrintable(work), qPrintable(results));
        return 1;
    }

    bench::Session session{runs, QDateTime::currentDateTimeUtc(), bench::loadAverage(), 0};
    bench::Bench bench(work, runs);
    bench::DeviceFigures figures;
    try {
        figures.throughput = bench::measureThroughput(bench);
        figures.latency = bench::measureLatency(bench);
        figures.pairing = bench::measurePairing(bench);
        figures.swaps = bench::measureSwaps(bench);
        figures.realtime = bench::measureRealtime(bench);
        figures.memory = bench::measureMemory(bench);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_device: %s\n", e.what());
        return 1;
    }
    session.measuringS = bench.elapsedS();
    return bench::writeReport(figures, session, results, work) ? 0 : 1;
}
