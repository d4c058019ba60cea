// The fault suite: the whole device (vrax-host, the module, a player library, orvello-service)
// meets one fault per case, and is judged from the outside by what a listener hears, what the
// play logic claims, which library runs, the settings file, the exit status and the log.
//
// Each case is one line of the table below: its name, what it injects, what surviving it means,
// the scenario, and, for a case the device does not survive yet, the known fault behind it. The
// scenarios are in scenarios/, a file per theme (scenarios/Scenarios.h lists them). CTest runs
// each case alone as faults.<name>.
#include "ChildProcesses.h"
#include "FaultDevice.h"
#include "scenarios/Scenarios.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSaveFile>
#include <QTemporaryDir>
#include <QTest>

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <vector>

namespace {

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
    {"pause-toggles", "21 pause toggles back to back, then one more", "settles paused and quiet or playing and heard, and the next toggle turns it over", pauseToggles, nullptr, AlsoAsan},
    {"stop-across-swap", "the device's stop while a verified 1.1.0 waits for the end of a 10-minute song", "1.1.0 swapped in, 12 s without a sound, state 0, one INFO line; then play: 1.1.0 plays", quietAcrossSwap(false), nullptr, AlsoAsan},
    {"pause-across-swap", "the device's pause while a verified 1.1.0 waits for the end of a 10-minute song", "1.1.0 swapped in, 12 s without a sound, state 3, one INFO line; then play: 1.1.0 plays", quietAcrossSwap(true), nullptr, AlsoAsan},
    {"odd-volumes", "volumes 150, -5, \"loud\", 50.5, null, true, 1e10, then 0, 100 and a drag from 60 to 35", "the odd ones refused with 400 and the volume unchanged; plays on; 35, the last, holds", oddVolumes, nullptr, AlsoAsan},
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
