// Figures 3 and 5: chunk latency and start-up at fast pace, from the traces of short runs.
#include "Figures.h"

#include "Trace.h"

namespace bench {

namespace {

struct TracedRun
{
    double startupMs = 0;     // worker_create to the first audio the pipeline reads
    double hostStartMs = 0;   // vrax-host started to worker_create
    QVector<double> latenciesUs;
    double retryShare = 0;    // of the streaming time, the part between two chunks 4.5 ms or more apart
    double callbackUs = 0;    // median time inside the data callback, for chunks it accepted
};

TracedRun tracedRun(Bench& bench, int i)
{
    auto rig = bench.newRig(QStringLiteral("traced-%1").arg(i));
    const qint64 spawned = nowNs();
    bench.startHost(*rig, bench.settings(*rig, true, 0), QStringLiteral("fast"), {}, true);
    if (!waitUntil([&] { return pipelineValue(*rig, "bytes") > 0; }, 15000))
        fail(QStringLiteral("no audio reached the pipeline"));
    wait(2000);
    stopHost(*rig);
    const QVector<Event> host = readTrace(bench.traceOf(*rig)), library = readTrace(bench.libraryTraceOf(*rig));
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

} // namespace

LatencyFigures measureLatency(Bench& bench)
{
    LatencyFigures f;
    const int runs = bench.runs();
    for (int i = 0; i < runs; ++i) {
        const TracedRun traced = tracedRun(bench, i);
        f.startup.add(traced.startupMs);
        f.retryShare.add(traced.retryShare);
        f.callbackUs.add(traced.callbackUs);
        f.hostStart.add(traced.hostStartMs);
        f.latencyMedian.add(percentile(traced.latenciesUs, 0.5));
        f.latencyP99.add(percentile(traced.latenciesUs, 0.99));
        bench.say(QStringLiteral("start-up %1/%2: %3 ms after worker_create (host start %4 ms); latency %5 us median")
                      .arg(i + 1).arg(runs).arg(num(traced.startupMs)).arg(num(traced.hostStartMs))
                      .arg(num(f.latencyMedian.values.last())));
    }
    return f;
}

} // namespace bench
