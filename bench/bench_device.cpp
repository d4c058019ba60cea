// bench_device: the module's figures on the emulated device (vrax-host running liborvello.so with
// the reference player library), each beside a baseline measured in the same run, written as a
// Markdown report plus the data of its plot.
//
// Every device run is a fresh vrax-host in a fresh directory (settings, data, cache), and the
// runs of a figure and of its baseline alternate, so a change in the machine's load reaches both.
// Times come from the host's --trace file and the library's OPLAYER_REF_TRACE file (both
// CLOCK_MONOTONIC, the clock of std::chrono::steady_clock here), CPU and memory from /proc.
//
//   bench_device --results DIR --work-dir DIR [--runs N]
#include "DeviceRig.h"
#include "ProcStat.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QPointF>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTextStream>
#include <QThread>

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace {

using Clock = std::chrono::steady_clock;
constexpr double kBytesPerSecond = 44100.0 * 2 * 2;

const DeviceRig::Paths kPaths{QStringLiteral(VRAX_HOST_PATH), QStringLiteral(ORVELLO_MODULE_PATH),
                              QStringLiteral(ORVELLO_SERVICE_PATH)};

[[noreturn]] void fail(const QString& message)
{
    throw std::runtime_error(message.toStdString());
}

qint64 nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// ---- statistics -------------------------------------------------------------------------------

double percentile(QVector<double> values, double p)
{
    if (values.isEmpty())
        return std::nan("");
    std::sort(values.begin(), values.end());
    const int index = std::clamp(int(std::ceil(p * values.size())) - 1, 0, int(values.size()) - 1);
    return values.at(index);
}

double median(const QVector<double>& values)
{
    if (values.isEmpty())
        return std::nan("");
    QVector<double> sorted = values;
    std::sort(sorted.begin(), sorted.end());
    const int n = sorted.size();
    return n % 2 ? sorted.at(n / 2) : (sorted.at(n / 2 - 1) + sorted.at(n / 2)) / 2;
}

// Least-squares slope of the points whose x lies in [from, to]; NaN with fewer than two.
double slope(const QVector<QPointF>& points, double from, double to)
{
    double n = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (const QPointF& p : points) {
        if (p.x() < from || p.x() > to)
            continue;
        n += 1;
        sx += p.x();
        sy += p.y();
        sxx += p.x() * p.x();
        sxy += p.x() * p.y();
    }
    const double d = n * sxx - sx * sx;
    return n < 2 || d == 0 ? std::nan("") : (n * sxy - sx * sy) / d;
}

// The median of the y of the points whose x lies in [from, to].
double medianY(const QVector<QPointF>& points, double from, double to)
{
    QVector<double> ys;
    for (const QPointF& p : points)
        if (p.x() >= from && p.x() <= to)
            ys << p.y();
    return median(ys);
}

// Memory over many swaps and hours: what settles first is kept apart from what is measured. The
// host's own log tail (the last 200 lines, for its web page) fills in the first 25 swaps or so.
constexpr int kWarmupSwaps = 30;
constexpr int kMeasuredSwaps = 100;
// Under heaptrack the heap at rest is compared between two blocks of swaps after the warm-up.
constexpr int kHeaptrackBlock = 10;
constexpr int kHeaptrackSwaps = kWarmupSwaps + 2 * kHeaptrackBlock;
constexpr double kWarmupHours = 1;
constexpr double kMeasuredHours = 5;

// A figure measured once per run: its median and range.
struct Series
{
    QVector<double> values;
    void add(double value) { values << value; }
    double med() const { return median(values); }
    double lo() const { return values.isEmpty() ? std::nan("") : *std::min_element(values.begin(), values.end()); }
    double hi() const { return values.isEmpty() ? std::nan("") : *std::max_element(values.begin(), values.end()); }
};

// ---- /proc ------------------------------------------------------------------------------------

// user+sys CPU seconds of a process (all its threads, the ended ones included).
double processCpuSeconds(qint64 pid)
{
    const double seconds = bench::cpuSeconds(bench::statFields(QStringLiteral("/proc/%1/stat").arg(pid)));
    if (seconds < 0)
        fail(QStringLiteral("cannot read the CPU time of process %1").arg(pid));
    return seconds;
}

// CPU seconds per thread name; the main thread is "main", unnamed threads carry the program's name.
std::map<QString, double> threadCpuSeconds(qint64 pid)
{
    std::map<QString, double> byName;
    const QDir tasks(QStringLiteral("/proc/%1/task").arg(pid));
    for (const QString& tid : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QByteArray name;
        const double seconds = bench::cpuSeconds(bench::statFields(tasks.filePath(tid) + QStringLiteral("/stat"), &name));
        if (seconds < 0)
            continue;
        const QString key = tid.toLongLong() == pid ? QStringLiteral("main") : QString::fromUtf8(name);
        byName[key] += seconds;
    }
    return byName;
}

// A "Vm..." line of /proc/PID/status, in KiB.
qint64 statusKiB(qint64 pid, const char* key)
{
    const qint64 kiB = bench::statusValue(pid, key);
    if (kiB < 0)
        fail(QStringLiteral("no %1 for process %2").arg(QLatin1String(key)).arg(pid));
    return kiB;
}

// ---- traces -----------------------------------------------------------------------------------

// One trace line: "NS NAME [numbers...] [VERSION]".
struct Event
{
    qint64 ns = 0;
    QByteArray name;
    qint64 a = 0, b = 0, c = 0;
    QByteArray version;
};

QVector<Event> readTrace(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        fail(QStringLiteral("no trace at %1").arg(path));
    QVector<Event> events;
    for (const QByteArray& line : file.readAll().split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() < 2)
            continue;
        Event e;
        bool ok = false;
        e.ns = fields.at(0).toLongLong(&ok);
        if (!ok)
            continue;
        e.name = fields.at(1);
        qint64* numbers[] = {&e.a, &e.b, &e.c};
        int n = 0;
        for (int i = 2; i < fields.size(); ++i) {
            const qint64 value = fields.at(i).toLongLong(&ok);
            if (ok && n < 3)
                *numbers[n++] = value;
            else if (!ok)
                e.version = fields.at(i);
        }
        events << e;
    }
    return events;
}

// Per chunk the library handed over: from the library calling the data callback with it to the
// pipeline having read its last byte, in µs. The call, not its return: on two cores the threads
// the call wakes can run first, so the return may come after the pipeline already has the bytes.
// Nothing is lost on the way, so the byte totals line up.
QVector<double> chunkLatenciesUs(const QVector<Event>& library, const QVector<Event>& host)
{
    QVector<double> latencies;
    qint64 handed = 0;
    int next = 0;
    for (const Event& e : library) {
        if (e.name != "data")
            continue;
        handed += e.a;
        while (next < host.size() && (host.at(next).name != "audio" || host.at(next).b < handed))
            ++next;
        if (next == host.size())
            break;
        latencies << double(host.at(next).ns - e.b) / 1000.0;
    }
    return latencies;
}

// ---- the runs ---------------------------------------------------------------------------------

struct FastRun
{
    double bytesPerSecond = 0;
    double cores = 0;                      // CPU seconds of the host per second
    std::map<QString, double> threadCores; // the same, per thread name
};

struct TracedRun
{
    double startupMs = 0;     // worker_create to the first audio the pipeline reads
    double hostStartMs = 0;   // vrax-host started to worker_create
    QVector<double> latenciesUs;
    double retryShare = 0;    // of the streaming time, the part between two chunks 4.5 ms or more apart
    double callbackUs = 0;    // median time inside the data callback, for chunks it accepted
};

struct SwapRun
{
    double gapMs = 0;              // last audio of the old library to the first of the new, as read
    double silenceMs = 0;          // first new audio read minus when the old audio has been played
    double otherGapMs = 0;         // the longest gap between two reads elsewhere in the stream
    double otherSilenceMs = 0;     // the worst silence elsewhere (negative: audio was waiting)
    double libraryMs = 0;          // old library's shutdown to the new library's init
    double cushionMs = 0;          // new library's first chunk handed over to the old audio's end of play
    QVector<double> latenciesUs;
    QVector<QPointF> window;       // (ms from the old library's last audio, MB read) around the swap
};

struct PairRun
{
    double pairMs = 0;
    double refusedMs = 0;
};

struct RealtimeRun
{
    double playCpuPerSecond = 0;   // CPU seconds per second of audio played
    double idleCpuPerSecond = 0;   // CPU seconds per second, paused
    double playedSeconds = 0;
    QJsonObject raw;               // the paced socket-pair baseline, run beside the idle window
    qint64 idlePeakKiB = 0, idleGrowthKiB = 0, peakKiB = 0, rss10KiB = 0, rss35KiB = 0, rss60KiB = 0;
    double underrunsPaused = 0, underrunsPlaying = 0;
    double idleWindowS = 0;
    std::map<QString, double> threadCpuPerSecond, idleThreadCpuPerSecond;
    QVector<QPointF> rss;          // (s of playing, MiB)
};

// RSS (and, under heaptrack, the heap in use) of one host through many update swaps.
struct SwapMemoryRun
{
    QVector<QPointF> rssKiB;   // (swaps done, KiB) once each swap's library had loaded; swap 0 is the start
    QVector<QPointF> heapKiB;  // under heaptrack: (swaps done, KiB) the least heap in use until the next swap
    double secondsPerSwap = 0;
    double heapLeakedKiB = std::nan(""); // under heaptrack: not freed by the clean exit
};

// RSS of one host playing for hours of audio at fast pace, without updates.
struct AudioMemoryRun
{
    QVector<QPointF> rssKiB;   // (hours of audio, KiB)
    double wallSeconds = 0;
};

class Bench
{
public:
    Bench(const QString& workRoot, int runs) : m_workRoot(workRoot), m_runs(runs) { m_clock.start(); }

    int runs() const { return m_runs; }
    double elapsedS() const { return m_clock.elapsed() / 1000.0; }

    void say(const QString& text)
    {
        std::printf("[%5.0fs] %s\n", elapsedS(), text.toUtf8().constData());
        std::fflush(stdout);
    }

    FastRun fastRun(int i);
    TracedRun tracedRun(int i);
    // bad: the service offers random bytes as 1.1.0 over an installed 1.0.0, which is rolled back.
    SwapRun swapRun(int i, bool realtime, bool bad = false);
    PairRun pairRun(int i);
    RealtimeRun realtimeRun(int i, bool memory);
    // swaps update swaps, the service offering the other reference build each time.
    SwapMemoryRun swapMemoryRun(int swaps, bool heaptrack);
    AudioMemoryRun audioMemoryRun(double hours);
    QJsonObject tool(const QString& program, const QStringList& arguments, int timeoutMs);
    double transferAloneTimesRealtime();

private:
    std::unique_ptr<DeviceRig> newRig(const QString& name);
    QVariantHash settings(const DeviceRig& rig, bool paired, int updateInterval) const;
    void startHost(DeviceRig& rig, const QVariantHash& settings, const QString& pace, QStringList env, bool traced);
    QString traceOf(const DeviceRig& rig) const { return rig.workDir() + QStringLiteral("/host-trace.txt"); }
    QString libraryTraceOf(const DeviceRig& rig) const { return rig.workDir() + QStringLiteral("/library-trace.txt"); }

    QString m_workRoot;
    int m_runs;
    QElapsedTimer m_clock;
};

// Keeps the host's standard error flowing while the bench waits.
void wait(int ms)
{
    QDeadlineTimer deadline(ms);
    while (!deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(std::min<qint64>(10, std::max<qint64>(0, deadline.remainingTime())));
    }
}

bool waitUntil(const std::function<bool()>& condition, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        wait(20);
    }
    return true;
}

double pipelineValue(DeviceRig& rig, const char* key)
{
    return rig.get(QStringLiteral("/api/pipeline")).body.value(QLatin1String(key)).toDouble();
}

int playState(DeviceRig& rig)
{
    return rig.get(QStringLiteral("/api/playlogic")).body.value(QStringLiteral("state")).toInt(-1);
}

std::unique_ptr<DeviceRig> Bench::newRig(const QString& name)
{
    const QString dir = m_workRoot + QLatin1Char('/') + name;
    QDir(dir).removeRecursively();
    if (!QDir().mkpath(dir))
        fail(QStringLiteral("cannot create %1").arg(dir));
    // A download left behind would be installed as an update when the module starts.
    QFile::remove(QStringLiteral("/tmp/orvello/liboplayer-1.so"));
    auto rig = std::make_unique<DeviceRig>(kPaths, dir);
    QDir().mkpath(QFileInfo(rig->devTreeLibraryPath()).absolutePath());
    if (!QFile::copy(QStringLiteral(OPLAYER_REF_1_0_0), rig->devTreeLibraryPath()))
        fail(QStringLiteral("cannot install the player library at %1").arg(rig->devTreeLibraryPath()));
    return rig;
}

QVariantHash Bench::settings(const DeviceRig& rig, bool paired, int updateInterval) const
{
    QVariantHash s{{QStringLiteral("settings/orvello/outputSampleRate"), 44100},
                   {QStringLiteral("settings/orvello/outputChannels"), 2},
                   {QStringLiteral("settings/orvello/cacheEnabled"), true},
                   {QStringLiteral("settings/orvello/cacheDir"), rig.workDir() + QStringLiteral("/cache")},
                   {QStringLiteral("settings/orvello/updateCheckIntervalSeconds"), updateInterval},
                   {QStringLiteral("settings/orvello/provisioningVendorId"), QStringLiteral("vendor-bench")},
                   {QStringLiteral("settings/system/serialNumber"), QStringLiteral("SN-BENCH")},
                   {QStringLiteral("settings/system/productName"), QStringLiteral("Bench Amp")}};
    if (paired)
        s.insert(QStringLiteral("settings/orvello/token"), QStringLiteral("paired-earlier"));
    if (rig.servicePort())
        s.insert(QStringLiteral("settings/orvello/versionUrl"), rig.versionUrl());
    return s;
}

void Bench::startHost(DeviceRig& rig, const QVariantHash& settings, const QString& pace, QStringList env, bool traced)
{
    if (traced) {
        rig.setExtraHostArguments({QStringLiteral("--trace"), traceOf(rig)});
        env << QStringLiteral("OPLAYER_REF_TRACE=") + libraryTraceOf(rig);
    }
    QString error;
    if (!rig.startHost(settings, QStringLiteral("null"), pace, env, &error))
        fail(error);
}

// Throughput at fast pace from the pipeline's counters over a 3 s window, without tracing.
FastRun Bench::fastRun(int i)
{
    auto rig = newRig(QStringLiteral("fast-%1").arg(i));
    startHost(*rig, settings(*rig, true, 0), QStringLiteral("fast"), {}, false);
    if (!waitUntil([&] { return pipelineValue(*rig, "bytes") > 0; }, 15000))
        fail(QStringLiteral("no audio reached the pipeline:\n") + rig->hostLog().join(QLatin1Char('\n')));
    wait(500); // past the start-up
    const qint64 pid = rig->hostPid();
    struct Sample
    {
        qint64 ns;
        double bytes;
        double cpu;
        std::map<QString, double> threads;
    };
    auto sample = [&] {
        Sample s;
        s.cpu = processCpuSeconds(pid);
        s.threads = threadCpuSeconds(pid);
        const qint64 before = nowNs();
        s.bytes = pipelineValue(*rig, "bytes");
        s.ns = (before + nowNs()) / 2;
        return s;
    };
    const Sample a = sample();
    wait(3000);
    const Sample b = sample();
    if (rig->stopHost() != 0)
        fail(QStringLiteral("vrax-host did not stop cleanly"));
    FastRun run;
    const double seconds = double(b.ns - a.ns) / 1e9;
    run.bytesPerSecond = (b.bytes - a.bytes) / seconds;
    run.cores = (b.cpu - a.cpu) / seconds;
    for (const auto& [name, cpu] : b.threads) {
        const auto before = a.threads.find(name);
        run.threadCores[name] = (cpu - (before == a.threads.end() ? 0.0 : before->second)) / seconds;
    }
    return run;
}

// Start-up and chunk latency at fast pace, from the traces.
TracedRun Bench::tracedRun(int i)
{
    auto rig = newRig(QStringLiteral("traced-%1").arg(i));
    const qint64 spawned = nowNs();
    startHost(*rig, settings(*rig, true, 0), QStringLiteral("fast"), {}, true);
    if (!waitUntil([&] { return pipelineValue(*rig, "bytes") > 0; }, 15000))
        fail(QStringLiteral("no audio reached the pipeline"));
    wait(2000);
    if (rig->stopHost() != 0)
        fail(QStringLiteral("vrax-host did not stop cleanly"));
    const QVector<Event> host = readTrace(traceOf(*rig)), library = readTrace(libraryTraceOf(*rig));
    auto first = [&](const char* name) {
        for (const Event& e : host)
            if (e.name == name)
                return e.ns;
        fail(QStringLiteral("no %1 in the host's trace").arg(QLatin1String(name)));
    };
    TracedRun run;
    run.hostStartMs = double(first("worker_create") - spawned) / 1e6;
    run.startupMs = double(first("audio") - first("worker_create")) / 1e6;
    run.latenciesUs = chunkLatenciesUs(library, host);
    if (run.latenciesUs.size() < 10)
        fail(QStringLiteral("the library's and the pipeline's traces do not line up"));
    // The library waits 5 ms after the data callback took nothing; nothing else spaces chunks that far.
    qint64 previous = 0, firstData = 0, waited = 0;
    for (const Event& e : library) {
        if (e.name != "data")
            continue;
        if (previous && e.ns - previous >= 4500000)
            waited += e.ns - previous;
        previous = e.ns;
        if (!firstData)
            firstData = e.ns;
    }
    run.retryShare = previous > firstData ? double(waited) / double(previous - firstData) : 0;
    QVector<double> inside;
    for (const Event& e : library)
        if (e.name == "data")
            inside << double(e.ns - e.b) / 1000.0;
    run.callbackUs = percentile(inside, 0.5);
    return run;
}

// The update 1.0.0 -> 1.1.0 at the end of the first track (or its rollback), seen in the
// pipeline's received stream.
SwapRun Bench::swapRun(int i, bool realtime, bool bad)
{
    auto rig = newRig(QStringLiteral("%1-%2-%3").arg(bad ? "rollback" : "swap", realtime ? "realtime" : "fast").arg(i));
    QString error;
    QString offered = QStringLiteral(OPLAYER_REF_1_1_0);
    if (bad) {
        offered = rig->workDir() + QStringLiteral("/random.so");
        QFile random(offered);
        QByteArray bytes(int(QFileInfo(QStringLiteral(OPLAYER_REF_1_1_0)).size()), Qt::Uninitialized);
        for (char& byte : bytes)
            byte = char(QRandomGenerator::global()->bounded(256));
        const QString installed = rig->dataDir() + QStringLiteral("/data-rw/orvello/liboplayer-1.so");
        if (!random.open(QIODevice::WriteOnly) || random.write(bytes) != bytes.size() || !QDir().mkpath(QFileInfo(installed).path())
            || !QFile::copy(QStringLiteral(OPLAYER_REF_1_0_0), installed))
            fail(QStringLiteral("cannot prepare the rollback run in %1").arg(rig->workDir()));
    }
    if (!rig->startService(QStringLiteral("1.1.0"), offered, &error))
        fail(error);
    // Long enough for the update check, download and check to finish within the first track.
    const QString track = realtime ? QStringLiteral("5") : QStringLiteral("20");
    startHost(*rig, settings(*rig, true, 1), realtime ? QStringLiteral("realtime") : QStringLiteral("fast"),
              {QStringLiteral("OPLAYER_REF_TRACK_SECONDS=") + track}, true);
    const QString swapped = bad ? QStringLiteral("the previous library is back in its place") : QStringLiteral("Running SDK version: 1.1.0");
    if (!rig->waitForLog(swapped, 40000))
        fail(QStringLiteral("the update was not %1:\n").arg(bad ? "rolled back" : "swapped in")
             + rig->hostLog().join(QLatin1Char('\n')));
    wait(realtime ? 1500 : 1000);
    if (rig->stopHost() != 0)
        fail(QStringLiteral("vrax-host did not stop cleanly"));

    const QVector<Event> host = readTrace(traceOf(*rig)), library = readTrace(libraryTraceOf(*rig));
    QVector<int> audio;
    int lastOld = -1, firstNew = -1;
    for (int k = 0; k < host.size(); ++k) {
        if (host.at(k).name == "audio")
            audio << k;
        else if (host.at(k).name == "end" && lastOld < 0 && !audio.isEmpty())
            lastOld = audio.last();
    }
    for (int k : audio) {
        if (lastOld >= 0 && k > lastOld) {
            firstNew = k;
            break;
        }
    }
    if (lastOld < 0 || firstNew < 0)
        fail(QStringLiteral("no sequence change in the pipeline's trace"));
    SwapRun run;
    const Event& old = host.at(lastOld);
    const Event& fresh = host.at(firstNew);
    run.gapMs = double(fresh.ns - old.ns) / 1e6;
    run.silenceMs = double(fresh.ns - old.c) / 1e6;
    run.otherGapMs = 0;
    run.otherSilenceMs = -1e9;
    // From half a second into the stream, past the start-up.
    const qint64 from = host.at(audio.first()).ns + 500000000LL;
    for (int k = 1; k < audio.size(); ++k) {
        const Event& p = host.at(audio.at(k - 1));
        const Event& e = host.at(audio.at(k));
        if (audio.at(k) == firstNew || p.ns < from)
            continue;
        run.otherGapMs = std::max(run.otherGapMs, double(e.ns - p.ns) / 1e6);
        run.otherSilenceMs = std::max(run.otherSilenceMs, double(e.ns - p.c) / 1e6);
    }
    // The first library's shutdown, then the next one's init and first data.
    qint64 shutdown = 0, init = 0, firstData = 0;
    for (const Event& e : library) {
        if (e.name == "shutdown" && !shutdown)
            shutdown = e.ns;
        else if (e.name == "init" && shutdown && !init)
            init = e.ns;
        else if (e.name == "data" && init && !firstData)
            firstData = e.ns;
    }
    run.libraryMs = shutdown && init ? double(init - shutdown) / 1e6 : std::nan("");
    run.cushionMs = firstData ? double(old.c - firstData) / 1e6 : std::nan("");
    run.latenciesUs = chunkLatenciesUs(library, host);
    const qint64 span = std::max<qint64>(5 * (fresh.ns - old.ns), 20000000LL);
    for (int k : audio) {
        const Event& e = host.at(k);
        if (e.ns >= old.ns - span && e.ns <= old.ns + span)
            run.window << QPointF(double(e.ns - old.ns) / 1e6, double(e.b) / 1e6);
    }
    return run;
}

// Pairing through the pairing page, against a code the module refuses before the library sees it.
PairRun Bench::pairRun(int i)
{
    auto rig = newRig(QStringLiteral("pair-%1").arg(i));
    startHost(*rig, settings(*rig, false, 0), QStringLiteral("fast"), {}, false);
    if (!rig->waitForLog(QStringLiteral("Waiting for pairing code before initializing"), 10000))
        fail(QStringLiteral("the device did not come up unpaired"));
    auto timed = [&](const QString& code, int status) {
        const qint64 start = nowNs();
        const DeviceRig::Answer answer = rig->setValue(QStringLiteral("orvello/browse/uiPairCode"), code);
        const double ms = double(nowNs() - start) / 1e6;
        if (answer.status != status)
            fail(QStringLiteral("pairing code %1 answered %2, not %3: %4").arg(code).arg(answer.status).arg(status)
                     .arg(answer.errorMessage()));
        return ms;
    };
    PairRun run;
    run.refusedMs = timed(QStringLiteral("ABC1EF"), 422);
    run.pairMs = timed(QStringLiteral("ORV-ELO"), 200);
    if (rig->stopHost() != 0)
        fail(QStringLiteral("vrax-host did not stop cleanly"));
    return run;
}

// Paused, then playing, at realtime pace; with memory, playing lasts 60 s and RSS is sampled.
RealtimeRun Bench::realtimeRun(int i, bool memory)
{
    auto rig = newRig(QStringLiteral("realtime-%1").arg(i));
    startHost(*rig, settings(*rig, true, 0), QStringLiteral("realtime"), {}, false);
    const qint64 pid = rig->hostPid();
    if (!waitUntil([&] { return playState(*rig) == 2; }, 15000))
        fail(QStringLiteral("the device did not start playing"));
    if (!rig->post(QStringLiteral("/api/player/pause"), {}).ok() || !waitUntil([&] { return playState(*rig) == 3; }, 5000))
        fail(QStringLiteral("the device did not pause"));
    wait(2000);

    RealtimeRun run;
    // The raw baseline's paced run shares this quiet window: both use a sliver of one core.
    QProcess raw;
    raw.start(QStringLiteral(BENCH_RAWSOCKET_PATH), {QStringLiteral("paced"), QStringLiteral("20")});
    const qint64 idleStart = nowNs();
    const double idleCpu0 = processCpuSeconds(pid);
    const std::map<QString, double> idleThreads0 = threadCpuSeconds(pid);
    const qint64 idleRss0 = statusKiB(pid, "VmRSS:");
    wait(20000);
    run.idleWindowS = double(nowNs() - idleStart) / 1e9;
    run.idleCpuPerSecond = (processCpuSeconds(pid) - idleCpu0) / run.idleWindowS;
    for (const auto& [name, cpu] : threadCpuSeconds(pid)) {
        const auto before = idleThreads0.find(name);
        run.idleThreadCpuPerSecond[name] = (cpu - (before == idleThreads0.end() ? 0.0 : before->second)) / run.idleWindowS;
    }
    run.idleGrowthKiB = statusKiB(pid, "VmRSS:") - idleRss0;
    run.idlePeakKiB = statusKiB(pid, "VmHWM:");
    // waitForFinished() is false for a process that has already finished.
    if ((raw.state() != QProcess::NotRunning && !raw.waitForFinished(30000)) || raw.exitStatus() != QProcess::NormalExit
        || raw.exitCode() != 0)
        fail(QStringLiteral("bench_rawsocket paced failed: ") + QString::fromLocal8Bit(raw.readAllStandardError()));
    for (const QByteArray& line : raw.readAllStandardOutput().split('\n'))
        if (line.startsWith('{'))
            run.raw = QJsonDocument::fromJson(line).object();

    run.underrunsPaused = pipelineValue(*rig, "underruns");
    if (!rig->post(QStringLiteral("/api/player/play"), {}).ok() || !waitUntil([&] { return playState(*rig) == 2; }, 5000))
        fail(QStringLiteral("the device did not resume"));
    const qint64 playStart = nowNs();
    auto sinceStart = [&] { return double(nowNs() - playStart) / 1e9; };
    double cpu0 = 0, played0 = 0;
    std::map<QString, double> threads0;
    auto openWindow = [&] {
        cpu0 = processCpuSeconds(pid);
        threads0 = threadCpuSeconds(pid);
        played0 = pipelineValue(*rig, "seconds");
    };
    if (memory) {
        for (int second = 1; second <= 60; ++second) {
            wait(int(std::max(0.0, (second - sinceStart()) * 1000)));
            const qint64 rss = statusKiB(pid, "VmRSS:");
            run.rss << QPointF(second, rss / 1024.0);
            if (second == 10) {
                run.rss10KiB = rss;
                openWindow();
            }
            if (second == 35)
                run.rss35KiB = rss;
            if (second == 60)
                run.rss60KiB = rss;
        }
    } else {
        wait(2000); // the buffers fill at the start
        openWindow();
        // No polling inside the window: every control API request costs the host CPU too.
        wait(21000);
        while (pipelineValue(*rig, "seconds") - played0 < 20.0)
            wait(1000);
    }
    const double cpu1 = processCpuSeconds(pid);
    const std::map<QString, double> threads1 = threadCpuSeconds(pid);
    run.playedSeconds = pipelineValue(*rig, "seconds") - played0;
    run.playCpuPerSecond = (cpu1 - cpu0) / run.playedSeconds;
    for (const auto& [name, cpu] : threads1) {
        const auto before = threads0.find(name);
        run.threadCpuPerSecond[name] = (cpu - (before == threads0.end() ? 0.0 : before->second)) / run.playedSeconds;
    }
    run.peakKiB = statusKiB(pid, "VmHWM:");
    run.underrunsPlaying = pipelineValue(*rig, "underruns") - run.underrunsPaused;
    if (rig->stopHost() != 0)
        fail(QStringLiteral("vrax-host did not stop cleanly"));
    return run;
}

// Where heaptrack keeps its preloaded library and its interpreter (Debian's heaptrack package).
const QString kHeaptrackPreload = QStringLiteral("/usr/lib/heaptrack/libheaptrack_preload.so");
const QString kHeaptrackInterpret = QStringLiteral("/usr/lib/heaptrack/libexec/heaptrack_interpret");

bool heaptrackAvailable()
{
    return QFileInfo::exists(kHeaptrackPreload) && QFileInfo::exists(kHeaptrackInterpret)
           && !QStandardPaths::findExecutable(QStringLiteral("heaptrack_print")).isEmpty();
}

// The heap in use over time from heaptrack's data, as heaptrack_print's massif output gives it:
// (seconds since the process started, bytes); leakedKiB gets what the exit did not free. The
// interpreted data stays in work (heaptrack.data) for heaptrack_print.
QVector<QPointF> heaptrackSeries(const QString& raw, const QString& work, double* leakedKiB)
{
    const QString interpreted = work + QStringLiteral("/heaptrack.data");
    const QString massif = work + QStringLiteral("/heaptrack.massif");
    QProcess interpret;
    interpret.setStandardInputFile(raw);
    interpret.setStandardOutputFile(interpreted);
    interpret.start(kHeaptrackInterpret, QStringList());
    if (!interpret.waitForFinished(300000) || interpret.exitCode() != 0)
        fail(QStringLiteral("heaptrack_interpret failed on %1").arg(raw));
    QProcess print;
    print.start(QStringLiteral("heaptrack_print"),
                {QStringLiteral("-f"), interpreted, QStringLiteral("--print-peaks"), QStringLiteral("0"),
                 QStringLiteral("--print-allocators"), QStringLiteral("0"), QStringLiteral("--print-temporary"),
                 QStringLiteral("0"), QStringLiteral("--print-leaks"), QStringLiteral("0"), QStringLiteral("--print-massif"),
                 massif});
    if (!print.waitForFinished(300000) || print.exitCode() != 0)
        fail(QStringLiteral("heaptrack_print failed on %1").arg(interpreted));
    const QRegularExpression leaked(QStringLiteral("total memory leaked: ([\\d.]+)([KMG]?)"));
    const QRegularExpressionMatch m = leaked.match(QString::fromLocal8Bit(print.readAllStandardOutput()));
    if (m.hasMatch()) {
        const QString unit = m.captured(2);
        const double scale = unit == QLatin1String("M") ? 1024 : unit == QLatin1String("G") ? 1024 * 1024 : unit.isEmpty() ? 1.0 / 1024 : 1;
        *leakedKiB = m.captured(1).toDouble() * scale;
    }
    QFile file(massif);
    if (!file.open(QIODevice::ReadOnly))
        fail(QStringLiteral("heaptrack_print wrote no %1").arg(massif));
    QVector<QPointF> series;
    double time = -1;
    for (const QByteArray& line : file.readAll().split('\n')) {
        if (line.startsWith("time="))
            time = line.mid(5).toDouble();
        else if (line.startsWith("mem_heap_B=") && time >= 0)
            series << QPointF(time, line.mid(11).toDouble());
    }
    QFile::remove(raw);
    return series;
}

// Update swaps back to back. The running library reports its own version, 1.0.0 or 1.1.0, and the
// updater takes whatever sorts after it as text, so each offer is the running version with a
// number behind it ("1.0.0.00001") and the other build's file; once the exit is requested the
// service offers 1.0.0 again, which sorts after neither, so every offer makes one swap.
SwapMemoryRun Bench::swapMemoryRun(int swaps, bool heaptrack)
{
    auto rig = newRig(heaptrack ? QStringLiteral("swaps-heaptrack") : QStringLiteral("swaps"));
    QString error;
    if (!rig->startService(QStringLiteral("1.0.0"), QStringLiteral(OPLAYER_REF_1_0_0), &error))
        fail(error);
    const QMap<QString, QString> builds{{QStringLiteral("1.0.0"), QStringLiteral(OPLAYER_REF_1_0_0)},
                                        {QStringLiteral("1.1.0"), QStringLiteral(OPLAYER_REF_1_1_0)}};
    for (auto it = builds.begin(); it != builds.end(); ++it)
        if (!QFile::copy(it.value(), rig->serviceDir() + QStringLiteral("/%1.so").arg(it.key())))
            fail(QStringLiteral("cannot copy %1 for the service").arg(it.value()));
    // Tracks of 2 s end a few milliseconds after the exit request at fast pace.
    QStringList env{QStringLiteral("OPLAYER_REF_TRACK_SECONDS=2")};
    const QString raw = rig->workDir() + QStringLiteral("/heaptrack.raw");
    if (heaptrack)
        env << QStringLiteral("LD_PRELOAD=") + kHeaptrackPreload << QStringLiteral("DUMP_HEAPTRACK_OUTPUT=") + raw;
    const qint64 started = nowNs();
    startHost(*rig, settings(*rig, true, 1), QStringLiteral("fast"), env, false);
    const qint64 pid = rig->hostPid();

    const QString loadedText = QStringLiteral("Running SDK version: ");
    const QString exitText = QStringLiteral("Requesting exit at end of song");
    auto loads = [&](QString* last) {
        int count = 0;
        for (const QString& line : rig->hostLog()) {
            const int at = line.indexOf(loadedText);
            if (at >= 0) {
                ++count;
                *last = line.mid(at + loadedText.size()).trimmed();
            }
        }
        return count;
    };
    auto exits = [&] { return rig->hostLog().filter(exitText).size(); };
    QString running;
    if (!waitUntil([&] { return loads(&running) == 1; }, 15000))
        fail(QStringLiteral("the library did not load:\n") + rig->hostLog().join(QLatin1Char('\n')));

    SwapMemoryRun run;
    QVector<double> loadedS;
    const qint64 firstLoad = nowNs();
    for (int swap = 0;; ++swap) {
        run.rssKiB << QPointF(swap, statusKiB(pid, "VmRSS:"));
        loadedS << double(nowNs() - started) / 1e9;
        if (swap == swaps)
            break;
        const QString target = running == QLatin1String("1.0.0") ? QStringLiteral("1.1.0") : QStringLiteral("1.0.0");
        const int exitsBefore = exits();
        if (!rig->setServiceState({{QStringLiteral("version"), QStringLiteral("%1.%2").arg(running).arg(swap + 1, 5, 10, QLatin1Char('0'))},
                                   {QStringLiteral("library"), target + QStringLiteral(".so")}},
                                  &error))
            fail(error);
        if (!waitUntil([&] { return exits() > exitsBefore; }, 30000))
            fail(QStringLiteral("swap %1: no exit was requested").arg(swap + 1));
        if (!rig->setServiceState({{QStringLiteral("version"), QStringLiteral("1.0.0")}}, &error))
            fail(error);
        if (!waitUntil([&] { return loads(&running) == swap + 2; }, 30000))
            fail(QStringLiteral("swap %1: no library loaded after the exit").arg(swap + 1));
        if (running != target)
            fail(QStringLiteral("swap %1 loaded %2, not %3").arg(swap + 1).arg(running, target));
    }
    run.secondsPerSwap = double(nowNs() - firstLoad) / 1e9 / swaps;
    if (rig->stopHost() != 0)
        fail(QStringLiteral("vrax-host did not stop cleanly"));
    if (heaptrack) {
        // The heap at rest: the least in use from a little after a swap to the next one.
        const QVector<QPointF> heap = heaptrackSeries(raw, rig->workDir(), &run.heapLeakedKiB);
        for (int swap = 0; swap + 1 < loadedS.size(); ++swap) {
            double least = std::nan("");
            for (const QPointF& p : heap)
                if (p.x() >= loadedS.at(swap) + 0.1 && p.x() < loadedS.at(swap + 1) && !(p.y() >= least))
                    least = p.y();
            if (!std::isnan(least))
                run.heapKiB << QPointF(swap, least / 1024);
        }
    }
    return run;
}

// Hours of audio at fast pace, RSS sampled against the audio played.
AudioMemoryRun Bench::audioMemoryRun(double hours)
{
    auto rig = newRig(QStringLiteral("hours"));
    startHost(*rig, settings(*rig, true, 0), QStringLiteral("fast"), {}, false);
    const qint64 pid = rig->hostPid();
    if (!waitUntil([&] { return pipelineValue(*rig, "bytes") > 0; }, 15000))
        fail(QStringLiteral("no audio reached the pipeline"));
    AudioMemoryRun run;
    const qint64 start = nowNs();
    const QDeadlineTimer deadline(30 * 60 * 1000);
    for (double played = 0; played < hours;) {
        if (deadline.hasExpired())
            fail(QStringLiteral("%1 h of audio took more than 30 minutes").arg(hours));
        wait(250);
        played = pipelineValue(*rig, "seconds") / 3600;
        run.rssKiB << QPointF(played, statusKiB(pid, "VmRSS:"));
    }
    run.wallSeconds = double(nowNs() - start) / 1e9;
    if (rig->stopHost() != 0)
        fail(QStringLiteral("vrax-host did not stop cleanly"));
    return run;
}

QJsonObject Bench::tool(const QString& program, const QStringList& arguments, int timeoutMs)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(timeoutMs) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        fail(QStringLiteral("%1 failed: %2").arg(program, QString::fromLocal8Bit(process.readAllStandardError())));
    QJsonObject result;
    const QByteArray out = process.readAllStandardOutput();
    for (const QByteArray& line : out.split('\n'))
        if (line.startsWith('{'))
            result = QJsonDocument::fromJson(line).object();
    result.insert(QStringLiteral("text"), QString::fromLocal8Bit(out));
    return result;
}

// The module's audio transfer, smt2 and the pipeline without a player library: processData in a loop.
double Bench::transferAloneTimesRealtime()
{
    const QJsonObject out = tool(QStringLiteral(BENCH_AUDIOTRANSFER_PATH), {QStringLiteral("2"), QStringLiteral("16384")}, 60000);
    const QRegularExpressionMatch m =
        QRegularExpression(QStringLiteral("throughput\\s+[\\d.]+ MB/s \\(([\\d.]+) x")).match(out.value(QStringLiteral("text")).toString());
    if (!m.hasMatch())
        fail(QStringLiteral("bench_audiotransfer printed no throughput"));
    return m.captured(1).toDouble();
}

// ---- the report -------------------------------------------------------------------------------

using bench::operator<<;

QString num(double value, int precision = 3)
{
    if (std::isnan(value))
        return QStringLiteral("n/a");
    const double magnitude = std::fabs(value);
    if (magnitude >= 1000)
        return QString::number(value, 'f', 0);
    return QString::number(value, 'g', precision);
}

QString withRange(const Series& s, int precision = 3)
{
    return QStringLiteral("%1 (%2–%3)").arg(num(s.med(), precision), num(s.lo(), precision), num(s.hi(), precision));
}

QString ratio(double value, double baseline)
{
    if (std::isnan(value) || std::isnan(baseline) || baseline == 0)
        return QStringLiteral("— (baseline 0)");
    return QStringLiteral("%1×").arg(num(value / baseline));
}

QString readFirstLine(const QString& path, const QString& prefix)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    for (const QByteArray& line : file.readAll().split('\n'))
        if (line.startsWith(prefix.toLatin1()))
            return QString::fromUtf8(line.mid(line.indexOf(':') + 1)).trimmed();
    return QString();
}

QString loadAverage()
{
    QFile file(QStringLiteral("/proc/loadavg"));
    return file.open(QIODevice::ReadOnly) ? QString::fromLatin1(file.readAll()).section(QLatin1Char(' '), 0, 2) : QString();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Measures the module on the emulated device and writes the report."));
    parser.addHelpOption();
    const QCommandLineOption resultsOption(QStringLiteral("results"), QStringLiteral("Where latest.md goes."),
                                           QStringLiteral("DIR"));
    const QCommandLineOption workOption(QStringLiteral("work-dir"), QStringLiteral("Scratch directory (emptied)."),
                                        QStringLiteral("DIR"));
    const QCommandLineOption runsOption(QStringLiteral("runs"), QStringLiteral("Runs per figure (at least 5 for the report)."),
                                        QStringLiteral("N"), QStringLiteral("5"));
    parser.addOptions({resultsOption, workOption, runsOption});
    parser.process(app);
    bool ok = false;
    const int runs = parser.value(runsOption).toInt(&ok);
    if (!parser.isSet(resultsOption) || !parser.isSet(workOption) || !ok || runs < 1 || runs > 100) {
        std::fprintf(stderr, "bench_device: --results DIR and --work-dir DIR are needed; --runs takes 1 to 100\n");
        return 2;
    }
    const QString results = QFileInfo(parser.value(resultsOption)).absoluteFilePath();
    const QString work = QFileInfo(parser.value(workOption)).absoluteFilePath();
    QDir(work).removeRecursively();
    if (!QDir().mkpath(work) || !QDir().mkpath(results)) {
        std::fprintf(stderr, "bench_device: cannot create %s or %s\n", qPrintable(work), qPrintable(results));
        return 1;
    }

    const QString startLoad = loadAverage();
    const QDateTime started = QDateTime::currentDateTimeUtc();
    Bench bench(work, runs);
    Series fastX, rawX, transferX, fastCores, startup, hostStart, pairMs, refusedMs;
    Series swapGap, swapOther, swapLibrary, rtSilence, rtOtherSilence, rtCushion, rbSilence, rbCushion, rbLibrary;
    Series playCpu, idleCpu, rawCpu, rawPacedLatency, rawPacedLatencyP99, rawLatency, rawLatencyP99;
    Series latencyMedian, latencyP99, rtLatencyMedian, rtLatencyP99;
    std::map<QString, Series> threads, rtThreads, idleThreads;
    RealtimeRun memoryRun;
    SwapMemoryRun swapMemory, heapMemory;
    AudioMemoryRun audioMemory;
    double underrunsPaused = 0, underrunsPlaying = 0;
    Series retryShare, callbackUs;
    QVector<QPointF> swapWindow;
    try {
        for (int i = 0; i < runs; ++i) {
            const FastRun fast = bench.fastRun(i);
            fastX.add(fast.bytesPerSecond / kBytesPerSecond);
            fastCores.add(fast.cores);
            for (const auto& [name, cores] : fast.threadCores)
                threads[name].add(cores);
            // The same bytes as the module moved, and at least 256 MiB so the run is long enough to time.
            const qint64 bytes = std::max<qint64>(qint64(fast.bytesPerSecond * 3), 256 << 20);
            const QJsonObject raw = bench.tool(QStringLiteral(BENCH_RAWSOCKET_PATH),
                                               {QStringLiteral("throughput"), QString::number(bytes)}, 120000);
            rawX.add(raw.value(QStringLiteral("bytesPerSecond")).toDouble() / kBytesPerSecond);
            rawLatency.add(raw.value(QStringLiteral("latencyMedianUs")).toDouble());
            rawLatencyP99.add(raw.value(QStringLiteral("latencyP99Us")).toDouble());
            transferX.add(bench.transferAloneTimesRealtime());
            bench.say(QStringLiteral("throughput %1/%2: module %3x real time, raw socket pair %4x, transfer alone %5x")
                          .arg(i + 1).arg(runs).arg(num(fastX.values.last())).arg(num(rawX.values.last()))
                          .arg(num(transferX.values.last())));
        }
        for (int i = 0; i < runs; ++i) {
            const TracedRun traced = bench.tracedRun(i);
            startup.add(traced.startupMs);
            retryShare.add(traced.retryShare);
            callbackUs.add(traced.callbackUs);
            hostStart.add(traced.hostStartMs);
            latencyMedian.add(percentile(traced.latenciesUs, 0.5));
            latencyP99.add(percentile(traced.latenciesUs, 0.99));
            bench.say(QStringLiteral("start-up %1/%2: %3 ms after worker_create (host start %4 ms); latency %5 us median")
                          .arg(i + 1).arg(runs).arg(num(traced.startupMs)).arg(num(traced.hostStartMs))
                          .arg(num(latencyMedian.values.last())));
        }
        for (int i = 0; i < runs; ++i) {
            const PairRun pair = bench.pairRun(i);
            pairMs.add(pair.pairMs);
            refusedMs.add(pair.refusedMs);
            bench.say(QStringLiteral("pairing %1/%2: %3 ms (refused code %4 ms)").arg(i + 1).arg(runs)
                          .arg(num(pair.pairMs)).arg(num(pair.refusedMs)));
        }
        for (int i = 0; i < runs; ++i) {
            const SwapRun swap = bench.swapRun(i, false);
            swapGap.add(swap.gapMs);
            swapOther.add(swap.otherGapMs);
            swapLibrary.add(swap.libraryMs);
            if (i == 0)
                swapWindow = swap.window;
            bench.say(QStringLiteral("swap at fast pace %1/%2: %3 ms without audio (longest other gap %4 ms)")
                          .arg(i + 1).arg(runs).arg(num(swap.gapMs)).arg(num(swap.otherGapMs)));
        }
        for (int i = 0; i < runs; ++i) {
            const SwapRun swap = bench.swapRun(i, true);
            rtSilence.add(std::max(0.0, swap.silenceMs));
            rtCushion.add(swap.cushionMs);
            rtOtherSilence.add(std::max(0.0, swap.otherSilenceMs));
            rtLatencyMedian.add(percentile(swap.latenciesUs, 0.5));
            rtLatencyP99.add(percentile(swap.latenciesUs, 0.99));
            bench.say(QStringLiteral("swap at realtime pace %1/%2: %3 ms of silence; the new library's first chunk came "
                                     "%4 ms before the old audio had played")
                          .arg(i + 1).arg(runs).arg(num(std::max(0.0, swap.silenceMs))).arg(num(swap.cushionMs)));
        }
        for (int i = 0; i < runs; ++i) {
            const SwapRun rollback = bench.swapRun(i, true, true);
            rbSilence.add(std::max(0.0, rollback.silenceMs));
            rbCushion.add(rollback.cushionMs);
            rbLibrary.add(rollback.libraryMs);
            bench.say(QStringLiteral("rollback of a bad update at realtime pace %1/%2: %3 ms of silence; the previous "
                                     "library's first chunk came %4 ms before the old audio had played")
                          .arg(i + 1).arg(runs).arg(num(std::max(0.0, rollback.silenceMs))).arg(num(rollback.cushionMs)));
        }
        for (int i = 0; i < runs; ++i) {
            const RealtimeRun rt = bench.realtimeRun(i, i == 0);
            playCpu.add(rt.playCpuPerSecond);
            idleCpu.add(rt.idleCpuPerSecond);
            const double rawSeconds = rt.raw.value(QStringLiteral("bytes")).toDouble() / kBytesPerSecond;
            rawCpu.add(rawSeconds > 0 ? rt.raw.value(QStringLiteral("cpuSeconds")).toDouble() / rawSeconds : std::nan(""));
            rawPacedLatency.add(rt.raw.value(QStringLiteral("latencyMedianUs")).toDouble());
            rawPacedLatencyP99.add(rt.raw.value(QStringLiteral("latencyP99Us")).toDouble());
            if (i == 0)
                memoryRun = rt;
            for (const auto& [name, cpu] : rt.threadCpuPerSecond)
                rtThreads[name].add(cpu);
            for (const auto& [name, cpu] : rt.idleThreadCpuPerSecond)
                idleThreads[name].add(cpu);
            underrunsPaused += rt.underrunsPaused;
            underrunsPlaying += rt.underrunsPlaying;
            bench.say(QStringLiteral("realtime %1/%2: %3 CPU s per s of audio over %4 s, %5 paused, raw %6; underruns %7 "
                                     "before the pause ended, %8 after")
                          .arg(i + 1).arg(runs).arg(num(rt.playCpuPerSecond)).arg(num(rt.playedSeconds))
                          .arg(num(rt.idleCpuPerSecond)).arg(num(rawCpu.values.last())).arg(rt.underrunsPaused)
                          .arg(rt.underrunsPlaying));
        }
        swapMemory = bench.swapMemoryRun(kWarmupSwaps + kMeasuredSwaps, false);
        bench.say(QStringLiteral("memory over %1 swaps: %2 KiB RSS per swap after the first %3 (%4 s per swap)")
                      .arg(kWarmupSwaps + kMeasuredSwaps)
                      .arg(num(slope(swapMemory.rssKiB, kWarmupSwaps, kWarmupSwaps + kMeasuredSwaps)))
                      .arg(kWarmupSwaps).arg(num(swapMemory.secondsPerSwap)));
        if (heaptrackAvailable()) {
            heapMemory = bench.swapMemoryRun(kHeaptrackSwaps, true);
            bench.say(QStringLiteral("heap under heaptrack over %1 swaps: %2 KiB at rest after swap %3, %4 after swap %5")
                          .arg(kHeaptrackSwaps)
                          .arg(num(medianY(heapMemory.heapKiB, kWarmupSwaps, kWarmupSwaps + kHeaptrackBlock - 1)))
                          .arg(kWarmupSwaps)
                          .arg(num(medianY(heapMemory.heapKiB, kWarmupSwaps + kHeaptrackBlock, kHeaptrackSwaps)))
                          .arg(kWarmupSwaps + kHeaptrackBlock));
        } else {
            bench.say(QStringLiteral("heaptrack is not installed: no heap figures (./dev bench installs it)"));
        }
        audioMemory = bench.audioMemoryRun(kWarmupHours + kMeasuredHours);
        bench.say(QStringLiteral("memory over %1 h of audio: %2 KiB RSS per hour after the first (%3 s)")
                      .arg(kWarmupHours + kMeasuredHours)
                      .arg(num(slope(audioMemory.rssKiB, kWarmupHours, kWarmupHours + kMeasuredHours)))
                      .arg(num(audioMemory.wallSeconds)));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_device: %s\n", e.what());
        return 1;
    }

    // ---- the report ----
    struct utsname uts{};
    uname(&uts);
    const int cores = int(sysconf(_SC_NPROCESSORS_ONLN));
    std::ostringstream md;
    md << "# Benchmarks of the audio path, the update swap and start-up\n\n"
       << "Written by `./dev bench` (bench/bench_device.cpp); every figure is the median of " << runs
       << " runs, with the range of the runs in brackets.\n\n"
       << "| | |\n|---|---|\n"
       << "| date | " << started.toString(Qt::ISODate) << " |\n"
       << "| machine | " << cores << " cores, " << readFirstLine(QStringLiteral("/proc/cpuinfo"), QStringLiteral("model name"))
       << ", Linux " << uts.release << " |\n"
       << "| load average at start / end | " << startLoad << " / " << loadAverage() << " |\n"
       << "| build | " << BENCH_BUILD_FLAGS << ", GCC " << __VERSION__ << "; module, platform, devkit and the raw baseline alike |\n"
       << "| duration | " << num(bench.elapsedS(), 3) << " s of measuring |\n\n";
    if (runs < 5)
        md << "**Only " << runs << " run(s) per figure: not enough for medians that mean much.**\n\n";

    const double memoryPeakMiB = memoryRun.peakKiB / 1024.0, idlePeakMiB = memoryRun.idlePeakKiB / 1024.0;
    const double growthKiB = double(memoryRun.rss60KiB - memoryRun.rss10KiB);
    const double idleGrowthPer50s = memoryRun.idleWindowS > 0 ? memoryRun.idleGrowthKiB * 50.0 / memoryRun.idleWindowS : 0;
    constexpr int kLastSwap = kWarmupSwaps + kMeasuredSwaps;
    auto rssAt = [&](int swap) {
        for (const QPointF& p : swapMemory.rssKiB)
            if (int(p.x()) == swap)
                return p.y();
        return std::nan("");
    };
    const double rssPerSwap = slope(swapMemory.rssKiB, kWarmupSwaps, kLastSwap);
    const double rssWarmupPerSwap = slope(swapMemory.rssKiB, 0, kWarmupSwaps);
    // The heap at rest after a swap, median of a block of swaps: one block against the next.
    auto heapBlock = [&](int first) { return medianY(heapMemory.heapKiB, first, first + kHeaptrackBlock - 1); };
    const double heapPerSwap = (heapBlock(kWarmupSwaps + kHeaptrackBlock) - heapBlock(kWarmupSwaps)) / kHeaptrackBlock;
    const double heapWarmupPerSwap = (heapBlock(kWarmupSwaps - kHeaptrackBlock) - heapBlock(0)) / (kWarmupSwaps - kHeaptrackBlock);
    // Whether growth slows: the first and the second half of what is measured.
    const int kMidSwap = kWarmupSwaps + kMeasuredSwaps / 2;
    const double rssFirstHalfPerSwap = slope(swapMemory.rssKiB, kWarmupSwaps, kMidSwap);
    const double rssSecondHalfPerSwap = slope(swapMemory.rssKiB, kMidSwap, kLastSwap);
    int rssSteps = 0;
    for (int i = 1; i < swapMemory.rssKiB.size(); ++i)
        rssSteps += swapMemory.rssKiB.at(i).x() > kWarmupSwaps && swapMemory.rssKiB.at(i).y() != swapMemory.rssKiB.at(i - 1).y();
    const double rssPerHour = slope(audioMemory.rssKiB, kWarmupHours, kWarmupHours + kMeasuredHours);
    const double kMidHour = kWarmupHours + kMeasuredHours / 2;
    const double rssFirstHalfPerHour = slope(audioMemory.rssKiB, kWarmupHours, kMidHour);
    const double rssSecondHalfPerHour = slope(audioMemory.rssKiB, kMidHour, kWarmupHours + kMeasuredHours);
    // Per-swap figures in KiB to two places: a heap that does not move reads 0.00, not -0.0005.
    auto kib = [](double value) { return std::isnan(value) ? value : std::round(value * 100) / 100; };
    double rssFirstHour = std::nan("");
    for (const QPointF& p : audioMemory.rssKiB)
        if (p.x() <= kWarmupHours)
            rssFirstHour = p.y() - audioMemory.rssKiB.first().y();
    md << "| # | figure | module | baseline | ratio |\n|---|---|---|---|---|\n"
       << "| 1 | streaming throughput, fast pace (× real time, 44.1 kHz 16-bit stereo) | " << withRange(fastX)
       << " | raw socket pair, 128 KiB writes: " << withRange(rawX) << " | " << ratio(fastX.med(), rawX.med()) << " |\n"
       << "| 1b | the same path without the player library (bench_audiotransfer: processData in a loop, 16 KiB) | "
       << withRange(transferX) << " | raw socket pair: " << num(rawX.med()) << " | " << ratio(transferX.med(), rawX.med()) << " |\n"
       << "| 2 | CPU seconds per second of audio, realtime pace (whole vrax-host, ≥ 20 s) | " << withRange(playCpu, 2)
       << " | same host paused: " << withRange(idleCpu, 2) << " | " << ratio(playCpu.med(), idleCpu.med()) << " |\n"
       << "| 2b | | | raw socket pair at the same byte rate: " << withRange(rawCpu, 2) << " | "
       << ratio(playCpu.med(), rawCpu.med()) << " |\n"
       << "| 3 | latency, the data callback called with a chunk it accepts to the pipeline reading the chunk's last byte, fast pace (µs): median | "
       << withRange(latencyMedian) << " | raw socket pair, 128 KiB write to read: " << withRange(rawLatency) << " | "
       << ratio(latencyMedian.med(), rawLatency.med()) << " |\n"
       << "| 3b | the same, 99th percentile (µs) | " << withRange(latencyP99) << " | " << withRange(rawLatencyP99) << " | "
       << ratio(latencyP99.med(), rawLatencyP99.med()) << " |\n"
       << "| 3c | the same at realtime pace (ms): median / 99th percentile | " << num(rtLatencyMedian.med() / 1000) << " / "
       << num(rtLatencyP99.med() / 1000) << " | raw socket pair at the byte rate: " << num(rawPacedLatency.med() / 1000)
       << " / " << num(rawPacedLatencyP99.med() / 1000) << " | " << ratio(rtLatencyMedian.med(), rawPacedLatency.med())
       << " |\n"
       << "| 4 | update swap, fast pace: no audio between the old library's last and the new one's first (ms) | "
       << withRange(swapGap) << " | longest gap elsewhere in the same stream: " << withRange(swapOther) << " | "
       << ratio(swapGap.med(), swapOther.med()) << " |\n"
       << "| 4b | update swap, realtime pace: silence heard (ms) | " << withRange(rtSilence)
       << " | worst silence elsewhere in the same stream: " << withRange(rtOtherSilence) << " | "
       << ratio(rtSilence.med(), rtOtherSilence.med()) << " |\n"
       << "| 4c | bad update rolled back, realtime pace: silence heard (ms) | " << withRange(rbSilence)
       << " | the good swap's (4b): " << withRange(rtSilence) << " | " << ratio(rbSilence.med(), rtSilence.med()) << " |\n"
       << "| 5 | start-up, worker_create to the first PCM byte at the pipeline, paired (ms) | " << withRange(startup)
       << " | vrax-host started to worker_create: " << withRange(hostStart) << " | " << ratio(startup.med(), hostStart.med())
       << " |\n"
       << "| 5b | pairing code entered to reply answered (ms) | " << withRange(pairMs)
       << " | invalid code, refused by the module: " << withRange(refusedMs) << " | " << ratio(pairMs.med(), refusedMs.med())
       << " |\n"
       << "| 6 | peak RSS of vrax-host playing 60 s (MiB) | " << num(memoryPeakMiB) << " | the same host after 20 s paused: "
       << num(idlePeakMiB) << " | " << ratio(memoryPeakMiB, idlePeakMiB) << " |\n"
       << "| 6b | RSS growth from 10 s to 60 s of playing (KiB) | " << num(growthKiB) << " ("
       << num(double(memoryRun.rss60KiB - memoryRun.rss35KiB)) << " after 35 s) | paused, over 50 s (scaled from "
       << num(memoryRun.idleWindowS, 2) << " s): " << num(idleGrowthPer50s) << " | " << ratio(growthKiB, idleGrowthPer50s)
       << " |\n"
       << "| 6c | RSS growth per update swap, fast pace, least squares over swaps " << kWarmupSwaps + 1 << "–"
       << kLastSwap << " (KiB per swap) | " << num(kib(rssPerSwap)) << " (" << num(rssAt(kWarmupSwaps) / 1024) << " → "
       << num(rssAt(kLastSwap) / 1024) << " MiB) | the first " << kWarmupSwaps << " swaps: " << num(kib(rssWarmupPerSwap))
       << " | " << ratio(kib(rssPerSwap), kib(rssWarmupPerSwap)) << " |\n"
       << "| 6d | heap in use per update swap, under heaptrack: swaps " << kWarmupSwaps << "–"
       << kWarmupSwaps + kHeaptrackBlock - 1 << " against " << kWarmupSwaps + kHeaptrackBlock << "–" << kHeaptrackSwaps - 1
       << " (KiB per swap) | " << num(kib(heapPerSwap)) << " (" << num(heapBlock(kWarmupSwaps)) << " → "
       << num(heapBlock(kWarmupSwaps + kHeaptrackBlock)) << " KiB; not freed at exit: " << num(heapMemory.heapLeakedKiB)
       << " KiB) | swaps 0–" << kHeaptrackBlock - 1 << " against " << kWarmupSwaps - kHeaptrackBlock << "–"
       << kWarmupSwaps - 1 << ": " << num(kib(heapWarmupPerSwap)) << " | " << ratio(kib(heapPerSwap), kib(heapWarmupPerSwap))
       << " |\n"
       << "| 6e | RSS growth per hour of audio, fast pace, least squares over hours " << num(kWarmupHours) << "–"
       << num(kWarmupHours + kMeasuredHours) << " (KiB per hour) | " << num(rssPerHour) << " ("
       << num(audioMemory.wallSeconds) << " s for " << num(kWarmupHours + kMeasuredHours) << " h) | the first hour: "
       << num(rssFirstHour) << " | " << ratio(rssPerHour, rssFirstHour) << " |\n\n"
       << "![RSS of vrax-host while playing, and the received stream around the update swap](latest.png)\n\n";

    md << "## How each figure is measured\n\n"
       << "1. vrax-host with the module and oplayer-ref 1.0.0 at `--pace fast`, `--audio-out null`: bytes the pipeline "
          "read over 3 s (its `/api/pipeline` counter), after 0.5 s of streaming. Baseline: `bench_rawsocket "
          "throughput`, the same number of bytes (at least 256 MiB) of 16-bit stereo PCM over `socketpair(AF_UNIX, "
          "SOCK_STREAM)` in 128 KiB writes to a reader that reads as fast as it can; one raw run after each module run.\n"
       << "2. The same host at `--pace realtime`: user+sys CPU of the whole process (`/proc/PID/stat`) over at least "
          "20 s of playing (the first run over 50 s, from 10 s to 60 s), divided by the seconds the pipeline played; "
          "against the same process paused (`/api/player/pause`, library loaded, its loop running) for 20 s, and "
          "`bench_rawsocket paced 20` (128 KiB writes at 176,400 B/s), which runs beside the paused window.\n"
       << "3. `vrax-host --trace` (a line per message the pipeline reads, with its byte total) and `OPLAYER_REF_TRACE` "
          "(a line each time the data callback has taken samples, with when it was called) are matched by byte total; both are "
          "CLOCK_MONOTONIC. Fast-pace runs of 2.5 s; the realtime figure comes from the realtime swap runs. "
          "The library's chunks are 16 KiB and the transfer keeps one in flight. Baseline: the raw throughput runs, "
          "write() called to the reader having that write's last byte; 128 KiB writes back to back, so a write "
          "can queue behind the one before.\n"
       << "4. Service emulator offering 1.1.0, update checks every second, 20 s tracks (fast) or 5 s (realtime); "
          "the host's trace gives the reads around the sequence end that the swap makes. At realtime pace each "
          "read carries when the audio read so far will have been played; silence is the first new read minus that "
          "time for the last old read (0 when audio was still waiting). 4c: the same with 1.0.0 installed in "
          "data-rw and the service offering random bytes of the reference library's size as 1.1.0 (its checksum "
          "matches): the install, the refused load and the previous copy put back and loaded.\n"
       << "5. From the host's trace: `worker_create` to the first audio read, paired device at fast pace; the "
          "baseline is from the bench starting vrax-host to `worker_create`. Pairing: `POST /api/value` of "
          "`orvello/browse/uiPairCode` on an unpaired device, timed by the client, against `ABC1EF`, which the module "
          "refuses before loading or asking the library.\n"
       << "6. VmHWM and VmRSS from `/proc/PID/status` of the first realtime run: paused 20 s, then playing 60 s "
          "with RSS sampled each second. 6c: a fresh host at fast pace, paired, checking for updates every second, "
          "tracks of 2 s; the service offers the running version with a number behind it (\"1.0.0.00001\") and the "
          "other reference build, and 1.0.0 again once the exit is requested, so each offer makes one swap ("
       << num(swapMemory.secondsPerSwap) << " s per swap); VmRSS is read once each new library has loaded. 6d: the "
          "same under heaptrack (its library preloaded, its data read with `heaptrack_print --print-massif`) for "
       << kHeaptrackSwaps << " swaps: the heap at rest after a swap is the least in use until the next one, and a "
          "block's figure is the median over its " << kHeaptrackBlock << " swaps. The baselines are the swaps before "
          "the measured ones. "
          "6e: a fresh host at fast pace without update checks until " << num(kWarmupHours + kMeasuredHours)
       << " h of audio have played, VmRSS every 250 ms against the pipeline's seconds.\n\n"
       << "Each device run is a new vrax-host in an emptied directory (settings, data, cache, traces); nothing "
          "warm is carried from one run to the next except the kernel's page cache of the binaries, which all runs, "
          "module and baseline, share alike. Tracing costs one write() per 16 KiB chunk on each side, so "
          "throughput (figure 1) and CPU (figure 2) are measured without it.\n\n";

    md << "## Where the CPU goes (CPU seconds per second, median of the runs)\n\n"
       << "| thread | fast pace, streaming | realtime, per second of audio | paused |\n|---|---|---|---|\n";
    auto label = [](const QString& name) {
        if (name == QLatin1String("main"))
            return QStringLiteral("main: Qt event loop, the module's main loop, control API answers");
        if (name == QLatin1String("vrax-host"))
            return QStringLiteral("unnamed: the player library's audio thread (and idle helpers)");
        if (name == QLatin1String("orvelloAudioLoo"))
            return QStringLiteral("orvelloAudioLoopThread: the transfer's smt2 I/O");
        if (name == QLatin1String("audioPipeline"))
            return QStringLiteral("audioPipeline: the emulated pipeline");
        return name;
    };
    auto share = [](const std::map<QString, Series>& table, const QString& name) {
        const auto found = table.find(name);
        return found == table.end() ? 0.0 : found->second.med();
    };
    QVector<QPair<double, QString>> ranked;
    for (const auto& [name, series] : threads)
        ranked << qMakePair(series.med(), name);
    for (const auto& [name, series] : rtThreads)
        if (!threads.count(name))
            ranked << qMakePair(0.0, name);
    std::sort(ranked.begin(), ranked.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    for (const auto& [fastShare, name] : ranked)
        if (fastShare >= 0.0005 || share(rtThreads, name) >= 0.0001 || share(idleThreads, name) >= 0.0001)
            md << "| " << label(name) << " | " << num(fastShare, 2) << " | " << num(share(rtThreads, name), 2) << " | "
               << num(share(idleThreads, name), 2) << " |\n";
    md << "| whole process | " << num(fastCores.med(), 2) << " | " << num(playCpu.med(), 2) << " | "
       << num(idleCpu.med(), 2) << " |\n\n"
       << "From `/proc/PID/task/*/stat` (10 ms ticks) over the windows of figures 1 and 2.\n\n";

    md << "## Notes\n\n";
    auto threadShare = [&](const QString& name) {
        const auto found = threads.find(name);
        return found == threads.end() ? 0.0 : found->second.med();
    };
    if (fastX.med() < 0.5 * rawX.med()) {
        const double libraryCores = threadShare(QStringLiteral("vrax-host"));
        const double chunksPerSecond = fastX.med() * kBytesPerSecond / 16384;
        const double libraryUsPerChunk = chunksPerSecond > 0 ? 1e6 * libraryCores / chunksPerSecond : std::nan("");
        const double synthesisCap = libraryUsPerChunk > 0 ? 1e6 / libraryUsPerChunk * 16384 / kBytesPerSecond : std::nan("");
        md << "- **Throughput is " << num(100 * fastX.med() / rawX.med(), 2) << "% of the raw socket pair** ("
           << num(fastX.med()) << "× against " << num(rawX.med()) << "× real time), and it is the reference "
              "library that sets it. The host used " << num(fastCores.med(), 2) << " of " << cores << " cores: the "
              "library's audio thread (the unnamed one above) " << num(libraryCores, 2) << ", the transfer's I/O thread "
           << num(threadShare(QStringLiteral("orvelloAudioLoo")), 2) << ", the pipeline "
           << num(threadShare(QStringLiteral("audioPipeline")), 2) << ", the main loop "
           << num(threadShare(QStringLiteral("main")), 2) << ". That is " << num(libraryUsPerChunk)
           << " µs of the library's thread per 16 KiB chunk, of which the data callback takes " << num(callbackUs.med())
           << " µs; nearly all the rest is oplayer-ref computing a `sin()` and an `lrint()` per sample, which alone caps "
              "streaming near " << num(synthesisCap) << "× real time on this machine (a wavetable instead of `sin()` "
              "per sample would let figure 1 show the module's own limit). On top, the library waits 5 ms whenever "
              "the data callback accepts nothing, which the module's does while its previous chunk is still being "
              "written (the transfer keeps one chunk in flight and copies nothing): " << num(100 * retryShare.med(), 2)
           << "% of the streaming time in the traced runs; how often depends on when the I/O thread gets a core"
           << (fastX.hi() > 1.5 * fastX.lo() ? ", which is why the runs range so widely on this shared two-core machine"
                                             : "")
           << ". Without the library the transfer, smt2 and the pipeline move " << num(transferX.med())
           << "× real time (1b). What keeps 1b "
              "under the raw pair is the cost paid per 16 KiB message (smt2 framing, a future completed on the I/O "
              "thread, a header read and a payload read in the pipeline); a library offering bigger chunks (the "
              "transfer takes up to 128 KiB) would spread it. For a device none of this matters: "
           << num(fastX.med()) << "× real time is far more than it needs.\n";
    }
    const double idleMain = share(idleThreads, QStringLiteral("main"));
    if (idleCpu.med() > 0.05)
        md << "- **Paused, the host still uses " << num(100 * idleCpu.med(), 2) << "% of a core** (the main thread "
           << num(100 * idleMain, 2) << "%). ";
    else
        md << "- Paused, the host uses " << num(100 * idleCpu.med(), 2) << "% of a core (the main thread "
           << num(100 * idleMain, 2) << "%): the main loop does not spin, but it polls. ";
    md << "The module calls the library's `run_once` from a zero-time QTimer, again after every turn, and "
          "oplayer-ref's `run_once` waits at most 10 ms, so the main thread wakes about a hundred times a second "
          "whether or not anything plays. A longer wait while paused, or turning the loop on the library's own "
          "wake-ups instead of a timer, would bring this near zero.\n";
    const double rtLibrary = share(rtThreads, QStringLiteral("vrax-host"));
    const double rtMain = share(rtThreads, QStringLiteral("main"));
    if (playCpu.med() > 5 * rawCpu.med())
        md << "- Playing costs " << num(playCpu.med(), 2) << " CPU s per second of audio, "
           << ratio(playCpu.med(), rawCpu.med()) << " the raw pair at the same byte rate and "
           << ratio(playCpu.med(), idleCpu.med()) << " the paused host: the library's thread "
           << num(rtLibrary, 2) << ", the main thread " << num(rtMain, 2) << ", the transfer and the pipeline "
           << num(share(rtThreads, QStringLiteral("orvelloAudioLoo")) + share(rtThreads, QStringLiteral("audioPipeline")), 2)
           << " together. The raw pair wakes once per 128 KiB write (1.35 times a second). At realtime pace the "
              "socket is full nearly all the time, so the library's data callback mostly accepts nothing and "
              "oplayer-ref retries every 5 ms (200 wake-ups a second) until the pipeline has read a 16 KiB chunk "
              "(about 11 a second); the main loop's hundred turns a second come on top. The library is never told "
              "when the transfer can take more, so it polls; a data callback that waited a few milliseconds for the "
              "pending send instead of returning nothing at once would replace most of those wake-ups, at the price "
              "of holding the library's thread, and a longer `run_once` wait would trim the main loop's.\n";
    md << "- The data callback (the play logic's lambda and `processData`) returns in " << num(callbackUs.med())
       << " µs (median) when it accepts a chunk: it only starts an asynchronous send, so the library is not held "
          "while the bytes travel.\n";
    if (rtLatencyMedian.med() > 100000)
        md << "- At realtime pace a chunk waits " << num(rtLatencyMedian.med() / 1000) << " ms (median) between the data "
              "callback and the pipeline: that is the audio queued in the socket (the transfer asks for a 128 KiB send "
              "buffer, which the kernel doubles: about 1.5 s of audio) plus the pipeline's 100 ms lead. It is how far "
              "ahead of the speaker the library runs; it is also why the swap is not heard (below). A smaller socket "
              "buffer would shorten it at the price of that cushion.\n";
    if (swapGap.med() > 50)
        md << "- The swap stops the stream for " << num(swapGap.med()) << " ms at fast pace (of it "
           << num(swapLibrary.med()) << " ms from the old library's shutdown to the new one's init: unloading, "
              "installing the file and loading the new one). At realtime pace ";
    else
        md << "- At realtime pace ";
    md << "the audio queued between library and pipeline covers the swap: the new library handed over its first "
          "chunk " << num(rtCushion.med()) << " ms (median) before the old library's last audio had been played, so "
          "the silence heard is " << num(rtSilence.med()) << " ms. A swap would be heard only if it took longer than "
          "that cushion (a slow flash, a much bigger library).\n";
    md << "- Rolling back a bad update costs " << num(rbLibrary.med()) << " ms from the old library's shutdown to "
          "the previous one's init (the good swap: " << num(swapLibrary.med()) << " ms at fast pace); the previous "
          "library's first chunk came " << num(rbCushion.med()) << " ms before the old audio had played, so the "
          "silence heard is " << num(rbSilence.med()) << " ms. Either way the library that plays next starts "
          "its station from the first track.\n";
    if (pairMs.med() > 500)
        md << "- Pairing takes " << num(pairMs.med()) << " ms because oplayer-ref answers a pairing after about one "
              "second by design and the module polls the outcome every 100 ms; the module's own part is close to the "
              "refused code's " << num(refusedMs.med()) << " ms.\n";
    const double lateGrowthKiB = double(memoryRun.rss60KiB - memoryRun.rss35KiB);
    if (lateGrowthKiB > 256)
        md << "- **RSS still grew by " << num(lateGrowthKiB) << " KiB between 35 s and 60 s of playing: not flat.** "
           << "Something allocates per chunk or per second and keeps it; a heap profile of a long run would find it.\n";
    else
        md << "- RSS is flat while playing: " << num(growthKiB) << " KiB from 10 s to 60 s, " << num(lateGrowthKiB)
           << " KiB of it after 35 s: a single step early on, then nothing.\n";
    // What the swap and hours figures mean.
    if (rssSteps == 0)
        md << "- Update swaps: RSS does not grow over swaps " << kWarmupSwaps + 1 << "–" << kLastSwap << " (it grew "
           << num(kib(rssWarmupPerSwap)) << " KiB per swap over the first " << kWarmupSwaps << "). ";
    else
        md << "- Update swaps: RSS grows " << num(kib(rssPerSwap)) << " KiB per swap over swaps " << kWarmupSwaps + 1
           << "–" << kLastSwap << " (" << num(kib(rssFirstHalfPerSwap)) << " over swaps " << kWarmupSwaps + 1 << "–"
           << kMidSwap << ", " << num(kib(rssSecondHalfPerSwap)) << " over " << kMidSwap + 1 << "–" << kLastSwap
           << "), in " << rssSteps << " step(s) of whole pages; over the first " << kWarmupSwaps << " it grew "
           << num(kib(rssWarmupPerSwap)) << " KiB per swap. ";
    if (std::isnan(heapPerSwap))
        md << "heaptrack was not there to say whether the heap grows with it.\n";
    else if (std::fabs(kib(heapPerSwap)) < 0.1)
        md << "The heap in use does not grow with the swaps (" << num(kib(heapPerSwap)) << " KiB per swap under "
              "heaptrack after the first " << kWarmupSwaps << "): every swap frees what it allocated, the old "
              "library's thread, the download and the install included, and the module keeps nothing per swap. Over "
              "the first swaps the heap does grow (" << num(kib(heapWarmupPerSwap)) << " KiB per swap): vrax-host "
              "keeps the last 200 log lines for its web page (heaptrack names EventHub::publishLog), and the swaps "
              "and update checks log a few lines each until that store is full. "
           << (rssSteps == 0 ? "\n"
                             : "What RSS gains after that is held by no object: it is memory the allocator keeps "
                               "after frees, an arena's high-water mark a page higher now and then.\n");
    else
        md << "**The heap in use grows " << num(kib(heapPerSwap)) << " KiB per swap under heaptrack**: something is "
              "kept per swap: `heaptrack_print -f " << work << "/swaps-heaptrack/heaptrack.data` shows where.\n";
    md << "- Hours of audio: RSS grows " << num(rssPerHour) << " KiB per hour of audio over hours " << num(kWarmupHours)
       << "–" << num(kWarmupHours + kMeasuredHours) << " (" << num(rssFirstHalfPerHour) << " over hours "
       << num(kWarmupHours) << "–" << num(kMidHour) << ", " << num(rssSecondHalfPerHour) << " over " << num(kMidHour)
       << "–" << num(kWarmupHours + kMeasuredHours) << "), after " << num(rssFirstHour) << " KiB in the first hour. ";
    if (rssSecondHalfPerHour < 8)
        md << "It has settled: playing keeps nothing.\n";
    else if (rssSecondHalfPerHour < 0.75 * rssFirstHalfPerHour)
        md << "The growth slows as it goes, as an allocator's arenas do while they reach their high-water marks; "
              "something kept per chunk or per track would grow evenly with the audio.\n";
    else
        md << "**It does not slow down: something allocates while playing and keeps it.**\n";
    if (underrunsPlaying > 0 || underrunsPaused > 0)
        md << "- **The pipeline counted " << underrunsPaused + underrunsPlaying << " underrun(s)** over the realtime "
              "runs: audio arrived later than the sound card would have needed it. With about a second queued ahead "
              "that takes a stall of about a second somewhere on the path; on a shared machine the cause can be "
              "another process, but it is worth a trace (`vrax-host --trace`) when it repeats.\n";
    else
        md << "- No underruns in any realtime run.\n";
    md << "- The machine is shared (load average above); every figure and its baseline alternate run by run so both "
          "see the same load, but absolute numbers move with it.\n";

    const std::string report = md.str();
    QFile out(results + QStringLiteral("/latest.md"));
    if (!out.open(QIODevice::WriteOnly) || out.write(report.data(), qint64(report.size())) < 0) {
        std::fprintf(stderr, "bench_device: cannot write %s\n", qPrintable(out.fileName()));
        return 1;
    }
    // The plot's data, read by bench/plot.gp.
    QFile rss(work + QStringLiteral("/rss.dat")), swap(work + QStringLiteral("/swap.dat"));
    if (rss.open(QIODevice::WriteOnly)) {
        QTextStream s(&rss);
        s << "# seconds of playing, RSS MiB, peak MiB after the paused window\n";
        for (const QPointF& p : memoryRun.rss)
            s << p.x() << ' ' << p.y() << ' ' << idlePeakMiB << '\n';
    }
    if (swap.open(QIODevice::WriteOnly)) {
        QTextStream s(&swap);
        s << "# ms from the old library's last audio read, MB read\n";
        for (const QPointF& p : swapWindow)
            s << p.x() << ' ' << p.y() << '\n';
    }
    QFile swaps(work + QStringLiteral("/swaps.dat")), heap(work + QStringLiteral("/heap.dat")),
        hours(work + QStringLiteral("/hours.dat"));
    if (swaps.open(QIODevice::WriteOnly)) {
        QTextStream s(&swaps);
        s << "# swaps done, RSS MiB\n";
        for (const QPointF& p : swapMemory.rssKiB)
            s << p.x() << ' ' << p.y() / 1024 << '\n';
    }
    if (heap.open(QIODevice::WriteOnly)) {
        QTextStream s(&heap);
        s << "# swaps done, heap in use MiB (under heaptrack)\n";
        for (const QPointF& p : heapMemory.heapKiB)
            s << p.x() << ' ' << p.y() / 1024 << '\n';
    }
    if (hours.open(QIODevice::WriteOnly)) {
        QTextStream s(&hours);
        s << "# hours of audio, RSS MiB\n";
        for (const QPointF& p : audioMemory.rssKiB)
            s << p.x() << ' ' << p.y() / 1024 << '\n';
    }
    std::printf("\n%s", report.c_str());
    return 0;
}
