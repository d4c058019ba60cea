#include "SoakReport.h"

#include "ProcStat.h"

#include <QFile>
#include <QTextStream>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <sstream>

namespace bench {

namespace {

QString minuteOf(qint64 ns, qint64 startNs)
{
    return QString::number(double(ns - startNs) / 60e9, 'f', 1);
}

// Least-squares slope per hour of value over the samples from fromNs on; NaN with fewer than ten.
double slopePerHour(const std::vector<Sample>& samples, qint64 fromNs, double (*value)(const Sample&))
{
    QVector<QPointF> points;
    for (const Sample& s : samples)
        if (s.ns >= fromNs)
            points << QPointF(double(s.ns) / 3600e9, value(s));
    return slope(points, -std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity(), 10);
}

} // namespace

bool writeSoakReport(const Soak& soak, const QString& results, const QString& startLoad, const QDateTime& started)
{
    const SoakRecord& r = soak.record();
    const SilenceWatch& silence = soak.silence();
    const Options& options = soak.options();
    const double minutes = double(r.endNs - r.startNs) / 60e9;
    const double audioHours = double(r.audioBytes) / kBytesPerSecond / 3600;
    // Memory settles over the first minutes (caches, the first swaps); growth is judged after that.
    const qint64 warmNs = r.startNs + std::min<qint64>(5 * 60 * kS, (r.endNs - r.startNs) / 4);
    const Sample* warm = nullptr;
    for (const Sample& s : r.samples)
        if (s.ns >= warmNs) {
            warm = &s;
            break;
        }
    auto rssMiB = [](const Sample& s) { return double(s.process.rssKiB) / 1024; };
    const double rssSlope = slopePerHour(r.samples, warmNs, [](const Sample& s) { return double(s.process.rssKiB) / 1024; });
    const double fdSlope = slopePerHour(r.samples, warmNs, [](const Sample& s) { return double(s.process.fds); });
    const double threadSlope = slopePerHour(r.samples, warmNs, [](const Sample& s) { return double(s.process.threads); });
    double peakRss = 0;
    int maxFds = 0, maxThreads = 0, minFds = INT32_MAX, minThreads = INT32_MAX;
    for (const Sample& s : r.samples) {
        peakRss = std::max(peakRss, rssMiB(s));
        maxFds = std::max(maxFds, s.process.fds);
        maxThreads = std::max(maxThreads, s.process.threads);
        if (s.ns >= warmNs) {
            minFds = std::min(minFds, s.process.fds);
            minThreads = std::min(minThreads, s.process.threads);
        }
    }
    const Sample first = r.samples.empty() ? Sample() : r.samples.front();
    const Sample last = r.samples.empty() ? Sample() : r.samples.back();
    const Silence* longest = nullptr;
    for (const Silence& s : silence.silences())
        if (!longest || s.seconds() > longest->seconds())
            longest = &s;
    QVector<double> swapMs, offerToSwapS;
    for (const Swap& s : r.swaps) {
        if (s.loopEndNs && s.loadedNs >= s.loopEndNs)
            swapMs.push_back(double(s.loadedNs - s.loopEndNs) / 1e6);
        if (s.clean)
            offerToSwapS.push_back(double(s.loadedNs - s.offeredNs) / 1e9);
    }
    auto maximum = [](const QVector<double>& v) { return v.isEmpty() ? std::nan("") : *std::max_element(v.begin(), v.end()); };
    int upward = 0;
    for (const Swap& s : r.swaps)
        upward += s.to == r.libraries[1].version;
    const double cores = minutes > 0 ? (r.cpuSeconds - r.cpuBase) / (minutes * 60) : std::nan("");
    const int downloads = r.downloadsBefore + r.downloadsNow;
    // Downloads answered 200 that the device could not use: cut short, over the size limit, or
    // not the file the document described. Each is fetched again while its fault holds.
    int spoiled = 0;
    for (const auto& [key, count] : r.lines)
        if ((key.startsWith(QLatin1String("ERROR Downloading library failed: ")) && !key.contains(QLatin1String("refused")))
            || key == QLatin1String("ERROR Failed to verify downlaoded library"))
            spoiled += count.count;

    std::ostringstream md;
    md << "# Soak: the device played for " << num(minutes, 3) << " minutes at fast pace\n\n"
       << "Written by `./dev soak` (bench/soak/). vrax-host ran liborvello.so with oplayer-ref at `--pace fast` "
          "(the pipeline takes audio as fast as it comes), with an update swap every " << options.tracksPerSwap
       << " tracks, a failure of the update service every " << options.faultEverySeconds << " s or so, a stop and play "
          "every " << options.stopEverySeconds << " s and a pause and resume every " << options.pauseEverySeconds
       << " s.\n\n";
    md << "| | |\n|---|---|\n"
       << "| date | " << started.toString(Qt::ISODate) << " |\n"
       << "| machine | " << machine() << " |\n"
       << "| load average at start / end | " << startLoad << " / " << loadAverage() << " |\n"
       << "| build | Release, GCC " << __VERSION__ << " |\n"
       << "| tracks | " << num(options.trackSeconds) << " s each (`OPLAYER_REF_TRACK_SECONDS`), 44.1 kHz 16-bit stereo |\n"
       << "| update checks | every second |\n\n";

    md << "## Figures\n\n| | |\n|---|---|\n"
       << "| duration | " << num(minutes, 3) << " min |\n"
       << "| audio played | **" << num(audioHours, 4) << " h** (" << num(audioHours * 60 / std::max(minutes, 1e-9), 3)
       << "× real time), " << r.connections << " stream connections, " << r.sequences << " sequences |\n"
       << "| update swaps | **" << r.swaps.size() << "** (" << upward << " to 1.1.0, " << r.swaps.size() - std::size_t(upward)
       << " back to 1.0.0), of " << r.offers << " offers; loop end to new library loaded: median " << num(median(swapMs))
       << " ms, longest " << num(maximum(swapMs)) << " ms; offer to swap without a fault: median "
       << num(median(offerToSwapS)) << " s, longest " << num(maximum(offerToSwapS)) << " s |\n"
       << "| library loop ends / loads | " << r.loopEnds << " / " << r.loads << " |\n"
       << "| library downloads per swap | **" << num(downloads / std::max<double>(1, double(r.swaps.size())), 3)
       << "** (" << (r.requestLogsMissed ? "at least " : "") << downloads
       << " downloads answered 200 in the service's request log, for " << r.swaps.size() << " swaps) |\n"
       << "| library downloads per swap, leaving out those a fault spoiled | **"
       << num((downloads - spoiled) / std::max<double>(1, double(r.swaps.size())), 3) << "** (" << spoiled
       << " spoiled: cut short, over the size limit or failing verification) |\n"
       << "| rollbacks | " << r.rollbacks << " |\n"
       << "| \"No player library is running\" | " << r.noLibrary << " |\n"
       << "| faults injected | **" << r.faults.size() << "** (by kind below) |\n"
       << "| stop, 2 s, play | " << r.stops << " (audio again after a median " << num(median(r.playLatenciesMs))
       << " ms, at most " << num(maximum(r.playLatenciesMs)) << " ms) |\n"
       << "| music playing again during the soak's stop or pause | " << r.playedWhileQuietCount << " |\n"
       << "| pause, 2 s, pause again | " << r.pauses << " (audio again after a median " << num(median(r.resumeLatenciesMs))
       << " ms, at most " << num(maximum(r.resumeLatenciesMs)) << " ms) |\n"
       << "| crashes (the host ended by itself) | **" << r.crashes.size() << "** |\n"
       << "| restarts forced by silence | " << r.forcedRestarts << " |\n"
       << "| \"playing\" claimed through silence | " << r.falseClaims << " |\n"
       << "| total silence | **" << num(silence.totalSeconds()) << " s** in " << silence.silences().size() << " stretches";
    if (longest)
        md << "; longest " << num(longest->seconds()) << " s at minute " << minuteOf(longest->from, r.startNs) << " ("
           << longest->cause << ")";
    md << " |\n"
       << "| silence heard at realtime pace | **" << num(silence.heardSeconds()) << " s** |\n"
       << "| reads of the pipeline while playing | " << silence.reads() << "; " << silence.readGaps()[0] << " came 10 ms or more after the one "
          "before, " << silence.readGaps()[1] << " 50 ms or more, " << silence.readGaps()[2] << " 100 ms or more |\n"
       << "| RSS | " << num(rssMiB(first)) << " MiB at start, " << (warm ? num(rssMiB(*warm)) : QStringLiteral("n/a"))
       << " MiB after warm-up (minute " << minuteOf(warmNs, r.startNs) << "), " << num(rssMiB(last)) << " MiB at the end, "
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
    for (const auto& [level, count] : r.levels) {
        md << (firstLevel ? "" : ", ") << level.constData() << ' ' << count;
        firstLevel = false;
    }
    md << " |\n"
       << "| the host's stop at the end | "
       << (r.finalExitCode == 0 ? QStringLiteral("exit status 0 after %1 ms").arg(num(r.finalStopMs))
                                : QStringLiteral("**exit status %1** (-1: crashed or did not end within 20 s)").arg(r.finalExitCode))
       << " |\n\n";
    md << "![RSS, descriptors and threads of vrax-host, audio played, swaps, faults and silence over the soak](soak.png)\n\n";

    md << "## Silence by cause\n\n| cause | stretches | total (s) | longest (s) | heard at realtime pace (s) |\n|---|---|---|---|---|\n";
    std::map<QString, std::vector<const Silence*>> byCause;
    for (const Silence& s : silence.silences())
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
    for (const Silence& s : silence.silences())
        longestFirst.push_back(&s);
    std::sort(longestFirst.begin(), longestFirst.end(), [](const Silence* a, const Silence* b) { return a->seconds() > b->seconds(); });
    if (!longestFirst.empty()) {
        md << "\nThe longest:\n\n| minute | seconds | cause |\n|---|---|---|\n";
        for (std::size_t i = 0; i < std::min<std::size_t>(8, longestFirst.size()); ++i)
            md << "| " << minuteOf(longestFirst[i]->from, r.startNs) << " | " << num(longestFirst[i]->seconds()) << " | "
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
        QVector<double> after;
        int times = 0, never = 0;
        for (const FaultWindow& f : r.faults) {
            if (std::size_t(f.kind) != k)
                continue;
            ++times;
            const bool withOffer = faultKinds().at(k).withOffer;
            if (f.swapDoneNs)
                after.push_back(double(std::max<qint64>(0, f.swapDoneNs - (withOffer ? f.to : f.offeredNs))) / 1e9);
            else if (f.to && f.to < r.endNs - kSwapTimeoutNs)   // not still under way when the run ended
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
    for (const auto& [key, count] : r.lines)
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
    if (r.incidents.empty())
        md << "None: no crash, no silence the soak had to act on, every offer led to one swap.\n\n";
    for (const Incident& i : r.incidents) {
        md << "- minute " << minuteOf(i.ns, r.startNs) << ": " << i.what << "\n";
        if (!i.evidence.isEmpty()) {
            md << "  <details><summary>the host's log before it</summary>\n\n  ```\n";
            for (const QString& line : i.evidence)
                md << "  " << line << "\n";
            md << "  ```\n  </details>\n";
        }
    }
    if (!r.incidents.empty())
        md << "\n";

    md << "## How it is measured\n\n"
       << "- **Audio played**: the bytes of every audio message the pipeline read (vrax-host `--trace`), as seconds at "
          "44.1 kHz 16-bit stereo: what a device at realtime pace would have played in that many hours.\n"
       << "- **Swaps**: the running library reports its own version (1.0.0 or 1.1.0) and the updater downloads what "
          "sorts after it as text. After " << options.tracksPerSwap << " tracks' worth of audio the service offers "
          "the running version with a number behind it (\"1.0.0.00001\") and the other build's file; when the log says "
          "\"Requesting exit at end of song\" (the download is verified) the service goes back to offering 1.0.0, which "
          "neither build sorts before, so each offer makes one swap. A swap counts when \"Running SDK version\" names "
          "the other build; the time is from \"End of oplayer main loop, cleaning up\" to that line.\n"
       << "- **Downloads per swap**: the requests for a library file (`/files/...`) that orvello-service answered "
          "with 200, from its request log (`GET /admin/requests`, read before the soak kills the service and at the "
          "end), divided by the swaps. Downloads spoiled by a fault after the status (truncated, oversized, "
          "stalled) count: they cost the bandwidth all the same. The second row leaves out the downloads the host's "
          "log says it could not use (\"Downloading library failed: \" other than a refused connection, and \"Failed "
          "to verify downlaoded library\"): 1 means no good download was fetched twice.\n"
       << "- **Music playing again during the soak's stop or pause**: audio read by the pipeline more than 500 ms "
          "after the soak's stop or pause and before its play or second pause.\n"
       << "- **Faults** take turns, one every " << options.faultEverySeconds << " s after the last was cleared, "
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
    if (!r.aborted.isEmpty())
        md << "- **The run ended early**: " << r.aborted << "\n";
    if (minutes < options.minutes - 0.5)
        md << "- **The run was cut short** after " << num(minutes) << " of " << options.minutes << " minutes.\n";
    if (!r.crashes.empty())
        md << "- **vrax-host crashed " << r.crashes.size() << " time(s)**; the incidents above carry the log before "
              "each. The device must never crash.\n";
    else
        md << "- No crash, and the host stopped " << (r.finalExitCode == 0 ? "cleanly" : "**not cleanly**")
           << " at the end.\n";
    if (rssSlope > 1.0)
        md << "- **RSS grew by " << num(rssSlope, 2) << " MiB per hour after the warm-up: not flat.** Over a shop's "
              "day that is " << num(rssSlope * 12, 2) << " MiB.\n";
    else if (!std::isnan(rssSlope))
        md << "- RSS is flat after the warm-up: " << num(rssSlope, 2) << " MiB per hour (" << num(rssMiB(last) - (warm ? rssMiB(*warm) : 0), 2)
           << " MiB from minute " << minuteOf(warmNs, r.startNs) << " to the end).\n";
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
    if (r.offersNotTaken || r.unrequestedLoads || r.unrequestedExitRequests)
        md << "- Offers not taken: " << r.offersNotTaken << "; library loads without an offer: " << r.unrequestedLoads
           << "; exit requests without an offer: " << r.unrequestedExitRequests << ".\n";
    if (r.repeatedExitRequests)
        md << "- " << r.repeatedExitRequests << " exit request(s) came twice for one swap: a check ran between the "
              "verified download and the service going back to 1.0.0, and the device verified the pending file again.\n";
    if (!r.traceRelease.isEmpty())
        md << "- The trace's disk space could not be given back as it was read (" << r.traceRelease
           << "); the trace in the work directory holds the whole run.\n";
    md << "- The machine is shared with other builds; fast pace takes whatever CPU is free, so the hours of audio "
          "depend on the load as much as on the device.\n";

    const std::string report = md.str();
    QFile out(results + QStringLiteral("/soak.md"));
    if (!out.open(QIODevice::WriteOnly) || out.write(report.data(), qint64(report.size())) != qint64(report.size())) {
        std::fprintf(stderr, "bench_soak: cannot write %s\n", qPrintable(out.fileName()));
        return false;
    }
    QFile data(soak.workDir() + QStringLiteral("/soak.dat"));
    if (!data.open(QIODevice::WriteOnly)) {
        std::fprintf(stderr, "bench_soak: cannot write %s\n", qPrintable(data.fileName()));
        return false;
    }
    QTextStream s(&data);
    s << "# minute, RSS MiB, open fds, threads, hours of audio, swaps, faults, silence s, heard s\n";
    for (const Sample& x : r.samples)
        s << double(x.ns - r.startNs) / 60e9 << ' ' << double(x.process.rssKiB) / 1024 << ' ' << x.process.fds << ' '
          << x.process.threads << ' ' << x.audioHours << ' ' << x.swaps << ' ' << x.faults << ' ' << x.silenceS << ' '
          << x.heardS << '\n';
    std::printf("\n%s", report.c_str());
    return true;
}

} // namespace bench
