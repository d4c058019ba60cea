// bench_soak: the emulated device left playing for a long time at fast pace through what a shop's
// device meets: an update swap every few tracks, the update service failing now and then, the
// player stopped and paused by hand. Written up as a Markdown report plus the data of its plot.
//
// vrax-host runs liborvello.so with oplayer-ref and orvello-service, as in bench_device. The
// host's --trace file gives every read of the audio pipeline (audio played, silence), its log
// file the swaps, rollbacks and warnings, /proc its memory, descriptors and threads. Nothing is
// judged from inside the device. Soak.h says where each part lives.
//
//   bench_soak --results DIR --work-dir DIR [--minutes N] [--track-seconds S] [--tracks-per-swap N]
//              [--fault-every S] [--stop-every S] [--pause-every S]
#include "ProcStat.h"
#include "SoakReport.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>

#include <algorithm>
#include <cstdio>
#include <iterator>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Soaks the emulated device at fast pace and writes soak.md."));
    parser.addHelpOption();
    const QCommandLineOption resultsOption(QStringLiteral("results"), QStringLiteral("Where soak.md goes."), QStringLiteral("DIR"));
    const QCommandLineOption workOption(QStringLiteral("work-dir"), QStringLiteral("Scratch directory (emptied)."),
                                        QStringLiteral("DIR"));
    const QCommandLineOption minutesOption(QStringLiteral("minutes"), QStringLiteral("How long to soak (60)."),
                                           QStringLiteral("N"), QStringLiteral("60"));
    const QCommandLineOption trackOption(QStringLiteral("track-seconds"), QStringLiteral("Length of every track (240)."),
                                         QStringLiteral("S"), QStringLiteral("240"));
    const QCommandLineOption swapOption(QStringLiteral("tracks-per-swap"), QStringLiteral("Tracks between swaps (3)."),
                                        QStringLiteral("N"), QStringLiteral("3"));
    const QCommandLineOption faultOption(QStringLiteral("fault-every"),
                                         QStringLiteral("Seconds from one fault's end to the next fault (45)."),
                                         QStringLiteral("S"), QStringLiteral("45"));
    const QCommandLineOption stopOption(QStringLiteral("stop-every"), QStringLiteral("Seconds between stops (120)."),
                                        QStringLiteral("S"), QStringLiteral("120"));
    const QCommandLineOption pauseOption(QStringLiteral("pause-every"), QStringLiteral("Seconds between pauses (120)."),
                                         QStringLiteral("S"), QStringLiteral("120"));
    parser.addOptions({resultsOption, workOption, minutesOption, trackOption, swapOption, faultOption, stopOption, pauseOption});
    parser.process(app);
    bench::Options options;
    bool ok[6] = {};
    options.minutes = parser.value(minutesOption).toInt(&ok[0]);
    options.trackSeconds = parser.value(trackOption).toDouble(&ok[1]);
    options.tracksPerSwap = parser.value(swapOption).toInt(&ok[2]);
    options.faultEverySeconds = parser.value(faultOption).toInt(&ok[3]);
    options.stopEverySeconds = parser.value(stopOption).toInt(&ok[4]);
    options.pauseEverySeconds = parser.value(pauseOption).toInt(&ok[5]);
    if (!parser.isSet(resultsOption) || !parser.isSet(workOption) || std::find(std::begin(ok), std::end(ok), false) != std::end(ok)
        || options.minutes < 1 || options.trackSeconds <= 0 || options.trackSeconds > 3600 || options.tracksPerSwap < 1
        || options.faultEverySeconds < 1 || options.stopEverySeconds < 5 || options.pauseEverySeconds < 5) {
        std::fprintf(stderr, "bench_soak: --results DIR and --work-dir DIR are needed; --minutes takes a whole number "
                             "from 1, --track-seconds a length above 0 up to 3600, --tracks-per-swap a whole number "
                             "from 1, --fault-every from 1, --stop-every and --pause-every from 5\n");
        return 2;
    }
    const QString results = QFileInfo(parser.value(resultsOption)).absoluteFilePath();
    const QString work = QFileInfo(parser.value(workOption)).absoluteFilePath();
    QDir(work).removeRecursively();
    if (!QDir().mkpath(work) || !QDir().mkpath(results)) {
        std::fprintf(stderr, "bench_soak: cannot create %s or %s\n", qPrintable(work), qPrintable(results));
        return 1;
    }
    bench::Soak::endOnSignals();

    const QString startLoad = bench::loadAverage();
    const QDateTime started = QDateTime::currentDateTimeUtc();
    bench::Soak soak(options, work);
    QString error;
    if (!soak.start(&error)) {
        std::fprintf(stderr, "bench_soak: %s\n", qPrintable(error));
        return 1;
    }
    soak.run();
    soak.finish();
    if (!bench::writeSoakReport(soak, results, startLoad, started))
        return 1;
    if (!soak.healthy()) {
        std::fprintf(stderr, "bench_soak: the device did not come through unharmed%s; see %s/soak.md\n",
                     soak.aborted().isEmpty() ? "" : qPrintable(QStringLiteral(" (") + soak.aborted() + QLatin1Char(')')),
                     qPrintable(results));
        return 1;
    }
    return 0;
}
