#pragma once

#include "play/playlogic.h"
#include "play/systemvolumeproxy.h"
#include "play/vraxplaydata.h"

#include <atomic>
#include <memory>
#include <mutex>

class OPlayerPlaybackApi;
class OrvelloAudioTransfer;

// The service's play logic on the platform's play framework. Play and pause requests from the
// platform go to the player library through the bridge; the library's pause, volume and track
// data come back as the framework's state, the system volume and the published track; the
// library's PCM goes to the audio pipeline through the audio transfer.
//
// Lives on the worker's thread. The four audio callbacks it installs on the bridge run on the
// library's threads and touch only the audio transfer, the atomic format members and the hold
// flag (the init callback may also start the transfer's connection from there).
class OrvelloPlayLogic : public StreamerPlayLogic
{
    Q_OBJECT
public:
    // playbackApi is not owned and must outlive this object. A format, pause state and volume
    // the library announced before this object existed are taken over.
    OrvelloPlayLogic(CMNodes* nodes, OPlayerPlaybackApi* playbackApi);
    // Removes the audio callbacks first (waiting for one running on a library thread) and
    // cancels a connect still under way.
    ~OrvelloPlayLogic() override;

    // What the library's data callback returns for the transfer's result: bytes back to 16-bit
    // samples, as an unsigned count (a negative result becomes a huge count).
    static unsigned long samplesFromBytes(int bytes);

    // (Re)connects the audio transfer; a failure that is not a cancellation while playing stops
    // the play logic.
    void connectAudioTransfer();

    // Receivers of the bridge's and the system volume's signals, on this object's thread.
    void on_playbackApi_dataChanged(const VraxStreamerData& data, long positionMs);
    void on_playbackApi_pauseChanged(bool paused);
    void on_playbackApi_volumeChanged(int volume);
    void on_systemVolume_volumeChanged(int volume);
    // The library's instance ended with its loop (an update swap, or the library ending it). A
    // stop or pause from the device that is still in force is kept for the next instance: none
    // of its audio is taken, and its own first resume is answered with a pause, until the device
    // plays again or a later resume (a play from the service) comes.
    void on_playbackApi_loopEnded();

protected:
    void playInternal(const CMSetDataRequest& request, const VraxPlayLogicPlayArgs& args) override;
    void pauseInternal(const CMSetDataRequest& request) override;
    VraxRoles translateTrackRoles(const VraxRoles& roles) override;
    VraxPlayLogicStatus translatePlayLogicStatus(const VraxPlayLogicStatus& status) override;
    void playbackEnded() override;
    void playTimeChangedInternal(long long ms) override;

private:
    void startNewPlayback();
    // Connects when a connection is pending and the format is known, exactly once per request.
    void connectIfPendingAndFormatKnown();
    // The device or the service wants music again: the kept stop or pause is over.
    void endHold();

    OPlayerPlaybackApi* m_playbackApi;
    std::unique_ptr<OrvelloAudioTransfer> m_audioTransfer;
    SystemVolumeProxy m_systemVolume;
    // The init callback replaces the reply from the library's thread.
    std::mutex m_connectReplyMutex;
    CMVoidReply m_connectReply;
    std::atomic<qint32> m_outputChannels;
    std::atomic<qint32> m_outputRate;
    std::atomic<bool> m_connectPending;
    VraxStreamerData m_lastStreamerData;

    // A stop or pause from the device that nothing has undone since (a play, a resume).
    bool m_quietFromDevice;
    // Set while a stop or pause is kept across a new library instance: the data callback takes
    // nothing. Read on the library's threads.
    std::atomic<bool> m_holding;
    // Which of the library's pause announcements is its own resume of its session.
    enum class OwnResume {
        None,
        // Announcements still queued from the instance that ended: not the new one's.
        AfterOldInstance,
        // The new instance's first announcement: a resume is its own, a pause means it waits.
        Next,
    };
    OwnResume m_ownResume;
};
