// Update content and the update path: a verified update that does not work, a download that failed
// verification, the keyless module, one download and one swap, downloads that overlap.
#include "Scenarios.h"
#include "ScenarioKit.h"

#include "TestFiles.h"

#include <QFile>
#include <QJsonArray>

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
