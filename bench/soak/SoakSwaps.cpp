// The soak's update swaps: an offer every few tracks, each making one swap between the two
// builds of the reference library.
#include "Soak.h"

namespace bench {

QJsonObject Soak::offer(const QString& version, const Library& library) const
{
    return QJsonObject{{QStringLiteral("version"), version}, {QStringLiteral("library"), library.file}};
}

const Library& Soak::libraryFor(const QString& version) const
{
    return version == m_record.libraries[1].version ? m_record.libraries[1] : m_record.libraries[0];
}

const Library& Soak::otherThan(const QString& version) const
{
    return version == m_record.libraries[1].version ? m_record.libraries[0] : m_record.libraries[1];
}

double Soak::tracksSinceSwap() const
{
    return double(m_record.audioBytes - m_audioAtSwap) / (m_options.trackSeconds * kBytesPerSecond);
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
        ++m_record.offers;
        const QString version = QStringLiteral("%1.%2").arg(m_running).arg(m_record.offers, 5, 10, QLatin1Char('0'));
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
        if (!m_record.faults.empty() && !m_record.faults.back().offeredNs)
            m_offerFault = int(m_record.faults.size()) - 1;
        if (faultDue) {
            m_offerFault = int(m_record.faults.size());
            startFault(kind, true);
        }
        if (m_offerFault >= 0)
            m_record.faults[std::size_t(m_offerFault)].offeredNs = now;
        return;
    }
    case SwapState::Offered: {
        const qint64 since = std::max(m_offeredNs, m_record.faults.empty() ? 0 : m_record.faults.back().to);
        if (!m_faultActive && now - since > kSwapTimeoutNs) {
            ++m_record.offersNotTaken;
            incident(QStringLiteral("the device did not take the offer of %1 within %2 s")
                         .arg(m_serviceState.value(QStringLiteral("version")).toString()).arg(kSwapTimeoutNs / kS));
            applyService(offer(m_record.libraries[0].version, m_record.libraries[0]));
            m_swapState = SwapState::Steady;
            m_audioAtSwap = m_record.audioBytes;
        }
        return;
    }
    case SwapState::Pending:
        // Paused or stopped, the loop ends at once; playing, at the end of the track.
        if (now - m_pendingNs > kSwapTimeoutNs) {
            incident(QStringLiteral("the swap to %1 did not happen within %2 s of the exit request")
                         .arg(m_target->version).arg((now - m_pendingNs) / kS));
            m_swapState = SwapState::Steady;
            m_audioAtSwap = m_record.audioBytes;
        }
        return;
    }
}

void Soak::onExitRequested(qint64 ns)
{
    switch (m_swapState) {
    case SwapState::Offered:
        applyService(offer(m_record.libraries[0].version, m_record.libraries[0]));
        m_swapState = SwapState::Pending;
        m_pendingNs = ns;
        return;
    case SwapState::Pending:
        ++m_record.repeatedExitRequests;
        return;
    case SwapState::Steady:
        ++m_record.unrequestedExitRequests;
        return;
    }
}

void Soak::onLibraryLoaded(qint64 ns, const QString& version)
{
    const QString before = m_running;
    m_running = version;
    ++m_record.loads;
    m_lastLoadNs = ns;
    m_silence.onLibraryEvent(ns);
    if (m_swapState == SwapState::Pending) {
        if (version == m_target->version) {
            m_record.swaps.push_back({m_offeredNs, m_lastLoopEndNs, ns, m_offerFault < 0, before, version});
            if (m_offerFault >= 0)
                m_record.faults[std::size_t(m_offerFault)].swapDoneNs = ns;
        } else {
            incident(QStringLiteral("the swap to %1 loaded %2").arg(m_target->version, version));
        }
        m_swapState = SwapState::Steady;
        m_audioAtSwap = m_record.audioBytes;
        return;
    }
    if (m_expectLoad) {
        m_expectLoad = false;
        m_audioAtSwap = m_record.audioBytes;
        return;
    }
    ++m_record.unrequestedLoads;
    incident(QStringLiteral("library %1 loaded (after %2) without a swap being offered").arg(version, before));
}

} // namespace bench
