#pragma once

// The soak's driver: the emulated device playing at fast pace while the soak offers update swaps,
// makes the update service fail and presses the player's buttons, and what it counts meanwhile.
// Soak.cpp runs the host and reads its log and trace; SoakSwaps.cpp, SoakFaults.cpp and
// SoakControls.cpp drive the swaps, the faults and the buttons; Silence.h judges the reads and
// SoakReport.h writes them up.
#include "BenchRig.h"
#include "Silence.h"
#include "SoakFaults.h"
#include "Stats.h"
#include "Tail.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <deque>
#include <map>
#include <memory>
#include <vector>

namespace bench {

// How the soak prints a figure.
inline QString num(double value, int precision = 3)
{
    return figure(value, precision, 100);
}

// An offer (once its fault is cleared) or an exit request not followed by the swap this soon is
// an incident; at fast pace a track lasts a few seconds.
constexpr qint64 kSwapTimeoutNs = 60 * kS;
constexpr qint64 kHoldNs = 2 * kS;            // a stop or a pause lasts this long
constexpr qint64 kAudioAgainNs = 10 * kS;     // after play, audio should be back by then
constexpr qint64 kStuckNs = 30 * kS;          // silence after which the soak presses play
constexpr qint64 kGiveUpNs = 60 * kS;         // and after which it restarts the host

struct Options
{
    int minutes = 60;
    double trackSeconds = 240;
    int tracksPerSwap = 3;
    int faultEverySeconds = 45;
    int stopEverySeconds = 120;
    int pauseEverySeconds = 120;
};

struct Library
{
    QString version;   // what the build reports about itself
    QString file;      // its name in the service's directory
    QString source;
};

struct Swap
{
    qint64 offeredNs = 0;
    qint64 loopEndNs = 0;
    qint64 loadedNs = 0;
    bool clean = true;         // no fault came with the offer or just before it
    QString from, to;
};

struct Incident
{
    qint64 ns = 0;
    QString what;
    QStringList evidence;
};

// vrax-host as /proc shows it; -1 where it could not be read.
struct ProcessSample
{
    qint64 rssKiB = -1;
    int threads = -1;
    int fds = -1;
    double cpuSeconds = -1;
};

struct Sample
{
    qint64 ns = 0;
    ProcessSample process;
    double audioHours = 0;
    int swaps = 0;
    int faults = 0;
    double silenceS = 0;
    double heardS = 0;
    int state = -1;
};

struct LineCount
{
    QByteArray level;
    int count = 0;
    int outsideFaults = 0;
    QString example;
};

// What the soak counted over the run, for its report. Times are the trace's (CLOCK_MONOTONIC ns).
struct SoakRecord
{
    qint64 startNs = 0;
    qint64 endNs = 0;
    Library libraries[2];      // 1.0.0, what the device starts on, and 1.1.0
    QString aborted;           // why the run could not go on
    int finalExitCode = -1;
    double finalStopMs = 0;
    QString traceRelease;      // why the trace's disk space could not be given back

    // Audio, from the trace.
    qint64 audioBytes = 0;
    int connections = 0, sequences = 0, flushes = 0;

    // The log.
    std::map<QByteArray, int> levels;
    std::map<QString, LineCount> lines;   // warnings and errors by text
    int loopEnds = 0, loads = 0, rollbacks = 0, noLibrary = 0;

    // Swaps.
    int offers = 0;
    std::vector<Swap> swaps;
    int offersNotTaken = 0, repeatedExitRequests = 0, unrequestedExitRequests = 0, unrequestedLoads = 0;

    // Faults.
    std::vector<FaultWindow> faults;
    // Library downloads the service answered with 200, from its request log: those of services
    // killed earlier in the run, and those of the one running when last asked.
    int downloadsBefore = 0, downloadsNow = 0;
    int requestLogsMissed = 0;   // the service did not hand over its log: the count is a lower bound

    // Controls.
    int stops = 0, pauses = 0;
    int playedWhileQuietCount = 0;
    QVector<double> playLatenciesMs, resumeLatenciesMs;

    // Health.
    std::vector<qint64> crashes;
    int forcedRestarts = 0;
    int falseClaims = 0;
    std::vector<Incident> incidents;
    std::vector<Sample> samples;
    double cpuBase = 0, cpuSeconds = 0;
};

// Runs on the main thread, which it keeps busy (it polls every 10 ms) until the run ends.
class Soak
{
public:
    Soak(const Options& options, const QString& work) : m_options(options), m_work(work) {}
    Soak(const Soak&) = delete;
    Soak& operator=(const Soak&) = delete;

    // SIGINT and SIGTERM end the run early; the report is still written.
    static void endOnSignals();

    // Starts the service and the host in the (empty) work directory and waits until the device
    // plays; false with the reason in error.
    bool start(QString* error);
    // Until the time is up, a signal came or the run cannot go on.
    void run();
    // Stops the host and reads what is left of its log and trace.
    void finish();

    const Options& options() const { return m_options; }
    const QString& workDir() const { return m_work; }
    const SoakRecord& record() const { return m_record; }
    const SilenceWatch& silence() const { return m_silence; }
    bool healthy() const
    {
        return m_record.crashes.empty() && m_record.forcedRestarts == 0 && m_record.finalExitCode == 0
               && m_record.aborted.isEmpty();
    }
    const QString& aborted() const { return m_record.aborted; }

private:
    enum class SwapState { Steady, Offered, Pending };
    enum class Control { Idle, Stopped, Paused, AwaitAudio };

    // Soak.cpp
    void say(const QString& text);
    void step();
    void readLog();
    void onLogLine(const char* begin, const char* end);
    void readTrace();
    void onTraceLine(const char* begin, const char* end);
    void onAudio(qint64 ns, qint64 bytes);
    void checkHost();
    void restartHost(const QString& why);
    void watchSilence();
    void sample();
    void incident(const QString& what);
    int playState();
    // SoakSwaps.cpp
    void driveSwap();
    void onExitRequested(qint64 ns);
    void onLibraryLoaded(qint64 ns, const QString& version);
    double tracksSinceSwap() const;
    QJsonObject offer(const QString& version, const Library& library) const;
    const Library& libraryFor(const QString& version) const;
    const Library& otherThan(const QString& version) const;
    // SoakFaults.cpp
    void driveFault();
    void startFault(int kind, bool modesPosted);
    void clearFault();
    bool applyService(const QJsonObject& change);
    bool restartService(QString* error);
    void countDownloads();
    bool insideFault(qint64 ns) const;
    // SoakControls.cpp
    void driveControl();

    Options m_options;
    QString m_work;
    SoakRecord m_record;
    SilenceWatch m_silence{m_record.faults};
    std::unique_ptr<DeviceRig> m_rig;
    std::unique_ptr<Tail> m_log;
    std::unique_ptr<Tail> m_trace;
    qint64 m_offsetNs = 0;
    qint64 m_deadlineNs = 0;
    qint64 m_nextSampleNs = 0;
    qint64 m_nextReportNs = 0;
    bool m_stopping = false;
    qint64 m_firstAudioNs = 0;
    qint64 m_pid = 0;

    // The log.
    std::deque<QString> m_logTail;
    qint64 m_lastLoopEndNs = 0, m_lastLoadNs = 0;

    // Swaps.
    SwapState m_swapState = SwapState::Steady;
    QString m_running;
    const Library* m_target = nullptr;
    qint64 m_offeredNs = 0, m_pendingNs = 0;
    qint64 m_audioAtSwap = 0;
    bool m_expectLoad = true;
    int m_offerFault = -1;   // the fault that came with the pending offer, or just before it

    // Faults.
    bool m_faultActive = false;
    bool m_serviceDown = false;
    int m_servicePort = 0;
    int m_nextFault = 0;
    qint64 m_nextFaultNs = 0;
    QJsonObject m_serviceState;

    // Controls.
    Control m_control = Control::Idle;
    qint64 m_controlUntilNs = 0, m_awaitSinceNs = 0;
    qint64 m_verifyNs = 0;   // when to check that the play or resume press left the device playing
    qint64 m_nextStopNs = 0, m_nextPauseNs = 0;
    bool m_playedWhileQuiet = false;
    bool m_awaitingAfterStop = false;

    // Health.
    bool m_stuckPlaySent = false;
    bool m_inFalseClaim = false;
};

} // namespace bench
