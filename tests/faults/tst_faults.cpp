// The fault suite: the whole device (vrax-host, the module, a player library, orvello-service)
// meets one fault per case, and is judged from the outside by what a listener hears, what the
// play logic claims, which library runs, the settings file, the exit status and the log.
//
// Each case is one line of the table at the end of this file: its name, what it injects, what
// surviving it means, the scenario, and, for a case the device does not survive yet, the known
// fault behind it. CTest runs each case alone as faults.<name>.
#include "ChildProcesses.h"
#include "FaultDevice.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QRegularExpression>
#include <QSaveFile>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>
#include <random>
#include <unistd.h>

namespace {

using Setup = FaultDevice::Setup;
using LibraryAt = FaultDevice::LibraryAt;
using Scenario = std::function<void(FaultDevice&)>;

enum Builds { Plain, AlsoAsan };

struct Fault
{
    const char* name;
    const char* injects;
    const char* survives;   // what surviving it means
    Scenario run;
    const char* open;       // the known fault that keeps the device from surviving it today, or null
    Builds builds;
};

const FaultDevice::Binaries kBinaries{QStringLiteral(VRAX_HOST_PATH),       QStringLiteral(ORVELLO_MODULE_PATH),
                                      QStringLiteral(ORVELLO_SERVICE_PATH), QStringLiteral(OPLAYER_REF_1_0_0),
                                      QStringLiteral(OPLAYER_REF_1_1_0),    QStringLiteral(FAKE_NOSYMBOL),
                                      QStringLiteral(FAKE_CREATE_FAILS)};

const QString kUpdated = QStringLiteral("Running SDK version: 1.1.0");
const QString kSwapRequested = QStringLiteral("Requesting exit at end of song");
// One per swap the device goes through: the exit request itself repeats at every check until then.
const QString kSwapped = QStringLiteral("End of oplayer main loop, cleaning up");
const QString kDownloadFailed = QStringLiteral("Failed to download new OVM library version.");
const QString kNoConfig = QStringLiteral("Getting config JSON ended with HTTP code: ");
const QString kNotVerified = QStringLiteral("Failed to verify downlaoded library");
const QString kValidCode = QStringLiteral("ABC-DEF");
constexpr int kUpdateMs = 15000;
constexpr int kClientTimeoutMs = 30000;

Setup offering(const QString& version, const QStringList& faults = {})
{
    Setup setup;
    setup.offer = version;
    setup.serviceFaults = faults;
    return setup;
}

// 80 KiB that are not a shared object, the same in every run.
QString randomFile(FaultDevice& d)
{
    const QString path = d.workDir() + QStringLiteral("/random.so");
    QByteArray bytes(80 * 1024, Qt::Uninitialized);
    std::mt19937 generator(16);
    for (char& byte : bytes)
        byte = char(generator() & 0xff);
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit())
        d.setupError(QStringLiteral("cannot write %1").arg(path));
    return path;
}

// The first bytes of a library, as a power cut in the middle of copying it leaves it.
QString cutLibrary(FaultDevice& d, qint64 length)
{
    QFile library(d.binaries().library110);
    const QString path = d.workDir() + QStringLiteral("/cut.so");
    QSaveFile cut(path);
    if (!library.open(QIODevice::ReadOnly) || !cut.open(QIODevice::WriteOnly)
        || cut.write(library.read(length < 0 ? library.size() / 2 : length)) < 0 || !cut.commit())
        d.setupError(QStringLiteral("cannot write %1").arg(path));
    return path;
}

// A port nobody listens on.
int closedPort()
{
    QTcpServer server;
    server.listen(QHostAddress::LocalHost);
    return server.serverPort();
}

// POSTs a pairing code without waiting; the reply is the caller's.
QNetworkReply* pairLater(QNetworkAccessManager& manager, FaultDevice& d, const QString& code)
{
    QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1/api/value").arg(d.rig().controlPort())));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    const QJsonObject body{{QStringLiteral("path"), QStringLiteral("orvello/browse/uiPairCode")}, {QStringLiteral("value"), code}};
    return manager.post(request, QJsonDocument(body).toJson(QJsonDocument::Compact));
}

// A pairing request must end with an answer of the device (200 or 422), never a dropped
// connection or the control API giving up (504).
void expectAnswered(FaultDevice& d, QNetworkReply* reply, const QString& what)
{
    d.observeUntil([reply] { return reply->isFinished(); }, kClientTimeoutMs + 5000);
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status != 200 && status != 422)
        d.fail(QStringLiteral("%1 was not answered (HTTP %2 %3)").arg(what).arg(status).arg(reply->errorString()));
}

// ---- scenarios ------------------------------------------------------------------------------

// The service fails in one way while the device plays 1.0.0 and 1.1.0 is offered; once the
// fault is cleared the update goes through.
Scenario serviceFails(const QStringList& modes, const QString& logLine, const QString& versionMeanwhile = QStringLiteral("1.0.0"))
{
    return [=](FaultDevice& d) {
        if (!d.start(offering(QStringLiteral("1.1.0"), modes)))
            return;
        d.expectKeepsPlaying(5000, QStringLiteral("the service failing"));
        d.expectLog(logLine);
        d.expectVersion(versionMeanwhile);
        if (!d.serviceFails({}))
            return;
        d.expectLog(kUpdated, kUpdateMs);
        d.expectKeepsPlaying(3000, QStringLiteral("the update after the fault"));
        // Only a wrong checksum may fail verification: anything else means a broken file was kept.
        if (logLine != kNotVerified)
            d.expectNoLog(kNotVerified);
        d.expectCleanExit();
    };
}

// An answer slower than the client's timeout: one check, heard through to its end.
Scenario serviceTooSlow(const QString& mode, const QString& logLine)
{
    return [=](FaultDevice& d) {
        Setup setup = offering(QStringLiteral("1.1.0"), {mode});
        setup.checkSeconds = 600;
        if (!d.start(setup))
            return;
        d.expectKeepsPlaying(kClientTimeoutMs + 2000, QStringLiteral("a request that never gets an answer"));
        d.expectLog(logLine, 3000);
        d.expectVersion(QStringLiteral("1.0.0"));
        d.expectCleanExit();
    };
}

void serviceKilledMidDownload(FaultDevice& d)
{
    Setup setup = offering(QStringLiteral("1.1.0"), {QStringLiteral("library-stall=30000")});
    setup.checkSeconds = 2;
    if (!d.start(setup) || !d.waitForLog(QStringLiteral("Downloading version 1.1.0"), 5000))
        return d.fail(QStringLiteral("no download began"));
    d.observe(500);
    const int port = d.rig().servicePort();
    d.rig().killService();
    d.expectLog(kDownloadFailed, 5000);
    d.expectKeepsPlaying(3000, QStringLiteral("the service gone"));
    QString error;
    if (!d.rig().startService(QStringLiteral("1.1.0"), d.binaries().library110, &error, {QStringLiteral("--port"), QString::number(port)}))
        return d.setupError(error);
    d.expectLog(kUpdated, kUpdateMs);
    d.expectKeepsPlaying(3000, QStringLiteral("the update after the service came back"));
    d.expectCleanExit();
}

void serviceAbsent(FaultDevice& d)
{
    const int port = closedPort();
    Setup setup;
    setup.versionUrl = QStringLiteral("http://127.0.0.1:%1/config.json").arg(port);
    if (!d.start(setup))
        return;
    d.expectKeepsPlaying(4000, QStringLiteral("no service"));
    d.expectLog(kNoConfig + QStringLiteral("0"));
    QString error;
    if (!d.rig().startService(QStringLiteral("1.1.0"), d.binaries().library110, &error, {QStringLiteral("--port"), QString::number(port)}))
        return d.setupError(error);
    d.expectLog(kUpdated, kUpdateMs);
    d.expectKeepsPlaying(3000, QStringLiteral("the update once the service is there"));
    d.expectCleanExit();
}

Scenario badVersionUrl(const QString& url)
{
    return [=](FaultDevice& d) {
        Setup setup;
        setup.versionUrl = url;
        if (!d.start(setup))
            return;
        d.expectKeepsPlaying(4000, QStringLiteral("checks of a bad URL"));
        d.expectLog(kNoConfig + QStringLiteral("0"));
        d.expectVersion(QStringLiteral("1.0.0"));
        d.expectCleanExit();
    };
}

// A new library that does not work, offered with its correct checksum: the device must go on
// with the copy it had, not try again at every song end, and still have it after a restart.
Scenario badUpdate(std::function<QString(FaultDevice&)> file, LibraryAt where)
{
    return [=](FaultDevice& d) {
        Setup setup;
        setup.library = where;
        if (!d.start(setup) || !d.offer(QStringLiteral("1.1.0"), file(d)))
            return;
        d.expectKeepsPlaying(10000, QStringLiteral("a bad update"));
        d.expectVersion(QStringLiteral("1.0.0"));
        d.expectLogAtMost(kSwapped, 1);
        d.expectCleanExit();
        if (!d.offer(QStringLiteral("1.0.0"), d.binaries().library100) || !d.restartHost())
            return;
        d.expectPlaying(15000, QStringLiteral("a restart after the bad update"));
        d.expectVersion(QStringLiteral("1.0.0"));
        d.expectCleanExit();
    };
}

void unverifiedDownloadAtRestart(FaultDevice& d)
{
    if (!d.start(offering(QStringLiteral("1.1.0"), {QStringLiteral("wrong-checksum")})))
        return;
    d.expectLog(kNotVerified, 8000);
    d.expectKeepsPlaying(2000, QStringLiteral("a failed verification"));
    d.expectCleanExit();
    if (!d.offer(QStringLiteral("1.0.0"), d.binaries().library100) || !d.restartHost())
        return;
    d.expectPlaying(15000, QStringLiteral("the restart"));
    d.expectVersion(QStringLiteral("1.0.0"));
    d.expectCleanExit();
}

void dataRwReadOnly(FaultDevice& d)
{
    Setup setup = offering(QStringLiteral("1.1.0"));
    setup.beforeHost = [&d] {
        const QString dataRw = d.dataDir() + QStringLiteral("/data-rw");
        return QDir().mkpath(dataRw + QStringLiteral("/orvello")) && d.mountReadOnly(dataRw);
    };
    if (!d.start(setup))
        return;
    d.expectKeepsPlaying(10000, QStringLiteral("updates that cannot be installed"));
    d.expectLog(QStringLiteral("Failed to move updated library binary to location: "));
    d.expectLogAtMost(kSwapped, 1);
    d.expectVersion(QStringLiteral("1.0.0"));
    d.expectCleanExit();
}

void dataRwFull(FaultDevice& d)
{
    Setup setup = offering(QStringLiteral("1.1.0"));
    setup.beforeHost = [&d] { return d.mountTmpfs(d.dataDir() + QStringLiteral("/data-rw/orvello"), QStringLiteral("40k")); };
    if (!d.start(setup))
        return;
    d.expectKeepsPlaying(10000, QStringLiteral("an update into a full data-rw"));
    d.expectLogAtMost(kSwapped, 1);
    d.expectVersion(QStringLiteral("1.0.0"));
    d.expectCleanExit();
}

void tmpFull(FaultDevice& d)
{
    if (!d.start(Setup()) || !d.resizeTmp(QStringLiteral("2m")))
        return;
    const QString filler = d.fill(QStringLiteral("/tmp"));
    if (!d.offer(QStringLiteral("1.1.0"), d.binaries().library110))
        return;
    d.expectKeepsPlaying(6000, QStringLiteral("downloads into a full /tmp"));
    d.expectLog(QStringLiteral("Error while writing to local file"));
    d.expectVersion(QStringLiteral("1.0.0"));
    QFile::remove(filler);
    d.expectLog(kUpdated, kUpdateMs);
    d.expectKeepsPlaying(3000, QStringLiteral("the update once /tmp has room"));
    d.expectCleanExit();
}

void settingsReadOnly(FaultDevice& d)
{
    Setup setup;
    setup.paired = false;
    if (!d.start(setup) || !d.mountReadOnly(d.settingsFile()))
        return;
    const DeviceRig::Answer answer = d.pair(kValidCode);
    if (!answer.ok())
        d.fail(QStringLiteral("the pairing failed: %1 %2").arg(answer.status).arg(answer.errorMessage()));
    d.expectPlaying(15000, QStringLiteral("the pairing"));
    d.expectLog(QStringLiteral("ERROR [Vrax] Cannot write settings file ") + d.settingsFile());
    d.expectLog(QStringLiteral("; settings/orvello/token keeps its previous value"));
    d.expectCleanExit();
}

// A settings file that is not JSON any more: the host refuses it with a message that names it.
void settingsNotJson(FaultDevice& d)
{
    if (!d.start(Setup()))
        return;
    d.expectCleanExit();
    QFile file(d.settingsFile());
    if (!file.open(QIODevice::ReadWrite) || !file.resize(file.size() / 2))
        return d.setupError(QStringLiteral("cannot cut %1").arg(d.settingsFile()));
    file.close();
    QProcess host;
    host.start(d.binaries().host, {QStringLiteral("--module"), d.binaries().module, QStringLiteral("--data-dir"), d.dataDir(),
                                   QStringLiteral("--settings"), d.settingsFile(), QStringLiteral("--control-port"), QStringLiteral("0")});
    if (!host.waitForFinished(15000)) {
        host.kill();
        host.waitForFinished();
        return d.fail(QStringLiteral("vrax-host started on a damaged settings file"));
    }
    const QString message = QString::fromLocal8Bit(host.readAllStandardError());
    if (host.exitStatus() != QProcess::NormalExit || host.exitCode() != 1)
        d.fail(QStringLiteral("vrax-host ended with status %1 (crashed: %2)").arg(host.exitCode()).arg(host.exitStatus() != QProcess::NormalExit));
    if (!message.contains(d.settingsFile()) || !message.contains(QStringLiteral("not valid JSON")))
        d.fail(QStringLiteral("the message does not say which file is damaged and how: %1").arg(message.trimmed()));
}

// Settings of the wrong type read as 0: the library refuses the format; the device says so
// and keeps answering.
void settingsWrongTypes(FaultDevice& d)
{
    if (!d.start(Setup()))
        return;
    d.expectCleanExit();
    QFile file(d.settingsFile());
    QJsonObject settings;
    if (file.open(QIODevice::ReadOnly))
        settings = QJsonDocument::fromJson(file.readAll()).object();
    file.close();
    settings.insert(QStringLiteral("settings/orvello/outputSampleRate"), QStringLiteral("fast"));
    QSaveFile out(d.settingsFile());
    if (!out.open(QIODevice::WriteOnly) || out.write(QJsonDocument(settings).toJson()) < 0 || !out.commit())
        return d.setupError(QStringLiteral("cannot write %1").arg(d.settingsFile()));
    if (!d.restartHost())
        return;
    d.expectLog(QStringLiteral("Unable to allocate OPlayer. Error: 23"), 10000);
    d.expectLog(QStringLiteral("Failed to load oplayer-1 library"));
    d.observe(2000);
    if (d.playState() != 0)
        d.fail(QStringLiteral("the play logic is in state %1 without a library").arg(d.playState()));
    d.expectCleanExit();
}

void tmpOrvelloRemoved(FaultDevice& d)
{
    if (!d.start(Setup()))
        return;
    if (!QDir(QStringLiteral("/tmp/orvello")).removeRecursively())
        return d.setupError(QStringLiteral("cannot remove /tmp/orvello"));
    d.expectKeepsPlaying(3000, QStringLiteral("/tmp/orvello gone"));
    if (!d.offer(QStringLiteral("1.1.0"), d.binaries().library110))
        return;
    d.expectLog(QStringLiteral("Unable to open destination:/tmp/orvello/liboplayer-1.so.tmp"), 5000);
    d.expectKeepsPlaying(3000, QStringLiteral("an update it cannot download"));
    d.expectVersion(QStringLiteral("1.0.0"));
    d.expectCleanExit();
}

void killMidPairing(FaultDevice& d)
{
    Setup setup;
    setup.paired = false;
    if (!d.start(setup))
        return;
    QTimer::singleShot(500, [&d] { d.signalHost(SIGKILL); });
    d.pair(kValidCode);
    d.rig().waitForHostExit(10000);
    if (!d.restartHost())
        return;
    d.expectLog(QStringLiteral("Waiting for pairing code before initializing.."), 10000);
    const DeviceRig::Answer answer = d.pair(kValidCode);
    if (!answer.ok())
        d.fail(QStringLiteral("pairing again failed: %1 %2").arg(answer.status).arg(answer.errorMessage()));
    d.expectPlaying(15000, QStringLiteral("pairing again"));
    d.expectCleanExit();
}

void killAfterPairing(FaultDevice& d)
{
    Setup setup;
    setup.paired = false;
    if (!d.start(setup))
        return;
    const DeviceRig::Answer answer = d.pair(kValidCode);
    if (!answer.ok())
        return d.fail(QStringLiteral("the pairing failed: %1 %2").arg(answer.status).arg(answer.errorMessage()));
    d.expectPlaying(15000, QStringLiteral("the pairing"));
    d.signalHostAndWait(SIGKILL);
    if (!d.restartHost())
        return;
    d.expectPlaying(15000, QStringLiteral("the restart, paired"));
    if (!d.rig().hostLog().filter(QStringLiteral("Waiting for pairing code")).isEmpty())
        d.fail(QStringLiteral("the restart waits for a pairing code"));
    d.expectCleanExit();
}

// Killed between the verified download and the swap: the next start installs it.
void killPendingInstall(FaultDevice& d)
{
    if (!d.start(offering(QStringLiteral("1.1.0"))) || !d.waitForLog(kSwapRequested, 10000))
        return d.fail(QStringLiteral("no update was verified"));
    d.signalHostAndWait(SIGKILL);
    if (!d.restartHost())
        return;
    d.expectPlaying(15000, QStringLiteral("the restart"));
    d.expectVersion(QStringLiteral("1.1.0"));
    d.expectCleanExit();
}

// What a power cut in the middle of copying the new library leaves installed.
Scenario cutInstalledLibrary(qint64 length)
{
    return [=](FaultDevice& d) {
        Setup setup;
        setup.beforeHost = [&d, length] {
            const QString cut = cutLibrary(d, length);
            QDir().mkpath(QFileInfo(d.installedLibrary()).absolutePath());
            return QFile::copy(cut, d.installedLibrary());
        };
        if (!d.start(setup))
            return;
        d.expectVersion(QStringLiteral("1.0.0"));
        d.expectKeepsPlaying(3000, QStringLiteral("the system copy"));
        d.expectCleanExit();
    };
}

void termMidDownload(FaultDevice& d)
{
    Setup setup = offering(QStringLiteral("1.1.0"), {QStringLiteral("library-stall=30000")});
    setup.checkSeconds = 2;
    if (!d.start(setup) || !d.waitForLog(QStringLiteral("Downloading version 1.1.0"), 5000))
        return d.fail(QStringLiteral("no download began"));
    d.observe(500);
    const int code = d.signalHostAndWait(SIGTERM);
    if (code != 0)
        d.fail(QStringLiteral("SIGTERM during a download ended vrax-host with %1").arg(code));
    if (!d.serviceFails({}) || !d.restartHost())
        return;
    d.expectPlaying(15000, QStringLiteral("the restart"));
    d.expectLog(kUpdated, kUpdateMs);
    d.expectCleanExit();
}

void termAtSwap(FaultDevice& d)
{
    if (!d.start(offering(QStringLiteral("1.1.0"))) || !d.waitForLog(kSwapRequested, 10000))
        return d.fail(QStringLiteral("no update was verified"));
    const int code = d.signalHostAndWait(SIGTERM);
    if (code != 0)
        d.fail(QStringLiteral("SIGTERM at the swap ended vrax-host with %1").arg(code));
    if (!d.restartHost())
        return;
    d.expectPlaying(15000, QStringLiteral("the restart"));
    d.expectVersion(QStringLiteral("1.1.0"));
    d.expectCleanExit();
}

void hostFrozen(FaultDevice& d)
{
    if (!d.start(Setup()))
        return;
    d.signalHost(SIGSTOP);
    QTest::qWait(5000); // the host is frozen: nothing to sample
    d.signalHost(SIGCONT);
    d.expectPlaying(5000, QStringLiteral("SIGCONT"));
    d.expectKeepsPlaying(3000, QStringLiteral("the thaw"));
    d.expectCleanExit();
}

bool player(FaultDevice& d, const char* command)
{
    const DeviceRig::Answer answer = d.rig().post(QStringLiteral("/api/player/") + QLatin1String(command), QJsonObject());
    if (!answer.ok())
        d.fail(QStringLiteral("%1 was refused: %2 %3").arg(QLatin1String(command)).arg(answer.status).arg(answer.errorMessage()));
    return answer.ok();
}

void stopThenPlay(FaultDevice& d)
{
    if (!d.start(Setup()) || !player(d, "stop"))
        return;
    if (!d.observeUntil([&d] { return d.playState() == 0; }, 5000))
        d.fail(QStringLiteral("the play logic is not stopped after a stop"));
    if (player(d, "play"))
        d.expectPlaying(5000, QStringLiteral("play after stop"));
    d.expectCleanExit();
}

void pauseToggles(FaultDevice& d)
{
    if (!d.start(Setup()))
        return;
    for (int i = 0; i < 21; ++i)
        if (!player(d, "pause"))
            return;
    if (!d.observeUntil([&d] { return d.playState() == 3; }, 5000))
        d.fail(QStringLiteral("not paused after 21 toggles (state %1)").arg(d.playState()));
    if (player(d, "pause"))
        d.expectPlaying(5000, QStringLiteral("the 22nd toggle"));
    if (d.playState() != 2)
        d.fail(QStringLiteral("playing, but the play logic says state %1").arg(d.playState()));
    d.expectCleanExit();
}

void oddVolumes(FaultDevice& d)
{
    if (!d.start(Setup()))
        return;
    const int before = d.rig().get(QStringLiteral("/api/volume")).body.value(QStringLiteral("volume")).toInt();
    const QJsonArray refused{150, -5, QStringLiteral("loud"), 50.5, QJsonValue(), true, 1e10};
    for (const QJsonValue& value : refused) {
        const DeviceRig::Answer answer = d.rig().post(QStringLiteral("/api/volume"), {{QStringLiteral("volume"), value}});
        if (answer.status != 400)
            d.fail(QStringLiteral("volume %1 answered %2")
                       .arg(QString::fromUtf8(QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact)))
                       .arg(answer.status));
    }
    const int after = d.rig().get(QStringLiteral("/api/volume")).body.value(QStringLiteral("volume")).toInt();
    if (after != before)
        d.fail(QStringLiteral("refused volumes moved the volume from %1 to %2").arg(before).arg(after));
    for (const int volume : {0, 100, 35})
        if (!d.rig().post(QStringLiteral("/api/volume"), {{QStringLiteral("volume"), volume}}).ok())
            d.fail(QStringLiteral("volume %1 was refused").arg(volume));
    d.expectKeepsPlaying(3000, QStringLiteral("the volume changes"));
    d.expectCleanExit();
}

void oddPairingCodes(FaultDevice& d)
{
    Setup setup;
    setup.paired = false;
    if (!d.start(setup))
        return;
    const QJsonArray codes{QString(), QStringLiteral("ABC"), QStringLiteral("ABCDEFGHIJ"), QStringLiteral("ÄÖÜ-ßßß"),
                           QStringLiteral("abc\tde\x01"), QString(10000, QLatin1Char('A')), QStringLiteral("ZZZ-ZZZ"),
                           123456, QJsonObject{{QStringLiteral("string_"), QString(100000, QLatin1Char('7'))}}};
    for (const QJsonValue& code : codes) {
        const DeviceRig::Answer answer = d.rig().setValue(QStringLiteral("orvello/browse/uiPairCode"), code);
        if (answer.status != 200 && answer.status != 422)
            d.fail(QStringLiteral("code %1 answered %2")
                       .arg(QString::fromUtf8(QJsonDocument(QJsonArray{code}).toJson(QJsonDocument::Compact)).left(60))
                       .arg(answer.status));
    }
    const DeviceRig::Answer answer = d.pair(kValidCode);
    if (!answer.ok())
        d.fail(QStringLiteral("a good code after the odd ones failed: %1 %2").arg(answer.status).arg(answer.errorMessage()));
    d.expectPlaying(15000, QStringLiteral("the good code"));
    d.expectCleanExit();
}

void twoCodesAtOnce(FaultDevice& d)
{
    Setup setup;
    setup.paired = false;
    if (!d.start(setup))
        return;
    QNetworkAccessManager manager;
    std::unique_ptr<QNetworkReply> first(pairLater(manager, d, kValidCode));
    std::unique_ptr<QNetworkReply> second(pairLater(manager, d, QStringLiteral("GHI-JKL")));
    expectAnswered(d, first.get(), QStringLiteral("the first code"));
    expectAnswered(d, second.get(), QStringLiteral("the second code"));
    d.expectPlaying(15000, QStringLiteral("two codes"));
    d.expectCleanExit();
}

// Codes typed while the library is swapped, again and again: a version that never stops being
// newer swaps at every check, short tracks make the swap come while the pairing (about 1 s) is
// still under way. Five codes, each right after a swap was requested.
Scenario codesDuringSwaps(bool badLibrary)
{
    return [=](FaultDevice& d) {
        Setup setup;
        setup.env = QStringList{QStringLiteral("OPLAYER_REF_TRACK_SECONDS=0.5")};
        if (!d.start(setup) || !d.offer(QStringLiteral("9.0"), badLibrary ? randomFile(d) : d.binaries().library110))
            return;
        for (int round = 1; round <= 5 && d.survived(); ++round) {
            const int swaps = d.log().filter(kSwapRequested).size();
            if (!d.observeUntil([&] { return d.log().filter(kSwapRequested).size() > swaps; }, 10000))
                break; // no swap any more, nothing for a code to meet
            QNetworkAccessManager manager;
            std::unique_ptr<QNetworkReply> reply(pairLater(manager, d, kValidCode));
            expectAnswered(d, reply.get(), QStringLiteral("code %1, sent as a swap was requested").arg(round));
        }
        d.expectKeepsPlaying(3000, QStringLiteral("after the codes"));
        d.expectVersion(badLibrary ? QStringLiteral("1.0.0") : QStringLiteral("1.1.0"));
        d.expectCleanExit();
    };
}

// A device playing the fake library in the given modes; nothing newer is offered, so what
// plays stays the misbehaving library.
Setup misbehavingLibrary(const QString& modes)
{
    Setup setup = offering(QStringLiteral("0.1.0"));
    setup.libraryFile = QStringLiteral(FAKE_PLAYING);
    setup.env = QStringList{QStringLiteral("ORVELLO_FAKE_MODES=") + modes};
    return setup;
}

Scenario libraryMisbehaves(const QString& modes)
{
    return [=](FaultDevice& d) {
        if (!d.start(misbehavingLibrary(modes)))
            return;
        d.expectKeepsPlaying(6000, QStringLiteral("a player library in mode ") + modes);
        d.expectVersion(QStringLiteral("0.1.0"));
        d.expectCleanExit();
    };
}

// A library that ends its loop by itself half a second after each start: started again with
// a growing pause, and never claimed to play in between (every case checks that).
void libraryLoopEnds(FaultDevice& d)
{
    Setup setup = misbehavingLibrary(QStringLiteral("loop-ends"));
    setup.waitForAudio = false;
    if (!d.start(setup))
        return;
    d.expectLog(QStringLiteral("Searching the library list again (attempt 1)"), 5000);
    d.expectLog(QStringLiteral("No player library is running; searching the library list again in 4 s"), 10000);
    d.expectLog(QStringLiteral("Searching the library list again (attempt 3)"), 10000);
    d.expectCleanExit();
}

// A download slower than the check interval: the checks meanwhile start no second download
// into the same file, so the one that lands verifies and is swapped in.
void overlappingDownloads(FaultDevice& d)
{
    if (!d.start(offering(QStringLiteral("1.1.0"), {QStringLiteral("library-stall=4000")})))
        return;
    d.expectLog(kUpdated, 20000);
    d.expectNoLog(kNotVerified);
    d.expectKeepsPlaying(3000, QStringLiteral("the update"));
    d.expectVersion(QStringLiteral("1.1.0"));
    d.expectCleanExit();
}

QString notElf(FaultDevice& d)
{
    return randomFile(d);
}
QString noEntrySymbol(FaultDevice& d)
{
    return d.binaries().noEntrySymbol;
}
QString createFails(FaultDevice& d)
{
    return d.binaries().createFails;
}

// ---- the table ------------------------------------------------------------------------------
// name | injects | survives when | scenario | open: the known fault while it does not survive | builds


// clang-format off
const std::vector<Fault> kFaults = {
    // Service and network: the device plays 1.0.0, the service offers 1.1.0 and fails; survival is
    // audio throughout, the failure in the log, 1.0.0 kept, and the update once the fault is cleared.
    {"config-404", "the document answers 404", "plays on at 1.0.0, logs the status, updates once cleared", serviceFails({"config-status=404"}, kNoConfig + "404"), nullptr, AlsoAsan},
    {"config-500", "the document answers 500", "plays on at 1.0.0, logs the status, updates once cleared", serviceFails({"config-status=500"}, kNoConfig + "500"), nullptr, AlsoAsan},
    {"config-empty", "the document is an empty 200", "plays on at 1.0.0, logs the empty body, updates once cleared", serviceFails({"config-empty"}, "JSON fetch result output is empty."), nullptr, AlsoAsan},
    {"config-not-json", "the document is not JSON", "plays on at 1.0.0, logs the parse error, updates once cleared", serviceFails({"config-not-json"}, "An error occurred during parsing of the config JSON: "), nullptr, AlsoAsan},
    {"config-missing-fields", "the document is {}", "plays on at 1.0.0 and downloads nothing, updates once cleared", serviceFails({"config-missing-fields"}, "Version  already on the device, ignoring..."), nullptr, AlsoAsan},
    {"config-wrong-types", "version a number, link an array, checksum a bool", "plays on at 1.0.0, reads no version and downloads nothing, updates once cleared", serviceFails({"config-wrong-types"}, "Version  already on the device, ignoring..."), nullptr, AlsoAsan},
    {"config-long-version", "a 100,000-character version that sorts newer", "plays on through the swap to 1.1.0 and every swap after it", serviceFails({"config-long-version"}, kUpdated, "1.1.0"), nullptr, AlsoAsan},
    {"config-too-slow", "the document answers after 31 s", "plays on through the client's 30 s timeout and logs it", serviceTooSlow("config-delay=31000", kNoConfig + "0"), nullptr, Plain},
    {"library-404", "the library download answers 404", "plays on at 1.0.0, logs the status, updates once cleared", serviceFails({"library-status=404"}, "Downloading library failed with HTTP code: 404"), nullptr, AlsoAsan},
    {"library-truncated", "the library announces its length, sends half and closes", "plays on at 1.0.0, the half file is never verified, updates once cleared", serviceFails({"library-truncated"}, kDownloadFailed), nullptr, AlsoAsan},
    {"library-oversized", "a library body of 16 MiB + 64 KiB with its length", "plays on at 1.0.0, the body is refused, updates once cleared", serviceFails({"library-oversized"}, kDownloadFailed), nullptr, AlsoAsan},
    {"library-oversized-chunked", "the same body without a length", "plays on at 1.0.0, the body is refused, updates once cleared", serviceFails({"library-oversized-chunked"}, kDownloadFailed), nullptr, AlsoAsan},
    {"library-too-slow", "the library answers after 31 s", "plays on through the client's 30 s timeout, the download fails", serviceTooSlow("library-delay=31000", kDownloadFailed), nullptr, Plain},
    {"service-killed-mid-download", "SIGKILL to the service halfway through a download", "plays on, the download fails, updates once the service is back", serviceKilledMidDownload, nullptr, AlsoAsan},
    {"service-absent", "nothing listens at the version URL", "plays on, logs status 0, updates once a service listens there", serviceAbsent, nullptr, AlsoAsan},
    {"version-url-garbage", "the version URL is '::not a url::'", "plays on at 1.0.0 and logs status 0 at each check", badVersionUrl("::not a url::"), nullptr, AlsoAsan},
    {"version-url-not-http", "the version URL is file:///etc/passwd", "plays on at 1.0.0 and logs status 0 at each check", badVersionUrl("file:///etc/passwd"), nullptr, AlsoAsan},

    // Update content: 1.1.0 offered with its correct checksum but unusable.
    {"update-not-elf", "a new library of random bytes (system copy present)", "plays on at 1.0.0, tries it at most once, keeps 1.0.0 across a restart", badUpdate(notElf, LibraryAt::SystemCopy), nullptr, AlsoAsan},
    {"update-not-elf-installed-only", "a new library of random bytes (only an installed 1.0.0)", "plays on at 1.0.0, tries it at most once, keeps 1.0.0 across a restart", badUpdate(notElf, LibraryAt::Installed), nullptr, AlsoAsan},
    {"update-no-entry-symbol", "a new library without OPLAYER_API_5TQX2M", "plays on at 1.0.0, tries it at most once, keeps 1.0.0 across a restart", badUpdate(noEntrySymbol, LibraryAt::SystemCopy), nullptr, AlsoAsan},
    {"update-create-fails", "a new library whose create fails", "plays on at 1.0.0, tries it at most once, keeps 1.0.0 across a restart", badUpdate(createFails, LibraryAt::SystemCopy), nullptr, AlsoAsan},
    {"update-wrong-checksum", "the document's checksum is not the file's", "plays on at 1.0.0, logs the failed verification, updates once cleared", serviceFails({"wrong-checksum"}, kNotVerified), nullptr, AlsoAsan},
    {"update-uppercase-checksum", "the checksum in uppercase hex", "plays on at 1.0.0, does not verify it, updates once cleared", serviceFails({"uppercase-checksum"}, kNotVerified), nullptr, AlsoAsan},
    {"unverified-download-at-restart", "a download that failed verification, then a restart", "after the restart 1.0.0 plays: the unverified file is never loaded", unverifiedDownloadAtRestart, nullptr, AlsoAsan},

    // Disk.
    {"data-rw-read-only", "data-rw mounted read-only, an update offered", "plays on at 1.0.0, the install fails once and is not retried at every song end", dataRwReadOnly, nullptr, AlsoAsan},
    {"data-rw-full", "data-rw/orvello a 40 KiB tmpfs, an update offered", "plays on at 1.0.0 and tries the install at most once", dataRwFull, nullptr, AlsoAsan},
    {"tmp-full", "/tmp full while an update is offered", "plays on at 1.0.0, logs the failed write, updates once /tmp has room", tmpFull, nullptr, AlsoAsan},
    {"settings-read-only", "the settings file mounted read-only, then a pairing", "the pairing plays; an ERROR line says the token could not be saved", settingsReadOnly, nullptr, AlsoAsan},
    {"settings-not-json", "the settings file cut in half, then a start", "vrax-host refuses to start with status 1 and a message naming the file", settingsNotJson, nullptr, AlsoAsan},
    {"settings-wrong-types", "outputSampleRate a string, then a start", "no crash: the log says the library refused the format, state stays 0", settingsWrongTypes, nullptr, AlsoAsan},
    {"tmp-orvello-removed", "/tmp/orvello removed while playing, then an update", "plays on at 1.0.0 and logs that it cannot write the download", tmpOrvelloRemoved, nullptr, AlsoAsan},

    // Power and process.
    {"sigkill-mid-pairing", "SIGKILL 0.5 s into a pairing, then a restart", "the restart waits for a code and a new code pairs and plays", killMidPairing, nullptr, AlsoAsan},
    {"sigkill-after-pairing", "SIGKILL right after a pairing, then a restart", "the restart is paired and plays by itself", killAfterPairing, nullptr, AlsoAsan},
    {"sigkill-pending-install", "SIGKILL between a verified download and its swap, then a restart", "the restart installs the verified file and plays 1.1.0", killPendingInstall, nullptr, AlsoAsan},
    {"power-cut-half-installed", "the installed library is the first half of 1.1.0 (system copy present)", "starts and plays the system copy 1.0.0", cutInstalledLibrary(-1), nullptr, AlsoAsan},
    {"power-cut-header-installed", "the installed library is the first 4 KiB of 1.1.0 (system copy present)", "starts and plays the system copy 1.0.0", cutInstalledLibrary(4096), nullptr, AlsoAsan},
    {"sigterm-mid-download", "SIGTERM halfway through a download, then a restart", "vrax-host ends with 0; the restart plays and updates", termMidDownload, nullptr, AlsoAsan},
    {"sigterm-at-swap", "SIGTERM when the swap is requested, then a restart", "vrax-host ends with 0; the restart plays 1.1.0", termAtSwap, nullptr, AlsoAsan},
    {"sigstop-5s", "vrax-host stopped (SIGSTOP) for 5 s", "audio again within 5 s of SIGCONT", hostFrozen, nullptr, AlsoAsan},

    // The device's controls.
    {"stop-then-play", "the device's stop, then its play", "audio again within 5 s of the play", stopThenPlay, nullptr, AlsoAsan},
    {"pause-toggles", "21 pause toggles back to back, then one more", "paused after 21, playing (state 2, audio) after 22", pauseToggles, nullptr, AlsoAsan},
    {"odd-volumes", "volumes 150, -5, \"loud\", 50.5, null, true, 1e10, then 0, 100, 35", "the odd ones refused with 400 and the volume unchanged; plays on", oddVolumes, nullptr, AlsoAsan},
    {"odd-pairing-codes", "codes empty, short, long, non-ASCII, control characters, 10,000 letters, refused, a number, 100,000 digits", "each answered 200 or 422, then a good code pairs and plays", oddPairingCodes, nullptr, AlsoAsan},
    {"two-codes-at-once", "two pairing codes sent together", "both answered, the device plays", twoCodesAtOnce, nullptr, AlsoAsan},
    {"codes-during-swaps", "five pairing codes, each as a good library is swapped in", "every code answered, 1.1.0 plays", codesDuringSwaps(false), nullptr, Plain},
    {"codes-during-failed-swaps", "five pairing codes, each as a bad library is swapped in", "every code answered, 1.0.0 plays, no crash", codesDuringSwaps(true), nullptr, Plain},

    // The player library misbehaving: the fake library (tests/fakes/fake_playing.c) in one of its
    // ORVELLO_FAKE_MODES, on a paired device.
    {"library-audio-at-create", "a library that calls the audio table from its own thread before create returns", "plays from its start and on, no crash", libraryMisbehaves("early-audio"), nullptr, AlsoAsan},
    {"library-two-threads", "audio calls at create and from two library threads at once", "plays from its start and on, no crash", libraryMisbehaves("early-audio,two-threads"), nullptr, AlsoAsan},
    {"library-null-tables", "controls, metadata and pairing tables all null", "plays on without controls or track data, no crash", libraryMisbehaves("null-tables"), nullptr, AlsoAsan},
    {"library-null-entries", "every entry of those three tables null", "plays on without controls or track data, no crash", libraryMisbehaves("null-entries"), nullptr, AlsoAsan},
    {"library-null-record", "get_current gives no track record", "plays on without track data, no crash", libraryMisbehaves("null-record"), nullptr, AlsoAsan},
    {"library-null-strings", "track records whose strings and artists are null", "plays on with empty track data, no crash", libraryMisbehaves("null-strings"), nullptr, AlsoAsan},
    {"library-slow-run-once", "every turn of the library's loop blocks 200 ms", "plays on, no crash", libraryMisbehaves("slow-run-once"), nullptr, AlsoAsan},
    {"library-loop-ends", "a library that ends its loop by itself 0.5 s after each start", "started again after 1 s, 2 s, 4 s..., never claimed playing in between, no crash", libraryLoopEnds, nullptr, AlsoAsan},
    {"overlapping-downloads", "a library download that stalls 4 s, with a check every second", "one download at a time: the file verifies and 1.1.0 plays", overlappingDownloads, nullptr, AlsoAsan},
};
// clang-format on

const Fault* findFault(const QString& name)
{
    for (const Fault& fault : kFaults)
        if (name == QLatin1String(fault.name))
            return &fault;
    return nullptr;
}

QByteArray linkTarget(const char* path)
{
    char target[256];
    const ssize_t length = readlink(path, target, sizeof target);
    return length > 0 ? QByteArray(target, int(length)) : QByteArray();
}

// private-tmp runs the test in a mount namespace of its own, apart from CTest's.
bool inPrivateMountNamespace()
{
    const QByteArray own = linkTarget("/proc/self/ns/mnt");
    const QByteArray parent = linkTarget(qPrintable(QStringLiteral("/proc/%1/ns/mnt").arg(getppid())));
    return !own.isEmpty() && !parent.isEmpty() && own != parent;
}

// One result file per case for the summary: "survived" or "not survived", the open mark, why.
void writeResult(const Fault& fault, bool survived, const QString& why)
{
    const QString dir = qEnvironmentVariable("FAULTS_RESULTS_DIR");
    if (dir.isEmpty())
        return;
    QDir().mkpath(dir);
    QSaveFile file(dir + QLatin1Char('/') + QLatin1String(fault.name));
    if (!file.open(QIODevice::WriteOnly))
        return;
    file.write((survived ? QByteArray("survived\n") : QByteArray("not survived\n")) + QByteArray(fault.open ? fault.open : "")
               + '\n' + why.section(QLatin1Char('\n'), 0, 0).toUtf8() + '\n');
    file.commit();
}

// Reads the result files of a run and prints the suite's summary.
int summarize(const QString& dir)
{
    int run = 0;
    int survived = 0;
    QStringList open;
    QStringList fixed;
    QStringList broken;
    for (const Fault& fault : kFaults) {
        QFile file(dir + QLatin1Char('/') + QLatin1String(fault.name));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
        ++run;
        const bool ok = lines.value(0) == QLatin1String("survived");
        const bool marked = !lines.value(1).isEmpty();
        survived += ok;
        const QString name = QStringLiteral("  %1: ").arg(QLatin1String(fault.name));
        if (!ok && marked)
            open << name + lines.value(1);
        else if (ok && marked)
            fixed << name + lines.value(1);
        else if (!ok)
            broken << name + lines.value(2);
    }
    std::printf("faults: %d of %d survived\n", survived, run);
    if (!open.isEmpty())
        std::printf("faults: open, not survived as expected (%d):\n%s\n", int(open.size()), qPrintable(open.join('\n')));
    if (!fixed.isEmpty())
        std::printf("faults: survived although marked open; remove the mark (%d):\n%s\n", int(fixed.size()), qPrintable(fixed.join('\n')));
    if (!broken.isEmpty())
        std::printf("faults: not survived (%d):\n%s\n", int(broken.size()), qPrintable(broken.join('\n')));
    return 0;
}

} // namespace

class TestFaults : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void fault_data();
    void fault();
};

void TestFaults::initTestCase()
{
    SKIP_WITHOUT_CHILD_PROCESSES();
    if (getuid() != 0 || !inPrivateMountNamespace())
        QSKIP("fault cases mount over /tmp and their work directory: they need root and a private mount "
              "namespace (run them through tests/support/private-tmp, as CTest does)");
}

void TestFaults::fault_data()
{
    QTest::addColumn<QString>("name");
    for (const Fault& fault : kFaults)
        QTest::newRow(fault.name) << QString::fromLatin1(fault.name);
}

void TestFaults::fault()
{
    QFETCH(QString, name);
    const Fault& fault = *findFault(name);
    const QString base = qEnvironmentVariable("FAULTS_WORK_DIR", QDir::tempPath());
    QDir().mkpath(base);
    QTemporaryDir work(base + QLatin1Char('/') + name + QStringLiteral("-XXXXXX"));
    QVERIFY(work.isValid());
    qInfo("injects: %s", fault.injects);
    qInfo("survives when: %s", fault.survives);

    QString report;
    bool survived = false;
    QString failures;
    QStringList sanitizerReports;
    {
        FaultDevice device(kBinaries, work.path());
        fault.run(device);
        if (device.setupFailed()) {
            writeResult(fault, false, QStringLiteral("the case could not be set up: ") + device.setupErrors());
            QFAIL(qPrintable(QStringLiteral("the case could not be set up: ") + device.setupErrors()));
        }
        device.expectNoLog(QStringLiteral("Reply answered twice"));
        device.expectCleanExit();
        survived = device.survived();
        failures = device.failures();
        if (!survived || qEnvironmentVariableIsSet("FAULTS_REPORT"))
            report = device.report();
        // A crash on a signal may be the known fault; a memory error or undefined behaviour never is.
        static const QRegularExpression memoryError(QStringLiteral(
            "ERROR: (AddressSanitizer: (?!SEGV|BUS|FPE|ILL|ABRT)|LeakSanitizer)|runtime error:|WARNING: ThreadSanitizer"));
        const QStringList log = device.log();
        sanitizerReports = log.filter(memoryError);
        if (!survived) {
            QFile file(work.filePath(QStringLiteral("host.log")));
            if (file.open(QIODevice::WriteOnly))
                file.write(log.join(QLatin1Char('\n')).toUtf8() + '\n');
        }
    }
    writeResult(fault, survived, failures);
    if (!report.isEmpty())
        qInfo("%s", qPrintable(report));
    if (!survived) {
        work.setAutoRemove(false);
        qInfo("work directory kept: %s", qPrintable(work.path()));
    }
    QVERIFY2(sanitizerReports.isEmpty(), qPrintable(sanitizerReports.join(QLatin1Char('\n'))));
    if (fault.open)
        QEXPECT_FAIL("", fault.open, Abort);
    QVERIFY2(survived, qPrintable(failures));
}

int main(int argc, char** argv)
{
    const QString command = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QString();
    if (command == QLatin1String("--ctest-list")) {
        // name and CTest labels, one case a line
        for (const Fault& fault : kFaults)
            std::printf("%s %s\n", fault.name, fault.builds == AlsoAsan ? "faults,sanitize" : "faults");
        return 0;
    }
    if (command == QLatin1String("--summary")) {
        if (argc < 3) {
            std::fprintf(stderr, "usage: tst_faults --summary RESULTS_DIR\n");
            return 2;
        }
        return summarize(QString::fromLocal8Bit(argv[2]));
    }
    QCoreApplication app(argc, argv);
    TestFaults test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_faults.moc"
