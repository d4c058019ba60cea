// Figures 2, 2b, 6 and 6b: one host paused, then playing, at realtime pace, with the paced raw
// socket pair beside the paused window; the first run plays 60 s with RSS sampled every second.
#include "Figures.h"

#include "ProcStat.h"

#include <QJsonDocument>
#include <QProcess>

namespace bench {

namespace {

RealtimeRun realtimeRun(Bench& bench, int i, bool memory)
{
    auto rig = bench.newRig(QStringLiteral("realtime-%1").arg(i));
    bench.startHost(*rig, bench.settings(*rig, true, 0), QStringLiteral("realtime"), {}, false);
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
    const double idleCpu0 = cpuSecondsOf(pid);
    const std::map<QString, double> idleThreads0 = threadCpuSeconds(pid);
    const qint64 idleRss0 = statusKiB(pid, "VmRSS:");
    wait(20000);
    run.idleWindowS = double(nowNs() - idleStart) / 1e9;
    run.idleCpuPerSecond = (cpuSecondsOf(pid) - idleCpu0) / run.idleWindowS;
    run.idleThreadCpuPerSecond = threadCpuPerSecond(idleThreads0, threadCpuSeconds(pid), run.idleWindowS);
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
        cpu0 = cpuSecondsOf(pid);
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
    const double cpu1 = cpuSecondsOf(pid);
    const std::map<QString, double> threads1 = threadCpuSeconds(pid);
    run.playedSeconds = pipelineValue(*rig, "seconds") - played0;
    run.playCpuPerSecond = (cpu1 - cpu0) / run.playedSeconds;
    run.threadCpuPerSecond = threadCpuPerSecond(threads0, threads1, run.playedSeconds);
    run.peakKiB = statusKiB(pid, "VmHWM:");
    run.underrunsPlaying = pipelineValue(*rig, "underruns") - run.underrunsPaused;
    stopHost(*rig);
    return run;
}

} // namespace

RealtimeFigures measureRealtime(Bench& bench)
{
    RealtimeFigures f;
    const int runs = bench.runs();
    for (int i = 0; i < runs; ++i) {
        const RealtimeRun rt = realtimeRun(bench, i, i == 0);
        f.playCpu.add(rt.playCpuPerSecond);
        f.idleCpu.add(rt.idleCpuPerSecond);
        const double rawSeconds = rt.raw.value(QStringLiteral("bytes")).toDouble() / kBytesPerSecond;
        f.rawCpu.add(rawSeconds > 0 ? rt.raw.value(QStringLiteral("cpuSeconds")).toDouble() / rawSeconds : std::nan(""));
        f.rawPacedLatency.add(rt.raw.value(QStringLiteral("latencyMedianUs")).toDouble());
        f.rawPacedLatencyP99.add(rt.raw.value(QStringLiteral("latencyP99Us")).toDouble());
        if (i == 0)
            f.memoryRun = rt;
        for (const auto& [name, cpu] : rt.threadCpuPerSecond)
            f.rtThreads[name].add(cpu);
        for (const auto& [name, cpu] : rt.idleThreadCpuPerSecond)
            f.idleThreads[name].add(cpu);
        f.underrunsPaused += rt.underrunsPaused;
        f.underrunsPlaying += rt.underrunsPlaying;
        bench.say(QStringLiteral("realtime %1/%2: %3 CPU s per s of audio over %4 s, %5 paused, raw %6; underruns %7 "
                                 "before the pause ended, %8 after")
                      .arg(i + 1).arg(runs).arg(num(rt.playCpuPerSecond)).arg(num(rt.playedSeconds))
                      .arg(num(rt.idleCpuPerSecond)).arg(num(f.rawCpu.values.last())).arg(rt.underrunsPaused)
                      .arg(rt.underrunsPlaying));
    }
    return f;
}

} // namespace bench
