#pragma once

#include "oplayer/oplayer.h"
#include "play/vraxplaydata.h"

#include <QObject>

#include <functional>

// The one object through which the module talks to the playback side of the player library.
// Owned by value by OPlayerLib; lives on the thread that owns it (the worker's thread).
//
// Towards the library it hands out the audio table (getAudioApi), whose entries run on the
// library's threads and forward into the installed callbacks or emit pauseChanged and
// volumeChanged there (receivers connected automatically get them queued). Towards the module
// it offers the library's controls with null checks: without a library every command returns
// its fallback (false, isPaused() true, getVolume() -1) and pump() does nothing.
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

    // Called on the library's threads. All four must be installed before the library produces
    // audio: an entry whose callback is missing throws std::bad_function_call.
    void setAudioInitCb(std::function<void(int, int)> cb);
    void setAudioShutdownCb(std::function<void()> cb);
    void setAudioFlushCb(std::function<void()> cb);
    // (samples, count in 16-bit samples, out) -> samples consumed.
    void setAudioDataCb(std::function<unsigned long(const short*, unsigned long, unsigned int*)> cb);

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

Q_SIGNALS:
    void pauseChanged(bool paused);
    void volumeChanged(int volume);
    void dataChanged(const VraxStreamerData& data, long positionMs);

private:
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
    std::function<void(int, int)> m_audioInitCb;
    std::function<void()> m_audioShutdownCb;
    std::function<void()> m_audioFlushCb;
    std::function<unsigned long(const short*, unsigned long, unsigned int*)> m_audioDataCb;
};
