#pragma once

// The scenarios of the fault cases, declared by theme: each theme is a file of this folder, and
// the table in tst_faults.cpp gives each case its scenario.
//
// Every case ends with SIGTERM and a check of the exit status (TestFaults::fault); a scenario
// asks for it itself only before it restarts the host or reads what the host left behind.
#include "ScenarioKit.h"

#include "NginxTls.h"

// scenarios/service.cpp
Scenario serviceFails(const QStringList& modes, const QString& logLine, const QString& versionMeanwhile = QStringLiteral("1.0.0"));
Scenario serviceTooSlow(const QString& mode, const QString& logLine);
void serviceKilledMidDownload(FaultDevice& d);
void serviceAbsent(FaultDevice& d);
Scenario badVersionUrl(const QString& url);
void endlessDocument(FaultDevice& d);
void drippingDocument(FaultDevice& d);
void forgedLogLines(FaultDevice& d);

// scenarios/updates.cpp
Scenario badUpdate(std::function<QString(FaultDevice&)> file, LibraryAt where, const QString& failure);
void unverifiedDownloadAtRestart(FaultDevice& d);
void overlappingDownloads(FaultDevice& d);
void oneDownloadOneSwap(FaultDevice& d);
void keylessModule(FaultDevice& d);
QString notElf(FaultDevice& d);
QString noEntrySymbol(FaultDevice& d);
QString createFails(FaultDevice& d);

// scenarios/attacks.cpp
void squattedScratchDirectory(FaultDevice& d);
void plantedInOpenDeveloperTree(FaultDevice& d);
void createdUnderUmask000(FaultDevice& d);
Scenario plantedOffer(const QString& mode, const QString& problem);
Scenario overHttps(NginxTls::Certificate check, const QString& checkPath, NginxTls::Certificate download,
                   const QStringList& errors);
QString tlsError(const QString& problem);

// scenarios/disk.cpp
void dataRwReadOnly(FaultDevice& d);
void dataRwFull(FaultDevice& d);
void tmpFull(FaultDevice& d);
void tmpOrvelloRemoved(FaultDevice& d);
void tmpOrvelloReadOnly(FaultDevice& d);
void tmpReadOnly(FaultDevice& d);

// scenarios/settings.cpp
void settingsReadOnly(FaultDevice& d);
void settingsNotJson(FaultDevice& d);
void settingsWrongTypes(FaultDevice& d);

// scenarios/power.cpp
void killMidPairing(FaultDevice& d);
void killAfterPairing(FaultDevice& d);
Scenario signalAtSwap(int signal);
Scenario cutInstalledLibrary(qint64 length, LibraryAt where);
void termMidDownload(FaultDevice& d);
void hostFrozen(FaultDevice& d);

// scenarios/controls.cpp
void stopThenPlay(FaultDevice& d);
void pauseToggles(FaultDevice& d);
Scenario quietAcrossSwap(bool pause);
void oddVolumes(FaultDevice& d);

// scenarios/pairing.cpp
void oddPairingCodes(FaultDevice& d);
void twoCodesAtOnce(FaultDevice& d);
Scenario codesDuringSwaps(bool badLibrary);

// scenarios/audio.cpp
Scenario audioStranger(const QString& mode, bool otherAccount, const QString& dropped);

// scenarios/library.cpp
Scenario libraryMisbehaves(const QString& modes, const QStringList& warnings = {});
Scenario pairingWithLibrary(const QString& modes, const QString& error, const QStringList& warnings, int codes = 1);
Scenario pairingAcrossSwap(bool newLoads);
void libraryLoopEnds(FaultDevice& d);
void libraryGoneAtSwap(FaultDevice& d);
void healsWhenTheLibraryAppears(FaultDevice& d);
void healsByUpdate(FaultDevice& d);
void codeWhileSearching(FaultDevice& d);
