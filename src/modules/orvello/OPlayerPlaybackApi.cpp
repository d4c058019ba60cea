#include "OPlayerPlaybackApi.h"

namespace {
OPlayerPlaybackApi* bridgeOf(oplayer_audio_api* api)
{
    return static_cast<OPlayerPlaybackApi*>(api->user);
}
} // namespace

OPlayerPlaybackApi::OPlayerPlaybackApi()
    : QObject(nullptr)
    , m_audioApi(nullptr)
    , m_controlsApi(nullptr)
    , m_metadataApi(nullptr)
    , m_oplayer(nullptr)
{
}

OPlayerPlaybackApi::~OPlayerPlaybackApi()
{
    m_audioDataCb = nullptr;
    m_audioFlushCb = nullptr;
    m_audioShutdownCb = nullptr;
    m_audioInitCb = nullptr;
    delete m_audioApi;
}

oplayer_audio_api* OPlayerPlaybackApi::getAudioApi()
{
    auto* api = new oplayer_audio_api{};
    api->init = &OPlayerPlaybackApi::audioInit;
    api->shutdown = &OPlayerPlaybackApi::audioShutdown;
    api->flush = &OPlayerPlaybackApi::audioFlush;
    api->data = &OPlayerPlaybackApi::audioData;
    api->pause_changed = &OPlayerPlaybackApi::audioPauseChanged;
    api->volume_changed = &OPlayerPlaybackApi::audioVolumeChanged;
    api->user = this;
    delete m_audioApi;
    m_audioApi = api;
    return m_audioApi;
}

void OPlayerPlaybackApi::setControlsApi(const oplayer_controls_api* api)
{
    m_controlsApi = api;
}

void OPlayerPlaybackApi::setMetadataApi(const oplayer_metadata_api* api)
{
    m_metadataApi = api;
}

void OPlayerPlaybackApi::setOPlayer(oplayer* player)
{
    m_oplayer = player;
}

void OPlayerPlaybackApi::setAudioInitCb(std::function<void(int, int)> cb)
{
    m_audioInitCb = std::move(cb);
}

void OPlayerPlaybackApi::setAudioShutdownCb(std::function<void()> cb)
{
    m_audioShutdownCb = std::move(cb);
}

void OPlayerPlaybackApi::setAudioFlushCb(std::function<void()> cb)
{
    m_audioFlushCb = std::move(cb);
}

void OPlayerPlaybackApi::setAudioDataCb(std::function<unsigned long(const short*, unsigned long, unsigned int*)> cb)
{
    m_audioDataCb = std::move(cb);
}

bool OPlayerPlaybackApi::resume()
{
    if (!m_controlsApi || !m_oplayer)
        return false;
    return m_controlsApi->resume(m_oplayer) != 0;
}

bool OPlayerPlaybackApi::pause()
{
    if (!m_controlsApi || !m_oplayer)
        return false;
    return m_controlsApi->pause(m_oplayer) != 0;
}

bool OPlayerPlaybackApi::isPaused()
{
    if (!m_controlsApi || !m_oplayer)
        return true;
    return m_controlsApi->is_paused(m_oplayer) != 0;
}

bool OPlayerPlaybackApi::skip(int tracks)
{
    if (!m_controlsApi || !m_oplayer)
        return false;
    return m_controlsApi->skip(m_oplayer, tracks) != 0;
}

int OPlayerPlaybackApi::getVolume()
{
    if (!m_controlsApi || !m_oplayer)
        return -1;
    return m_controlsApi->get_volume(m_oplayer);
}

int OPlayerPlaybackApi::maxVolume() const
{
    return 100;
}

bool OPlayerPlaybackApi::setVolume(int volume)
{
    if (!m_controlsApi || !m_oplayer || volume < 0 || volume > maxVolume())
        return false;
    return m_controlsApi->set_volume(m_oplayer, volume) != 0;
}

void OPlayerPlaybackApi::pump()
{
    if (!m_controlsApi || !m_metadataApi)
        return;
    if (m_controlsApi->has_new_data(m_oplayer) == 0)
        return;
    oplayer_track_metadata* track = m_metadataApi->get_current(m_oplayer);
    const int32_t positionMs32 = static_cast<int32_t>(static_cast<uint32_t>(track->position) * 1000u);
    const long positionMs = positionMs32;

    VraxStreamerData data;
    VraxPlayLogicStatus status;
    status.setDuration(static_cast<long long>(track->duration));
    data.setStatus(status);

    VraxRoles roles;
    roles.setTitle(TrString(track->title));
    VraxMetaData metaData;
    metaData.setAlbum(QString(track->album));
    if (track->artist_count > 0)
        metaData.setArtist(QString(track->artists[0]));
    VraxMediaData mediaData;
    mediaData.setMetaData(metaData);
    roles.setMediaData(mediaData);
    roles.setIcon(QString(track->image));
    data.setTrackRoles(roles);

    m_metadataApi->release(track);
    Q_EMIT dataChanged(data, positionMs);
}

void OPlayerPlaybackApi::audioInit(oplayer_audio_api* api, int channels, int sampleRate)
{
    bridgeOf(api)->m_audioInitCb(channels, sampleRate);
}

void OPlayerPlaybackApi::audioShutdown(oplayer_audio_api* api)
{
    bridgeOf(api)->m_audioShutdownCb();
}

void OPlayerPlaybackApi::audioFlush(oplayer_audio_api* api)
{
    bridgeOf(api)->m_audioFlushCb();
}

unsigned long OPlayerPlaybackApi::audioData(oplayer_audio_api* api, const short* samples, unsigned long count,
                                            unsigned int* out)
{
    return bridgeOf(api)->m_audioDataCb(samples, count, out);
}

void OPlayerPlaybackApi::audioPauseChanged(oplayer_audio_api* api, int paused)
{
    Q_EMIT bridgeOf(api)->pauseChanged(paused != 0);
}

void OPlayerPlaybackApi::audioVolumeChanged(oplayer_audio_api* api, int volume)
{
    Q_EMIT bridgeOf(api)->volumeChanged(volume);
}
