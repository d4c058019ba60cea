#include "Report.h"

#include "ProcStat.h"

#include <QFile>
#include <QPair>
#include <QTextStream>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace bench {

namespace {

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

} // namespace

bool writeReport(const DeviceFigures& figures, const Session& session, const QString& results, const QString& work)
{
    const ThroughputFigures& tp = figures.throughput;
    const LatencyFigures& lat = figures.latency;
    const PairingFigures& pair = figures.pairing;
    const SwapFigures& sw = figures.swaps;
    const RealtimeFigures& rt = figures.realtime;
    const MemoryFigures& mem = figures.memory;
    std::ostringstream md;
    md << "# Benchmarks of the audio path, the update swap and start-up\n\n"
       << "Written by `./dev bench` (bench/device/); every figure is the median of " << session.runs
       << " runs, with the range of the runs in brackets.\n\n"
       << "| | |\n|---|---|\n"
       << "| date | " << session.started.toString(Qt::ISODate) << " |\n"
       << "| machine | " << machine() << " |\n"
       << "| load average at start / end | " << session.startLoad << " / " << loadAverage() << " |\n"
       << "| build | " << BENCH_BUILD_FLAGS << ", GCC " << __VERSION__ << "; module, platform, devkit and the raw baseline alike |\n"
       << "| duration | " << num(session.measuringS, 3) << " s of measuring |\n\n";
    if (session.runs < 5)
        md << "**Only " << session.runs << " run(s) per figure: not enough for medians that mean much.**\n\n";

    const double memoryPeakMiB = rt.memoryRun.peakKiB / 1024.0, idlePeakMiB = rt.memoryRun.idlePeakKiB / 1024.0;
    const double growthKiB = double(rt.memoryRun.rss60KiB - rt.memoryRun.rss10KiB);
    const double idleGrowthPer50s = rt.memoryRun.idleWindowS > 0 ? rt.memoryRun.idleGrowthKiB * 50.0 / rt.memoryRun.idleWindowS : 0;
    constexpr int kLastSwap = kWarmupSwaps + kMeasuredSwaps;
    auto rssAt = [&](int swap) {
        for (const QPointF& p : mem.swapMemory.rssKiB)
            if (int(p.x()) == swap)
                return p.y();
        return std::nan("");
    };
    const double rssPerSwap = slope(mem.swapMemory.rssKiB, kWarmupSwaps, kLastSwap);
    const double rssWarmupPerSwap = slope(mem.swapMemory.rssKiB, 0, kWarmupSwaps);
    // The heap at rest after a swap, median of a block of swaps: one block against the next.
    auto heapBlock = [&](int first) { return medianY(mem.heapMemory.heapKiB, first, first + kHeaptrackBlock - 1); };
    const double heapPerSwap = (heapBlock(kWarmupSwaps + kHeaptrackBlock) - heapBlock(kWarmupSwaps)) / kHeaptrackBlock;
    const double heapWarmupPerSwap = (heapBlock(kWarmupSwaps - kHeaptrackBlock) - heapBlock(0)) / (kWarmupSwaps - kHeaptrackBlock);
    // Whether growth slows: the first and the second half of what is measured.
    const int kMidSwap = kWarmupSwaps + kMeasuredSwaps / 2;
    const double rssFirstHalfPerSwap = slope(mem.swapMemory.rssKiB, kWarmupSwaps, kMidSwap);
    const double rssSecondHalfPerSwap = slope(mem.swapMemory.rssKiB, kMidSwap, kLastSwap);
    int rssSteps = 0;
    for (int i = 1; i < mem.swapMemory.rssKiB.size(); ++i)
        rssSteps += mem.swapMemory.rssKiB.at(i).x() > kWarmupSwaps && mem.swapMemory.rssKiB.at(i).y() != mem.swapMemory.rssKiB.at(i - 1).y();
    const double rssPerHour = slope(mem.audioMemory.rssKiB, kWarmupHours, kWarmupHours + kMeasuredHours);
    const double kMidHour = kWarmupHours + kMeasuredHours / 2;
    const double rssFirstHalfPerHour = slope(mem.audioMemory.rssKiB, kWarmupHours, kMidHour);
    const double rssSecondHalfPerHour = slope(mem.audioMemory.rssKiB, kMidHour, kWarmupHours + kMeasuredHours);
    // Per-swap figures in KiB to two places: a heap that does not move reads 0.00, not -0.0005.
    auto kib = [](double value) { return std::isnan(value) ? value : std::round(value * 100) / 100; };
    double rssFirstHour = std::nan("");
    for (const QPointF& p : mem.audioMemory.rssKiB)
        if (p.x() <= kWarmupHours)
            rssFirstHour = p.y() - mem.audioMemory.rssKiB.first().y();
    md << "| # | figure | module | baseline | ratio |\n|---|---|---|---|---|\n"
       << "| 1 | streaming throughput, fast pace (× real time, 44.1 kHz 16-bit stereo) | " << withRange(tp.fastX)
       << " | raw socket pair, 128 KiB writes: " << withRange(tp.rawX) << " | " << ratio(tp.fastX.med(), tp.rawX.med()) << " |\n"
       << "| 1b | the same path without the player library (bench_audiotransfer: processData in a loop, 16 KiB) | "
       << withRange(tp.transferX) << " | raw socket pair: " << num(tp.rawX.med()) << " | " << ratio(tp.transferX.med(), tp.rawX.med()) << " |\n"
       << "| 2 | CPU seconds per second of audio, realtime pace (whole vrax-host, ≥ 20 s) | " << withRange(rt.playCpu, 2)
       << " | same host paused: " << withRange(rt.idleCpu, 2) << " | " << ratio(rt.playCpu.med(), rt.idleCpu.med()) << " |\n"
       << "| 2b | | | raw socket pair at the same byte rate: " << withRange(rt.rawCpu, 2) << " | "
       << ratio(rt.playCpu.med(), rt.rawCpu.med()) << " |\n"
       << "| 3 | latency, the data callback called with a chunk it accepts to the pipeline reading the chunk's last byte, fast pace (µs): median | "
       << withRange(lat.latencyMedian) << " | raw socket pair, 128 KiB write to read: " << withRange(tp.rawLatency) << " | "
       << ratio(lat.latencyMedian.med(), tp.rawLatency.med()) << " |\n"
       << "| 3b | the same, 99th percentile (µs) | " << withRange(lat.latencyP99) << " | " << withRange(tp.rawLatencyP99) << " | "
       << ratio(lat.latencyP99.med(), tp.rawLatencyP99.med()) << " |\n"
       << "| 3c | the same at realtime pace (ms): median / 99th percentile | " << num(sw.rtLatencyMedian.med() / 1000) << " / "
       << num(sw.rtLatencyP99.med() / 1000) << " | raw socket pair at the byte rate: " << num(rt.rawPacedLatency.med() / 1000)
       << " / " << num(rt.rawPacedLatencyP99.med() / 1000) << " | " << ratio(sw.rtLatencyMedian.med(), rt.rawPacedLatency.med())
       << " |\n"
       << "| 4 | update swap, fast pace: no audio between the old library's last and the new one's first (ms) | "
       << withRange(sw.swapGap) << " | longest gap elsewhere in the same stream: " << withRange(sw.swapOther) << " | "
       << ratio(sw.swapGap.med(), sw.swapOther.med()) << " |\n"
       << "| 4b | update swap, realtime pace: silence heard (ms) | " << withRange(sw.rtSilence)
       << " | worst silence elsewhere in the same stream: " << withRange(sw.rtOtherSilence) << " | "
       << ratio(sw.rtSilence.med(), sw.rtOtherSilence.med()) << " |\n"
       << "| 4c | bad update rolled back, realtime pace: silence heard (ms) | " << withRange(sw.rbSilence)
       << " | the good swap's (4b): " << withRange(sw.rtSilence) << " | " << ratio(sw.rbSilence.med(), sw.rtSilence.med()) << " |\n"
       << "| 5 | start-up, worker_create to the first PCM byte at the pipeline, paired (ms) | " << withRange(lat.startup)
       << " | vrax-host started to worker_create: " << withRange(lat.hostStart) << " | " << ratio(lat.startup.med(), lat.hostStart.med())
       << " |\n"
       << "| 5b | pairing code entered to reply answered (ms) | " << withRange(pair.pairMs)
       << " | invalid code, refused by the module: " << withRange(pair.refusedMs) << " | " << ratio(pair.pairMs.med(), pair.refusedMs.med())
       << " |\n"
       << "| 6 | peak RSS of vrax-host playing 60 s (MiB) | " << num(memoryPeakMiB) << " | the same host after 20 s paused: "
       << num(idlePeakMiB) << " | " << ratio(memoryPeakMiB, idlePeakMiB) << " |\n"
       << "| 6b | RSS growth from 10 s to 60 s of playing (KiB) | " << num(growthKiB) << " ("
       << num(double(rt.memoryRun.rss60KiB - rt.memoryRun.rss35KiB)) << " after 35 s) | paused, over 50 s (scaled from "
       << num(rt.memoryRun.idleWindowS, 2) << " s): " << num(idleGrowthPer50s) << " | " << ratio(growthKiB, idleGrowthPer50s)
       << " |\n"
       << "| 6c | RSS growth per update swap, fast pace, least squares over swaps " << kWarmupSwaps + 1 << "–"
       << kLastSwap << " (KiB per swap) | " << num(kib(rssPerSwap)) << " (" << num(rssAt(kWarmupSwaps) / 1024) << " → "
       << num(rssAt(kLastSwap) / 1024) << " MiB) | the first " << kWarmupSwaps << " swaps: " << num(kib(rssWarmupPerSwap))
       << " | " << ratio(kib(rssPerSwap), kib(rssWarmupPerSwap)) << " |\n"
       << "| 6d | heap in use per update swap, under heaptrack: swaps " << kWarmupSwaps << "–"
       << kWarmupSwaps + kHeaptrackBlock - 1 << " against " << kWarmupSwaps + kHeaptrackBlock << "–" << kHeaptrackSwaps - 1
       << " (KiB per swap) | " << num(kib(heapPerSwap)) << " (" << num(heapBlock(kWarmupSwaps)) << " → "
       << num(heapBlock(kWarmupSwaps + kHeaptrackBlock)) << " KiB; not freed at exit: " << num(mem.heapMemory.heapLeakedKiB)
       << " KiB) | swaps 0–" << kHeaptrackBlock - 1 << " against " << kWarmupSwaps - kHeaptrackBlock << "–"
       << kWarmupSwaps - 1 << ": " << num(kib(heapWarmupPerSwap)) << " | " << ratio(kib(heapPerSwap), kib(heapWarmupPerSwap))
       << " |\n"
       << "| 6e | RSS growth per hour of audio, fast pace, least squares over hours " << num(kWarmupHours) << "–"
       << num(kWarmupHours + kMeasuredHours) << " (KiB per hour) | " << num(rssPerHour) << " ("
       << num(mem.audioMemory.wallSeconds) << " s for " << num(kWarmupHours + kMeasuredHours) << " h) | the first hour: "
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
       << num(mem.swapMemory.secondsPerSwap) << " s per swap); VmRSS is read once each new library has loaded. 6d: the "
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
    for (const auto& [name, series] : tp.threads)
        ranked << qMakePair(series.med(), name);
    for (const auto& [name, series] : rt.rtThreads)
        if (!tp.threads.count(name))
            ranked << qMakePair(0.0, name);
    std::sort(ranked.begin(), ranked.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    for (const auto& [fastShare, name] : ranked)
        if (fastShare >= 0.0005 || share(rt.rtThreads, name) >= 0.0001 || share(rt.idleThreads, name) >= 0.0001)
            md << "| " << label(name) << " | " << num(fastShare, 2) << " | " << num(share(rt.rtThreads, name), 2) << " | "
               << num(share(rt.idleThreads, name), 2) << " |\n";
    md << "| whole process | " << num(tp.fastCores.med(), 2) << " | " << num(rt.playCpu.med(), 2) << " | "
       << num(rt.idleCpu.med(), 2) << " |\n\n"
       << "From `/proc/PID/task/*/stat` (10 ms ticks) over the windows of figures 1 and 2.\n\n";

    md << "## Notes\n\n";
    auto threadShare = [&](const QString& name) {
        const auto found = tp.threads.find(name);
        return found == tp.threads.end() ? 0.0 : found->second.med();
    };
    if (tp.fastX.med() < 0.5 * tp.rawX.med()) {
        const double libraryCores = threadShare(QStringLiteral("vrax-host"));
        const double chunksPerSecond = tp.fastX.med() * kBytesPerSecond / 16384;
        const double libraryUsPerChunk = chunksPerSecond > 0 ? 1e6 * libraryCores / chunksPerSecond : std::nan("");
        const double synthesisCap = libraryUsPerChunk > 0 ? 1e6 / libraryUsPerChunk * 16384 / kBytesPerSecond : std::nan("");
        md << "- **Throughput is " << num(100 * tp.fastX.med() / tp.rawX.med(), 2) << "% of the raw socket pair** ("
           << num(tp.fastX.med()) << "× against " << num(tp.rawX.med()) << "× real time), and it is the reference "
              "library that sets it. The host used " << num(tp.fastCores.med(), 2) << " of " << cpuCores() << " cores: the "
              "library's audio thread (the unnamed one above) " << num(libraryCores, 2) << ", the transfer's I/O thread "
           << num(threadShare(QStringLiteral("orvelloAudioLoo")), 2) << ", the pipeline "
           << num(threadShare(QStringLiteral("audioPipeline")), 2) << ", the main loop "
           << num(threadShare(QStringLiteral("main")), 2) << ". That is " << num(libraryUsPerChunk)
           << " µs of the library's thread per 16 KiB chunk, of which the data callback takes " << num(lat.callbackUs.med())
           << " µs; nearly all the rest is oplayer-ref computing a `sin()` and an `lrint()` per sample, which alone caps "
              "streaming near " << num(synthesisCap) << "× real time on this machine (a wavetable instead of `sin()` "
              "per sample would let figure 1 show the module's own limit). On top, the library waits 5 ms whenever "
              "the data callback accepts nothing, which the module's does while its previous chunk is still being "
              "written (the transfer keeps one chunk in flight and copies nothing): " << num(100 * lat.retryShare.med(), 2)
           << "% of the streaming time in the traced runs; how often depends on when the I/O thread gets a core"
           << (tp.fastX.hi() > 1.5 * tp.fastX.lo() ? ", which is why the runs range so widely on this shared two-core machine"
                                             : "")
           << ". Without the library the transfer, smt2 and the pipeline move " << num(tp.transferX.med())
           << "× real time (1b). What keeps 1b "
              "under the raw pair is the cost paid per 16 KiB message (smt2 framing, a future completed on the I/O "
              "thread, a header read and a payload read in the pipeline); a library offering bigger chunks (the "
              "transfer takes up to 128 KiB) would spread it. For a device none of this matters: "
           << num(tp.fastX.med()) << "× real time is far more than it needs.\n";
    }
    const double idleMain = share(rt.idleThreads, QStringLiteral("main"));
    if (rt.idleCpu.med() > 0.05)
        md << "- **Paused, the host still uses " << num(100 * rt.idleCpu.med(), 2) << "% of a core** (the main thread "
           << num(100 * idleMain, 2) << "%). ";
    else
        md << "- Paused, the host uses " << num(100 * rt.idleCpu.med(), 2) << "% of a core (the main thread "
           << num(100 * idleMain, 2) << "%): the main loop does not spin, but it polls. ";
    md << "The module calls the library's `run_once` from a zero-time QTimer, again after every turn, and "
          "oplayer-ref's `run_once` waits at most 10 ms, so the main thread wakes about a hundred times a second "
          "whether or not anything plays. A longer wait while paused, or turning the loop on the library's own "
          "wake-ups instead of a timer, would bring this near zero.\n";
    const double rtLibrary = share(rt.rtThreads, QStringLiteral("vrax-host"));
    const double rtMain = share(rt.rtThreads, QStringLiteral("main"));
    if (rt.playCpu.med() > 5 * rt.rawCpu.med())
        md << "- Playing costs " << num(rt.playCpu.med(), 2) << " CPU s per second of audio, "
           << ratio(rt.playCpu.med(), rt.rawCpu.med()) << " the raw pair at the same byte rate and "
           << ratio(rt.playCpu.med(), rt.idleCpu.med()) << " the paused host: the library's thread "
           << num(rtLibrary, 2) << ", the main thread " << num(rtMain, 2) << ", the transfer and the pipeline "
           << num(share(rt.rtThreads, QStringLiteral("orvelloAudioLoo")) + share(rt.rtThreads, QStringLiteral("audioPipeline")), 2)
           << " together. The raw pair wakes once per 128 KiB write (1.35 times a second). At realtime pace the "
              "socket is full nearly all the time, so the library's data callback mostly accepts nothing and "
              "oplayer-ref retries every 5 ms (200 wake-ups a second) until the pipeline has read a 16 KiB chunk "
              "(about 11 a second); the main loop's hundred turns a second come on top. The library is never told "
              "when the transfer can take more, so it polls; a data callback that waited a few milliseconds for the "
              "pending send instead of returning nothing at once would replace most of those wake-ups, at the price "
              "of holding the library's thread, and a longer `run_once` wait would trim the main loop's.\n";
    md << "- The data callback (the play logic's lambda and `processData`) returns in " << num(lat.callbackUs.med())
       << " µs (median) when it accepts a chunk: it only starts an asynchronous send, so the library is not held "
          "while the bytes travel.\n";
    if (sw.rtLatencyMedian.med() > 100000)
        md << "- At realtime pace a chunk waits " << num(sw.rtLatencyMedian.med() / 1000) << " ms (median) between the data "
              "callback and the pipeline: that is the audio queued in the socket (the transfer asks for a 128 KiB send "
              "buffer, which the kernel doubles: about 1.5 s of audio) plus the pipeline's 100 ms lead. It is how far "
              "ahead of the speaker the library runs; it is also why the swap is not heard (below). A smaller socket "
              "buffer would shorten it at the price of that cushion.\n";
    if (sw.swapGap.med() > 50)
        md << "- The swap stops the stream for " << num(sw.swapGap.med()) << " ms at fast pace (of it "
           << num(sw.swapLibrary.med()) << " ms from the old library's shutdown to the new one's init: unloading, "
              "installing the file and loading the new one). At realtime pace ";
    else
        md << "- At realtime pace ";
    md << "the audio queued between library and pipeline covers the swap: the new library handed over its first "
          "chunk " << num(sw.rtCushion.med()) << " ms (median) before the old library's last audio had been played, so "
          "the silence heard is " << num(sw.rtSilence.med()) << " ms. A swap would be heard only if it took longer than "
          "that cushion (a slow flash, a much bigger library).\n";
    md << "- Rolling back a bad update costs " << num(sw.rbLibrary.med()) << " ms from the old library's shutdown to "
          "the previous one's init (the good swap: " << num(sw.swapLibrary.med()) << " ms at fast pace); the previous "
          "library's first chunk came " << num(sw.rbCushion.med()) << " ms before the old audio had played, so the "
          "silence heard is " << num(sw.rbSilence.med()) << " ms. Either way the library that plays next starts "
          "its station from the first track.\n";
    if (pair.pairMs.med() > 500)
        md << "- Pairing takes " << num(pair.pairMs.med()) << " ms because oplayer-ref answers a pairing after about one "
              "second by design and the module polls the outcome every 100 ms; the module's own part is close to the "
              "refused code's " << num(pair.refusedMs.med()) << " ms.\n";
    const double lateGrowthKiB = double(rt.memoryRun.rss60KiB - rt.memoryRun.rss35KiB);
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
    if (rt.underrunsPlaying > 0 || rt.underrunsPaused > 0)
        md << "- **The pipeline counted " << rt.underrunsPaused + rt.underrunsPlaying << " underrun(s)** over the realtime "
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
        return false;
    }
    // The plot's data, read by bench/plot.gp.
    QFile rss(work + QStringLiteral("/rss.dat")), swap(work + QStringLiteral("/swap.dat"));
    if (rss.open(QIODevice::WriteOnly)) {
        QTextStream s(&rss);
        s << "# seconds of playing, RSS MiB, peak MiB after the paused window\n";
        for (const QPointF& p : rt.memoryRun.rss)
            s << p.x() << ' ' << p.y() << ' ' << idlePeakMiB << '\n';
    }
    if (swap.open(QIODevice::WriteOnly)) {
        QTextStream s(&swap);
        s << "# ms from the old library's last audio read, MB read\n";
        for (const QPointF& p : sw.swapWindow)
            s << p.x() << ' ' << p.y() << '\n';
    }
    QFile swaps(work + QStringLiteral("/swaps.dat")), heap(work + QStringLiteral("/heap.dat")),
        hours(work + QStringLiteral("/hours.dat"));
    if (swaps.open(QIODevice::WriteOnly)) {
        QTextStream s(&swaps);
        s << "# swaps done, RSS MiB\n";
        for (const QPointF& p : mem.swapMemory.rssKiB)
            s << p.x() << ' ' << p.y() / 1024 << '\n';
    }
    if (heap.open(QIODevice::WriteOnly)) {
        QTextStream s(&heap);
        s << "# swaps done, heap in use MiB (under heaptrack)\n";
        for (const QPointF& p : mem.heapMemory.heapKiB)
            s << p.x() << ' ' << p.y() / 1024 << '\n';
    }
    if (hours.open(QIODevice::WriteOnly)) {
        QTextStream s(&hours);
        s << "# hours of audio, RSS MiB\n";
        for (const QPointF& p : mem.audioMemory.rssKiB)
            s << p.x() << ' ' << p.y() / 1024 << '\n';
    }
    std::printf("\n%s", report.c_str());
    return true;
}

} // namespace bench
