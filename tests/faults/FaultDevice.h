#pragma once

#include "DeviceRig.h"

#include <QElapsedTimer>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QVector>

#include <functional>
#include <memory>

// One emulated device for one fault case, judged from the outside as a shop would: vrax-host
// with the module and a player library, orvello-service on loopback, the pipeline at realtime
// pace. It samples what a listener hears (the pipeline's byte counter) and what the device
// claims (the play logic's state) every 250 ms while a case waits, and collects every way in
// which the device fell short of surviving. Setup errors (a file that cannot be copied, a
// mount that fails) are kept apart: they are faults of the harness, not of the device.
//
// Runs inside a private mount namespace (tests/support/private-tmp): it mounts over its own
// work directory and /tmp, which nobody else sees.
class FaultDevice
{
public:
    struct Binaries
    {
        QString host;
        QString module;
        QString service;
        QString library100;          // oplayer-ref 1.0.0
        QString library110;          // oplayer-ref 1.1.0
        QString noEntrySymbol;       // a fake library without the entry symbol
        QString createFails;         // a fake library whose create fails
    };

    enum class LibraryAt { SystemCopy, Installed, Both, Nowhere };
    struct Setup
    {
        bool paired = true;
        LibraryAt library = LibraryAt::SystemCopy; // where 1.0.0 lies before the start
        QString libraryFile;                       // the player library placed there; 1.0.0 when empty
        QString offer = QStringLiteral("1.0.0");   // what the service offers
        QString offerFile;                         // the file it serves; 1.0.0 (or 1.1.0 for a newer offer) when empty
        QStringList serviceFaults;                 // orvello-service failure modes from the start
        QStringList serviceArguments;              // more of orvello-service's arguments (--public-url URL)
        QString module;                            // the module the host loads; the default one when empty
        int checkSeconds = 1;
        QString versionUrl;                        // the service's document when empty
        QStringList env;                           // extra environment of the host
        bool waitForAudio = true;                  // a paired device must play before the fault
        bool wav = false;                          // the pipeline writes what it plays to a WAV file
        std::function<bool()> beforeHost;          // runs once the files are in place, before the host starts
    };

    FaultDevice(const Binaries& binaries, const QString& workDir);
    ~FaultDevice();
    FaultDevice(const FaultDevice&) = delete;
    FaultDevice& operator=(const FaultDevice&) = delete;

    const Binaries& binaries() const { return m_binaries; }
    DeviceRig& rig() { return *m_rig; }
    QString workDir() const { return m_workDir; }
    QString dataDir() const { return m_rig->dataDir(); }
    QString settingsFile() const;
    QString installedLibrary() const; // data-rw/orvello/liboplayer-1.so
    QString wavFile() const { return m_workDir + QStringLiteral("/heard.wav"); }

    // Starts the service and the host; a paired device must then be heard playing within 15 s.
    // False when the device did not come up (recorded as a failure) or setup failed.
    bool start(const Setup& setup);
    // The host again on the settings file as it stands, after it ended; false when it does not
    // come up (a failure).
    bool restartHost();
    // Sends signal to the host and waits up to 20 s for it to end: its exit code, -1 when it
    // was killed, crashed or is still running.
    int signalHostAndWait(int signal);
    // Sends signal to the host; after SIGKILL or SIGTERM its end is no failure.
    void signalHost(int signal);

    // Service
    bool setService(const QJsonObject& change);
    bool serviceFails(const QStringList& modes) { return setService({{QStringLiteral("fail"), QJsonArray::fromStringList(modes)}}); }
    // Places file in the service's directory under name and offers it as version.
    bool offer(const QString& version, const QString& file, const QString& name = QStringLiteral("offered.so"));

    // Control API
    QString stringValue(const QString& path);
    int playState();
    DeviceRig::Answer pair(const QString& code);

    // Watching. Every wait samples the device; none of them judges.
    void observe(int ms);
    bool observeUntil(const std::function<bool()>& condition, int ms);
    // Waits for a host log line (this run) containing text.
    bool waitForLog(const QString& text, int ms);
    // Audio bytes heard so far, across every host of the case.
    double bytes() const { return m_heardBefore + m_lastRaw; }
    // All host log lines, earlier runs included.
    QStringList log();

    // Judging: each records what fell short, with when and why.
    void fail(const QString& why);
    // Audio is heard within ms (at least half a second of it), and goes on for 2 s.
    void expectPlaying(int withinMs, const QString& after);
    // Audio goes on for ms with no silence longer than a second.
    void expectKeepsPlaying(int ms, const QString& during);
    void expectVersion(const QString& version);
    void expectLog(const QString& text, int withinMs = 0);
    void expectNoLog(const QString& text);
    void expectLogAtMost(const QString& text, int times);
    void expectLogOnce(const QString& text) { expectLog(text); expectLogAtMost(text, 1); }
    void expectState(int state);
    // After a clean exit: the WAV file holds the fake player library's running counter from its
    // first sample on, every sample once and in order (needs Setup::wav).
    void expectCounterIntact();
    // SIGTERM ends the host with status 0.
    void expectCleanExit();

    // Disk
    bool mountReadOnly(const QString& path);
    // Takes away what was mounted last at path (mountReadOnly, mountTmpfs).
    bool unmount(const QString& path);
    // A tmpfs of this size at path, mode 0700 like the directory the module makes there.
    bool mountTmpfs(const QString& path, const QString& size);
    bool resizeTmp(const QString& size);
    // Writes filler into dir until the file system is full; the filler's path.
    QString fill(const QString& dir);

    bool setupFailed() const { return !m_setupErrors.isEmpty(); }
    QString setupErrors() const { return m_setupErrors.join(QLatin1Char('\n')); }
    bool survived() const { return m_failures.isEmpty(); }
    QString failures() const { return m_failures.join(QLatin1Char('\n')); }
    // What happened, for a case that did not survive: the samples around silences and the log.
    QString report();

    void setupError(const QString& why);
    bool run(const QString& program, const QStringList& arguments);

private:
    struct Sample
    {
        qint64 ms;       // since the case began
        double bytes;    // the pipeline's counter; -1 when the host did not answer
        int state;       // the play logic's state; -1 when the host did not answer
    };
    void sample();
    void noticeHostEnd();
    // The longest stretch without new audio in [fromMs, now], and where it began.
    qint64 longestSilence(qint64 fromMs, qint64* startMs) const;
    bool placeLibrary(const QString& path, const QString& file);
    QString when() const;

    Binaries m_binaries;
    QString m_workDir;
    std::unique_ptr<DeviceRig> m_rig;
    QElapsedTimer m_clock;
    QVector<Sample> m_samples;
    QStringList m_failures;
    QStringList m_setupErrors;
    QStringList m_earlierLogs;
    QStringList m_mounts;
    bool m_hostExpectedDown = true;
    double m_lastRaw = 0;     // the running host's counter at the last sample
    double m_heardBefore = 0; // what earlier hosts of this case played
    // State 2 claimed through a silence this long (ms) is reported once.
    bool m_claimReported = false;
};
