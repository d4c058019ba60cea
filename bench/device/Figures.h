#pragma once

// bench_device's figure families. Each measures its runs, alternating with their baselines, prints
// a line per run and hands its figures to the report (Report.h), which numbers them:
//   throughput      1, 1b      Throughput.cpp
//   CPU, realtime   2, 2b, 6, 6b   Realtime.cpp (paused, then playing at realtime pace)
//   latency         3, 3b      Latency.cpp (traced runs at fast pace, which also give the start-up)
//   swap            3c, 4–4c   Swap.cpp
//   start-up        5          Latency.cpp
//   pairing         5b         Pairing.cpp
//   memory          6c–6e      Memory.cpp (single long runs)
#include "Bench.h"

#include <QJsonObject>
#include <QPointF>
#include <QVector>

#include <map>

namespace bench {

struct ThroughputFigures
{
    Series fastX;                          // × real time at fast pace
    Series fastCores;                      // CPU seconds of the host per second
    std::map<QString, Series> threads;     // the same, per thread name
    Series rawX, rawLatency, rawLatencyP99;   // the raw socket pair (µs)
    Series transferX;                      // the transfer, smt2 and the pipeline without a library
};
ThroughputFigures measureThroughput(Bench& bench);

struct LatencyFigures
{
    Series startup;         // worker_create to the first audio the pipeline reads (ms)
    Series hostStart;       // vrax-host started to worker_create (ms)
    Series latencyMedian, latencyP99;   // of a chunk, data callback to the pipeline (µs)
    Series retryShare;      // of the streaming time, the part between two chunks 4.5 ms or more apart
    Series callbackUs;      // median time inside the data callback, for chunks it accepted
};
LatencyFigures measureLatency(Bench& bench);

struct PairingFigures
{
    Series pairMs;          // pairing code entered to reply answered
    Series refusedMs;       // the same for a code the module refuses itself
};
PairingFigures measurePairing(Bench& bench);

struct SwapFigures
{
    // Fast pace (ms): no audio across the swap, the longest gap elsewhere, old library's shutdown to
    // the new one's init; the stream around the first run's swap (ms from the old library's last
    // audio, MB read).
    Series swapGap, swapOther, swapLibrary;
    QVector<QPointF> swapWindow;
    // Realtime pace (ms): silence heard, the worst elsewhere, how long before the old audio had played
    // the new library's first chunk came, and chunk latency (µs).
    Series rtSilence, rtOtherSilence, rtCushion, rtLatencyMedian, rtLatencyP99;
    // A bad update rolled back, realtime pace (ms).
    Series rbSilence, rbCushion, rbLibrary;
};
SwapFigures measureSwaps(Bench& bench);

// One host paused, then playing, at realtime pace.
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

struct RealtimeFigures
{
    Series playCpu, idleCpu;       // CPU seconds per second of audio, and per second paused
    Series rawCpu;                 // the raw socket pair's per second of audio
    Series rawPacedLatency, rawPacedLatencyP99;   // the raw pair at the byte rate (µs)
    std::map<QString, Series> rtThreads, idleThreads;
    RealtimeRun memoryRun;         // the first run, which plays 60 s with RSS sampled every second
    double underrunsPaused = 0, underrunsPlaying = 0;   // over all runs
};
RealtimeFigures measureRealtime(Bench& bench);

// Memory over many swaps and hours: what settles first is kept apart from what is measured. The
// host's own log tail (the last 200 lines, for its web page) fills in the first 25 swaps or so.
constexpr int kWarmupSwaps = 30;
constexpr int kMeasuredSwaps = 100;
// Under heaptrack the heap at rest is compared between two blocks of swaps after the warm-up.
constexpr int kHeaptrackBlock = 10;
constexpr int kHeaptrackSwaps = kWarmupSwaps + 2 * kHeaptrackBlock;
constexpr double kWarmupHours = 1;
constexpr double kMeasuredHours = 5;

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

struct MemoryFigures
{
    SwapMemoryRun swapMemory;  // kWarmupSwaps + kMeasuredSwaps swaps
    SwapMemoryRun heapMemory;  // kHeaptrackSwaps swaps under heaptrack; empty without heaptrack
    AudioMemoryRun audioMemory;   // kWarmupHours + kMeasuredHours of audio
};
MemoryFigures measureMemory(Bench& bench);

// Everything bench_device measures, in the order it measures it.
struct DeviceFigures
{
    ThroughputFigures throughput;
    LatencyFigures latency;
    PairingFigures pairing;
    SwapFigures swaps;
    RealtimeFigures realtime;
    MemoryFigures memory;
};

} // namespace bench
