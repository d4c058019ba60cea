// Power and process: SIGKILL, SIGTERM and SIGSTOP at bad moments, a library cut by a power cut.
#include "Scenarios.h"
#include "ScenarioKit.h"

#include "TestFiles.h"

#include <QTest>
#include <QTimer>

#include <csignal>

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
