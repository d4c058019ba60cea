// bench_soak: the emulated device left playing for a long time at fast pace through what a shop's
// device meets: an update swap every few tracks, the update service failing now and then, the
// player stopped and paused by hand. Written up as a Markdown report plus the data of its plot.
//
// vrax-host runs liborvello.so with oplayer-ref and orvello-service, as in bench_device. The
// host's --trace file gives every read of the audio pipeline (audio played, silence), its log
// file the swaps, rollbacks and warnings, /proc its memory, descriptors and threads. Nothing is
// judged from inside the device.
//
//   bench_soak --results DIR --work-dir DIR [--minutes N] [--track-seconds S] [--tracks-per-swap N]
//              [--fault-every S] [--stop-every S] [--pause-every S]
#include "BenchRig.h"
#include "ProcStat.h"
#include "Stats.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTextStream>
#include <QThread>

#include <fcntl.h>
#include <linux/falloc.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <sstream>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr double kBytesPerSecond = 44100.0 * 2 * 2;
constexpr qint64 kMs = 1000000;
constexpr qint64 kS = 1000 * kMs;

// At fast pace the pipeline reads every few milliseconds (the longest normal wait is the
// library's 5 ms retry), so a stretch this long without audio is the device not delivering.
constexpr qint64 kSilenceMinNs = 100 * kMs;
// How far the library runs ahead of the speaker at realtime pace (bench_device, figure 3c: the
// median wait of a chunk between the data callback and the pipeline). A stall inside a flowing
// stream is heard only past it; a start after play or a restart has nothing queued.
constexpr double kRealtimeCushionS = 0.9;
// An offer (once its fault is cleared) or an exit request not followed by the swap this soon is
// an incident; at fast pace a track lasts a few seconds.
constexpr qint64 kSwapTimeoutNs = 60 * kS;
constexpr qint64 kHoldNs = 2 * kS;            // a stop or a pause lasts this long
constexpr qint64 kAudioAgainNs = 10 * kS;     // after play, audio should be back by then
constexpr qint64 kStuckNs = 30 * kS;          // silence after which the soak presses play
constexpr qint64 kGiveUpNs = 60 * kS;         // and after which it restarts the host

volatile std::sig_atomic_t s_interrupted = 0;

void onInterrupt(int)
{
    s_interrupted = 1;
}

qint64 nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// CLOCK_REALTIME minus CLOCK_MONOTONIC: puts the log's wall-clock times on the trace's clock.
qint64 realtimeOffsetNs()
{
    timespec real{}, mono{};
    clock_gettime(CLOCK_MONOTONIC, &mono);
    clock_gettime(CLOCK_REALTIME, &real);
    return (qint64(real.tv_sec) - qint64(mono.tv_sec)) * kS + (qint64(real.tv_nsec) - qint64(mono.tv_nsec));
}

using bench::operator<<;

QString num(double value, int precision = 3)
{
    if (std::isnan(value))
        return QStringLiteral("n/a");
    if (std::fabs(value) >= 100)
        return QString::number(value, 'f', 0);
    return QString::number(value, 'g', precision);
}

QString minuteOf(qint64 ns, qint64 startNs)
{
    return QString::number(double(ns - startNs) / 60e9, 'f', 1);
}

// ---- /proc ------------------------------------------------------------------------------------

struct ProcessSample
{
    qint64 rssKiB = -1;
    int threads = -1;
    int fds = -1;
    double cpuSeconds = -1;
};

ProcessSample sampleProcess(qint64 pid)
{
    ProcessSample s;
    s.rssKiB = bench::statusValue(pid, "VmRSS:");
    if (s.rssKiB < 0)
        return s;
    s.threads = int(bench::statusValue(pid, "Threads:"));
    s.fds = bench::openFileDescriptors(pid);
    s.cpuSeconds = bench::processCpuSeconds(pid);
    return s;
}

// ---- files another process appends to ---------------------------------------------------------

// Reads what a process appends to a file, a complete line at a time, from where the last read
// stopped.
class Tail
{
public:
    explicit Tail(const QString& path) : m_file(path) {}

    // Calls line(begin, end) for each complete line (without its newline) appended since the
    // last call, reading at most maxBytes.
    template <typename F>
    void read(F&& line, qint64 maxBytes = 16 << 20)
    {
        if (!m_file.isOpen() && !m_file.open(QIODevice::ReadWrite | QIODevice::Unbuffered))
            return;
        if (!m_file.seek(m_offset))
            return;
        const QByteArray chunk = m_file.read(maxBytes);
        if (chunk.isEmpty())
            return;
        m_offset += chunk.size();
        m_partial.append(chunk);
        const char* data = m_partial.constData();
        int start = 0;
        for (int end = m_partial.indexOf('\n'); end >= 0; end = m_partial.indexOf('\n', start)) {
            line(data + start, data + end);
            start = end + 1;
        }
        m_partial.remove(0, start);
    }

    qint64 offset() const { return m_offset; }

    // Gives the disk blocks of what has been read back to the file system once there are at
    // least minBytes of them (the file keeps its size and offsets): an hour's trace at fast pace
    // is about a gigabyte.
    bool release(qint64 minBytes, QString* error)
    {
        const qint64 upTo = (m_offset - m_partial.size()) & ~qint64(4095);
        if (upTo - m_released < minBytes)
            return true;
        if (fallocate(m_file.handle(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, m_released, upTo - m_released) != 0) {
            *error = QString::fromLocal8Bit(std::strerror(errno));
            return false;
        }
        m_released = upTo;
        return true;
    }

private:
    QFile m_file;
    qint64 m_offset = 0;
    qint64 m_released = 0;
    QByteArray m_partial;
};

// ---- what the soak does and sees --------------------------------------------------------------

struct FaultKind
{
    const char* name;
    QStringList modes;   // empty: the service is killed and started again
    int holdSeconds;
    // Slow answers carry the offer of when they were asked, so they come while nothing newer is
    // offered; otherwise one would bring back an offer after its swap.
    bool withOffer;
    int graceSeconds;    // log lines this long after the fault was cleared still come from it
    const char* what;
};

const std::vector<FaultKind>& faultKinds()
{
    static const std::vector<FaultKind> kinds = {
        {"config-500", {QStringLiteral("config-status=500")}, 8, true, 3, "the update document answers status 500"},
        {"library-truncated", {QStringLiteral("library-truncated")}, 8, true, 3,
         "the library download announces its length, sends half and closes"},
        {"config-not-json", {QStringLiteral("config-not-json")}, 8, true, 3, "the update document is not JSON"},
        {"wrong-checksum", {QStringLiteral("wrong-checksum")}, 8, true, 3, "the document's checksum is not the file's"},
        {"service-down", {}, 8, true, 3, "the service killed, started again on its port 8 s later"},
        {"config-slow", {QStringLiteral("config-delay=3000")}, 8, false, 6, "the update document answers after 3 s"},
        {"library-503", {QStringLiteral("library-status=503")}, 8, true, 3, "library downloads answer status 503"},
        {"config-empty", {QStringLiteral("config-empty")}, 8, true, 3, "status 200 with an empty document"},
        {"library-oversized", {QStringLiteral("library-oversized")}, 8, true, 3, "a library body of 16 MiB + 64 KiB"},
        {"uppercase-checksum", {QStringLiteral("uppercase-checksum")}, 8, true, 3, "the checksum in uppercase hex"},
        {"library-stall", {QStringLiteral("library-stall=4000")}, 8, true, 3,
         "the library download sends half, waits 4 s, then the rest"},
        {"config-missing-fields", {QStringLiteral("config-missing-fields")}, 8, true, 3, "the document is {}"},
        {"library-slow", {QStringLiteral("library-delay=3000")}, 8, true, 6, "library downloads answer after 3 s"},
        {"config-wrong-types", {QStringLiteral("config-wrong-types")}, 8, true, 3, "the document's fields have the wrong types"},
        {"config-timeout", {QStringLiteral("config-delay=32000")}, 40, false, 35,
         "the update document answers after 32 s, past the client's 30 s timeout"},
    };
    return kinds;
}

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

struct FaultWindow
{
    int kind = 0;
    qint64 from = 0;
    qint64 to = 0;             // cleared
    qint64 offeredNs = 0;      // the offer it spoiled, or the first one after it
    qint64 swapDoneNs = 0;     // that offer's swap, once done
};

struct Swap
{
    qint64 offeredNs = 0;
    qint64 loopEndNs = 0;
    qint64 loadedNs = 0;
    bool clean = true;         // no fault came with the offer or just before it
    QString from, to;
};

struct Silence
{
    qint64 from = 0;
    qint64 to = 0;
    QString cause;
    bool fromStart = false;    // began at a play, resume or restart: nothing was queued
    double seconds() const { return double(to - from) / 1e9; }
    double heardSeconds() const { return fromStart ? seconds() : std::max(0.0, seconds() - kRealtimeCushionS); }
};

struct Incident
{
    qint64 ns = 0;
    QString what;
    QStringList evidence;
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

class Soak
{
public:
    Soak(const Options& options, const QString& work) : m_options(options), m_work(work) {}

    bool start(QString* error);
    void run();
    void finish();
    bool writeReport(const QString& results, const QString& startLoad, const QDateTime& started);
    bool healthy() const { return m_crashes.empty() && m_forcedRestarts == 0 && m_finalExitCode == 0 && m_aborted.isEmpty(); }
    const QString& aborted() const { return m_aborted; }

private:
    enum class SwapState { Steady, Offered, Pending };
    enum class Control { Idle, Stopped, Paused, AwaitAudio };

    void say(const QString& text);
    void step();
    void readLog();
    void onLogLine(const char* begin, const char* end);
    void readTrace();
    void onTraceLine(const char* begin, const char* end);
    void onAudio(qint64 ns, qint64 bytes);
    void noteGap(qint64 from, qint64 to);
    QString causeOf(qint64 from, qint64 to, bool fromStart) const;
    void checkHost();
    void restartHost(const QString& why);
    void driveSwap();
    void onExitRequested(qint64 ns);
    void onLibraryLoaded(qint64 ns, const QString& version);
    void driveFault();
    void startFault(int kind, bool modesPosted);
    void clearFault();
    bool applyService(const QJsonObject& change);
    bool restartService(QString* error);
    void countDownloads();
    void driveControl();
    void watchSilence();
    void sample();
    void incident(const QString& what);
    int playState();
    double tracksSinceSwap() const;
    QJsonObject offer(const QString& version, const Library& library) const;
    const Library& libraryFor(const QString& version) const;
    const Library& otherThan(const QString& version) const;
    bool insideFault(qint64 ns) const;

    Options m_options;
    QString m_work;
    std::unique_ptr<DeviceRig> m_rig;
    std::unique_ptr<Tail> m_log;
    std::unique_ptr<Tail> m_trace;
    Library m_libraries[2];
    qint64 m_offsetNs = 0;
    qint64 m_startNs = 0;
    qint64 m_endNs = 0;
    qint64 m_deadlineNs = 0;
    qint64 m_nextSampleNs = 0;
    qint64 m_nextReportNs = 0;
    QString m_aborted;
    bool m_stopping = false;
    int m_finalExitCode = -1;
    double m_finalStopMs = 0;
    QString m_traceRelease;

    // Audio, from the trace.
    qint64 m_audioBytes = 0;
    qint64 m_lastAudioNs = 0;
    qint64 m_firstAudioNs = 0;
    int m_connections = 0, m_sequences = 0, m_flushes = 0;
    qint64 m_reads = 0;
    qint64 m_readGaps[3] = {};   // reads 10, 50 and 100 ms or more after the one before, while playing
    std::vector<std::pair<qint64, qint64>> m_quiet;   // the soak's own stops and pauses
    std::vector<Silence> m_silences;
    double m_silenceS = 0, m_heardS = 0;

    // The log.
    std::map<QByteArray, int> m_levels;
    std::map<QString, LineCount> m_lines;
    std::deque<QString> m_logTail;
    std::vector<qint64> m_libraryEvents;   // loop ends and loads
    int m_loopEnds = 0, m_loads = 0, m_rollbacks = 0, m_noLibrary = 0;
    qint64 m_lastLoopEndNs = 0, m_lastLoadNs = 0;

    // Swaps.
    SwapState m_swapState = SwapState::Steady;
    QString m_running;
    const Library* m_target = nullptr;
    int m_offers = 0;
    qint64 m_offeredNs = 0, m_pendingNs = 0;
    qint64 m_audioAtSwap = 0;
    bool m_expectLoad = true;
    std::vector<Swap> m_swaps;
    int m_offerFault = -1;   // the fault that came with the pending offer, or just before it
    int m_offersNotTaken = 0, m_repeatedExitRequests = 0, m_unrequestedExitRequests = 0, m_unrequestedLoads = 0;

    // Faults.
    std::vector<FaultWindow> m_faults;
    bool m_faultActive = false;
    bool m_serviceDown = false;
    int m_servicePort = 0;
    int m_nextFault = 0;
    qint64 m_nextFaultNs = 0;
    QJsonObject m_serviceState;
    // Library downloads the service answered with 200, from its request log: those of services
    // killed earlier in the run, and those of the one running when last asked.
    int m_downloadsBefore = 0, m_downloadsNow = 0;
    int m_requestLogsMissed = 0;   // the service did not hand over its log: the count is a lower bound

    // Controls.
    Control m_control = Control::Idle;
    qint64 m_controlUntilNs = 0, m_awaitSinceNs = 0;
    qint64 m_verifyNs = 0;   // when to check that the play or resume press left the device playing
    qint64 m_nextStopNs = 0, m_nextPauseNs = 0;
    int m_stops = 0, m_pauses = 0;
    bool m_playedWhileQuiet = false;
    int m_playedWhileQuietCount = 0;
    bool m_awaitingAfterStop = false;
    std::vector<double> m_playLatenciesMs, m_resumeLatenciesMs;

    // Health.
    std::vector<qint64> m_crashes;
    std::vector<qint64> m_restarts;   // crashes and restarts forced by silence
    int m_forcedRestarts = 0;
    bool m_stuckPlaySent = false;
    int m_falseClaims = 0;
    bool m_inFalseClaim = false;
    std::vector<Incident> m_incidents;
    std::vector<Sample> m_samples;
    qint64 m_pid = 0;
    double m_cpuBase = 0, m_cpuSeconds = 0;
};

void Soak::say(const QString& text)
{
    std::printf("[%5.1f min] %s\n", m_startNs ? double(nowNs() - m_startNs) / 60e9 : 0.0, text.toUtf8().constData());
    std::fflush(stdout);
}

QJsonObject Soak::offer(const QString& version, const Library& library) const
{
    return QJsonObject{{QStringLiteral("version"), version}, {QStringLiteral("library"), library.file}};
}

const Library& Soak::libraryFor(const QString& version) const
{
    return version == m_libraries[1].version ? m_libraries[1] : m_libraries[0];
}

const Library& Soak::otherThan(const QString& version) const
{
    return version == m_libraries[1].version ? m_libraries[0] : m_libraries[1];
}

bool Soak::start(QString* error)
{
    m_libraries[0] = {QStringLiteral("1.0.0"), QStringLiteral("liboplayer-1.0.0.so"), bench::referenceLibrary(QStringLiteral("1.0.0"))};
    m_libraries[1] = {QStringLiteral("1.1.0"), QStringLiteral("liboplayer-1.1.0.so"), bench::referenceLibrary(QStringLiteral("1.1.0"))};
    m_rig = std::make_unique<DeviceRig>(bench::devicePaths(), m_work);
    // A download left behind would be installed as an update when the module starts.
    QFile::remove(QStringLiteral("/tmp/orvello/liboplayer-1.so"));
    const QString devTree = m_rig->devTreeLibraryPath();
    QDir().mkpath(QFileInfo(devTree).absolutePath());
    if (!QFile::copy(m_libraries[0].source, devTree)) {
        *error = QStringLiteral("cannot install the player library at %1").arg(devTree);
        return false;
    }
    if (!m_rig->startService(m_libraries[0].version, m_libraries[0].source, error))
        return false;
    m_servicePort = m_rig->servicePort();
    for (const Library& library : m_libraries) {
        const QString copy = m_rig->serviceDir() + QLatin1Char('/') + library.file;
        if (!QFile::copy(library.source, copy)) {
            *error = QStringLiteral("cannot copy %1 to %2").arg(library.source, copy);
            return false;
        }
    }
    // The service offers the lowest version the device can run, so no check finds anything newer.
    m_serviceState = offer(m_libraries[0].version, m_libraries[0]);
    m_serviceState.insert(QStringLiteral("fail"), QJsonArray());
    if (!m_rig->setServiceState(m_serviceState, error))
        return false;

    const QString logFile = m_work + QStringLiteral("/host.log");
    const QString traceFile = m_work + QStringLiteral("/host-trace.txt");
    const QString logConfig = m_work + QStringLiteral("/host-log.properties");
    QFile config(logConfig);
    // Epoch milliseconds beside the time of day, so log lines can be placed on the trace's clock.
    const QByteArray properties = "log4cplus.rootLogger=INFO, file\n"
                                  "log4cplus.appender.file=log4cplus::FileAppender\n"
                                  "log4cplus.appender.file.File=" + logFile.toUtf8() + "\n"
                                  "log4cplus.appender.file.Append=true\n"
                                  "log4cplus.appender.file.ImmediateFlush=true\n"
                                  "log4cplus.appender.file.layout=log4cplus::PatternLayout\n"
                                  "log4cplus.appender.file.layout.ConversionPattern=%D{%H:%M:%S.%q} %D{%s.%q} %-5p [%c] %m%n\n";
    QFile log(logFile), trace(traceFile);
    if (!config.open(QIODevice::WriteOnly) || config.write(properties) != properties.size() || !log.open(QIODevice::WriteOnly)
        || !trace.open(QIODevice::WriteOnly)) {
        *error = QStringLiteral("cannot write the host's log configuration, log or trace in %1").arg(m_work);
        return false;
    }
    config.close();
    m_log = std::make_unique<Tail>(logFile);
    m_trace = std::make_unique<Tail>(traceFile);

    const QVariantHash settings{{QStringLiteral("settings/orvello/outputSampleRate"), 44100},
                                {QStringLiteral("settings/orvello/outputChannels"), 2},
                                {QStringLiteral("settings/orvello/cacheEnabled"), true},
                                {QStringLiteral("settings/orvello/cacheDir"), m_work + QStringLiteral("/cache")},
                                {QStringLiteral("settings/orvello/updateCheckIntervalSeconds"), 1},
                                {QStringLiteral("settings/orvello/versionUrl"), m_rig->versionUrl()},
                                {QStringLiteral("settings/orvello/provisioningVendorId"), QStringLiteral("vendor-soak")},
                                {QStringLiteral("settings/orvello/deviceId"), QStringLiteral("device-soak")},
                                {QStringLiteral("settings/orvello/token"), QStringLiteral("paired-earlier")},
                                {QStringLiteral("settings/system/serialNumber"), QStringLiteral("SN-SOAK")},
                                {QStringLiteral("settings/system/productName"), QStringLiteral("Soak Amp")}};
    m_rig->setExtraHostArguments({QStringLiteral("--trace"), traceFile, QStringLiteral("--log-config"), logConfig});
    m_offsetNs = realtimeOffsetNs();
    if (!m_rig->startHost(settings, QStringLiteral("null"), QStringLiteral("fast"),
                          {QStringLiteral("OPLAYER_REF_TRACK_SECONDS=") + QString::number(m_options.trackSeconds)}, error))
        return false;
    m_pid = m_rig->hostPid();
    m_startNs = nowNs();
    m_deadlineNs = m_startNs + qint64(m_options.minutes) * 60 * kS;
    m_nextSampleNs = m_startNs;
    m_nextReportNs = m_startNs + 60 * kS;
    m_nextFaultNs = m_startNs + qint64(m_options.faultEverySeconds) * kS;
    m_nextStopNs = m_startNs + qint64(m_options.stopEverySeconds) * kS;
    m_nextPauseNs = m_startNs + qint64(m_options.stopEverySeconds) * kS / 2 + qint64(m_options.pauseEverySeconds) * kS;
    const ProcessSample first = sampleProcess(m_pid);
    m_cpuBase = std::max(0.0, first.cpuSeconds);

    // The run starts once the device plays.
    const qint64 startBy = nowNs() + 30 * kS;
    while (!m_firstAudioNs && nowNs() < startBy && !s_interrupted) {
        step();
        if (!m_aborted.isEmpty())
            break;
    }
    if (!m_firstAudioNs) {
        *error = m_aborted.isEmpty() ? QStringLiteral("the device did not start playing within 30 s; its log:\n")
                                           + QStringList(m_logTail.begin(), m_logTail.end()).join(QLatin1Char('\n'))
                                     : m_aborted;
        return false;
    }
    say(QStringLiteral("playing on %1; soaking for %2 min (pid %3, work directory %4)")
            .arg(m_running).arg(m_options.minutes).arg(m_pid).arg(m_work));
    return true;
}

void Soak::run()
{
    while (nowNs() < m_deadlineNs && !s_interrupted && m_aborted.isEmpty()) {
        step();
        if (nowNs() >= m_nextReportNs) {
            m_nextReportNs = std::max(m_nextReportNs + 60 * kS, nowNs() + 30 * kS);
            const Sample& s = m_samples.empty() ? Sample() : m_samples.back();
            say(QStringLiteral("%1 h of audio, %2 swaps, %3 faults, %4 crashes, silence %5 s (heard %6 s), RSS %7 MiB, "
                               "%8 fds, %9 threads")
                    .arg(num(double(m_audioBytes) / kBytesPerSecond / 3600))
                    .arg(m_swaps.size())
                    .arg(m_faults.size())
                    .arg(m_crashes.size())
                    .arg(num(m_silenceS))
                    .arg(num(m_heardS))
                    .arg(num(double(s.process.rssKiB) / 1024))
                    .arg(s.process.fds)
                    .arg(s.process.threads));
        }
    }
    if (s_interrupted)
        say(QStringLiteral("interrupted: ending the run and writing the report for the time so far"));
}

void Soak::step()
{
    QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    readLog();
    readTrace();
    checkHost();
    if (m_firstAudioNs) {
        driveFault();
        driveSwap();
        driveControl();
        // A request above may have kept the soak waiting (the service answers its admin requests
        // behind slow answers): catch up with the trace before judging silence, or the wait
        // itself looks like silence.
        readTrace();
        watchSilence();
        // After a request that kept the soak waiting, sampling goes on from now rather than catching up.
        if (nowNs() >= m_nextSampleNs) {
            m_nextSampleNs = std::max(m_nextSampleNs + kS, nowNs() + kS / 2);
            sample();
        }
    }
    QThread::msleep(10);
}

// ---- the log ----------------------------------------------------------------------------------

void Soak::readLog()
{
    m_log->read([this](const char* begin, const char* end) { onLogLine(begin, end); });
}

bool Soak::insideFault(qint64 ns) const
{
    for (const FaultWindow& f : m_faults)
        if (ns >= f.from && (f.to == 0 || ns <= f.to + qint64(faultKinds().at(std::size_t(f.kind)).graceSeconds) * kS))
            return true;
    return false;
}

// "HH:MM:SS.mmm EPOCH.mmm LEVEL [logger] message", the layout the soak gives the host.
void Soak::onLogLine(const char* begin, const char* end)
{
    const QString line = QString::fromUtf8(begin, int(end - begin));
    m_logTail.push_back(line);
    if (m_logTail.size() > 60)
        m_logTail.pop_front();
    static const QRegularExpression layout(QStringLiteral("^\\S+ (\\d+)\\.(\\d{3}) (\\w+) +\\[[^\\]]*\\] (.*)$"));
    const QRegularExpressionMatch m = layout.match(line);
    if (!m.hasMatch())
        return;   // a message that spans lines
    const qint64 ns = m.captured(1).toLongLong() * kS + m.captured(2).toLongLong() * kMs - m_offsetNs;
    const QByteArray level = m.captured(3).toLatin1();
    const QString text = m.captured(4);
    ++m_levels[level];
    if (level == "WARN" || level == "ERROR" || level == "FATAL") {
        static const QRegularExpression hex(QStringLiteral("[0-9a-fA-F]{16,}"));
        static const QRegularExpression digits(QStringLiteral("\\d{4,}"));
        QString key = text;
        key.replace(hex, QStringLiteral("HEX")).replace(digits, QStringLiteral("N"));
        LineCount& count = m_lines[QString::fromLatin1(level) + QLatin1Char(' ') + key.left(240)];
        count.level = level;
        ++count.count;
        if (!insideFault(ns))
            ++count.outsideFaults;
        if (count.example.isEmpty())
            count.example = text.left(400);
    }
    static const QString loaded = QStringLiteral("Running SDK version: ");
    if (text.startsWith(loaded)) {
        onLibraryLoaded(ns, text.mid(loaded.size()).trimmed());
    } else if (text == QLatin1String("End of oplayer main loop, cleaning up")) {
        ++m_loopEnds;
        m_lastLoopEndNs = ns;
        m_libraryEvents.push_back(ns);
    } else if (text == QLatin1String("Requesting exit at end of song")) {
        onExitRequested(ns);
    } else if (text.contains(QLatin1String("the previous library is back in its place"))) {
        ++m_rollbacks;
        incident(QStringLiteral("an update was rolled back: ") + text);
    } else if (text.startsWith(QLatin1String("No player library is running"))) {
        ++m_noLibrary;
    }
}

// ---- the trace and silence --------------------------------------------------------------------

void Soak::readTrace()
{
    m_trace->read([this](const char* begin, const char* end) { onTraceLine(begin, end); });
    QString error;
    if (m_traceRelease.isEmpty() && !m_trace->release(64 << 20, &error))
        m_traceRelease = error;
}

// "NS NAME [NUMBERS...]" (see vrax-host --trace).
void Soak::onTraceLine(const char* begin, const char* end)
{
    char* after = nullptr;
    const qint64 ns = std::strtoll(begin, &after, 10);
    if (after == begin || after >= end || *after != ' ')
        return;
    const char* name = after + 1;
    auto is = [&](const char* word) {
        const std::size_t n = std::strlen(word);
        return std::size_t(end - name) >= n && std::memcmp(name, word, n) == 0 && (name + n == end || name[n] == ' ');
    };
    if (is("audio"))
        onAudio(ns, std::strtoll(name + 5, nullptr, 10));
    else if (is("connected"))
        ++m_connections;
    else if (is("sequence"))
        ++m_sequences;
    else if (is("flush"))
        ++m_flushes;
}

void Soak::onAudio(qint64 ns, qint64 bytes)
{
    m_audioBytes += bytes;
    if (!m_firstAudioNs)
        m_firstAudioNs = ns;
    ++m_reads;
    if (m_lastAudioNs && (m_quiet.empty() || m_quiet.back().second < m_lastAudioNs)) {
        const qint64 gap = ns - m_lastAudioNs;
        m_readGaps[0] += gap >= 10 * kMs;
        m_readGaps[1] += gap >= 50 * kMs;
        m_readGaps[2] += gap >= 100 * kMs;
    }
    if (m_lastAudioNs && ns - m_lastAudioNs >= kSilenceMinNs)
        noteGap(m_lastAudioNs, ns);
    // Audio well after the soak's stop or pause: something started the music again meanwhile.
    if ((m_control == Control::Stopped || m_control == Control::Paused) && !m_playedWhileQuiet
        && ns > m_quiet.back().first + 500 * kMs) {
        m_playedWhileQuiet = true;
        ++m_playedWhileQuietCount;
        incident(QStringLiteral("audio %1 ms after %2").arg((ns - m_quiet.back().first) / kMs)
                     .arg(m_control == Control::Stopped ? "stop" : "pause")
                 + (m_lastLoadNs > m_quiet.back().first
                        ? QStringLiteral(": an update swapped in meanwhile, and the new library started playing by itself")
                        : QString()));
    }
    if (m_control == Control::AwaitAudio && ns > m_awaitSinceNs) {
        (m_awaitingAfterStop ? m_playLatenciesMs : m_resumeLatenciesMs).push_back(double(ns - m_awaitSinceNs) / 1e6);
        m_control = Control::Idle;
    }
    m_lastAudioNs = std::max(m_lastAudioNs, ns);
    m_stuckPlaySent = false;
}

// The parts of from..to not covered by the soak's own stops and pauses, each a silence when it
// is long enough.
void Soak::noteGap(qint64 from, qint64 to)
{
    auto add = [&](qint64 a, qint64 b, bool fromStart) {
        if (b - a < kSilenceMinNs)
            return;
        Silence s{a, b, causeOf(a, b, fromStart), fromStart};
        m_silenceS += s.seconds();
        m_heardS += s.heardSeconds();
        m_silences.push_back(s);
    };
    qint64 cursor = from;
    bool fromStart = false;
    for (const auto& [quietFrom, quietTo] : m_quiet) {
        if (quietTo <= cursor || quietFrom >= to)
            continue;
        if (quietFrom > cursor)
            add(cursor, quietFrom, fromStart);
        cursor = std::max(cursor, quietTo);
        fromStart = true;
        if (cursor >= to)
            return;
    }
    for (qint64 restart : m_restarts)
        if (restart > cursor && restart < to)
            fromStart = true;
    add(cursor, to, fromStart);
}

QString Soak::causeOf(qint64 from, qint64 to, bool fromStart) const
{
    for (qint64 restart : m_restarts)
        if (restart >= from && restart <= to)
            return QStringLiteral("the host's restart");
    if (fromStart)
        return QStringLiteral("starting after play or resume");
    for (qint64 event : m_libraryEvents)
        if (event >= from - 100 * kMs && event <= to + 100 * kMs)
            return QStringLiteral("an update swap");
    for (const FaultWindow& f : m_faults)
        if (from <= (f.to ? f.to : INT64_MAX) && to >= f.from)
            return QStringLiteral("during fault ") + QLatin1String(faultKinds().at(std::size_t(f.kind)).name);
    return QStringLiteral("nothing the soak did");
}

void Soak::watchSilence()
{
    if (m_control == Control::Stopped || m_control == Control::Paused || m_stopping)
        return;
    const qint64 now = nowNs();
    const qint64 since = std::max(m_lastAudioNs, m_quiet.empty() ? 0 : m_quiet.back().second);
    if (now - since > kGiveUpNs) {
        incident(QStringLiteral("silent for %1 s although play was pressed; restarting vrax-host").arg((now - since) / kS));
        ++m_forcedRestarts;
        const int code = m_rig->stopHost();
        if (code != 0)
            incident(QStringLiteral("vrax-host did not stop cleanly when asked (exit status %1)").arg(code));
        restartHost(QStringLiteral("after the silence"));
        m_stuckPlaySent = false;
    } else if (now - since > kStuckNs && !m_stuckPlaySent) {
        incident(QStringLiteral("silent for %1 s while it should play (play state %2, library %3); pressing play")
                     .arg((now - since) / kS).arg(playState()).arg(m_running));
        m_rig->post(QStringLiteral("/api/player/play"), {});
        m_stuckPlaySent = true;
    }
}

// ---- the host ---------------------------------------------------------------------------------

void Soak::incident(const QString& what)
{
    Incident i{nowNs(), what, QStringList(m_logTail.end() - std::min<std::ptrdiff_t>(20, std::ptrdiff_t(m_logTail.size())), m_logTail.end())};
    say(QStringLiteral("incident: ") + what);
    m_incidents.push_back(i);
}

void Soak::checkHost()
{
    if (m_stopping || s_interrupted || m_rig->hostRunning())
        return;
    const qint64 ns = nowNs();
    const int code = m_rig->waitForHostExit(0);
    readLog();
    m_crashes.push_back(ns);
    // Standard error holds what does not go through the log: the library's notes, a sanitizer's report.
    QStringList err;
    for (const QString& line : m_rig->hostLog())
        if (!line.startsWith(QLatin1String("oplayer-ref: track")))
            err << line;
    err = err.mid(std::max(0, int(err.size()) - 10));
    incident((code < 0 ? QStringLiteral("vrax-host crashed (ended by a signal)")
                       : QStringLiteral("vrax-host exited by itself with status %1").arg(code))
             + (err.isEmpty() ? QStringLiteral("; nothing on its standard error")
                              : QStringLiteral("; its standard error ends: ") + err.join(QStringLiteral(" | "))));
    restartHost(QStringLiteral("after it ended"));
}

void Soak::restartHost(const QString& why)
{
    QString error;
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (m_rig->restartHost(&error)) {
            m_pid = m_rig->hostPid();
            m_restarts.push_back(nowNs());
            m_cpuBase -= m_cpuSeconds;   // the new process counts from zero
            m_cpuSeconds = 0;
            m_expectLoad = true;
            say(QStringLiteral("vrax-host started again %1 (pid %2)").arg(why).arg(m_pid));
            return;
        }
        QThread::msleep(1000);
    }
    m_aborted = QStringLiteral("vrax-host did not start again: ") + error;
}

int Soak::playState()
{
    return m_rig->get(QStringLiteral("/api/playlogic")).body.value(QStringLiteral("state")).toInt(-1);
}

// ---- swaps ------------------------------------------------------------------------------------

double Soak::tracksSinceSwap() const
{
    return double(m_audioBytes - m_audioAtSwap) / (m_options.trackSeconds * kBytesPerSecond);
}

// The running library reports its own version, 1.0.0 or 1.1.0, and the updater downloads whatever
// sorts after it as text. So a swap is offered as the running version with a number behind it
// ("1.0.0.00001" sorts after "1.0.0") and the other build's file; once the device has verified
// the download and asked the library to end at the song's end, the service goes back to offering
// 1.0.0, which neither build sorts before: the swap happens once, not again at the next check.
void Soak::driveSwap()
{
    const qint64 now = nowNs();
    switch (m_swapState) {
    case SwapState::Steady: {
        if (m_faultActive || m_expectLoad || tracksSinceSwap() < m_options.tracksPerSwap)
            return;
        const bool faultDue = now >= m_nextFaultNs;
        const int kind = m_nextFault % int(faultKinds().size());
        const FaultKind& fault = faultKinds().at(std::size_t(kind));
        if (faultDue && !fault.withOffer) {
            startFault(kind, false);   // the offer follows once it is cleared
            return;
        }
        m_target = &otherThan(m_running);
        ++m_offers;
        const QString version = QStringLiteral("%1.%2").arg(m_running).arg(m_offers, 5, 10, QLatin1Char('0'));
        QJsonObject change = offer(version, *m_target);
        // In one change, so no check sees the offer without its fault.
        if (faultDue && !fault.modes.isEmpty())
            change.insert(QStringLiteral("fail"), QJsonArray::fromStringList(fault.modes));
        if (!applyService(change))
            return;
        m_swapState = SwapState::Offered;
        m_offeredNs = now;
        // A fault without an offer is followed by one; how soon that swap happens tells how soon
        // the device saw the service again.
        m_offerFault = -1;
        if (!m_faults.empty() && !m_faults.back().offeredNs)
            m_offerFault = int(m_faults.size()) - 1;
        if (faultDue) {
            m_offerFault = int(m_faults.size());
            startFault(kind, true);
        }
        if (m_offerFault >= 0)
            m_faults[std::size_t(m_offerFault)].offeredNs = now;
        return;
    }
    case SwapState::Offered: {
        const qint64 since = std::max(m_offeredNs, m_faults.empty() ? 0 : m_faults.back().to);
        if (!m_faultActive && now - since > kSwapTimeoutNs) {
            ++m_offersNotTaken;
            incident(QStringLiteral("the device did not take the offer of %1 within %2 s")
                         .arg(m_serviceState.value(QStringLiteral("version")).toString()).arg(kSwapTimeoutNs / kS));
            applyService(offer(m_libraries[0].version, m_libraries[0]));
            m_swapState = SwapState::Steady;
            m_audioAtSwap = m_audioBytes;
        }
        return;
    }
    case SwapState::Pending:
        // Paused or stopped, the loop ends at once; playing, at the end of the track.
        if (now - m_pendingNs > kSwapTimeoutNs) {
            incident(QStringLiteral("the swap to %1 did not happen within %2 s of the exit request")
                         .arg(m_target->version).arg((now - m_pendingNs) / kS));
            m_swapState = SwapState::Steady;
            m_audioAtSwap = m_audioBytes;
        }
        return;
    }
}

void Soak::onExitRequested(qint64 ns)
{
    switch (m_swapState) {
    case SwapState::Offered:
        applyService(offer(m_libraries[0].version, m_libraries[0]));
        m_swapState = SwapState::Pending;
        m_pendingNs = ns;
        return;
    case SwapState::Pending:
        ++m_repeatedExitRequests;
        return;
    case SwapState::Steady:
        ++m_unrequestedExitRequests;
        return;
    }
}

void Soak::onLibraryLoaded(qint64 ns, const QString& version)
{
    const QString before = m_running;
    m_running = version;
    ++m_loads;
    m_lastLoadNs = ns;
    m_libraryEvents.push_back(ns);
    if (m_swapState == SwapState::Pending) {
        if (version == m_target->version) {
            m_swaps.push_back({m_offeredNs, m_lastLoopEndNs, ns, m_offerFault < 0, before, version});
            if (m_offerFault >= 0)
                m_faults[std::size_t(m_offerFault)].swapDoneNs = ns;
        } else {
            incident(QStringLiteral("the swap to %1 loaded %2").arg(m_target->version, version));
        }
        m_swapState = SwapState::Steady;
        m_audioAtSwap = m_audioBytes;
        return;
    }
    if (m_expectLoad) {
        m_expectLoad = false;
        m_audioAtSwap = m_audioBytes;
        return;
    }
    ++m_unrequestedLoads;
    incident(QStringLiteral("library %1 loaded (after %2) without a swap being offered").arg(version, before));
}

// ---- faults -----------------------------------------------------------------------------------

bool Soak::applyService(const QJsonObject& change)
{
    for (auto it = change.begin(); it != change.end(); ++it)
        m_serviceState.insert(it.key(), it.value());
    if (m_serviceDown)
        return true;   // applied when the service is back
    // A service busy with slow answers may keep the request waiting past the rig's timeout.
    QString error;
    for (int attempt = 0; attempt < 3; ++attempt)
        if (m_rig->setServiceState(change, &error))
            return true;
    m_aborted = error;
    return false;
}

void Soak::startFault(int kind, bool modesPosted)
{
    const FaultKind& k = faultKinds().at(std::size_t(kind));
    m_faults.push_back({kind, nowNs(), 0, 0});
    m_faultActive = true;
    if (k.modes.isEmpty()) {
        // Its request log goes with it.
        countDownloads();
        m_downloadsBefore += m_downloadsNow;
        m_downloadsNow = 0;
        m_rig->killService();
        m_serviceDown = true;
    } else if (!modesPosted) {
        applyService(QJsonObject{{QStringLiteral("fail"), QJsonArray::fromStringList(k.modes)}});
    }
}

void Soak::driveFault()
{
    if (!m_faultActive)
        return;
    const FaultWindow& f = m_faults.back();
    if (nowNs() - f.from >= qint64(faultKinds().at(std::size_t(f.kind)).holdSeconds) * kS)
        clearFault();
}

void Soak::countDownloads()
{
    for (int attempt = 0; attempt < 3; ++attempt) {
        bool ok = false;
        const QJsonArray requests = m_rig->serviceRequests(&ok);
        if (!ok)
            continue;
        m_downloadsNow = 0;
        for (const QJsonValue& request : requests) {
            const QJsonObject r = request.toObject();
            m_downloadsNow += r.value(QStringLiteral("path")).toString().startsWith(QLatin1String("/files/"))
                              && r.value(QStringLiteral("status")).toInt() == 200;
        }
        return;
    }
    ++m_requestLogsMissed;
}

bool Soak::restartService(QString* error)
{
    const Library& library = libraryFor(m_serviceState.value(QStringLiteral("version")).toString());
    for (int attempt = 0; attempt < 10; ++attempt) {
        if (m_rig->startService(m_serviceState.value(QStringLiteral("version")).toString(), library.source, error,
                                {QStringLiteral("--port"), QString::number(m_servicePort)}))
            return m_rig->setServiceState(m_serviceState, error);
        QThread::msleep(500);
    }
    return false;
}

void Soak::clearFault()
{
    FaultWindow& f = m_faults.back();
    f.to = nowNs();
    m_faultActive = false;
    m_nextFault++;
    m_nextFaultNs = f.to + qint64(m_options.faultEverySeconds) * kS;
    if (m_serviceDown) {
        m_serviceDown = false;
        m_serviceState.insert(QStringLiteral("fail"), QJsonArray());
        QString error;
        if (!restartService(&error))
            m_aborted = QStringLiteral("the update service did not start again on port %1: %2").arg(m_servicePort).arg(error);
        return;
    }
    applyService(QJsonObject{{QStringLiteral("fail"), QJsonArray()}});
}

// ---- the player's buttons ---------------------------------------------------------------------

void Soak::driveControl()
{
    const qint64 now = nowNs();
    // A press can land just after a swap that happened while the device was stopped or paused: the
    // new library had started playing by itself, and the toggle pauses it. A person would press
    // play; so does the soak.
    if (m_verifyNs && now >= m_verifyNs) {
        m_verifyNs = 0;
        if (now - m_lastAudioNs > 500 * kMs) {
            const int state = playState();
            incident(QStringLiteral("no audio 1 s after the %1 (play state %2)%3; pressing play")
                         .arg(m_awaitingAfterStop ? "play press" : "second pause press")
                         .arg(state)
                         .arg(m_lastLoadNs > m_quiet.back().first
                                  ? QStringLiteral(": an update swapped in meanwhile, and the new library started "
                                                   "playing by itself before the press")
                                  : QString()));
            if (!m_rig->post(QStringLiteral("/api/player/play"), {}).ok())
                incident(QStringLiteral("play was refused"));
        }
    }
    switch (m_control) {
    case Control::Idle:
        if (now >= m_nextStopNs) {
            m_quiet.emplace_back(now, INT64_MAX);
            m_playedWhileQuiet = false;
            if (!m_rig->post(QStringLiteral("/api/player/stop"), {}).ok())
                incident(QStringLiteral("stop was refused"));
            ++m_stops;
            m_control = Control::Stopped;
            m_controlUntilNs = now + kHoldNs;
            m_nextStopNs = now + qint64(m_options.stopEverySeconds) * kS;
        } else if (now >= m_nextPauseNs) {
            m_quiet.emplace_back(now, INT64_MAX);
            m_playedWhileQuiet = false;
            if (!m_rig->post(QStringLiteral("/api/player/pause"), {}).ok())
                incident(QStringLiteral("pause was refused"));
            ++m_pauses;
            m_control = Control::Paused;
            m_controlUntilNs = now + kHoldNs;
            m_nextPauseNs = now + qint64(m_options.pauseEverySeconds) * kS;
        }
        return;
    case Control::Stopped:
        if (now < m_controlUntilNs)
            return;
        m_quiet.back().second = nowNs();
        m_awaitSinceNs = m_quiet.back().second;
        m_verifyNs = m_awaitSinceNs + kS;
        m_awaitingAfterStop = true;
        m_control = Control::AwaitAudio;
        // Playing again already (an incident says why), as a person would see it: play is not pressed.
        if (m_playedWhileQuiet)
            m_control = Control::Idle;
        else if (!m_rig->post(QStringLiteral("/api/player/play"), {}).ok())
            incident(QStringLiteral("play after stop was refused"));
        return;
    case Control::Paused: {
        if (now < m_controlUntilNs)
            return;
        // Pause toggles, as the button does: the second press resumes, unless the first was not taken.
        const int state = playState();
        m_quiet.back().second = nowNs();
        m_awaitSinceNs = m_quiet.back().second;
        m_verifyNs = m_awaitSinceNs + kS;
        m_awaitingAfterStop = false;
        m_control = Control::AwaitAudio;
        if (state != 3) {
            m_control = Control::Idle;
            if (!m_playedWhileQuiet)   // else an incident already says why
                incident(QStringLiteral("the device was not paused 2 s after pause (play state %1); not pressing it again")
                             .arg(state));
        } else if (!m_rig->post(QStringLiteral("/api/player/pause"), {}).ok()) {
            incident(QStringLiteral("the second pause (resume) was refused"));
        }
        return;
    }
    case Control::AwaitAudio:
        if (now - m_awaitSinceNs > kAudioAgainNs) {
            incident(QStringLiteral("no audio %1 s after play or resume (play state %2)").arg(kAudioAgainNs / kS).arg(playState()));
            m_control = Control::Idle;
        }
        return;
    }
}

// ---- samples ----------------------------------------------------------------------------------

void Soak::sample()
{
    if (!m_pid)
        return;
    Sample s;
    s.ns = nowNs();
    s.process = sampleProcess(m_pid);
    if (s.process.rssKiB < 0)
        return;   // ended; checkHost deals with it
    m_cpuSeconds = s.process.cpuSeconds;
    s.audioHours = double(m_audioBytes) / kBytesPerSecond / 3600;
    s.swaps = int(m_swaps.size());
    s.faults = int(m_faults.size());
    s.silenceS = m_silenceS;
    s.heardS = m_heardS;
    s.state = playState();
    // The play logic must not say "playing" through silence.
    const qint64 since = std::max(m_lastAudioNs, m_quiet.empty() ? 0 : m_quiet.back().second);
    const bool silent = m_control != Control::Stopped && m_control != Control::Paused && s.ns - since > 3 * kS;
    if (s.state == 2 && silent) {
        if (!m_inFalseClaim) {
            ++m_falseClaims;
            incident(QStringLiteral("the play logic says playing through %1 s of silence").arg((s.ns - since) / kS));
        }
        m_inFalseClaim = true;
    } else {
        m_inFalseClaim = false;
    }
    m_samples.push_back(s);
}

// ---- the end ----------------------------------------------------------------------------------

void Soak::finish()
{
    m_endNs = nowNs();
    if (m_faultActive)
        clearFault();
    countDownloads();
    readTrace();
    if (m_lastAudioNs && m_endNs - m_lastAudioNs >= kSilenceMinNs)
        noteGap(m_lastAudioNs, m_endNs);
    if (!m_quiet.empty() && m_quiet.back().second == INT64_MAX)
        m_quiet.back().second = m_endNs;
    m_stopping = true;
    const qint64 stopAt = nowNs();
    // Ctrl-C reaches the host too, which then ends by itself.
    m_finalExitCode = m_rig->hostRunning() ? m_rig->stopHost() : m_rig->waitForHostExit(0);
    m_finalStopMs = double(nowNs() - stopAt) / 1e6;
    readLog();
    readTrace();
}

double slopePerHour(const std::vector<Sample>& samples, qint64 fromNs, double (*value)(const Sample&))
{
    double n = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (const Sample& s : samples) {
        if (s.ns < fromNs)
            continue;
        const double x = double(s.ns) / 3600e9, y = value(s);
        n += 1;
        sx += x;
        sy += y;
        sxx += x * x;
        sxy += x * y;
    }
    const double d = n * sxx - sx * sx;
    return n < 10 || d == 0 ? std::nan("") : (n * sxy - sx * sy) / d;
}

bool Soak::writeReport(const QString& results, const QString& startLoad, const QDateTime& started)
{
    const double minutes = double(m_endNs - m_startNs) / 60e9;
    const double audioHours = double(m_audioBytes) / kBytesPerSecond / 3600;
    // Memory settles over the first minutes (caches, the first swaps); growth is judged after that.
    const qint64 warmNs = m_startNs + std::min<qint64>(5 * 60 * kS, (m_endNs - m_startNs) / 4);
    const Sample* warm = nullptr;
    for (const Sample& s : m_samples)
        if (s.ns >= warmNs) {
            warm = &s;
            break;
        }
    auto rssMiB = [](const Sample& s) { return double(s.process.rssKiB) / 1024; };
    const double rssSlope = slopePerHour(m_samples, warmNs, [](const Sample& s) { return double(s.process.rssKiB) / 1024; });
    const double fdSlope = slopePerHour(m_samples, warmNs, [](const Sample& s) { return double(s.process.fds); });
    const double threadSlope = slopePerHour(m_samples, warmNs, [](const Sample& s) { return double(s.process.threads); });
    double peakRss = 0;
    int maxFds = 0, maxThreads = 0, minFds = INT32_MAX, minThreads = INT32_MAX;
    for (const Sample& s : m_samples) {
        peakRss = std::max(peakRss, rssMiB(s));
        maxFds = std::max(maxFds, s.process.fds);
        maxThreads = std::max(maxThreads, s.process.threads);
        if (s.ns >= warmNs) {
            minFds = std::min(minFds, s.process.fds);
            minThreads = std::min(minThreads, s.process.threads);
        }
    }
    const Sample first = m_samples.empty() ? Sample() : m_samples.front();
    const Sample last = m_samples.empty() ? Sample() : m_samples.back();
    const Silence* longest = nullptr;
    for (const Silence& s : m_silences)
        if (!longest || s.seconds() > longest->seconds())
            longest = &s;
    std::vector<double> swapMs, offerToSwapS;
    for (const Swap& s : m_swaps) {
        if (s.loopEndNs && s.loadedNs >= s.loopEndNs)
            swapMs.push_back(double(s.loadedNs - s.loopEndNs) / 1e6);
        if (s.clean)
            offerToSwapS.push_back(double(s.loadedNs - s.offeredNs) / 1e9);
    }
    auto median = [](std::vector<double> v) {
        if (v.empty())
            return std::nan("");
        std::sort(v.begin(), v.end());
        return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
    };
    auto maximum = [](const std::vector<double>& v) { return v.empty() ? std::nan("") : *std::max_element(v.begin(), v.end()); };
    int upward = 0;
    for (const Swap& s : m_swaps)
        upward += s.to == m_libraries[1].version;
    const double cores = minutes > 0 ? (m_cpuSeconds - m_cpuBase) / (minutes * 60) : std::nan("");
    const int downloads = m_downloadsBefore + m_downloadsNow;

    std::ostringstream md;
    md << "# Soak: the device played for " << num(minutes, 3) << " minutes at fast pace\n\n"
       << "Written by `./dev soak` (bench/bench_soak.cpp). vrax-host ran liborvello.so with oplayer-ref at `--pace fast` "
          "(the pipeline takes audio as fast as it comes), with an update swap every " << m_options.tracksPerSwap
       << " tracks, a failure of the update service every " << m_options.faultEverySeconds << " s or so, a stop and play "
          "every " << m_options.stopEverySeconds << " s and a pause and resume every " << m_options.pauseEverySeconds
       << " s.\n\n";
    md << "| | |\n|---|---|\n"
       << "| date | " << started.toString(Qt::ISODate) << " |\n"
       << "| machine | " << bench::machine() << " |\n"
       << "| load average at start / end | " << startLoad << " / " << bench::loadAverage() << " |\n"
       << "| build | Release, GCC " << __VERSION__ << " |\n"
       << "| tracks | " << num(m_options.trackSeconds) << " s each (`OPLAYER_REF_TRACK_SECONDS`), 44.1 kHz 16-bit stereo |\n"
       << "| update checks | every second |\n\n";

    md << "## Figures\n\n| | |\n|---|---|\n"
       << "| duration | " << num(minutes, 3) << " min |\n"
       << "| audio played | **" << num(audioHours, 4) << " h** (" << num(audioHours * 60 / std::max(minutes, 1e-9), 3)
       << "× real time), " << m_connections << " stream connections, " << m_sequences << " sequences |\n"
       << "| update swaps | **" << m_swaps.size() << "** (" << upward << " to 1.1.0, " << m_swaps.size() - std::size_t(upward)
       << " back to 1.0.0), of " << m_offers << " offers; loop end to new library loaded: median " << num(median(swapMs))
       << " ms, longest " << num(maximum(swapMs)) << " ms; offer to swap without a fault: median "
       << num(median(offerToSwapS)) << " s, longest " << num(maximum(offerToSwapS)) << " s |\n"
       << "| library loop ends / loads | " << m_loopEnds << " / " << m_loads << " |\n"
       << "| library downloads per swap | **" << num(downloads / std::max<double>(1, double(m_swaps.size())), 3)
       << "** (" << (m_requestLogsMissed ? "at least " : "") << downloads
       << " downloads answered 200 in the service's request log, for " << m_swaps.size() << " swaps) |\n"
       << "| rollbacks | " << m_rollbacks << " |\n"
       << "| \"No player library is running\" | " << m_noLibrary << " |\n"
       << "| faults injected | **" << m_faults.size() << "** (by kind below) |\n"
       << "| stop, 2 s, play | " << m_stops << " (audio again after a median " << num(median(m_playLatenciesMs))
       << " ms, at most " << num(maximum(m_playLatenciesMs)) << " ms) |\n"
       << "| music playing again during the soak's stop or pause | " << m_playedWhileQuietCount << " |\n"
       << "| pause, 2 s, pause again | " << m_pauses << " (audio again after a median " << num(median(m_resumeLatenciesMs))
       << " ms, at most " << num(maximum(m_resumeLatenciesMs)) << " ms) |\n"
       << "| crashes (the host ended by itself) | **" << m_crashes.size() << "** |\n"
       << "| restarts forced by silence | " << m_forcedRestarts << " |\n"
       << "| \"playing\" claimed through silence | " << m_falseClaims << " |\n"
       << "| total silence | **" << num(m_silenceS) << " s** in " << m_silences.size() << " stretches";
    if (longest)
        md << "; longest " << num(longest->seconds()) << " s at minute " << minuteOf(longest->from, m_startNs) << " ("
           << longest->cause << ")";
    md << " |\n"
       << "| silence heard at realtime pace | **" << num(m_heardS) << " s** |\n"
       << "| reads of the pipeline while playing | " << m_reads << "; " << m_readGaps[0] << " came 10 ms or more after the one "
          "before, " << m_readGaps[1] << " 50 ms or more, " << m_readGaps[2] << " 100 ms or more |\n"
       << "| RSS | " << num(rssMiB(first)) << " MiB at start, " << (warm ? num(rssMiB(*warm)) : QStringLiteral("n/a"))
       << " MiB after warm-up (minute " << minuteOf(warmNs, m_startNs) << "), " << num(rssMiB(last)) << " MiB at the end, "
       << num(peakRss) << " MiB peak |\n"
       << "| RSS growth after warm-up | **" << num(rssSlope, 2) << " MiB per hour** (least squares over the samples) |\n"
       << "| open file descriptors | " << first.process.fds << " at start, " << last.process.fds << " at the end, " << maxFds
       << " at most (after warm-up " << (minFds == INT32_MAX ? 0 : minFds) << " to " << maxFds << ", " << num(fdSlope, 2)
       << " per hour) |\n"
       << "| threads | " << first.process.threads << " at start, " << last.process.threads << " at the end, " << maxThreads
       << " at most (after warm-up " << (minThreads == INT32_MAX ? 0 : minThreads) << " to " << maxThreads << ", "
       << num(threadSlope, 2) << " per hour) |\n"
       << "| CPU of the host | " << num(cores, 2) << " cores on average |\n"
       << "| log lines | ";
    bool firstLevel = true;
    for (const auto& [level, count] : m_levels) {
        md << (firstLevel ? "" : ", ") << level.constData() << ' ' << count;
        firstLevel = false;
    }
    md << " |\n"
       << "| the host's stop at the end | "
       << (m_finalExitCode == 0 ? QStringLiteral("exit status 0 after %1 ms").arg(num(m_finalStopMs))
                                : QStringLiteral("**exit status %1** (-1: crashed or did not end within 20 s)").arg(m_finalExitCode))
       << " |\n\n";
    md << "![RSS, descriptors and threads of vrax-host, audio played, swaps, faults and silence over the soak](soak.png)\n\n";

    md << "## Silence by cause\n\n| cause | stretches | total (s) | longest (s) | heard at realtime pace (s) |\n|---|---|---|---|---|\n";
    std::map<QString, std::vector<const Silence*>> byCause;
    for (const Silence& s : m_silences)
        byCause[s.cause].push_back(&s);
    for (const auto& [cause, list] : byCause) {
        double total = 0, most = 0, heard = 0;
        for (const Silence* s : list) {
            total += s->seconds();
            most = std::max(most, s->seconds());
            heard += s->heardSeconds();
        }
        md << "| " << cause << " | " << list.size() << " | " << num(total) << " | " << num(most) << " | " << num(heard) << " |\n";
    }
    if (byCause.empty())
        md << "| none | 0 | 0 | 0 | 0 |\n";
    std::vector<const Silence*> longestFirst;
    for (const Silence& s : m_silences)
        longestFirst.push_back(&s);
    std::sort(longestFirst.begin(), longestFirst.end(), [](const Silence* a, const Silence* b) { return a->seconds() > b->seconds(); });
    if (!longestFirst.empty()) {
        md << "\nThe longest:\n\n| minute | seconds | cause |\n|---|---|---|\n";
        for (std::size_t i = 0; i < std::min<std::size_t>(8, longestFirst.size()); ++i)
            md << "| " << minuteOf(longestFirst[i]->from, m_startNs) << " | " << num(longestFirst[i]->seconds()) << " | "
               << longestFirst[i]->cause << " |\n";
    }
    md << "\n";

    md << "## Faults\n\nMost faults come with an update offer, so the download they spoil is one the device wants; "
          "each is held for its time and then cleared, and the swap it held back should then happen. Slow answers "
          "come while nothing newer is offered (an answer carries the offer of when it was asked); for them the "
          "table gives how long the first offer after clearing took to become a swap, against "
          << num(median(offerToSwapS)) << " s (median) for an offer without a fault.\n\n"
       << "| fault | what the service does (held) | times | swap done, s after clearing (median) | swap never done |\n"
       << "|---|---|---|---|---|\n";
    for (std::size_t k = 0; k < faultKinds().size(); ++k) {
        std::vector<double> after;
        int times = 0, never = 0;
        for (const FaultWindow& f : m_faults) {
            if (std::size_t(f.kind) != k)
                continue;
            ++times;
            const bool withOffer = faultKinds().at(k).withOffer;
            if (f.swapDoneNs)
                after.push_back(double(std::max<qint64>(0, f.swapDoneNs - (withOffer ? f.to : f.offeredNs))) / 1e9);
            else if (f.to && f.to < m_endNs - kSwapTimeoutNs)   // not still under way when the run ended
                ++never;
        }
        const FaultKind& kind = faultKinds().at(k);
        md << "| " << kind.name << " | " << kind.what << " (" << kind.holdSeconds << " s) | " << times << " | "
           << num(median(after)) << (kind.withOffer ? "" : " (offer to swap)") << " | " << never << " |\n";
    }
    md << "\n";

    md << "## Warnings and errors in the host's log\n\nBy text, numbers of four digits or more replaced by N; "
          "\"outside\" counts the lines logged neither during a fault nor soon after it was cleared (3 s; 6 s after "
          "a slow answer, 35 s after one past the client's timeout).\n\n"
       << "| level | lines | outside faults | text (first seen) |\n|---|---|---|---|\n";
    std::vector<const LineCount*> lines;
    for (const auto& [key, count] : m_lines)
        lines.push_back(&count);
    std::sort(lines.begin(), lines.end(), [](const LineCount* a, const LineCount* b) { return a->count > b->count; });
    for (const LineCount* l : lines) {
        QString text = l->example;
        text.replace(QLatin1Char('|'), QStringLiteral("\\|"));
        md << "| " << l->level.constData() << " | " << l->count << " | " << l->outsideFaults << " | " << text << " |\n";
    }
    if (lines.empty())
        md << "| | 0 | 0 | none |\n";
    md << "\n";

    md << "## Incidents\n\n";
    if (m_incidents.empty())
        md << "None: no crash, no silence the soak had to act on, every offer led to one swap.\n\n";
    for (const Incident& i : m_incidents) {
        md << "- minute " << minuteOf(i.ns, m_startNs) << ": " << i.what << "\n";
        if (!i.evidence.isEmpty()) {
            md << "  <details><summary>the host's log before it</summary>\n\n  ```\n";
            for (const QString& line : i.evidence)
                md << "  " << line << "\n";
            md << "  ```\n  </details>\n";
        }
    }
    if (!m_incidents.empty())
        md << "\n";

    md << "## How it is measured\n\n"
       << "- **Audio played**: the bytes of every audio message the pipeline read (vrax-host `--trace`), as seconds at "
          "44.1 kHz 16-bit stereo: what a device at realtime pace would have played in that many hours.\n"
       << "- **Swaps**: the running library reports its own version (1.0.0 or 1.1.0) and the updater downloads what "
          "sorts after it as text. After " << m_options.tracksPerSwap << " tracks' worth of audio the service offers "
          "the running version with a number behind it (\"1.0.0.00001\") and the other build's file; when the log says "
          "\"Requesting exit at end of song\" (the download is verified) the service goes back to offering 1.0.0, which "
          "neither build sorts before, so each offer makes one swap. A swap counts when \"Running SDK version\" names "
          "the other build; the time is from \"End of oplayer main loop, cleaning up\" to that line.\n"
       << "- **Downloads per swap**: the requests for a library file (`/files/...`) that orvello-service answered "
          "with 200, from its request log (`GET /admin/requests`, read before the soak kills the service and at the "
          "end), divided by the swaps. Downloads spoiled by a fault after the status (truncated, oversized, "
          "stalled) count: they cost the bandwidth all the same.\n"
       << "- **Music playing again during the soak's stop or pause**: audio read by the pipeline more than 500 ms "
          "after the soak's stop or pause and before its play or second pause.\n"
       << "- **Faults** take turns, one every " << m_options.faultEverySeconds << " s after the last was cleared, "
          "each held for the time given in its table line; then the service is told to stop failing (or is started "
          "again on its port).\n"
       << "- **Silence**: a stretch of at least " << kSilenceMinNs / kMs << " ms in which the pipeline read no audio "
          "while the device should have been playing; the soak's own stops and pauses are left out, and the time "
          "from its play or resume to the first audio counts. At fast pace the pipeline reads every few "
          "milliseconds, so such a stretch is the device not delivering. A stall takes the same wall time at either "
          "pace, so its length is the audio a listener would miss with nothing queued: that is the *total*. *Heard at "
          "realtime pace* credits what is queued ahead at realtime pace (" << num(kRealtimeCushionS) << " s, "
          "bench_device figure 3c) to a stall inside a flowing stream; after a play, a resume or a restart nothing is "
          "queued and the whole stretch counts. Cause: the host's restart, a start after the soak's play or resume, "
          "a swap (a loop end or library load within 100 ms), a fault window, or nothing the soak did.\n"
       << "- **Memory, descriptors, threads**: VmRSS and Threads of `/proc/PID/status` and the entries of "
          "`/proc/PID/fd` of vrax-host, every second. Growth is the least-squares slope after the warm-up.\n"
       << "- **Crashes**: vrax-host ending while the soak did not ask; it is started again on its settings and the "
          "run goes on. After " << kStuckNs / kS << " s of silence the soak presses play, after " << kGiveUpNs / kS
       << " s it restarts the host; both are incidents.\n"
       << "- **\"Playing\" through silence**: the play logic's state (sampled each second) is 2 while no audio came "
          "for 3 s.\n\n";

    md << "## Notes\n\n";
    if (!m_aborted.isEmpty())
        md << "- **The run ended early**: " << m_aborted << "\n";
    if (minutes < m_options.minutes - 0.5)
        md << "- **The run was cut short** after " << num(minutes) << " of " << m_options.minutes << " minutes.\n";
    if (!m_crashes.empty())
        md << "- **vrax-host crashed " << m_crashes.size() << " time(s)**; the incidents above carry the log before "
              "each. The device must never crash.\n";
    else
        md << "- No crash, and the host stopped " << (m_finalExitCode == 0 ? "cleanly" : "**not cleanly**")
           << " at the end.\n";
    if (rssSlope > 1.0)
        md << "- **RSS grew by " << num(rssSlope, 2) << " MiB per hour after the warm-up: not flat.** Over a shop's "
              "day that is " << num(rssSlope * 12, 2) << " MiB.\n";
    else if (!std::isnan(rssSlope))
        md << "- RSS is flat after the warm-up: " << num(rssSlope, 2) << " MiB per hour (" << num(rssMiB(last) - (warm ? rssMiB(*warm) : 0), 2)
           << " MiB from minute " << minuteOf(warmNs, m_startNs) << " to the end).\n";
    // Descriptors and threads come and go with swaps, stops and pending requests; what matters is
    // whether they pile up.
    if (warm && (fdSlope > 2 || last.process.fds > warm->process.fds + 4))
        md << "- **Open descriptors grew: " << warm->process.fds << " after the warm-up, " << last.process.fds
           << " at the end, " << num(fdSlope, 2) << " per hour.**\n";
    else if (warm)
        md << "- Open descriptors do not pile up: " << warm->process.fds << " after the warm-up, " << last.process.fds
           << " at the end, between " << minFds << " and " << maxFds << " meanwhile (a stop closes the stream, "
              "requests to a slow service stay open).\n";
    if (warm && (threadSlope > 1 || last.process.threads > warm->process.threads + 2))
        md << "- **Threads grew: " << warm->process.threads << " after the warm-up, " << last.process.threads
           << " at the end, " << num(threadSlope, 2) << " per hour.**\n";
    else if (warm)
        md << "- Threads do not pile up: " << warm->process.threads << " after the warm-up, " << last.process.threads
           << " at the end, at most " << maxThreads << ".\n";
    if (m_offersNotTaken || m_unrequestedLoads || m_unrequestedExitRequests)
        md << "- Offers not taken: " << m_offersNotTaken << "; library loads without an offer: " << m_unrequestedLoads
           << "; exit requests without an offer: " << m_unrequestedExitRequests << ".\n";
    if (m_repeatedExitRequests)
        md << "- " << m_repeatedExitRequests << " exit request(s) came twice for one swap: a check ran between the "
              "verified download and the service going back to 1.0.0, and the device verified the pending file again.\n";
    if (!m_traceRelease.isEmpty())
        md << "- The trace's disk space could not be given back as it was read (" << m_traceRelease
           << "); the trace in the work directory holds the whole run.\n";
    md << "- The machine is shared with other builds; fast pace takes whatever CPU is free, so the hours of audio "
          "depend on the load as much as on the device.\n";

    const std::string report = md.str();
    QFile out(results + QStringLiteral("/soak.md"));
    if (!out.open(QIODevice::WriteOnly) || out.write(report.data(), qint64(report.size())) != qint64(report.size())) {
        std::fprintf(stderr, "bench_soak: cannot write %s\n", qPrintable(out.fileName()));
        return false;
    }
    QFile data(m_work + QStringLiteral("/soak.dat"));
    if (!data.open(QIODevice::WriteOnly)) {
        std::fprintf(stderr, "bench_soak: cannot write %s\n", qPrintable(data.fileName()));
        return false;
    }
    QTextStream s(&data);
    s << "# minute, RSS MiB, open fds, threads, hours of audio, swaps, faults, silence s, heard s\n";
    for (const Sample& x : m_samples)
        s << double(x.ns - m_startNs) / 60e9 << ' ' << double(x.process.rssKiB) / 1024 << ' ' << x.process.fds << ' '
          << x.process.threads << ' ' << x.audioHours << ' ' << x.swaps << ' ' << x.faults << ' ' << x.silenceS << ' '
          << x.heardS << '\n';
    std::printf("\n%s", report.c_str());
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Soaks the emulated device at fast pace and writes soak.md."));
    parser.addHelpOption();
    const QCommandLineOption resultsOption(QStringLiteral("results"), QStringLiteral("Where soak.md goes."), QStringLiteral("DIR"));
    const QCommandLineOption workOption(QStringLiteral("work-dir"), QStringLiteral("Scratch directory (emptied)."),
                                        QStringLiteral("DIR"));
    const QCommandLineOption minutesOption(QStringLiteral("minutes"), QStringLiteral("How long to soak (60)."),
                                           QStringLiteral("N"), QStringLiteral("60"));
    const QCommandLineOption trackOption(QStringLiteral("track-seconds"), QStringLiteral("Length of every track (240)."),
                                         QStringLiteral("S"), QStringLiteral("240"));
    const QCommandLineOption swapOption(QStringLiteral("tracks-per-swap"), QStringLiteral("Tracks between swaps (3)."),
                                        QStringLiteral("N"), QStringLiteral("3"));
    const QCommandLineOption faultOption(QStringLiteral("fault-every"),
                                         QStringLiteral("Seconds from one fault's end to the next fault (45)."),
                                         QStringLiteral("S"), QStringLiteral("45"));
    const QCommandLineOption stopOption(QStringLiteral("stop-every"), QStringLiteral("Seconds between stops (120)."),
                                        QStringLiteral("S"), QStringLiteral("120"));
    const QCommandLineOption pauseOption(QStringLiteral("pause-every"), QStringLiteral("Seconds between pauses (120)."),
                                         QStringLiteral("S"), QStringLiteral("120"));
    parser.addOptions({resultsOption, workOption, minutesOption, trackOption, swapOption, faultOption, stopOption, pauseOption});
    parser.process(app);
    Options options;
    bool ok[6] = {};
    options.minutes = parser.value(minutesOption).toInt(&ok[0]);
    options.trackSeconds = parser.value(trackOption).toDouble(&ok[1]);
    options.tracksPerSwap = parser.value(swapOption).toInt(&ok[2]);
    options.faultEverySeconds = parser.value(faultOption).toInt(&ok[3]);
    options.stopEverySeconds = parser.value(stopOption).toInt(&ok[4]);
    options.pauseEverySeconds = parser.value(pauseOption).toInt(&ok[5]);
    if (!parser.isSet(resultsOption) || !parser.isSet(workOption) || std::find(std::begin(ok), std::end(ok), false) != std::end(ok)
        || options.minutes < 1 || options.trackSeconds <= 0 || options.trackSeconds > 3600 || options.tracksPerSwap < 1
        || options.faultEverySeconds < 1 || options.stopEverySeconds < 5 || options.pauseEverySeconds < 5) {
        std::fprintf(stderr, "bench_soak: --results DIR and --work-dir DIR are needed; --minutes takes a whole number "
                             "from 1, --track-seconds a length above 0 up to 3600, --tracks-per-swap a whole number "
                             "from 1, --fault-every from 1, --stop-every and --pause-every from 5\n");
        return 2;
    }
    const QString results = QFileInfo(parser.value(resultsOption)).absoluteFilePath();
    const QString work = QFileInfo(parser.value(workOption)).absoluteFilePath();
    QDir(work).removeRecursively();
    if (!QDir().mkpath(work) || !QDir().mkpath(results)) {
        std::fprintf(stderr, "bench_soak: cannot create %s or %s\n", qPrintable(work), qPrintable(results));
        return 1;
    }
    struct sigaction action = {};
    action.sa_handler = onInterrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    const QString startLoad = bench::loadAverage();
    const QDateTime started = QDateTime::currentDateTimeUtc();
    Soak soak(options, work);
    QString error;
    if (!soak.start(&error)) {
        std::fprintf(stderr, "bench_soak: %s\n", qPrintable(error));
        return 1;
    }
    soak.run();
    soak.finish();
    if (!soak.writeReport(results, startLoad, started))
        return 1;
    if (!soak.healthy()) {
        std::fprintf(stderr, "bench_soak: the device did not come through unharmed%s; see %s/soak.md\n",
                     soak.aborted().isEmpty() ? "" : qPrintable(QStringLiteral(" (") + soak.aborted() + QLatin1Char(')')),
                     qPrintable(results));
        return 1;
    }
    return 0;
}
