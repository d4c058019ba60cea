// Figure 1: streaming throughput at fast pace, from the pipeline's counters over a 3 s window,
// without tracing; its baselines are the raw socket pair and the transfer without a library.
#include "Figures.h"

#include "ProcStat.h"

#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>

namespace bench {

namespace {

struct FastRun
{
    double bytesPerSecond = 0;
    double cores = 0;                      // CPU seconds of the host per second
    std::map<QString, double> threadCores; // the same, per thread name
};

FastRun fastRun(Bench& bench, int i)
{
    auto rig = bench.newRig(QStringLiteral("fast-%1").arg(i));
    bench.startHost(*rig, bench.settings(*rig, true, 0), QStringLiteral("fast"), {}, false);
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
        s.cpu = cpuSecondsOf(pid);
        s.threads = threadCpuSeconds(pid);
        const qint64 before = nowNs();
        s.bytes = pipelineValue(*rig, "bytes");
        s.ns = (before + nowNs()) / 2;
        return s;
    };
    const Sample a = sample();
    wait(3000);
    const Sample b = sample();
    stopHost(*rig);
    FastRun run;
    const double seconds = double(b.ns - a.ns) / 1e9;
    run.bytesPerSecond = (b.bytes - a.bytes) / seconds;
    run.cores = (b.cpu - a.cpu) / seconds;
    run.threadCores = threadCpuPerSecond(a.threads, b.threads, seconds);
    return run;
}

// Runs a bench program; the JSON line it printed last, with its whole output as "text".
QJsonObject tool(const QString& program, const QStringList& arguments, int timeoutMs)
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
double transferAloneTimesRealtime()
{
    const QJsonObject out = tool(QStringLiteral(BENCH_AUDIOTRANSFER_PATH), {QStringLiteral("2"), QStringLiteral("16384")}, 60000);
    const QRegularExpressionMatch m =
        QRegularExpression(QStringLiteral("throughput\\s+[\\d.]+ MB/s \\(([\\d.]+) x")).match(out.value(QStringLiteral("text")).toString());
    if (!m.hasMatch())
        fail(QStringLiteral("bench_audiotransfer printed no throughput"));
    return m.captured(1).toDouble();
}

} // namespace

ThroughputFigures measureThroughput(Bench& bench)
{
    ThroughputFigures f;
    const int runs = bench.runs();
    for (int i = 0; i < runs; ++i) {
        const FastRun fast = fastRun(bench, i);
        f.fastX.add(fast.bytesPerSecond / kBytesPerSecond);
        f.fastCores.add(fast.cores);
        for (const auto& [name, cores] : fast.threadCores)
            f.threads[name].add(cores);
        // The same bytes as the module moved, and at least 256 MiB so the run is long enough to time.
        const qint64 bytes = std::max<qint64>(qint64(fast.bytesPerSecond * 3), 256 << 20);
        const QJsonObject raw = tool(QStringLiteral(BENCH_RAWSOCKET_PATH),
                                     {QStringLiteral("throughput"), QString::number(bytes)}, 120000);
        f.rawX.add(raw.value(QStringLiteral("bytesPerSecond")).toDouble() / kBytesPerSecond);
        f.rawLatency.add(raw.value(QStringLiteral("latencyMedianUs")).toDouble());
        f.rawLatencyP99.add(raw.value(QStringLiteral("latencyP99Us")).toDouble());
        f.transferX.add(transferAloneTimesRealtime());
        bench.say(QStringLiteral("throughput %1/%2: module %3x real time, raw socket pair %4x, transfer alone %5x")
                      .arg(i + 1).arg(runs).arg(num(f.fastX.values.last())).arg(num(f.rawX.values.last()))
                      .arg(num(f.transferX.values.last())));
    }
    return f;
}

} // namespace bench
