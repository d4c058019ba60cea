#pragma once

#include "oplayer/oplayer.h"
#include "play/vraxplaydata.h"

#include <QObject>

#include <atomic>
#include <functional>
#include <mutex>

// The one object through which the module talks to the playback side of the player library.
// Owned by value by OPlayerLib; lives on the thread that owns it (the worker's thread).
//
// Towards the library it hands out the audio table (getAudioApi), whose entries run on the
// library's threads and forward into the installed callbacks or emit pauseChanged and
// volumeChanged there (receivers connected automatically get them queued). Towards the module
// it offers the library's controls with null checks: without a library every command returns
// its fallback (false, isPaused() true, getVolume() -1) and pump() does nothing. A table, an
// entry or a string the library leaves null gets the same fallback and one WARN line.
//
// The library may call the audio table from any of its threads as soon as it has the table,
// before the callbacks are installed: one mutex is held while an audio callback runs, so calls
// from two threads take turns and installing a callback waits for a call in progress.
class OPlayerPlaybackApi : public QObject
{
    Q_OBJECT
public:
    OPlayerPlaybackApi();
    ~OPlayerPlaybackApi() override;

    // Builds a fresh audio table pointing at this object and frees the previous one. The
    // table stays valid until the next call or the bridge's destruction.
    oplayer_audio_api* getAudioApi();

    // Not owned; null detaches.
    void setControlsApi(const oplayer_controls_api* api);
    void setMetadataApi(const oplayer_metadata_api* api);
    void setOPlayer(oplayer* player);

    // Called on the library's threads, one call at a time. Any thread may install or remove
    // (empty function) a callback at any time; it returns once no call of the previous one is
    // in progress, and the previous one is never called again. Until a callback exists its
    // entry does nothing (data takes nothing: 0, and 0 through out).
    // A format the library announced before the init callback was installed, and not ended by
    // shutdown since, is handed to the new callback at once, on the installing thread.
    void setAudioInitCb(std::function<void(int, int)> cb);
    void setAudioShutdownCb(std::function<void()> cb);
    void setAudioFlushCb(std::function<void()> cb);
    // (samples, count in 16-bit samples, out) -> samples consumed.
    void setAudioDataCb(std::function<unsigned long(const short*, unsigned long, unsigned int*)> cb);

    // The library's last pause_changed (1 paused, 0 playing) and volume_changed, or -1 while it
    // has announced none: a receiver that connects after the announcement starts from these.
    // Any thread.
    int announcedPaused() const;
    int announcedVolume() const;

    bool resume();
    bool pause();
    bool isPaused();
    bool skip(int tracks);
    int getVolume();
    int maxVolume() const;
    // Refused (false, library not called) outside 0..maxVolume().
    bool setVolume(int volume);

    // Publishes the library's track data through dataChanged when it has new data. Called on
    // the owner's thread after every turn of the library's main loop.
    void pump();

    // Whether a library instance is attached (setOPlayer with a handle). Owner's thread.
    bool hasLibrary() const;
    // Called by the host on the owner's thread once the instance has been destroyed at the end
    // of its loop, before another is created: emits loopEnded there. Every call the old
    // instance made into the audio table has returned by then.
    void announceLoopEnded();

Q_SIGNALS:
    void pauseChanged(bool paused);
    void volumeChanged(int volume);
    void dataChanged(const VraxStreamerData& data, long positionMs);
    // The library instance is gone at the end of its loop; whatever is created next is another
    // instance. On the owner's thread.
    void loopEnded();

private:
    // Each of these is logged once per bridge, the first time the library does it.
    enum Fault : unsigned {
        NoControls = 1u << 0,
        NoHasNewData = 1u << 1,
        NoPause = 1u << 2,
        NoResume = 1u << 3,
        NoSkip = 1u << 4,
        NoGetVolume = 1u << 5,
        NoSetVolume = 1u << 6,
        NoIsPaused = 1u << 7,
        NoMetadata = 1u << 8,
        NoGetCurrent = 1u << 9,
        NoRelease = 1u << 10,
        NoRecord = 1u << 11,
        NullString = 1u << 12,
        NoArtists = 1u << 13,
        NullSamples = 1u << 14,
    };
    bool firstTime(Fault fault);
    // The library's controls entry; null without a library, and null with one WARN the first
    // time when a loaded library gave no controls table or left this entry out.
    template <typename Fn>
    Fn control(Fn oplayer_controls_api::*entry, Fault missing, const char* name);
    void noControls();
    void missingControl(Fault missing, const char* name);
    // text, with one WARN the first time a record has a null string.
    const char* recordString(const char* text, const char* field);

    static void audioInit(oplayer_audio_api* api, int channels, int sampleRate);
    static void audioShutdown(oplayer_audio_api* api);
    static void audioFlush(oplayer_audio_api* api);
    static unsigned long audioData(oplayer_audio_api* api, const short* samples, unsigned long count,
                                   unsigned int* out);
    static void audioPauseChanged(oplayer_audio_api* api, int paused);
    static void audioVolumeChanged(oplayer_audio_api* api, int volume);

    oplayer_audio_api* m_audioApi;
    const oplayer_controls_api* m_controlsApi;
    const oplayer_metadata_api* m_metadataApi;
    oplayer* m_oplayer;
    // Guards the four callbacks and the announced format; held while a callback runs.
    std::mutex m_audioMutex;
    std::function<void(int, int)> m_audioInitCb;
    std::function<void()> m_audioShutdownCb;
    std::function<void()> m_audioFlushCb;
    std::function<unsigned long(const short*, unsigned long, unsigned int*)> m_audioDataCb;
    bool m_formatAnnounced;
    int m_announcedChannels;
    int m_announcedRate;
    std::atomic<int> m_announcedPaused;
    std::atomic<int> m_announcedVolume;
    std::atomic<unsigned> m_faultsLogged;
};
