#include "Silence.h"

#include <cstdint>

namespace bench {

void SilenceWatch::onRead(qint64 ns)
{
    ++m_reads;
    if (m_lastAudioNs && (m_quiet.empty() || m_quiet.back().second < m_lastAudioNs)) {
        const qint64 gap = ns - m_lastAudioNs;
        m_readGaps[0] += gap >= 10 * kMs;
        m_readGaps[1] += gap >= 50 * kMs;
        m_readGaps[2] += gap >= 100 * kMs;
    }
    if (m_lastAudioNs && ns - m_lastAudioNs >= kSilenceMinNs)
        noteGap(m_lastAudioNs, ns);
    m_lastAudioNs = std::max(m_lastAudioNs, ns);
}

void SilenceWatch::quietFrom(qint64 ns)
{
    m_quiet.emplace_back(ns, INT64_MAX);
}

void SilenceWatch::quietUntil(qint64 ns)
{
    m_quiet.back().second = ns;
}

void SilenceWatch::onRestart(qint64 ns)
{
    m_restarts.push_back(ns);
}

void SilenceWatch::onLibraryEvent(qint64 ns)
{
    m_libraryEvents.push_back(ns);
}

void SilenceWatch::finish(qint64 ns)
{
    if (m_lastAudioNs && ns - m_lastAudioNs >= kSilenceMinNs)
        noteGap(m_lastAudioNs, ns);
    if (!m_quiet.empty() && m_quiet.back().second == INT64_MAX)
        m_quiet.back().second = ns;
}

// The parts of from..to not covered by the soak's own stops and pauses, each a silence when it
// is long enough.
void SilenceWatch::noteGap(qint64 from, qint64 to)
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

QString SilenceWatch::causeOf(qint64 from, qint64 to, bool fromStart) const
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

} // namespace bench
