// The soak's presses of the player's buttons: stop and play, pause and pause again.
#include "Soak.h"

namespace bench {

void Soak::driveControl()
{
    const qint64 now = nowNs();
    // A press can land just after a swap that happened while the device was stopped or paused: the
    // new library had started playing by itself, and the toggle pauses it. A person would press
    // play; so does the soak.
    if (m_verifyNs && now >= m_verifyNs) {
        m_verifyNs = 0;
        if (now - m_silence.lastAudioNs() > 500 * kMs) {
            const int state = playState();
            incident(QStringLiteral("no audio 1 s after the %1 (play state %2)%3; pressing play")
                         .arg(m_awaitingAfterStop ? "play press" : "second pause press")
                         .arg(state)
                         .arg(m_lastLoadNs > m_silence.quietFromNs()
                                  ? QStringLiteral(": an update swapped in meanwhile, and the new library started "
                                                   "playing by itself before the press")
                                  : QString()));
            if (!m_rig->post(QStringLiteral("/api/player/play"), {}).ok())
                incident(QStringLiteral("play was refused"));
        }
    }
    switch (m_control) {
    case Control::Idle:
        if (now >= m_nextStopNs) {
            m_silence.quietFrom(now);
            m_playedWhileQuiet = false;
            if (!m_rig->post(QStringLiteral("/api/player/stop"), {}).ok())
                incident(QStringLiteral("stop was refused"));
            ++m_record.stops;
            m_control = Control::Stopped;
            m_controlUntilNs = now + kHoldNs;
            m_nextStopNs = now + qint64(m_options.stopEverySeconds) * kS;
        } else if (now >= m_nextPauseNs) {
            m_silence.quietFrom(now);
            m_playedWhileQuiet = false;
            if (!m_rig->post(QStringLiteral("/api/player/pause"), {}).ok())
                incident(QStringLiteral("pause was refused"));
            ++m_record.pauses;
            m_control = Control::Paused;
            m_controlUntilNs = now + kHoldNs;
            m_nextPauseNs = now + qint64(m_options.pauseEverySeconds) * kS;
        }
        return;
    case Control::Stopped:
        if (now < m_controlUntilNs)
            return;
        m_awaitSinceNs = nowNs();
        m_silence.quietUntil(m_awaitSinceNs);
        m_verifyNs = m_awaitSinceNs + kS;
        m_awaitingAfterStop = true;
        m_control = Control::AwaitAudio;
        // Playing again already (an incident says why), as a person would see it: play is not pressed.
        if (m_playedWhileQuiet)
            m_control = Control::Idle;
        else if (!m_rig->post(QStringLiteral("/api/player/play"), {}).ok())
            incident(QStringLiteral("play after stop was refused"));
        return;
    case Control::Paused: {
        if (now < m_controlUntilNs)
            return;
        // Pause toggles, as the button does: the second press resumes, unless the first was not taken.
        const int state = playState();
        m_awaitSinceNs = nowNs();
        m_silence.quietUntil(m_awaitSinceNs);
        m_verifyNs = m_awaitSinceNs + kS;
        m_awaitingAfterStop = false;
        m_control = Control::AwaitAudio;
        if (state != 3) {
            m_control = Control::Idle;
            if (!m_playedWhileQuiet)   // else an incident already says why
                incident(QStringLiteral("the device was not paused 2 s after pause (play state %1); not pressing it again")
                             .arg(state));
        } else if (!m_rig->post(QStringLiteral("/api/player/pause"), {}).ok()) {
            incident(QStringLiteral("the second pause (resume) was refused"));
        }
        return;
    }
    case Control::AwaitAudio:
        if (now - m_awaitSinceNs > kAudioAgainNs) {
            incident(QStringLiteral("no audio %1 s after play or resume (play state %2)").arg(kAudioAgainNs / kS).arg(playState()));
            m_control = Control::Idle;
        }
        return;
    }
}

} // namespace bench
