#pragma once

// What the fault scenarios share: the log lines they look for, a device set up to be offered an
// update, and the requests and checks several themes make.
#include "FaultDevice.h"

#include <QString>
#include <QStringList>

#include <functional>

class QNetworkAccessManager;
class QNetworkReply;

using Setup = FaultDevice::Setup;
using LibraryAt = FaultDevice::LibraryAt;
// One case's whole run against its device: set up, inject, judge.
using Scenario = std::function<void(FaultDevice&)>;

inline const QString kUpdated = QStringLiteral("Running SDK version: 1.1.0");
inline const QString kSwapRequested = QStringLiteral("Requesting exit at end of song");
// One per swap the device goes through: the exit request itself repeats at every check until then.
inline const QString kSwapped = QStringLiteral("End of oplayer main loop, cleaning up");
inline const QString kDownloadFailed = QStringLiteral("Failed to download new OVM library version.");
inline const QString kNoConfig = QStringLiteral("Getting config JSON ended with HTTP code: ");
inline const QString kNotVerified = QStringLiteral("Failed to verify downlaoded library");
inline const QString kRefused = QStringLiteral("ERROR [Orvello] Refusing the config JSON: its version ");
inline const QString kValidCode = QStringLiteral("ABC-DEF");
inline const QString kInterrupted = QStringLiteral("Pairing was interrupted, please enter the pairing code again");
inline const QString kNotElf = QStringLiteral("ERROR [Orvello] Not loading liboplayer at data-rw/orvello/liboplayer-1.so: not an ELF file");
inline const QString kNoSymbol = QStringLiteral("ERROR [Orvello] Error resolving the OPLAYER_API symbol: ");
inline const QString kCreateFails = QStringLiteral("ERROR [Orvello] Unable to allocate OPlayer. Error: 5");
inline const QString kNoLibrary = QStringLiteral("ERROR [Orvello] Failed to load oplayer-1 library");
constexpr int kUpdateMs = 15000;
constexpr int kClientTimeoutMs = 30000;

// A device playing 1.0.0 whose service offers version, failing in the ways faults names from the
// start.
Setup offering(const QString& version, const QStringList& faults = {});

// 80 KiB that are not a shared object, the same in every run.
QString randomFile(FaultDevice& d);

// POSTs a pairing code without waiting; the reply is the caller's.
QNetworkReply* pairLater(QNetworkAccessManager& manager, FaultDevice& d, const QString& code);

// The device's answer to what was asked: success, or a refusal with this message.
void expectAnswer(FaultDevice& d, const DeviceRig::Answer& answer, const QString& what, const QString& error = QString());

// The library installed in data-rw is this file; none when empty.
void expectInstalled(FaultDevice& d, const QString& file);

// A pairing request must end with an answer of the device (200 or 422), never a dropped
// connection or the control API giving up (504).
void expectAnswered(FaultDevice& d, QNetworkReply* reply, const QString& what);

// A download that stalls for 30 s, half a second under way.
bool startStalledDownload(FaultDevice& d);

// Starts a device that waits for a pairing code.
bool startUnpaired(FaultDevice& d);

// POST /api/player/COMMAND (play, pause, stop), which must succeed; false when it did not.
bool player(FaultDevice& d, const char* command);
