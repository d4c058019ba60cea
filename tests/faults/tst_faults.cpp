// The fault suite: the whole device (vrax-host, the module, a player library, orvello-service)
// meets one fault per case, and is judged from the outside by what a listener hears, what the
// play logic claims, which library runs, the settings file, the exit status and the log.
//
// Each case is one line of the table at the end of this file: its name, what it injects, what
// surviving it means, the scenario, and, for a case the device does not survive yet, the known
// fault behind it. CTest runs each case alone as faults.<name>.
#include "ChildProcesses.h"
#include "FaultDevice.h"
#include "NginxTls.h"
#include "TestFiles.h"

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

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>
#include <random>

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
const QString kRefused = QStringLiteral("ERROR [Orvello] Refusing the config JSON: its version ");
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

// /tmp/orvello not writable at start: the worker says so, takes a private scratch directory,
// plays and still installs an update.
void tmpOrvelloReadOnly(FaultDevice& d)
{
    Setup setup = offering(QStringLiteral("1.1.0"));
    setup.beforeHost = [&d] { return QDir().mkpath(QStringLiteral("/tmp/orvello")) && d.mountReadOnly(QStringLiteral("/tmp/orvello")); };
    if (!d.start(setup))
        return;
    d.expectLog(QStringLiteral("ERROR [Orvello] Can not write to /tmp/orvello"));
    d.expectLog(QStringLiteral("ERROR [Orvello] Trying a private scratch directory instead of /tmp/orvello"));
    d.expectLog(QStringLiteral("WARN  [Orvello] Using the private scratch directory /tmp/orvello-"));
    d.expectNoLog(QStringLiteral("Can not init OrvelloWorker"));
    d.expectLog(kUpdated, kUpdateMs);
    d.expectKeepsPlaying(3000, QStringLiteral("the update through the private directory"));
}

// No scratch directory at all (/tmp read-only): the worker stays inert (its page and version
// node, no pairing action), says why, and nothing crashes.
void tmpReadOnly(FaultDevice& d)
{
    Setup setup;
    setup.waitForAudio = false;
    setup.beforeHost = [&d] { return d.mountReadOnly(QStringLiteral("/tmp")); };
    if (!d.start(setup))
        return;
    d.expectLog(QStringLiteral("ERROR [Orvello] Can not create directory :/tmp/orvello"), 10000);
    d.expectLog(QStringLiteral("ERROR [Orvello] Cannot have a private scratch directory either (/tmp/orvello-"));
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
// reason, so the system copy plays, or without one the device claims nothing until the update it
// is offered brings a library.
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
            // Paired and without a library: the update the service offers brings one.
            d.expectLog(kNoLibrary, 10000);
            d.expectLog(QStringLiteral("WARN  [Orvello] No player library loads on this paired device"));
            d.expectPlaying(kUpdateMs, QStringLiteral("the offered library"));
            return d.expectVersion(QStringLiteral("1.0.0"));
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

// ---- the audio socket ---------------------------------------------------------------------------
// A local program on the pipeline's socket (tests/faults/audio_stranger.cpp), of the device's own
// account or of another one (uid 65534). It is there before the host starts and connects the
// moment each pipeline listens, ahead of the module's sender; the device is stopped and played a
// few times, so every play is a new pipeline it races to.

const QString kAudioSocket = QStringLiteral("/tmp/orvello/smt2socketaddress");
const QString kDroppedStranger = QStringLiteral("WARN  [AudioPipeline] Dropped a client of /tmp/orvello/smt2socketaddress "
                                                "before its handshake: ");
constexpr int kHandshakeTimeoutMs = 2000;
constexpr int kStrangerSeconds = 150;
// The race is the stranger's to lose now and then: plays go on until it has won twice.
constexpr int kStrangerWins = 2;
constexpr int kStrangerMinPlays = 2;
constexpr int kStrangerMaxPlays = 12;
constexpr int kOtherAccountPlays = 4;

Scenario audioStranger(const QString& mode, bool otherAccount, const QString& dropped)
{
    return [=](FaultDevice& d) {
        auto stranger = std::make_shared<QProcess>();
        stranger->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        Setup setup;
        setup.beforeHost = [&d, stranger, mode, otherAccount] {
            const QStringList arguments{QStringLiteral(AUDIO_STRANGER_PATH), kAudioSocket, mode, QString::number(kStrangerSeconds)};
            if (otherAccount)
                stranger->start(QStringLiteral("setpriv"), QStringList{QStringLiteral("--reuid=65534"), QStringLiteral("--regid=65534"),
                                                                       QStringLiteral("--clear-groups")} + arguments);
            else
                stranger->start(arguments.first(), arguments.mid(1));
            if (!stranger->waitForStarted(5000) || !d.observeUntil([&] { return stranger->canReadLine(); }, 5000)) {
                d.setupError(QStringLiteral("the stranger did not start: %1").arg(stranger->errorString()));
                return false;
            }
            return true;
        };
        if (!d.start(setup))
            return;
        // The stranger costs the module at most the handshake timeout; a start takes the rest.
        const auto drops = [&d, dropped] { return int(d.log().filter(kDroppedStranger + dropped).size()); };
        int plays = 0;
        const auto morePlays = [&] {
            if (otherAccount)
                return plays < kOtherAccountPlays;
            return plays < kStrangerMinPlays || (plays < kStrangerMaxPlays && drops() < kStrangerWins);
        };
        while (morePlays()) {
            if (!player(d, "stop") || !d.observeUntil([&d] { return d.playState() == 0; }, 5000))
                return d.fail(QStringLiteral("the device did not stop"));
            ++plays;
            if (player(d, "play"))
                d.expectPlaying(kHandshakeTimeoutMs + 3000, QStringLiteral("a play with a stranger on the audio socket"));
        }
        const QString said = QString::fromLocal8Bit(stranger->readAllStandardOutput());
        stranger->kill();
        stranger->waitForFinished(5000);
        if (otherAccount) {
            // The socket file is the device user's alone: the stranger never got a connection.
            if (said.contains(QStringLiteral("connected")) || !said.contains(QStringLiteral("refused: Permission denied")))
                d.fail(QStringLiteral("the other account's program was not refused by the file mode: %1").arg(said.simplified()));
            d.expectNoLog(kDroppedStranger);
        } else if (drops() == 0) {
            d.setupError(QStringLiteral("the stranger never got ahead of the module: %1").arg(said.simplified()));
        }
        d.expectNoLog(QStringLiteral("SMT sender handshake failed"));
        d.expectNoLog(QStringLiteral("Failed to connect audio transfer"));
        qInfo("the stranger was served before the module %d times in %d starts", drops(), plays + 1);
    };
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

// The device's stop or pause while a verified update waits for the end of a long song: the
// library's loop ends at once and 1.1.0 is swapped in, but the device stays quiet and says so
// (12 s of listening); its play brings the music back, on 1.1.0.
Scenario quietAcrossSwap(bool pause)
{
    return [=](FaultDevice& d) {
        Setup setup;
        setup.env = QStringList{QStringLiteral("OPLAYER_REF_TRACK_SECONDS=600")};
        if (!d.start(setup) || !d.offer(QStringLiteral("1.1.0"), d.binaries().library110))
            return;
        if (!d.waitForLog(kSwapRequested, 10000))
            return d.fail(QStringLiteral("no verified update waited for the end of the song"));
        if (!player(d, pause ? "pause" : "stop"))
            return;
        const QString kept = pause ? QStringLiteral("INFO  [Orvello] The device's pause is kept across the library swap")
                                   : QStringLiteral("INFO  [Orvello] The device's stop is kept across the library swap");
        d.expectLog(kUpdated, 10000);
        d.expectLog(kept, 5000);
        const double before = d.bytes();
        d.observe(12000);
        if (d.bytes() > before)
            d.fail(QStringLiteral("%1 bytes of audio heard in the 12 s after the swap").arg(d.bytes() - before));
        d.expectState(pause ? 3 : 0);
        d.expectVersion(QStringLiteral("1.1.0"));
        d.expectLogOnce(kept);
        if (player(d, "play"))
            d.expectPlaying(5000, QStringLiteral("play after the swap"));
        d.expectState(2);
        d.expectVersion(QStringLiteral("1.1.0"));
    };
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

// Codes typed while the library is swapped, again and again: a new version (the other build) is
// offered for each round, short tracks make the swap come while the pairing (about 1 s) is
// still under way. Five codes, each right after a swap was requested.
Scenario codesDuringSwaps(bool badLibrary)
{
    return [=](FaultDevice& d) {
        Setup setup;
        setup.env = QStringList{QStringLiteral("OPLAYER_REF_TRACK_SECONDS=0.5")};
        if (!d.start(setup))
            return;
        for (int round = 1; round <= 5 && d.survived(); ++round) {
            // A file that runs is never swapped in again: each round offers the other build.
            const QString file = badLibrary ? randomFile(d) : round % 2 ? d.binaries().library110 : d.binaries().library100;
            if ((round == 1 || !badLibrary) && !d.offer(QStringLiteral("9.%1").arg(round), file))
                return;
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
        // Another build than the one running: a file that runs is never swapped in again.
        setup.offerFile = newLoads ? QStringLiteral(FAKE_CREATE_FAILS_WITH_HANDLE) : d.binaries().createFails;
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

// ---- attackers: another local account, the update server and the network path -------------
// Both plant the same library (tests/fakes, FAKE_PLANTED): a working player library whose
// constructor appends "uid=N" to a mark file the moment the file is mapped. Held always means
// the mark never appears, and the music went on.
//
// Another local account (uid 65534, as "nobody") can write /tmp and whatever it was given.
// A server on the network path answers the device's check in place of the service, or stands
// between the two; held also means nothing was downloaded, the log says why, and the genuine
// service's update still arrives afterwards.

constexpr uid_t kOtherAccount = 65534;

QString plantedMark(FaultDevice& d)
{
    return d.workDir() + QStringLiteral("/planted-code-ran");
}

bool giveToOtherAccount(FaultDevice& d, const QStringList& paths)
{
    for (const QString& path : paths) {
        if (::lchown(QFile::encodeName(path).constData(), kOtherAccount, kOtherAccount) != 0) {
            d.setupError(QStringLiteral("cannot give %1 to uid %2").arg(path).arg(kOtherAccount));
            return false;
        }
    }
    return true;
}

// Nothing was downloaded from the service.
void expectNothingDownloaded(FaultDevice& d)
{
    for (const QJsonValue& request : d.rig().serviceRequests())
        if (request.toObject().value(QStringLiteral("path")).toString().startsWith(QLatin1String("/files/")))
            return d.fail(QStringLiteral("the device downloaded %1").arg(request.toObject().value(QStringLiteral("path")).toString()));
    if (QFile::exists(QStringLiteral("/tmp/orvello/liboplayer-1.so")))
        d.fail(QStringLiteral("a download stands at /tmp/orvello/liboplayer-1.so"));
}

void expectPlantedNeverRan(FaultDevice& d)
{
    if (QFile::exists(plantedMark(d)))
        d.fail(QStringLiteral("the planted library's code ran (%1)").arg(QString::fromUtf8(fileBytes(plantedMark(d))).trimmed()));
}

mode_t modeOf(const QString& path)
{
    struct stat info;
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_mode : 0;
}

// The account squats /tmp/orvello before the device starts: its library, a verification record
// naming it, and the download's temporary name as a link to a file only root may write. Held:
// the planted code never ran, nothing was written through the link or into the squatted
// directory, the music went on, and the genuine update still arrived and was swapped in.
void squattedScratchDirectory(FaultDevice& d)
{
    const QString victim = d.workDir() + QStringLiteral("/root-only");
    const QByteArray victimBytes("root's own file\n");
    const QString planted = QStringLiteral(FAKE_PLANTED);
    Setup setup = offering(QStringLiteral("1.1.0"));
    setup.env = QStringList{QStringLiteral("ORVELLO_PLANTED_MARK=") + plantedMark(d)};
    setup.beforeHost = [&] {
        const QByteArray record = "{\"version\":\"9.9.9\",\"checksum\":\"" + sha256Hex(fileBytes(planted)).toLatin1()
                                  + "\",\"signature\":\"\"}\n";
        return writeBytes(victim, victimBytes) && ::chmod(qPrintable(victim), 0600) == 0
               && ::mkdir("/tmp/orvello", 0755) == 0 && QFile::copy(planted, QStringLiteral("/tmp/orvello/liboplayer-1.so"))
               && writeBytes(QStringLiteral("/tmp/orvello/liboplayer-1.so.verified"), record)
               && ::symlink(qPrintable(victim), "/tmp/orvello/liboplayer-1.so.tmp") == 0
               && giveToOtherAccount(d, {"/tmp/orvello", "/tmp/orvello/liboplayer-1.so", "/tmp/orvello/liboplayer-1.so.verified",
                                         "/tmp/orvello/liboplayer-1.so.tmp"});
    };
    if (!d.start(setup))
        return;
    d.expectLog(QStringLiteral("ERROR [Orvello] Not using /tmp/orvello: it is owned by uid 65534, not by this process's user"));
    d.expectLog(QStringLiteral("WARN  [Orvello] Using the private scratch directory /tmp/orvello-"));
    d.expectLog(kUpdated, kUpdateMs);
    d.expectKeepsPlaying(3000, QStringLiteral("the genuine update"));
    d.expectVersion(QStringLiteral("1.1.0"));
    expectInstalled(d, d.binaries().library110);
    d.expectCleanExit();
    expectPlantedNeverRan(d);
    if (fileBytes(victim) != victimBytes || (modeOf(victim) & 07777) != 0600)
        d.fail(QStringLiteral("the root-only file was written through the planted link"));
    if (fileBytes(QStringLiteral("/tmp/orvello/liboplayer-1.so")) != fileBytes(planted)
        || !QFileInfo(QStringLiteral("/tmp/orvello/liboplayer-1.so.tmp")).isSymLink())
        d.fail(QStringLiteral("the module changed the squatted directory"));
}

// The account can write the top of the developer tree (the working directory's neighbourhood is
// world-writable) and plants its library where the search list's last entry points; no other
// copy exists. Held: the planted code never ran, the ERROR line names the path and why, the
// device goes on searching, and the genuine update brings the music.
void plantedInOpenDeveloperTree(FaultDevice& d)
{
    Setup setup = offering(QStringLiteral("1.1.0"));
    setup.library = LibraryAt::Nowhere;
    setup.waitForAudio = false;
    setup.env = QStringList{QStringLiteral("ORVELLO_PLANTED_MARK=") + plantedMark(d)};
    const QString tree = QDir(d.workDir()).canonicalPath() + QStringLiteral("/build");
    setup.beforeHost = [&] {
        const QString library = d.rig().devTreeLibraryPath();
        return QDir().mkpath(QFileInfo(library).path()) && ::chmod(qPrintable(tree), 0777) == 0
               && QFile::copy(QStringLiteral(FAKE_PLANTED), library) && giveToOtherAccount(d, {library});
    };
    if (!d.start(setup))
        return;
    d.expectLog(QStringLiteral("ERROR [Orvello] Not loading liboplayer at ../../build/Hollowkit-blobs-links/Orvello/lib/"
                               "linux_x86_64/liboplayer-1.so: ")
                    + tree + QStringLiteral(" on the way to it is writable by its group and others (mode 0777) without the sticky bit; "
                                            "trying the next path"),
                5000);
    d.expectLog(QStringLiteral("WARN  [Orvello] No player library is running; searching the library list again in 1 s"));
    d.expectLog(kUpdated, kUpdateMs);
    d.expectPlaying(10000, QStringLiteral("the genuine update"));
    d.expectVersion(QStringLiteral("1.1.0"));
    d.expectCleanExit();
    expectPlantedNeverRan(d);
}

// The host started under umask 000 and an update installed: nothing the module created can be
// written by group or others (the audio socket is the pipeline's, not the module's).
void createdUnderUmask000(FaultDevice& d)
{
    const mode_t previous = ::umask(0);
    const bool started = d.start(offering(QStringLiteral("1.1.0")));
    ::umask(previous);
    if (!started)
        return;
    d.expectLog(kUpdated, kUpdateMs);
    d.expectKeepsPlaying(2000, QStringLiteral("the update"));
    const QString dataRw = d.dataDir() + QStringLiteral("/data-rw");
    QStringList made{QStringLiteral("/tmp/orvello"), dataRw, dataRw + QStringLiteral("/orvello")};
    for (const QString& dir : {QStringLiteral("/tmp/orvello"), dataRw + QStringLiteral("/orvello")})
        for (const QString& name : QDir(dir).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System))
            if (name != QLatin1String("smt2socketaddress"))
                made << dir + QLatin1Char('/') + name;
    if (!made.contains(dataRw + QStringLiteral("/orvello/liboplayer-1.so")))
        d.fail(QStringLiteral("no library was installed"));
    for (const QString& path : made) {
        const mode_t mode = modeOf(path);
        if ((mode & (S_IWGRP | S_IWOTH)) || (S_ISDIR(mode) && (mode & 07777) != 0700))
            d.fail(QStringLiteral("%1 has mode %2").arg(path, QString::number(mode & 07777, 8)));
    }
}

// A 12 MiB library offered with a check every second: it is downloaded once and swapped in once,
// counted from the service's own request log.
void oneDownloadOneSwap(FaultDevice& d)
{
    // The loader ignores what follows the section headers.
    QByteArray library = fileBytes(d.binaries().library110);
    library.append(QByteArray(12 * 1024 * 1024 - library.size(), '\0'));
    Setup setup = offering(QStringLiteral("1.1.0"));
    setup.offerFile = d.workDir() + QStringLiteral("/big.so");
    if (!writeBytes(setup.offerFile, library))
        return d.setupError(QStringLiteral("cannot write the 12 MiB library"));
    if (!d.start(setup))
        return;
    d.expectLog(kUpdated, kUpdateMs);
    d.expectKeepsPlaying(6000, QStringLiteral("six checks after the swap"));
    d.expectVersion(QStringLiteral("1.1.0"));
    int downloads = 0;
    for (const QJsonValue& request : d.rig().serviceRequests())
        downloads += request.toObject().value(QStringLiteral("path")).toString().startsWith(QStringLiteral("/files/"));
    if (downloads != 1)
        d.fail(QStringLiteral("the service sent the library %1 times").arg(downloads));
    d.expectLogAtMost(kSwapped, 1);
    d.expectLogAtMost(kUpdated, 1);
}

// A paired device with no library anywhere at start. Without an offer, the service answers 404:
// any version it offered would sort after the empty one of a device without a library.
Setup pairedWithoutLibrary(const QString& offer = QString())
{
    Setup setup = offer.isEmpty() ? offering(QStringLiteral("1.0.0"), {QStringLiteral("config-status=404")}) : offering(offer);
    setup.library = LibraryAt::Nowhere;
    setup.waitForAudio = false;
    return setup;
}

bool placeDeveloperCopy(FaultDevice& d)
{
    const QString path = d.rig().devTreeLibraryPath();
    if (QDir().mkpath(QFileInfo(path).path()) && QFile::copy(d.binaries().library100, path))
        return true;
    d.setupError(QStringLiteral("cannot copy the library to %1").arg(path));
    return false;
}

// The library appears 5 s after the start (a partition mounted late): the music starts by itself.
void healsWhenTheLibraryAppears(FaultDevice& d)
{
    if (!d.start(pairedWithoutLibrary()))
        return;
    d.expectLog(kNoLibrary, 5000);
    d.expectLog(QStringLiteral("WARN  [Orvello] No player library loads on this paired device"));
    d.observe(5000);
    d.expectState(0);
    if (!placeDeveloperCopy(d))
        return;
    d.expectPlaying(15000, QStringLiteral("the library appearing"));
    d.expectState(2);
    d.expectVersion(QStringLiteral("1.0.0"));
}

// No library anywhere, a genuine update offered: it arrives, is installed and plays.
void healsByUpdate(FaultDevice& d)
{
    if (!d.start(pairedWithoutLibrary(QStringLiteral("1.1.0"))))
        return;
    d.expectLog(kUpdated, kUpdateMs);
    d.expectPlaying(10000, QStringLiteral("the update"));
    d.expectState(2);
    d.expectVersion(QStringLiteral("1.1.0"));
    expectInstalled(d, d.binaries().library110);
}

// A code typed while the device searches is answered once with the reason; once a library
// appeared and plays, a code pairs.
void codeWhileSearching(FaultDevice& d)
{
    if (!d.start(pairedWithoutLibrary()))
        return;
    d.expectLog(QStringLiteral("Searching the library list again (attempt 1)"), 5000);
    expectAnswer(d, d.pair(kValidCode), QStringLiteral("a code while no library loads"), QStringLiteral("Failed to load library"));
    if (!placeDeveloperCopy(d))
        return;
    d.expectPlaying(15000, QStringLiteral("the library appearing"));
    expectAnswer(d, d.pair(kValidCode), QStringLiteral("a code once a library plays"));
    d.expectKeepsPlaying(3000, QStringLiteral("the pairing"));
}

// The planted library offered as 9.9.9 with its matching checksum and a signature that is
// missing or wrong in the way mode says; then the genuine service offers 1.1.0, signed.
Scenario plantedOffer(const QString& mode, const QString& problem)
{
    return [=](FaultDevice& d) {
        Setup setup = offering(QStringLiteral("9.9.9"), {mode});
        setup.offerFile = QStringLiteral(FAKE_PLANTED);
        setup.env = QStringList{QStringLiteral("ORVELLO_PLANTED_MARK=") + plantedMark(d)};
        if (!d.start(setup))
            return;
        d.expectKeepsPlaying(5000, QStringLiteral("offers of a planted library"));
        d.expectLog(QStringLiteral("ERROR [Orvello] Not downloading version 9.9.9: ") + problem
                    + QStringLiteral("; checking again at the next interval"));
        d.expectNoLog(QStringLiteral("Downloading version 9.9.9"));
        expectNothingDownloaded(d);
        d.expectVersion(QStringLiteral("1.0.0"));
        if (!d.offer(QStringLiteral("1.1.0"), d.binaries().library110) || !d.serviceFails({}))
            return;
        d.expectLog(kUpdated, kUpdateMs);
        d.expectKeepsPlaying(3000, QStringLiteral("the genuine update"));
        expectPlantedNeverRan(d);
    };
}

// One https case: nginx, with its certificates and the test authority trusted inside this
// case's mount namespace, stands in front of the service. check: the certificate the
// configuration URL meets (Trusted with /to-http/ redirects to plain http); download: the one
// the document's links meet. errors: the ERROR lines it must say; none for a genuine update.
Scenario overHttps(NginxTls::Certificate check, const QString& checkPath, NginxTls::Certificate download,
                   const QStringList& errors)
{
    return [=](FaultDevice& d) {
        auto tls = std::make_shared<NginxTls>(d.workDir() + QStringLiteral("/tls"));
        Setup setup = offering(QStringLiteral("1.1.0"));
        setup.versionUrl = tls->url(check, checkPath);
        setup.serviceArguments = QStringList{QStringLiteral("--public-url"), tls->url(download, QString())};
        setup.beforeHost = [&d, tls] {
            QString error;
            if (!tls->start(d.rig().servicePort(), &error) || !tls->trustAuthority(&error)) {
                d.setupError(error);
                return false;
            }
            return true;
        };
        if (!d.start(setup))
            return;
        if (errors.isEmpty()) {
            d.expectLog(kUpdated, kUpdateMs);
            d.expectKeepsPlaying(3000, QStringLiteral("the update over https"));
            return;
        }
        d.expectKeepsPlaying(5000, QStringLiteral("checks the device cannot make safely"));
        for (const QString& error : errors)
            d.expectLog(QStringLiteral("ERROR [Orvello] ") + error);
        d.expectNoLog(QStringLiteral("Completed downloading new OVM library version."));
        expectNothingDownloaded(d);
        d.expectVersion(QStringLiteral("1.0.0"));
    };
}

QString tlsError(const QString& problem)
{
    return QStringLiteral("Getting config JSON failed: TLS error: ") + problem;
}

// The host's resident memory in KiB; -1 when it cannot be read.
qint64 residentKiB(qint64 pid)
{
    static const QRegularExpression rss(QStringLiteral("^VmRSS:\\s+(\\d+) kB$"), QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = rss.match(QString::fromLatin1(fileBytes(QStringLiteral("/proc/%1/status").arg(pid))));
    return match.hasMatch() ? match.captured(1).toLongLong() : -1;
}

// A document with no length that never ends, at every check: read only up to 64 KiB, so the
// host's memory stays where it was (it grew by megabytes a second when the whole body was read).
void endlessDocument(FaultDevice& d)
{
    if (!d.start(offering(QStringLiteral("1.1.0"))))
        return;
    const qint64 before = residentKiB(d.rig().hostPid());
    if (!d.serviceFails({QStringLiteral("config-endless")}))
        return;
    d.expectKeepsPlaying(8000, QStringLiteral("endless documents"));
    d.expectLog(QStringLiteral("ERROR [Orvello] The config JSON is longer than 65536 bytes; it is cut there and not used"));
    const qint64 after = residentKiB(d.rig().hostPid());
    if (before < 0 || after < 0)
        return d.setupError(QStringLiteral("cannot read the host's memory"));
    qInfo("host's resident memory: %lld KiB before the endless documents, %lld KiB after", before, after);
    // ASan keeps freed memory in its quarantine (up to 256 MB), so only the other builds can
    // judge the host by its size; the ASan build judges what happens to that memory.
#ifndef __SANITIZE_ADDRESS__
    if (after - before > 16 * 1024)
        d.fail(QStringLiteral("the host grew from %1 KiB to %2 KiB reading endless documents").arg(before).arg(after));
#endif
    if (!d.serviceFails({}))
        return;
    d.expectLog(kUpdated, kUpdateMs);
}

// A document that drips one byte every 20 s, so no inactivity timeout ever fires: the check
// ends at its deadline.
void drippingDocument(FaultDevice& d)
{
    Setup setup = offering(QStringLiteral("1.1.0"), {QStringLiteral("config-drip=20000")});
    setup.checkSeconds = 600;
    if (!d.start(setup))
        return;
    d.expectKeepsPlaying(30000, QStringLiteral("a document that never finishes"));
    d.expectLog(QStringLiteral("ERROR [Orvello] The config JSON did not arrive within 30 s; the check is cancelled"), 4000);
    d.expectLogAtMost(QStringLiteral("The config JSON did not arrive within"), 1);
    d.expectVersion(QStringLiteral("1.0.0"));
}

// A version, then a link, that carry a line feed and a whole log line behind it, with the
// module's lines down to TRACE on (where the raw document is logged): every line that holds
// the remote text holds it escaped, and no line of the log was written by the server.
void forgedLogLines(FaultDevice& d)
{
    const QString config = d.workDir() + QStringLiteral("/log.properties");
    if (!writeBytes(config, "log4cplus.rootLogger=INFO, STDERR\n"
                            "log4cplus.logger.Orvello=TRACE\n"
                            "log4cplus.appender.STDERR=log4cplus::ConsoleAppender\n"
                            "log4cplus.appender.STDERR.logToStdErr=true\n"
                            "log4cplus.appender.STDERR.ImmediateFlush=true\n"
                            "log4cplus.appender.STDERR.layout=log4cplus::PatternLayout\n"
                            "log4cplus.appender.STDERR.layout.ConversionPattern=%D{%H:%M:%S.%q} %-5p [%c] %m%n\n"))
        return d.setupError(QStringLiteral("cannot write %1").arg(config));
    d.rig().setExtraHostArguments({QStringLiteral("--log-config"), config});
    if (!d.start(offering(QStringLiteral("1.1.0"), {QStringLiteral("config-control-version")})))
        return;
    d.expectLog(QStringLiteral("ERROR [Orvello] Refusing the config JSON: its version \"1.1.0\\n12:00:00.000 INFO  [Orvello] "
                               "Running SDK version: 6.6.6-forged\" is not 1 to 64 printable ASCII characters (character 6 is U+000a)"),
                5000);
    if (!d.serviceFails({QStringLiteral("config-control-link")}))
        return;
    d.expectLog(QStringLiteral("DEBUG [Orvello] Config link: http://127.0.0.1:"), 5000);
    d.expectLog(kDownloadFailed, 5000);
    d.expectKeepsPlaying(2000, QStringLiteral("documents with forged lines"));
    static const QRegularExpression forged(QStringLiteral("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3} INFO  \\[Orvello\\] Running SDK version: 6\\.6\\.6"));
    const QStringList log = d.log();
    if (!log.filter(forged).isEmpty())
        d.fail(QStringLiteral("the server wrote a line of the log: %1").arg(log.filter(forged).first()));
    for (const QString& line : log.filter(QStringLiteral("6.6.6-forged")))
        if (!line.contains(QLatin1String("\\n12:00:00.000 INFO  [Orvello] Running SDK version: 6.6.6-forged")))
            d.fail(QStringLiteral("remote text reached the log unescaped: %1").arg(line.left(300)));
    if (log.filter(QStringLiteral("6.6.6-forged")).filter(QStringLiteral("TRACE [Orvello] OVM Config JSON:")).isEmpty())
        d.fail(QStringLiteral("the TRACE line of the document is not in the log"));
    d.expectVersion(QStringLiteral("1.0.0"));
    if (!d.serviceFails({}))
        return;
    d.expectLog(kUpdated, kUpdateMs);
}

// The module built without an update key: it says so once at start and takes what the
// service offers, signed or not, as it did before signatures.
void keylessModule(FaultDevice& d)
{
    Setup setup = offering(QStringLiteral("1.1.0"), {QStringLiteral("signature-missing")});
    setup.module = QStringLiteral(ORVELLO_MODULE_NOKEY_PATH);
    if (!d.start(setup))
        return;
    d.expectLogOnce(QStringLiteral("WARN  [Orvello] Player library updates are not authenticated: this module was built "
                                   "without an update key, so it installs any library whose checksum matches the "
                                   "service's document"));
    d.expectLog(kUpdated, kUpdateMs);
    d.expectKeepsPlaying(3000, QStringLiteral("the unsigned update"));
    d.expectNoLog(QStringLiteral("Not downloading version"));
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
    {"config-missing-fields", "the document is {}", "plays on at 1.0.0, refuses a document without a version, updates once cleared", serviceFails({"config-missing-fields"}, kRefused + "\"\" is not 1 to 64 printable ASCII characters (it is empty or not text)"), nullptr, AlsoAsan},
    {"config-wrong-types", "version a number, link an array, checksum a bool", "plays on at 1.0.0, reads no version and refuses the document, updates once cleared", serviceFails({"config-wrong-types"}, kRefused + "\"\" is not 1 to 64 printable ASCII characters (it is empty or not text)"), nullptr, AlsoAsan},
    {"config-long-version", "a 1,000-character version that sorts newer", "plays on at 1.0.0, refuses the version, updates once cleared", serviceFails({"config-long-version"}, kRefused + "\"1.1.0.999"), nullptr, AlsoAsan},
    {"config-endless", "a document without a length that never ends", "plays on, reads 64 KiB of it and says so, the host grows by less than 16 MiB (outside ASan), updates once cleared", endlessDocument, nullptr, AlsoAsan},
    {"config-drip", "the document drips one byte every 20 s", "plays on; the check ends at its 30 s deadline with an ERROR line", drippingDocument, nullptr, Plain},
    {"config-forged-log-lines", "a version, then a link, carrying a line feed and a log line of their own (module at TRACE)", "every line with the remote text has it escaped, no line is the server's, updates once cleared", forgedLogLines, nullptr, AlsoAsan},
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
    {"update-uppercase-checksum", "the checksum in uppercase hex", "plays on at 1.0.0, downloads nothing (the signature covers lowercase), updates once cleared", serviceFails({"uppercase-checksum"}, "Not downloading version 1.1.0: the checksum is not 64 lowercase hexadecimal digits"), nullptr, AlsoAsan},

    // The update server and the network path: the attacker is a server on the path.
    {"attack-unsigned-library", "a server on the path offers a planted library (9.9.9) with its checksum and no signature", "held: the planted code never ran, nothing downloaded, 1.0.0 plays on, the ERROR names the version and the missing signature; the genuine 1.1.0 arrives after", plantedOffer("signature-missing", "the signature is missing"), nullptr, AlsoAsan},
    {"attack-other-key", "a server on the path offers a planted library signed with a key the device does not trust", "held: the planted code never ran, nothing downloaded, 1.0.0 plays on, says the signature does not verify; the genuine 1.1.0 arrives after", plantedOffer("signature-other-key", "the signature does not verify with the device's update key"), nullptr, AlsoAsan},
    {"attack-other-version", "a server on the path offers a planted library as 9.9.9 with a signature made for 1.0.9", "held: the planted code never ran, nothing downloaded, 1.0.0 plays on, says the signature does not verify; the genuine 1.1.0 arrives after", plantedOffer("signature-version=1.0.9", "the signature does not verify with the device's update key"), nullptr, AlsoAsan},
    {"https-unknown-authority", "the update server answers https with a self-signed certificate", "held: nothing fetched, 1.0.0 plays on, the ERROR line names the unknown authority", overHttps(NginxTls::Certificate::SelfSigned, "/config.json", NginxTls::Certificate::Trusted, {kNoConfig + "0", tlsError("unknown authority")}), nullptr, AlsoAsan},
    {"https-wrong-name", "the update server's certificate is for another name", "held: nothing fetched, 1.0.0 plays on, the ERROR line names the wrong host name", overHttps(NginxTls::Certificate::OtherName, "/config.json", NginxTls::Certificate::Trusted, {kNoConfig + "0", tlsError("wrong host name")}), nullptr, AlsoAsan},
    {"https-expired", "the update server's certificate has expired", "held: nothing fetched, 1.0.0 plays on, the ERROR line says expired", overHttps(NginxTls::Certificate::Expired, "/config.json", NginxTls::Certificate::Trusted, {kNoConfig + "0", tlsError("expired")}), nullptr, AlsoAsan},
    {"https-download-expired", "the document over good https links to a server whose certificate has expired", "held: nothing downloaded, 1.0.0 plays on, the download's ERROR line says expired", overHttps(NginxTls::Certificate::Trusted, "/config.json", NginxTls::Certificate::Expired, {"Downloading library failed with HTTP code: 0", "Downloading library failed: TLS error: expired", kDownloadFailed}), nullptr, AlsoAsan},
    {"https-redirect-to-http", "the https update server redirects the check to plain http", "held: the redirect is refused and said, nothing fetched, 1.0.0 plays on", overHttps(NginxTls::Certificate::Trusted, "/to-http/config.json", NginxTls::Certificate::Trusted, {kNoConfig + "302", "Getting config JSON failed: Refused the redirect to http://127.0.0.1:"}), nullptr, AlsoAsan},
    {"https-genuine-update", "the genuine service over https (test authority trusted), signed", "1.1.0 arrives over https and plays", overHttps(NginxTls::Certificate::Trusted, "/config.json", NginxTls::Certificate::Trusted, {}), nullptr, AlsoAsan},
    {"keyless-module", "the module built without an update key, unsigned offers", "one WARN at start that updates are not authenticated; the unsigned 1.1.0 arrives and plays", keylessModule, nullptr, AlsoAsan},
    {"unverified-download-at-restart", "a download that failed verification, then a restart", "after the restart 1.0.0 plays and nothing is installed; once it verifies, 1.1.0 plays", unverifiedDownloadAtRestart, nullptr, AlsoAsan},

    // Disk.
    {"data-rw-read-only", "data-rw mounted read-only, an update offered", "plays on at 1.0.0, the install fails once and is not retried at every song end", dataRwReadOnly, nullptr, AlsoAsan},
    {"data-rw-full", "data-rw/orvello a 40 KiB tmpfs, an update offered", "plays on at 1.0.0 and tries the install at most once", dataRwFull, nullptr, AlsoAsan},
    {"tmp-full", "/tmp full while an update is offered", "plays on at 1.0.0, logs the failed write, updates once /tmp has room", tmpFull, nullptr, AlsoAsan},
    {"settings-read-only", "the settings file read-only during a pairing, writable again before a restart", "the pairing plays, one ERROR line says the token is not saved yet, a retry saves it, and the restart plays paired", settingsReadOnly, nullptr, AlsoAsan},
    {"settings-not-json", "the settings file cut in half, then a start", "vrax-host refuses to start with status 1 and a message naming the file", settingsNotJson, nullptr, AlsoAsan},
    {"settings-wrong-types", "outputSampleRate a string, then a start", "no crash: the log says the library refused the format, state stays 0", settingsWrongTypes, nullptr, AlsoAsan},
    {"tmp-orvello-read-only", "/tmp/orvello mounted read-only before the start", "says why, uses a private scratch directory, plays and installs an update", tmpOrvelloReadOnly, nullptr, AlsoAsan},
    {"tmp-read-only", "/tmp mounted read-only before the start", "no crash: logs why it cannot start, publishes the page and version node only, state 0", tmpReadOnly, nullptr, AlsoAsan},
    {"tmp-orvello-removed", "/tmp/orvello removed while playing, then an update", "plays on at 1.0.0 and logs that it cannot write the download", tmpOrvelloRemoved, nullptr, AlsoAsan},

    // Power and process.
    {"sigkill-mid-pairing", "SIGKILL 0.5 s into a pairing, then a restart", "the restart waits for a code and a new code pairs and plays", killMidPairing, nullptr, AlsoAsan},
    {"sigkill-after-pairing", "SIGKILL right after a pairing, then a restart", "the restart is paired and plays by itself", killAfterPairing, nullptr, AlsoAsan},
    {"sigkill-pending-install", "SIGKILL between a verified download and its swap, then a restart", "the restart installs the verified file and plays 1.1.0", signalAtSwap(SIGKILL), nullptr, AlsoAsan},
    {"power-cut-half-installed", "the installed library is the first half of 1.1.0 (system copy present)", "says it is truncated, starts and plays the system copy 1.0.0", cutInstalledLibrary(-1, LibraryAt::SystemCopy), nullptr, AlsoAsan},
    {"power-cut-header-installed", "the installed library is the first 4 KiB of 1.1.0 (system copy present)", "says it is truncated, starts and plays the system copy 1.0.0", cutInstalledLibrary(4096, LibraryAt::SystemCopy), nullptr, AlsoAsan},
    {"power-cut-installed-only", "the installed library is the first 2000 bytes of 1.1.0, no other copy", "no crash: says it is truncated and that no library loads, then plays the 1.0.0 the service offers", cutInstalledLibrary(2000, LibraryAt::Nowhere), nullptr, AlsoAsan},
    {"sigterm-mid-download", "SIGTERM halfway through a download, then a restart", "vrax-host ends with 0; the restart plays and updates", termMidDownload, nullptr, AlsoAsan},
    {"sigterm-at-swap", "SIGTERM when the swap is requested, then a restart", "vrax-host ends with 0; the restart plays 1.1.0", signalAtSwap(SIGTERM), nullptr, AlsoAsan},
    {"sigstop-5s", "vrax-host stopped (SIGSTOP) for 5 s", "audio again within 5 s of SIGCONT", hostFrozen, nullptr, AlsoAsan},

    // The device's controls.
    {"stop-then-play", "the device's stop, then its play", "audio again within 5 s of the play", stopThenPlay, nullptr, AlsoAsan},
    {"pause-toggles", "21 pause toggles back to back, then one more", "paused after 21, playing (state 2, audio) after 22", pauseToggles, nullptr, AlsoAsan},
    {"stop-across-swap", "the device's stop while a verified 1.1.0 waits for the end of a 10-minute song", "1.1.0 swapped in, 12 s without a sound, state 0, one INFO line; then play: 1.1.0 plays", quietAcrossSwap(false), nullptr, AlsoAsan},
    {"pause-across-swap", "the device's pause while a verified 1.1.0 waits for the end of a 10-minute song", "1.1.0 swapped in, 12 s without a sound, state 3, one INFO line; then play: 1.1.0 plays", quietAcrossSwap(true), nullptr, AlsoAsan},
    {"odd-volumes", "volumes 150, -5, \"loud\", 50.5, null, true, 1e10, then 0, 100, 35", "the odd ones refused with 400 and the volume unchanged; plays on", oddVolumes, nullptr, AlsoAsan},
    {"odd-pairing-codes", "codes empty, short, long, non-ASCII, control characters, 10,000 letters, refused, a number, 100,000 digits", "each answered 200 or 422, then a good code pairs and plays", oddPairingCodes, nullptr, AlsoAsan},
    {"two-codes-at-once", "two pairing codes sent together", "both answered, the device plays", twoCodesAtOnce, nullptr, AlsoAsan},
    // The audio socket: a local program that is not an audio sender. Survival: every play is heard
    // within the 2 s handshake timeout plus a start, the module's connect is never refused or
    // repeated, and the log says what the pipeline dropped.
    {"audio-stranger-oversized-hello", "a program of the device's account connects to the audio socket ahead of the module at each play and announces a 16 MiB Hello", "dropped at once and logged; each play heard within 5 s", audioStranger("oversized-hello", false, "its Hello announces 16777216 bytes, more than 76"), nullptr, AlsoAsan},
    {"audio-stranger-silent", "a program of the device's account connects to the audio socket ahead of the module at each play and sends nothing", "dropped after 2 s and logged; each play heard within 5 s", audioStranger("silent", false, "no Hello within 2000 ms"), nullptr, AlsoAsan},
    {"audio-stranger-other-account", "a program of uid 65534 tries to connect to the audio socket at each play", "refused by the socket file's mode, never served; each play heard within 5 s", audioStranger("silent", true, QString()), nullptr, AlsoAsan},
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
    // Another local account (uid 65534) plants its library where the device looks; held means its
    // code never ran (its constructor leaves a mark), nothing was written through a link, the music went on.
    {"squatted-tmp-orvello", "another account's /tmp/orvello with its library, a record naming it and a .tmp link to a root-only file", "planted code never ran, root-only file unchanged, plays on, the genuine update still swaps in", squattedScratchDirectory, nullptr, AlsoAsan},
    {"planted-in-open-developer-tree", "another account's library in a developer tree others can write, no other copy", "planted code never ran, the ERROR line names the path and why, the genuine update brings the music", plantedInOpenDeveloperTree, nullptr, AlsoAsan},
    {"umask-000", "vrax-host started under umask 000, an update installed", "nothing the module created is writable by group or others", createdUnderUmask000, nullptr, AlsoAsan},

    // One update, once; a device that heals itself.
    {"one-download-one-swap", "a 12 MiB library offered with a check every second", "the service sends it once and it is swapped in once", oneDownloadOneSwap, nullptr, AlsoAsan},
    {"paired-library-appears-late", "a paired device with no library at start, the developer copy appearing after 5 s", "the music starts by itself, state 0 before", healsWhenTheLibraryAppears, nullptr, AlsoAsan},
    {"paired-library-by-update", "a paired device with no library at start, 1.1.0 offered", "the update arrives, is installed and plays", healsByUpdate, nullptr, AlsoAsan},
    {"code-while-searching", "a pairing code while a paired device without a library searches, then the library appears", "the code is answered \"Failed to load library\", the music starts, a later code pairs", codeWhileSearching, nullptr, AlsoAsan},
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
