#pragma once

// The soak's silence analysis: the pipeline's reads from the host's trace, judged against what the
// soak did (its stops and pauses, the host's restarts, the update swaps, the service's faults).
#include "SoakFaults.h"
#include "Stats.h"

#include <QString>

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

namespace bench {

// At fast pace the pipeline reads every few milliseconds (the longest normal wait is the
// library's 5 ms retry), so a stretch this long without audio is the device not delivering.
constexpr qint64 kSilenceMinNs = 100 * kMs;
// How far the library runs ahead of the speaker at realtime pace (bench_device, figure 3c: the
// median wait of a chunk between the data callback and the pipeline). A stall inside a flowing
// stream is heard only past it; a start after play or a restart has nothing queued.
constexpr double kRealtimeCushionS = 0.9;

struct Silence
{
    qint64 from = 0;
    qint64 to = 0;
    QString cause;
    bool fromStart = false;    // began at a play, resume or restart: nothing was queued
    double seconds() const { return double(to - from) / 1e9; }
    double heardSeconds() const { return fromStart ? seconds() : std::max(0.0, seconds() - kRealtimeCushionS); }
};

// Times are the trace's (CLOCK_MONOTONIC ns). Runs on the soak's one thread.
class SilenceWatch
{
public:
    // faults: the soak's fault windows, which name the cause of a silence during one; the watch
    // reads them as they grow, so they must outlive it.
    explicit SilenceWatch(const std::vector<FaultWindow>& faults) : m_faults(faults) {}

    // The pipeline read audio at ns.
    void onRead(qint64 ns);
    // The soak stopped or paused the player at ns; it pressed play or pause again at ns. Audio is
    // not due in between.
    void quietFrom(qint64 ns);
    void quietUntil(qint64 ns);
    // The host was started again at ns.
    void onRestart(qint64 ns);
    // A library's loop ended, or a library loaded, at ns.
    void onLibraryEvent(qint64 ns);
    // The run ended at ns: the stretch since the last read counts, and a stop or pause still held
    // ends there.
    void finish(qint64 ns);

    qint64 lastAudioNs() const { return m_lastAudioNs; }
    // When the soak's last stop or pause began; 0 before the first.
    qint64 quietFromNs() const { return m_quiet.empty() ? 0 : m_quiet.back().first; }
    // Since when audio is due: the later of the last read and the end of the soak's last stop or pause.
    qint64 audioDueSinceNs() const { return std::max(m_lastAudioNs, m_quiet.empty() ? 0 : m_quiet.back().second); }

    const std::vector<Silence>& silences() const { return m_silences; }
    double totalSeconds() const { return m_silenceS; }
    // The silences as heard at realtime pace (see Silence::heardSeconds).
    double heardSeconds() const { return m_heardS; }
    qint64 reads() const { return m_reads; }
    // Reads that came 10, 50 and 100 ms or more after the one before, while playing.
    const std::array<qint64, 3>& readGaps() const { return m_readGaps; }

private:
    void noteGap(qint64 from, qint64 to);
    QString causeOf(qint64 from, qint64 to, bool fromStart) const;

    const std::vector<FaultWindow>& m_faults;
    qint64 m_lastAudioNs = 0;
    qint64 m_reads = 0;
    std::array<qint64, 3> m_readGaps = {};
    std::vector<std::pair<qint64, qint64>> m_quiet;   // the soak's own stops and pauses
    std::vector<qint64> m_restarts;                   // crashes and restarts forced by silence
    std::vector<qint64> m_libraryEvents;              // loop ends and loads
    std::vector<Silence> m_silences;
    double m_silenceS = 0, m_heardS = 0;
};

} // namespace bench
