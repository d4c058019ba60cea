// orvello-demo: the module's main job end to end on one machine. Starts the update service
// emulator offering library 1.1.0 and an emulated device running 1.0.0, pairs the device through
// its pairing page as a person would, and narrates: pairing, playback, the update, the swap at
// the end of the track and playback on the new library. Stops everything it started.
#include "DeviceRig.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>
#include <QStandardPaths>
#include <QThread>
#include <QTime>

#include <algorithm>

#include <csignal>
#include <cstdio>

namespace {

QElapsedTimer s_clock;
QTime s_startTime;
volatile std::sig_atomic_t s_interrupted = 0;

void say(const QString& who, const QString& what, qint64 atMs = -1)
{
    const double at = (atMs < 0 ? s_clock.elapsed() : atMs) / 1000.0;
    std::printf("[%5.1fs] %-8s %s\n", at, qPrintable(who + QLatin1Char(':')), qPrintable(what));
    std::fflush(stdout);
}

// When a host log line was written, from its "HH:MM:SS.mmm" stamp, in ms since the demo began.
qint64 logTime(const QString& line)
{
    const QTime time = QTime::fromString(line.left(12), QStringLiteral("HH:mm:ss.zzz"));
    if (!time.isValid())
        return s_clock.elapsed();
    return std::max<qint64>(0, s_startTime.msecsTo(time));
}

QString clock(qint64 ms)
{
    const qint64 seconds = ms / 1000;
    return QStringLiteral("%1:%2").arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
}

int fail(const QString& message)
{
    std::fprintf(stderr, "orvello-demo: %s\n", qPrintable(message));
    return 1;
}

// The programs and libraries the demo runs: full paths in the build tree, paths relative to the
// demo itself in the installed one.
struct Companions
{
    QString host;
    QString module;
    QString service;
    QString library100;
    QString library110;
};

QString besideDemo(const char* path)
{
    return QDir::cleanPath(QDir(QCoreApplication::applicationDirPath()).absoluteFilePath(QString::fromUtf8(path)));
}

// Empty when every companion is there, else what is missing and where it was looked for.
QString missingCompanions(const Companions& companions)
{
    QStringList missing;
    const QList<QPair<QString, QString>> files{
        {QStringLiteral("vrax-host"), companions.host},
        {QStringLiteral("the module (liborvello.so, package orvello-module)"), companions.module},
        {QStringLiteral("orvello-service"), companions.service},
        {QStringLiteral("player library 1.0.0"), companions.library100},
        {QStringLiteral("player library 1.1.0"), companions.library110}};
    for (const auto& [what, path] : files)
        if (!QFileInfo(path).isFile())
            missing << QStringLiteral("%1 is not at %2").arg(what, path);
    return missing.join(QStringLiteral("; "));
}

struct Playing
{
    QString title;
    QString artist;
    QString album;
    qint64 position = -1;
    qint64 duration = 0;
    int state = 0;
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Runs the Orvello Streams module end to end on the device emulator."));
    parser.addHelpOption();
    const QString defaultWorkDir = QStringLiteral(ORVELLO_DEMO_WORK_DIR).isEmpty()
                                       ? QStandardPaths::writableLocation(QStandardPaths::CacheLocation)
                                       : QStringLiteral(ORVELLO_DEMO_WORK_DIR);
    const QCommandLineOption workDir(QStringLiteral("work-dir"),
                                     QStringLiteral("Where the demo keeps its files (emptied first)."),
                                     QStringLiteral("DIR"), defaultWorkDir);
    const QCommandLineOption trackSeconds(QStringLiteral("track-seconds"), QStringLiteral("Length of each track."),
                                          QStringLiteral("SECONDS"), QStringLiteral("12"));
    const QCommandLineOption afterSwap(QStringLiteral("after-swap"),
                                       QStringLiteral("Seconds to keep playing on the new library."),
                                       QStringLiteral("SECONDS"), QStringLiteral("8"));
    const QCommandLineOption alsa(QStringLiteral("alsa"), QStringLiteral("Play through ALSA instead of writing a WAV file."));
    const QCommandLineOption keepRunning(QStringLiteral("keep-running"),
                                         QStringLiteral("Leave the device playing after the demo, for its web page; "
                                                        "Ctrl-C stops everything."));
    parser.addOptions({workDir, trackSeconds, afterSwap, alsa, keepRunning});
    parser.process(app);
    bool ok = false;
    const double track = parser.value(trackSeconds).toDouble(&ok);
    if (!ok || track <= 0 || track > 600)
        return fail(QStringLiteral("--track-seconds takes a number of seconds above 0, at most 600"));
    const int keepPlaying = parser.value(afterSwap).toInt(&ok);
    if (!ok || keepPlaying < 0)
        return fail(QStringLiteral("--after-swap takes a whole number of seconds"));

    const Companions companions{besideDemo(VRAX_HOST_PATH), besideDemo(ORVELLO_MODULE_PATH), besideDemo(ORVELLO_SERVICE_PATH),
                                besideDemo(OPLAYER_REF_1_0_0), besideDemo(OPLAYER_REF_1_1_0)};
    if (const QString missing = missingCompanions(companions); !missing.isEmpty())
        return fail(missing);

    if (parser.value(workDir).isEmpty())
        return fail(QStringLiteral("no directory for the demo's files: give --work-dir DIR"));
    const QString work = QFileInfo(parser.value(workDir)).absoluteFilePath();
    // Emptied only when an earlier demo made it (or it is the build tree's own): a directory
    // given by mistake, a home directory say, is never wiped.
    const QString marker = work + QStringLiteral("/.orvello-demo");
    const QString buildTreeWork = QStringLiteral(ORVELLO_DEMO_WORK_DIR);
    const bool ours = QFile::exists(marker) || (!buildTreeWork.isEmpty() && work == QFileInfo(buildTreeWork).absoluteFilePath());
    if (!ours && !QDir(work).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot))
        return fail(QStringLiteral("%1 holds files the demo did not make; give a new or empty --work-dir").arg(work));
    QDir(work).removeRecursively();
    if (!QDir().mkpath(work) || !QFile(marker).open(QIODevice::WriteOnly))
        return fail(QStringLiteral("cannot create %1").arg(work));
    // A download left by an earlier run would be installed as a pending update at start.
    for (const char* leftover : {"/tmp/orvello/liboplayer-1.so", "/tmp/orvello/liboplayer-1.so.tmp"})
        if (QFile::exists(QString::fromLatin1(leftover)) && !QFile::remove(QString::fromLatin1(leftover)))
            return fail(QStringLiteral("cannot remove %1, left by an earlier run").arg(QString::fromLatin1(leftover)));

    s_clock.start();
    s_startTime = QTime::currentTime();
    std::printf("Orvello Streams module demo (work directory %s)\n\n", qPrintable(work));
    DeviceRig rig({companions.host, companions.module, companions.service}, work);
    QString error;
    if (!rig.startService(QStringLiteral("1.1.0"), companions.library110, &error))
        return fail(error);
    say(QStringLiteral("service"), QStringLiteral("offering player library 1.1.0 at %1, signed with the test key in devkit/keys")
                                       .arg(rig.versionUrl()));

    QDir().mkpath(QFileInfo(rig.devTreeLibraryPath()).absolutePath());
    if (!QFile::copy(companions.library100, rig.devTreeLibraryPath()))
        return fail(QStringLiteral("cannot install library 1.0.0 at %1").arg(rig.devTreeLibraryPath()));
    const QString wav = work + QStringLiteral("/demo.wav");
    const QVariantHash settings{
        {QStringLiteral("settings/orvello/versionUrl"), rig.versionUrl()},
        {QStringLiteral("settings/orvello/updateCheckIntervalSeconds"), 3},
        {QStringLiteral("settings/orvello/outputSampleRate"), 44100},
        {QStringLiteral("settings/orvello/outputChannels"), 2},
        {QStringLiteral("settings/orvello/cacheEnabled"), true},
        {QStringLiteral("settings/orvello/cacheDir"), work + QStringLiteral("/device/cache")},
        {QStringLiteral("settings/orvello/provisioningVendorId"), QStringLiteral("vrax-demo")},
        {QStringLiteral("settings/system/serialNumber"), QStringLiteral("VX-DEMO-0001")},
        {QStringLiteral("settings/system/productName"), QStringLiteral("Vrax Demo Amp")}};
    const QString audioOut = parser.isSet(alsa) ? QStringLiteral("alsa") : QStringLiteral("wav:") + wav;
    if (!rig.startHost(settings, audioOut, QStringLiteral("realtime"),
                       {QStringLiteral("OPLAYER_REF_TRACK_SECONDS=%1").arg(track)}, &error))
        return fail(error);
    say(QStringLiteral("device"), QStringLiteral("started with player library 1.0.0 in its developer build tree"));
    say(QStringLiteral("device"), QStringLiteral("its page: http://127.0.0.1:%1/ (open it in a browser)").arg(rig.controlPort()));

    if (!rig.waitForLog(QStringLiteral("Waiting for pairing code before initializing.."), 10000))
        return fail(QStringLiteral("the device did not come up unpaired:\n") + rig.hostLog().join(QLatin1Char('\n')));
    say(QStringLiteral("device"), QStringLiteral("not paired yet, waiting for a pairing code"));

    // The reference library's note when it finds where its station was.
    static const QRegularExpression kWentOn(
        QStringLiteral("^oplayer-ref: track \\d+ of \\d+ \\(\"(.*)\"\\) played last; going on with track \\d+ \\(\"(.*)\"\\)$"));
    QStringList versions{QStringLiteral("1.0.0")};
    QSet<QString> seenLog;
    int logLinesSeen = 0;
    qint64 swappedAt = -1;
    QString acrossSwap; // "before" -> "after", from the new library's note
    qint64 lastStampAt = 0; // the player library's notes carry no time: they get their neighbour's
    // Narrates what the device's log says, in the log's order and with its times.
    auto drainLog = [&] {
        const QStringList log = rig.hostLog();
        for (; logLinesSeen < log.size(); ++logLinesSeen) {
            const QString& line = log.at(logLinesSeen);
            auto once = [&](const QString& key) {
                if (seenLog.contains(key))
                    return false;
                seenLog.insert(key);
                return true;
            };
            const bool stamped = QTime::fromString(line.left(12), QStringLiteral("HH:mm:ss.zzz")).isValid();
            const qint64 at = stamped ? (lastStampAt = logTime(line)) : lastStampAt;
            if (line.contains(QLatin1String("Pairing successful"))) {
                const QString deviceId = rig.get(QStringLiteral("/api/value?path=settings/orvello/deviceId"))
                                             .body.value(QStringLiteral("value")).toObject()
                                             .value(QStringLiteral("string_")).toString();
                say(QStringLiteral("device"), QStringLiteral("paired with the service, device id %1").arg(deviceId), at);
            } else if (line.contains(QLatin1String("Player library updates are not authenticated")) && once(QStringLiteral("keyless"))) {
                say(QStringLiteral("device"), QStringLiteral("WARNING: this module was built without an update key and takes "
                                                             "unsigned updates"), at);
            } else if (line.contains(QLatin1String("is signed with the device's update key")) && once(QStringLiteral("signed"))) {
                say(QStringLiteral("update"), QStringLiteral("the offer's signature verifies with the key the module was built "
                                                             "with: the service really offers it"), at);
            } else if (line.contains(QLatin1String("ERROR [Orvello] Not downloading version ")) && once(QStringLiteral("unsigned"))) {
                say(QStringLiteral("update"), QStringLiteral("the offer is not signed by the service, so nothing is downloaded: %1")
                                                  .arg(line.section(QStringLiteral(": "), 1)), at);
            } else if (line.contains(QLatin1String("Downloading version ")) && once(QStringLiteral("download"))) {
                say(QStringLiteral("update"), QStringLiteral("service offers %1, downloading it")
                                                  .arg(line.section(QStringLiteral("Downloading version "), 1)), at);
            } else if (line.contains(QLatin1String("Failed to verify downlaoded library")) && once(QStringLiteral("bad"))) {
                say(QStringLiteral("update"), QStringLiteral("the download did not match its checksum"), at);
            } else if (line.contains(QLatin1String("Requesting exit at end of song")) && once(QStringLiteral("verified"))) {
                say(QStringLiteral("update"),
                    QStringLiteral("downloaded and verified; the swap waits for the end of the current track"), at);
            } else if (line.contains(QLatin1String("End of oplayer main loop"))) {
                say(QStringLiteral("update"), QStringLiteral("track finished: player library unloaded, installing the new one"), at);
            } else if (line.startsWith(QLatin1String("oplayer-ref: no position in "))) {
                say(QStringLiteral("library"), QStringLiteral("nothing played here before: the station starts at its first track"), at);
            } else if (const QRegularExpressionMatch wentOn = kWentOn.match(line); wentOn.hasMatch()) {
                acrossSwap = QStringLiteral("\"%1\" -> \"%2\"").arg(wentOn.captured(1), wentOn.captured(2));
                say(QStringLiteral("library"),
                    wentOn.captured(1) == wentOn.captured(2)
                        ? QStringLiteral("played \"%1\" last and starts it again").arg(wentOn.captured(1))
                        : QStringLiteral("\"%1\" played last on the old library; the station goes on with \"%2\"")
                              .arg(wentOn.captured(1), wentOn.captured(2)),
                    at);
            } else if (line.contains(QLatin1String("Running SDK version: "))) {
                const QString version = line.section(QStringLiteral("Running SDK version: "), 1).trimmed();
                if (version != versions.last()) {
                    versions << version;
                    swappedAt = s_clock.elapsed();
                    say(QStringLiteral("device"), QStringLiteral("now running player library %1").arg(version), at);
                }
            }
        }
    };

    // The person finds the service's page and its row as the device UI shows them.
    QString pageTitle;
    QString rowTitle;
    for (const QJsonValue node : rig.get(QStringLiteral("/api/nodes")).body.value(QStringLiteral("nodes")).toArray()) {
        const QString path = node.toObject().value(QStringLiteral("path")).toString();
        if (path == QLatin1String("orvello/browse"))
            pageTitle = node.toObject().value(QStringLiteral("title")).toString();
        else if (path == QLatin1String("orvello/browse/uiPairCode"))
            rowTitle = node.toObject().value(QStringLiteral("title")).toString();
    }
    if (pageTitle.isEmpty() || rowTitle.isEmpty())
        return fail(QStringLiteral("the device shows no pairing page"));
    say(QStringLiteral("person"), QStringLiteral("types ORV-ELO into \"%1\" on the \"%2\" page").arg(rowTitle, pageTitle));
    const DeviceRig::Answer paired = rig.setValue(QStringLiteral("orvello/browse/uiPairCode"), QStringLiteral("ORV-ELO"));
    if (!paired.ok())
        return fail(QStringLiteral("pairing failed: %1").arg(paired.errorMessage()));
    drainLog();

    Playing last;
    QSet<QString> tracks;
    qint64 lastPositionReport = 0;
    while (swappedAt < 0 || s_clock.elapsed() - swappedAt < keepPlaying * 1000) {
        if (!rig.hostRunning())
            return fail(QStringLiteral("the device stopped unexpectedly:\n") + rig.hostLog().join(QLatin1Char('\n')));
        if (s_clock.elapsed() > 120000)
            return fail(QStringLiteral("the update was not swapped in within two minutes"));

        drainLog();

        const QJsonObject now = rig.get(QStringLiteral("/api/playlogic")).body;
        Playing playing;
        playing.title = now.value(QStringLiteral("title")).toString();
        playing.artist = now.value(QStringLiteral("artist")).toString();
        playing.album = now.value(QStringLiteral("album")).toString();
        playing.position = qint64(now.value(QStringLiteral("playTime")).toDouble());
        playing.duration = qint64(now.value(QStringLiteral("duration")).toDouble());
        playing.state = now.value(QStringLiteral("state")).toInt();
        if (playing.state == 2 && !playing.title.isEmpty()
            && (playing.title != last.title || playing.position < last.position)) {
            tracks.insert(playing.title);
            say(QStringLiteral("playing"), QStringLiteral("\"%1\" by %2, from \"%3\" (%4 / %5) on %6")
                                               .arg(playing.title, playing.artist, playing.album, clock(playing.position),
                                                    clock(playing.duration), versions.last()));
            lastPositionReport = s_clock.elapsed();
        } else if (playing.state == 2 && s_clock.elapsed() - lastPositionReport >= 3000) {
            say(QStringLiteral("playing"), QStringLiteral("\"%1\" %2 / %3").arg(playing.title, clock(playing.position),
                                                                                clock(playing.duration)));
            lastPositionReport = s_clock.elapsed();
        }
        if (playing.state != last.state && playing.state == 3)
            say(QStringLiteral("device"), QStringLiteral("paused"));
        last = playing;
        QThread::msleep(200);
    }

    const QJsonObject pipeline = rig.get(QStringLiteral("/api/pipeline")).body;
    if (parser.isSet(keepRunning)) {
        // The terminal's Ctrl-C reaches the host and the service too; they stop by themselves.
        std::signal(SIGINT, [](int) { s_interrupted = 1; });
        std::signal(SIGTERM, [](int) { s_interrupted = 1; });
        say(QStringLiteral("device"), QStringLiteral("keeps playing; its page is http://127.0.0.1:%1/, Ctrl-C stops everything")
                                          .arg(rig.controlPort()));
        while (!s_interrupted && rig.hostRunning()) {
            rig.hostLog(); // keeps reading the host's log, so it never blocks on a full pipe
            QThread::msleep(100);
        }
        if (!s_interrupted)
            return fail(QStringLiteral("the device stopped unexpectedly:\n") + rig.hostLog().join(QLatin1Char('\n')));
    }
    const int code = rig.stopHost();
    say(QStringLiteral("device"), QStringLiteral("stopped (exit code %1)").arg(code));
    // The device's own log, for whoever wants to know why the story above went as it did.
    const QString logPath = work + QStringLiteral("/device.log");
    QFile logFile(logPath);
    if (logFile.open(QIODevice::WriteOnly | QIODevice::Truncate))
        logFile.write((rig.hostLog().join(QLatin1Char('\n')) + QLatin1Char('\n')).toUtf8());
    else
        std::fprintf(stderr, "orvello-demo: cannot write the device's log to %s\n", qPrintable(logPath));

    std::printf("\nSummary\n");
    std::printf("  audio received  %.1f s (%d Hz, %d channels, %s)\n", pipeline.value(QStringLiteral("seconds")).toDouble(),
                pipeline.value(QStringLiteral("sampleRate")).toInt(), pipeline.value(QStringLiteral("channels")).toInt(),
                parser.isSet(alsa) ? "played through ALSA" : qPrintable(wav));
    QStringList trackList = tracks.values();
    trackList.sort();
    std::printf("  tracks          %lld: %s\n", static_cast<long long>(trackList.size()), qPrintable(trackList.join(QStringLiteral(", "))));
    std::printf("  library         %s\n", qPrintable(versions.join(QStringLiteral(" -> "))));
    std::printf("  across the swap %s\n", acrossSwap.isEmpty() ? "the new library did not say where the station was"
                                                               : qPrintable(acrossSwap));
    std::printf("  underruns       %d\n", pipeline.value(QStringLiteral("underruns")).toInt());
    std::printf("  sequences       %d\n", pipeline.value(QStringLiteral("sequences")).toInt());
    std::printf("  device log      %s\n", qPrintable(logPath));
    return code == 0 && versions.size() == 2 ? 0 : 1;
}
