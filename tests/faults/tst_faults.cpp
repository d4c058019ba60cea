// The fault suite: the whole device (vrax-host, the module, a player library, orvello-service)
// meets one fault per case, and is judged from the outside by what a listener hears, what the
// play logic claims, which library runs, the settings file, the exit status and the log.
//
// Each case is one line of the table at the end of this file: its name, what it injects, what
// surviving it means, the scenario, and, for a case the device does not survive yet, the known
// fault behind it. CTest runs each case alone as faults.<name>.
#include "ChildProcesses.h"
#include "FaultDevice.h"
#include "TestFiles.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
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
const QString kInterrupted = QStringLiteral("Pairing was interrupted, please enter the pairing code again");
const QString kNotElf = QStringLiteral("ERROR [Orvello] Not loading liboplayer at data-rw/orvello/liboplayer-1.so: not an ELF file");
const QString kNoSymbol = QStringLiteral("ERROR [Orvello] Error resolving the OPLAYER_API symbol: ");
const QString kCreateFails = QStringLiteral("ERROR [Orvello] Unable to allocate OPlayer. Error: 5");
const QString kNoLibrary = QStringLiteral("ERROR [Orvello] Failed to load oplayer-1 library");
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
    if (!writeBytes(path, bytes))
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

// The device's answer to what was asked: success, or a refusal with this message.
void expectAnswer(FaultDevice& d, const DeviceRig::Answer& answer, const QString& what, const QString& error = QString())
{
    if (error.isEmpty() ? !answer.ok() : answer.status != 422 || answer.errorMessage() != error)
        d.fail(QStringLiteral("%1 was answered %2 \"%3\"").arg(what).arg(answer.status).arg(answer.errorMessage()));
}

// The library installed in data-rw is this file; none when empty.
void expectInstalled(FaultDevice& d, const QString& file)
{
    const bool there = QFile::exists(d.installedLibrary());
    if (file.isEmpty() ? there : fileBytes(d.installedLibrary()) != fileBytes(file))
        d.fail(there ? QStringLiteral("the installed library is not the one expected") : QStringLiteral("no library is installed"));
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
// Every case ends with SIGTERM and a check of the exit status (TestFaults::fault); a scenario
// asks for it itself only before it restarts the host or reads what the host left behind.

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
    };
}

// A download that stalls for 30 s, half a second under way.
bool startStalledDownload(FaultDevice& d)
{
    Setup setup = offering(QStringLiteral("1.1.0"), {QStringLiteral("library-stall=30000")});
    setup.checkSeconds = 2;
    if (!d.start(setup) || !d.waitForLog(QStringLiteral("Downloading version 1.1.0"), 5000)) {
        d.fail(QStringLiteral("no download began"));
        return false;
    }
    d.observe(500);
    return true;
}

// The service offering 1.1.0 again (or for the first time) on port.
bool serviceBack(FaultDevice& d, int port)
{
    QString error;
    if (!d.rig().startService(QStringLiteral("1.1.0"), d.binaries().library110, &error, {QStringLiteral("--port"), QString::number(port)}))
        d.setupError(error);
    return error.isEmpty();
}

void serviceKilledMidDownload(FaultDevice& d)
{
    if (!startStalledDownload(d))
        return;
    const int port = d.rig().servicePort();
    d.rig().killService();
    d.expectLog(kDownloadFailed, 5000);
    d.expectKeepsPlaying(3000, QStringLiteral("the service gone"));
    if (!serviceBack(d, port))
        return;
    d.expectLog(kUpdated, kUpdateMs);
    d.expectKeepsPlaying(3000, QStringLiteral("the update after the service came back"));
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
    if (!serviceBack(d, port))
        return;
    d.expectLog(kUpdated, kUpdateMs);
    d.expectKeepsPlaying(3000, QStringLiteral("the update once the service is there"));
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
    };
}

// A new library that does not work, offered with its correct checksum: the device must go on
// with the copy it had (the installed one put back, or the system copy), say why, not try again
// at every song end, and still have it after a restart.
Scenario badUpdate(std::function<QString(FaultDevice&)> file, LibraryAt where, const QString& failure)
{
    return [=](FaultDevice& d) {
        Setup setup;
        setup.library = where;
        if (!d.start(setup) || !d.offer(QStringLiteral("1.1.0"), file(d)))
            return;
        d.expectKeepsPlaying(10000, QStringLiteral("a bad update"));
        d.expectVersion(QStringLiteral("1.0.0"));
        d.expectLogAtMost(kSwapped, 1);
        d.expectLog(failure);
        const bool installed = where == LibraryAt::Installed;
        const QString rollback = QStringLiteral("ERROR [Orvello] Update to version 1.1.0 does not load from data-rw/orvello/liboplayer-1.so; ");
        d.expectLogAtMost(rollback, 1);
        d.expectLog(rollback + (installed ? QStringLiteral("the previous library is back in its place and version 1.0.0 plays on")
                                          : QStringLiteral("there is no previous copy, so it is removed")));
        if (d.log().filter(QStringLiteral("INFO  [Orvello] Not installing version 1.1.0 again: it did not load")).size() < 2)
            d.fail(QStringLiteral("the later checks do not say that the failed update is not installed again"));
        expectInstalled(d, installed ? d.binaries().library100 : QString());
        if (QFile::exists(d.installedLibrary() + QStringLiteral(".previous"))
            || !fileBytes(d.installedLibrary() + QStringLiteral(".rejected")).contains("\"version\":\"1.1.0\""))
            d.fail(QStringLiteral("a previous copy is left, or the rejected update is not recorded"));
        d.expectCleanExit();
        if (!d.offer(QStringLiteral("1.0.0"), d.binaries().library100) || !d.restartHost())
            return;
        d.expectPlaying(15000, QStringLiteral("a restart after the bad update"));
        d.expectVersion(QStringLiteral("1.0.0"));
    };
}

// A download that failed verification stays in /tmp/orvello: the restart must not install it,
// and once the checksum matches, the update goes through.
void unverifiedDownloadAtRestart(FaultDevice& d)
{
    if (!d.start(offering(QStringLiteral("1.1.0"), {QStringLiteral("wrong-checksum")})))
        return;
    d.expectLog(kNotVerified, 8000);
    d.expectKeepsPlaying(2000, QStringLiteral("a failed verification"));
    d.expectCleanExit();
    if (!QFile::exists(QStringLiteral("/tmp/orvello/liboplayer-1.so")))
        return d.setupError(QStringLiteral("the failed download is not there for the restart"));
    if (!d.restartHost())
        return;
    d.expectPlaying(15000, QStringLiteral("the restart"));
    d.expectVersion(QStringLiteral("1.0.0"));
    d.expectLog(QStringLiteral("ERROR [Orvello] Not installing /tmp/orvello/liboplayer-1.so: it has not passed verification"));
    expectInstalled(d, QString());
    if (!d.serviceFails({}))
        return;
    d.expectLog(kUpdated, kUpdateMs);
    d.expectKeepsPlaying(3000, QStringLiteral("the update once it verifies"));
    d.expectVersion(QStringLiteral("1.1.0"));
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
}

bool startUnpaired(FaultDevice& d)
{
    Setup setup;
    setup.paired = false;
    return d.start(setup);
}

// The token cannot be written while pairing; the file is writable again before the restart, so
// a retry saves it and the device comes back paired.
void settingsReadOnly(FaultDevice& d)
{
    if (!startUnpaired(d) || !d.mountReadOnly(d.settingsFile()))
        return;
    expectAnswer(d, d.pair(kValidCode), QStringLiteral("the pairing"));
    d.expectPlaying(15000, QStringLiteral("the pairing"));
    d.expectLog(QStringLiteral("ERROR [Vrax] Cannot write settings file ") + d.settingsFile());
    d.expectLogOnce(QStringLiteral("; settings/orvello/token keeps its new value unsaved until the file can be written"));
    if (!d.unmount(d.settingsFile()))
        return;
    // Retries come 1, 2, 4, 8, 16, 32 s apart: the next is at most 32 s away.
    d.expectLog(QStringLiteral("INFO  [Vrax] Settings file %1 written; saved at last: ").arg(d.settingsFile()), 35000);
    const QJsonObject saved = QJsonDocument::fromJson(fileBytes(d.settingsFile())).object();
    if (saved.value(QStringLiteral("settings/orvello/token")).toString().isEmpty())
        d.fail(QStringLiteral("the settings file has no token after the retry"));
    d.expectCleanExit();
    if (!d.restartHost())
        return;
    d.expectPlaying(15000, QStringLiteral("the restart, paired without a code"));
    d.expectLogAtMost(QStringLiteral("Waiting for pairing code before initializing"), 1);
}

// A settings file that is not JSON any more: the host refuses it with a message that names it.
void settingsNotJson(FaultDevice& d)
{
    if (!d.start(Setup()))
        return;
    d.expectCleanExit();
    const QByteArray settings = fileBytes(d.settingsFile());
    if (!writeBytes(d.settingsFile(), settings.left(settings.size() / 2)))
        return d.setupError(QStringLiteral("cannot cut %1").arg(d.settingsFile()));
    QString error;
    if (d.rig().restartHost(&error))
        return d.fail(QStringLiteral("vrax-host started on a damaged settings file"));
    const int code = d.rig().waitForHostExit(5000);
    const QString said = d.rig().hostLog().join(QLatin1Char('\n'));
    if (code != 1 || !said.contains(d.settingsFile()) || !said.contains(QStringLiteral("not valid JSON")))
        d.fail(QStringLiteral("vrax-host ended with status %1 (-1: crashed), saying: %2").arg(code).arg(said.trimmed()));
}

// Settings of the wrong type read as 0: the library refuses the format; the device says so
// and keeps answering.
void settingsWrongTypes(FaultDevice& d)
{
    if (!d.start(Setup()))
        return;
    d.expectCleanExit();
    QJsonObject settings = QJsonDocument::fromJson(fileBytes(d.settingsFile())).object();
    settings.insert(QStringLiteral("settings/orvello/outputSampleRate"), QStringLiteral("fast"));
    if (!writeBytes(d.settingsFile(), QJsonDocument(settings).toJson()))
        return d.setupError(QStringLiteral("cannot write %1").arg(d.settingsFile()));
    if (!d.restartHost())
        return;
    d.expectLog(QStringLiteral("Unable to allocate OPlayer. Error: 23"), 10000);
    d.expectLog(kNoLibrary);
    d.observe(2000);
    d.expectState(0);
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
}

// /tmp/orvello not writable at start: the worker stays inert (its page and version node, no
// pairing action), says why, and nothing crashes.
void tmpOrvelloReadOnly(FaultDevice& d)
{
    Setup setup;
    setup.waitForAudio = false;
    setup.beforeHost = [&d] { return QDir().mkpath(QStringLiteral("/tmp/orvello")) && d.mountReadOnly(QStringLiteral("/tmp/orvello")); };
    if (!d.start(setup))
        return;
    d.expectLog(QStringLiteral("ERROR [Orvello] Can not write to /tmp/orvello"), 10000);
    d.expectLog(QStringLiteral("ERROR [Orvello] Can not init OrvelloWorker without /tmp/orvello dir"));
    QStringList paths;
    for (const QJsonValue& node : d.rig().get(QStringLiteral("/api/nodes")).body.value(QStringLiteral("nodes")).toArray())
        paths << node.toObject().value(QStringLiteral("path")).toString();
    paths = paths.filter(QRegularExpression(QStringLiteral("^orvello/")));
    paths.sort();
    if (paths != QStringList{QStringLiteral("orvello/browse"), QStringLiteral("orvello/browse/uiPairCode"), QStringLiteral("orvello/sdkVersion")})
        d.fail(QStringLiteral("the inert worker publishes %1").arg(paths.join(QStringLiteral(", "))));
    d.observe(2000);
    d.expectState(0);
}

void killMidPairing(FaultDevice& d)
{
    if (!startUnpaired(d))
        return;
    QTimer::singleShot(500, [&d] { d.signalHost(SIGKILL); });
    d.pair(kValidCode);
    d.rig().waitForHostExit(10000);
    if (!d.restartHost())
        return;
    d.expectLog(QStringLiteral("Waiting for pairing code before initializing.."), 10000);
    expectAnswer(d, d.pair(kValidCode), QStringLiteral("pairing again"));
    d.expectPlaying(15000, QStringLiteral("pairing again"));
}

void killAfterPairing(FaultDevice& d)
{
    if (!startUnpaired(d))
        return;
    expectAnswer(d, d.pair(kValidCode), QStringLiteral("the pairing"));
    d.expectPlaying(15000, QStringLiteral("the pairing"));
    d.signalHostAndWait(SIGKILL);
    if (!d.restartHost())
        return;
    d.expectPlaying(15000, QStringLiteral("the restart, paired"));
    if (!d.rig().hostLog().filter(QStringLiteral("Waiting for pairing code")).isEmpty())
        d.fail(QStringLiteral("the restart waits for a pairing code"));
}

// SIGKILL between a verified download and its swap, or SIGTERM at the swap's request, then a
// restart: the restart installs the verified file.
Scenario signalAtSwap(int signal)
{
    return [=](FaultDevice& d) {
        if (!d.start(offering(QStringLiteral("1.1.0"))) || !d.waitForLog(kSwapRequested, 10000))
            return d.fail(QStringLiteral("no update was verified"));
        const int code = d.signalHostAndWait(signal);
        if (signal == SIGTERM && code != 0)
            d.fail(QStringLiteral("SIGTERM at the swap ended vrax-host with %1").arg(code));
        if (!d.restartHost())
            return;
        d.expectPlaying(15000, QStringLiteral("the restart"));
        d.expectVersion(QStringLiteral("1.1.0"));
    };
}

// What a power cut in the middle of copying the new library leaves installed: skipped with its
// reason, so the system copy plays, or without one the device waits without claiming to play.
Scenario cutInstalledLibrary(qint64 length, LibraryAt where)
{
    return [=](FaultDevice& d) {
        Setup setup;
        setup.library = where;
        setup.waitForAudio = where != LibraryAt::Nowhere;
        setup.beforeHost = [&d, length] {
            const QByteArray library = fileBytes(d.binaries().library110);
            return writeBytes(d.installedLibrary(), library.left(length < 0 ? library.size() / 2 : int(length)));
        };
        if (!d.start(setup))
            return;
        d.expectLog(QStringLiteral("ERROR [Orvello] Not loading liboplayer at data-rw/orvello/liboplayer-1.so: truncated"), 10000);
        if (where == LibraryAt::Nowhere) {
            d.expectLog(kNoLibrary, 10000);
            d.observe(2000);
            return d.expectState(0);
        }
        d.expectVersion(QStringLiteral("1.0.0"));
        d.expectKeepsPlaying(3000, QStringLiteral("the system copy"));
    };
}

void termMidDownload(FaultDevice& d)
{
    if (!startStalledDownload(d))
        return;
    const int code = d.signalHostAndWait(SIGTERM);
    if (code != 0)
        d.fail(QStringLiteral("SIGTERM during a download ended vrax-host with %1").arg(code));
    if (!d.serviceFails({}) || !d.restartHost())
        return;
    d.expectPlaying(15000, QStringLiteral("the restart"));
    d.expectLog(kUpdated, kUpdateMs);
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
}

bool player(FaultDevice& d, const char* command)
{
    const DeviceRig::Answer answer = d.rig().post(QStringLiteral("/api/player/") + QLatin1String(command), QJsonObject());
    expectAnswer(d, answer, QLatin1String(command));
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
    d.expectState(2);
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
        expectAnswer(d, d.rig().post(QStringLiteral("/api/volume"), {{QStringLiteral("volume"), volume}}),
                     QStringLiteral("volume %1").arg(volume));
    d.expectKeepsPlaying(3000, QStringLiteral("the volume changes"));
}

void oddPairingCodes(FaultDevice& d)
{
    if (!startUnpaired(d))
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
    expectAnswer(d, d.pair(kValidCode), QStringLiteral("a good code after the odd ones"));
    d.expectPlaying(15000, QStringLiteral("the good code"));
}

void twoCodesAtOnce(FaultDevice& d)
{
    if (!startUnpaired(d))
        return;
    QNetworkAccessManager manager;
    std::unique_ptr<QNetworkReply> first(pairLater(manager, d, kValidCode));
    std::unique_ptr<QNetworkReply> second(pairLater(manager, d, QStringLiteral("GHI-JKL")));
    expectAnswered(d, first.get(), QStringLiteral("the first code"));
    expectAnswered(d, second.get(), QStringLiteral("the second code"));
    d.expectPlaying(15000, QStringLiteral("two codes"));
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

// The library's running counter reaches the listener intact, the play logic says playing, and
// the log says what the library left out, each once (nothing at WARN for a library that only
// calls from odd threads at odd times).
Scenario libraryMisbehaves(const QString& modes, const QStringList& warnings = {})
{
    return [=](FaultDevice& d) {
        Setup setup = misbehavingLibrary(modes);
        setup.wav = true;
        if (!d.start(setup))
            return;
        d.expectKeepsPlaying(6000, QStringLiteral("a player library in mode ") + modes);
        d.expectState(2);
        d.expectVersion(QStringLiteral("0.1.0"));
        for (const QString& warning : warnings)
            d.expectLogOnce(warning);
        if (warnings.isEmpty())
            d.expectNoLog(QStringLiteral("WARN "));
        d.expectCounterIntact();
    };
}

// Codes typed on an unpaired device whose library misbehaves: each refused with what the person
// needs to know, or paired and playing; what the library left out is logged once.
Scenario pairingWithLibrary(const QString& modes, const QString& error, const QStringList& warnings, int codes = 1)
{
    return [=](FaultDevice& d) {
        Setup setup = misbehavingLibrary(modes);
        setup.paired = false;
        if (!d.start(setup))
            return;
        for (int code = 1; code <= codes; ++code)
            expectAnswer(d, d.pair(kValidCode), QStringLiteral("code %1").arg(code), error);
        if (error.isEmpty()) {
            d.expectPlaying(15000, QStringLiteral("the pairing"));
            d.expectState(2);
        }
        for (const QString& warning : warnings)
            d.expectLogOnce(warning);
    };
}

// A code the library never answers, typed on a playing device just before an update swap (the
// download held back 2.5 s) into a new library that loads or not, with nothing to fall back on
// but the installed copy: the code gets the interruption error, no poll reaches the unloaded
// library, and music plays on, from the new library or from the previous one put back.
Scenario pairingAcrossSwap(bool newLoads)
{
    return [=](FaultDevice& d) {
        Setup setup = misbehavingLibrary(QStringLiteral("pair-never"));
        setup.library = LibraryAt::Installed;
        setup.offer = QStringLiteral("9.9.9");
        setup.offerFile = newLoads ? QStringLiteral(FAKE_PLAYING) : d.binaries().createFails;
        setup.serviceFaults = QStringList{QStringLiteral("library-delay=2500")};
        if (!d.start(setup))
            return;
        expectAnswer(d, d.pair(kValidCode), QStringLiteral("the code"), kInterrupted);
        d.expectLog(kSwapped);
        if (!newLoads)
            d.expectLog(QStringLiteral("the previous library is back in its place and version 0.1.0 plays on"), 15000);
        if (!d.observeUntil([&d] { return d.log().filter(QStringLiteral("Running SDK version: 0.1.0")).size() >= 2; }, 15000))
            d.fail(QStringLiteral("no library was loaded after the swap"));
        d.expectPlaying(5000, QStringLiteral("the swap"));
        d.expectState(2);
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
}

// The update does not load and no other copy is left (the system copy was deleted while the old
// library ran): the play logic stops claiming to play, the list is searched again after 1 s,
// 2 s, ..., and the music comes back as soon as a library does, without a restart.
void libraryGoneAtSwap(FaultDevice& d)
{
    Setup setup = offering(QStringLiteral("1.1.0"));
    setup.offerFile = d.binaries().noEntrySymbol;
    setup.waitForAudio = false;
    if (!d.start(setup) || !d.waitForLog(QStringLiteral("Running SDK version: 1.0.0"), 10000))
        return d.fail(QStringLiteral("1.0.0 did not start"));
    if (!QFile::remove(d.rig().devTreeLibraryPath()))
        return d.setupError(QStringLiteral("cannot remove the system copy"));
    d.expectLog(kNoLibrary, 20000);
    if (!d.observeUntil([&d] { return d.playState() == 0; }, 5000))
        d.fail(QStringLiteral("the play logic is not stopped without a library"));
    d.expectLog(QStringLiteral("WARN  [Orvello] No player library is running; searching the library list again in 1 s"));
    d.expectLog(QStringLiteral("INFO  [Orvello] Searching the library list again (attempt 1); if no library loads, the "
                               "next attempt follows in 2 s"), 5000);
    if (!writeBytes(d.rig().devTreeLibraryPath(), fileBytes(d.binaries().library100)))
        return d.setupError(QStringLiteral("cannot put the system copy back"));
    d.expectPlaying(8000, QStringLiteral("the library coming back"));
    d.expectState(2);
    d.expectVersion(QStringLiteral("1.0.0"));
    d.expectLogAtMost(QStringLiteral("Running SDK version: 1.0.0"), 2);
    d.expectNoLog(QStringLiteral("Searching the library list again (attempt 3)"));
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
    // Survival: 1.0.0 plays on (the installed copy put back, or the system copy), the log says why
    // the update failed and that it is not tried again, it is tried at most once, and 1.0.0 stays
    // installed (or nothing, with a system copy) and plays after a restart.
    {"update-not-elf", "a new library of random bytes (system copy present)", "plays on at 1.0.0, says why, tries it at most once, keeps 1.0.0 across a restart", badUpdate(notElf, LibraryAt::SystemCopy, kNotElf), nullptr, AlsoAsan},
    {"update-not-elf-installed-only", "a new library of random bytes (only an installed 1.0.0)", "1.0.0 put back and plays on, says why, tries it at most once, keeps 1.0.0 across a restart", badUpdate(notElf, LibraryAt::Installed, kNotElf), nullptr, AlsoAsan},
    {"update-no-entry-symbol", "a new library without OPLAYER_API_5TQX2M (system copy present)", "plays on at 1.0.0, says why, tries it at most once, keeps 1.0.0 across a restart", badUpdate(noEntrySymbol, LibraryAt::SystemCopy, kNoSymbol), nullptr, AlsoAsan},
    {"update-no-entry-symbol-installed-only", "a new library without OPLAYER_API_5TQX2M (only an installed 1.0.0)", "1.0.0 put back and plays on, says why, tries it at most once, keeps 1.0.0 across a restart", badUpdate(noEntrySymbol, LibraryAt::Installed, kNoSymbol), nullptr, AlsoAsan},
    {"update-create-fails", "a new library whose create fails (system copy present)", "plays on at 1.0.0, says why, tries it at most once, keeps 1.0.0 across a restart", badUpdate(createFails, LibraryAt::SystemCopy, kCreateFails), nullptr, AlsoAsan},
    {"update-create-fails-installed-only", "a new library whose create fails (only an installed 1.0.0)", "1.0.0 put back and plays on, says why, tries it at most once, keeps 1.0.0 across a restart", badUpdate(createFails, LibraryAt::Installed, kCreateFails), nullptr, AlsoAsan},
    {"update-wrong-checksum", "the document's checksum is not the file's", "plays on at 1.0.0, logs the failed verification, updates once cleared", serviceFails({"wrong-checksum"}, kNotVerified), nullptr, AlsoAsan},
    {"update-uppercase-checksum", "the checksum in uppercase hex", "plays on at 1.0.0, does not verify it, updates once cleared", serviceFails({"uppercase-checksum"}, kNotVerified), nullptr, AlsoAsan},
    {"unverified-download-at-restart", "a download that failed verification, then a restart", "after the restart 1.0.0 plays and nothing is installed; once it verifies, 1.1.0 plays", unverifiedDownloadAtRestart, nullptr, AlsoAsan},

    // Disk.
    {"data-rw-read-only", "data-rw mounted read-only, an update offered", "plays on at 1.0.0, the install fails once and is not retried at every song end", dataRwReadOnly, nullptr, AlsoAsan},
    {"data-rw-full", "data-rw/orvello a 40 KiB tmpfs, an update offered", "plays on at 1.0.0 and tries the install at most once", dataRwFull, nullptr, AlsoAsan},
    {"tmp-full", "/tmp full while an update is offered", "plays on at 1.0.0, logs the failed write, updates once /tmp has room", tmpFull, nullptr, AlsoAsan},
    {"settings-read-only", "the settings file read-only during a pairing, writable again before a restart", "the pairing plays, one ERROR line says the token is not saved yet, a retry saves it, and the restart plays paired", settingsReadOnly, nullptr, AlsoAsan},
    {"settings-not-json", "the settings file cut in half, then a start", "vrax-host refuses to start with status 1 and a message naming the file", settingsNotJson, nullptr, AlsoAsan},
    {"settings-wrong-types", "outputSampleRate a string, then a start", "no crash: the log says the library refused the format, state stays 0", settingsWrongTypes, nullptr, AlsoAsan},
    {"tmp-orvello-read-only", "/tmp/orvello mounted read-only before the start", "no crash: logs why it cannot start, publishes the page and version node only, state 0", tmpOrvelloReadOnly, nullptr, AlsoAsan},
    {"tmp-orvello-removed", "/tmp/orvello removed while playing, then an update", "plays on at 1.0.0 and logs that it cannot write the download", tmpOrvelloRemoved, nullptr, AlsoAsan},

    // Power and process.
    {"sigkill-mid-pairing", "SIGKILL 0.5 s into a pairing, then a restart", "the restart waits for a code and a new code pairs and plays", killMidPairing, nullptr, AlsoAsan},
    {"sigkill-after-pairing", "SIGKILL right after a pairing, then a restart", "the restart is paired and plays by itself", killAfterPairing, nullptr, AlsoAsan},
    {"sigkill-pending-install", "SIGKILL between a verified download and its swap, then a restart", "the restart installs the verified file and plays 1.1.0", signalAtSwap(SIGKILL), nullptr, AlsoAsan},
    {"power-cut-half-installed", "the installed library is the first half of 1.1.0 (system copy present)", "says it is truncated, starts and plays the system copy 1.0.0", cutInstalledLibrary(-1, LibraryAt::SystemCopy), nullptr, AlsoAsan},
    {"power-cut-header-installed", "the installed library is the first 4 KiB of 1.1.0 (system copy present)", "says it is truncated, starts and plays the system copy 1.0.0", cutInstalledLibrary(4096, LibraryAt::SystemCopy), nullptr, AlsoAsan},
    {"power-cut-installed-only", "the installed library is the first 2000 bytes of 1.1.0, no other copy", "no crash: says it is truncated and that no library loads, state stays 0", cutInstalledLibrary(2000, LibraryAt::Nowhere), nullptr, AlsoAsan},
    {"sigterm-mid-download", "SIGTERM halfway through a download, then a restart", "vrax-host ends with 0; the restart plays and updates", termMidDownload, nullptr, AlsoAsan},
    {"sigterm-at-swap", "SIGTERM when the swap is requested, then a restart", "vrax-host ends with 0; the restart plays 1.1.0", signalAtSwap(SIGTERM), nullptr, AlsoAsan},
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
    // ORVELLO_FAKE_MODES. Playing cases hear its running counter: every sample once, in order,
    // from the first on; what the library left out is logged once at WARN, and nothing else is.
    {"library-audio-at-create", "a library that calls the audio table from its own thread before create returns", "the counter heard whole from its start, no crash", libraryMisbehaves("early-audio"), nullptr, AlsoAsan},
    {"library-two-threads", "audio calls at create and from two library threads at once", "the counter heard whole from its start, no crash", libraryMisbehaves("early-audio,two-threads"), nullptr, AlsoAsan},
    {"library-null-tables", "controls, metadata and pairing tables all null", "the counter heard whole without controls or track data, one WARN each", libraryMisbehaves("null-tables", {"The player library gave no controls table", "The player library gave no metadata table"}), nullptr, AlsoAsan},
    {"library-null-entries", "every entry of those three tables null", "the counter heard whole without controls or track data, one WARN each", libraryMisbehaves("null-entries", {"controls table has no is_paused entry", "controls table has no has_new_data entry"}), nullptr, AlsoAsan},
    {"library-null-record", "get_current gives no track record", "the counter heard whole without track data, one WARN", libraryMisbehaves("null-record", {"gave no track record"}), nullptr, AlsoAsan},
    {"library-null-strings", "track records whose strings and artists are null", "the counter heard whole with empty track data, one WARN each", libraryMisbehaves("null-strings", {"gave a track record without a title", "gave a track record of 2 artists without the artists"}), nullptr, AlsoAsan},
    {"library-slow-run-once", "every turn of the library's loop blocks 200 ms", "the counter heard whole, no crash", libraryMisbehaves("slow-run-once"), nullptr, AlsoAsan},
    {"library-loop-ends", "a library that ends its loop by itself 0.5 s after each start", "started again after 1 s, 2 s, 4 s..., never claimed playing in between, no crash", libraryLoopEnds, nullptr, AlsoAsan},
    {"library-gone-at-swap", "an update without the entry symbol, the system copy deleted before the swap", "stopped (state 0) without a library, searched for again after 1 s, 2 s..., plays when 1.0.0 is back", libraryGoneAtSwap, nullptr, AlsoAsan},
    {"library-pairing-loop-ends", "a code on an unpaired device whose library ends its loop before it answers", "the code refused with the interruption error, the reason logged once", pairingWithLibrary("loop-ends,pair-never", kInterrupted, {"The player library's loop ended before pairing finished"}), nullptr, AlsoAsan},
    {"library-pairing-no-table", "two codes on an unpaired device whose library has no pairing table", "both refused, the reason logged once", pairingWithLibrary("null-tables", "Internal error, library is not initialized", {"The player library gave no pairing table"}, 2), nullptr, AlsoAsan},
    {"library-pairing-no-entries", "two codes on an unpaired device whose pairing table has no entries", "both refused, the reason logged once", pairingWithLibrary("null-entries", "Internal error, library is not initialized", {"The player library gave no pairing table"}, 2), nullptr, AlsoAsan},
    {"library-pairing-no-device-id", "a code paired by a library that gives no device id and null track strings", "paired and playing, each omission logged once", pairingWithLibrary("null-strings", QString(), {"paired the device without a device id", "gave a track record without a title", "gave a track record of 2 artists"}), nullptr, AlsoAsan},
    {"library-pairing-slow-run-once", "a code on an unpaired device whose library's turns block 200 ms", "paired and playing", pairingWithLibrary("slow-run-once", QString(), {}), nullptr, AlsoAsan},
    {"code-across-failed-swap", "a code the library never answers, then a swap to a library whose create fails (only the installed copy)", "the code gets the interruption error, the old library is put back and plays, no crash", pairingAcrossSwap(false), nullptr, AlsoAsan},
    {"code-across-swap", "a code the library never answers, then a swap to a library that loads", "the code gets the interruption error, the new library plays, no crash", pairingAcrossSwap(true), nullptr, AlsoAsan},
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
