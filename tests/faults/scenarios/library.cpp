// The player library: misbehaving (the fake library in its modes), pairing through it, its loop
// ending, gone at a swap, absent at start and healing.
#include "Scenarios.h"
#include "ScenarioKit.h"

#include "TestFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

// A device playing the fake library in the given modes; nothing newer is offered, so what
// plays stays the misbehaving library.
Setup misbehavingLibrary(const QString& modes)
{
    Setup setup = offering(QStringLiteral("0.1.0"));
    setup.libraryFile = QStringLiteral(FAKE_PLAYING);
    setup.env = QStringList{QStringLiteral("ORVELLO_FAKE_MODES=") + modes};
    return setup;
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

} // namespace

// The library's running counter reaches the listener intact, the play logic says playing, and
// the log says what the library left out, each once (nothing at WARN for a library that only
// calls from odd threads at odd times).
Scenario libraryMisbehaves(const QString& modes, const QStringList& warnings)
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
Scenario pairingWithLibrary(const QString& modes, const QString& error, const QStringList& warnings, int codes)
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
