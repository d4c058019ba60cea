#include "OPlayerPlaybackApi.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("Orvello");

OPlayerPlaybackApi* bridgeOf(oplayer_audio_api* api)
{
    return api ? static_cast<OPlayerPlaybackApi*>(api->user) : nullptr;
}
} // namespace

OPlayerPlaybackApi::OPlayerPlaybackApi()
    : QObject(nullptr)
    , m_audioApi(nullptr)
    , m_controlsApi(nullptr)
    , m_metadataApi(nullptr)
    , m_oplayer(nullptr)
    , m_formatAnnounced(false)
    , m_announcedChannels(0)
    , m_announcedRate(0)
    , m_announcedPaused(-1)
    , m_announcedVolume(-1)
    , m_faultsLogged(0)
{
}

OPlayerPlaybackApi::~OPlayerPlaybackApi()
{
    {
        std::lock_guard<std::mutex> lock(m_audioMutex);
        m_audioDataCb = nullptr;
        m_audioFlushCb = nullptr;
        m_audioShutdownCb = nullptr;
        m_audioInitCb = nullptr;
    }
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
    std::lock_guard<std::mutex> lock(m_audioMutex);
    m_audioInitCb = std::move(cb);
    if (m_audioInitCb && m_formatAnnounced)
        m_audioInitCb(m_announcedChannels, m_announcedRate);
}

void OPlayerPlaybackApi::setAudioShutdownCb(std::function<void()> cb)
{
    std::lock_guard<std::mutex> lock(m_audioMutex);
    m_audioShutdownCb = std::move(cb);
}

void OPlayerPlaybackApi::setAudioFlushCb(std::function<void()> cb)
{
    std::lock_guard<std::mutex> lock(m_audioMutex);
    m_audioFlushCb = std::move(cb);
}

void OPlayerPlaybackApi::setAudioDataCb(std::function<unsigned long(const short*, unsigned long, unsigned int*)> cb)
{
    std::lock_guard<std::mutex> lock(m_audioMutex);
    m_audioDataCb = std::move(cb);
}

int OPlayerPlaybackApi::announcedPaused() const
{
    return m_announcedPaused.load();
}

int OPlayerPlaybackApi::announcedVolume() const
{
    return m_announcedVolume.load();
}

bool OPlayerPlaybackApi::firstTime(Fault fault)
{
    return (m_faultsLogged.fetch_or(fault) & fault) == 0;
}

void OPlayerPlaybackApi::noControls()
{
    if (firstTime(NoControls))
        LOG4CPLUS_WARN(logger, "The player library gave no controls table; play, pause, volume and track data get "
                               "the answers for a missing library");
}

void OPlayerPlaybackApi::missingControl(Fault missing, const char* name)
{
    if (firstTime(missing))
        LOG4CPLUS_WARN(logger, "The player library's controls table has no "
                                   << name << " entry; it gets the answer for a missing library");
}

template <typename Fn>
Fn OPlayerPlaybackApi::control(Fn oplayer_controls_api::*entry, Fault missing, const char* name)
{
    if (!m_oplayer)
        return nullptr;
    if (!m_controlsApi) {
        noControls();
        return nullptr;
    }
    Fn fn = m_controlsApi->*entry;
    if (!fn)
        missingControl(missing, name);
    return fn;
}

bool OPlayerPlaybackApi::resume()
{
    auto fn = control(&oplayer_controls_api::resume, NoResume, "resume");
    return fn && fn(m_oplayer) != 0;
}

bool OPlayerPlaybackApi::pause()
{
    auto fn = control(&oplayer_controls_api::pause, NoPause, "pause");
    return fn && fn(m_oplayer) != 0;
}

bool OPlayerPlaybackApi::isPaused()
{
    auto fn = control(&oplayer_controls_api::is_paused, NoIsPaused, "is_paused");
    return !fn || fn(m_oplayer) != 0;
}

bool OPlayerPlaybackApi::skip(int tracks)
{
    auto fn = control(&oplayer_controls_api::skip, NoSkip, "skip");
    return fn && fn(m_oplayer, tracks) != 0;
}

int OPlayerPlaybackApi::getVolume()
{
    auto fn = control(&oplayer_controls_api::get_volume, NoGetVolume, "get_volume");
    return fn ? fn(m_oplayer) : -1;
}

int OPlayerPlaybackApi::maxVolume() const
{
    return 100;
}

bool OPlayerPlaybackApi::setVolume(int volume)
{
    if (volume < 0 || volume > maxVolume())
        return false;
    auto fn = control(&oplayer_controls_api::set_volume, NoSetVolume, "set_volume");
    return fn && fn(m_oplayer, volume) != 0;
}

const char* OPlayerPlaybackApi::recordString(const char* text, const char* field)
{
    if (!text && firstTime(NullString))
        LOG4CPLUS_WARN(logger, "The player library gave a track record without " << field
                                                                                  << "; publishing it empty");
    return text;
}

void OPlayerPlaybackApi::pump()
{
    if (!m_controlsApi || !m_metadataApi) {
        if (m_oplayer && !m_controlsApi)
            noControls();
        if (m_oplayer && !m_metadataApi && firstTime(NoMetadata))
            LOG4CPLUS_WARN(logger, "The player library gave no metadata table; no track data is published");
        return;
    }
    if (!m_controlsApi->has_new_data) {
        missingControl(NoHasNewData, "has_new_data");
        return;
    }
    if (m_controlsApi->has_new_data(m_oplayer) == 0)
        return;
    if (!m_metadataApi->get_current) {
        if (firstTime(NoGetCurrent))
            LOG4CPLUS_WARN(logger, "The player library's metadata table has no get_current entry; no track data "
                                   "is published");
        return;
    }
    oplayer_track_metadata* track = m_metadataApi->get_current(m_oplayer);
    if (!track) {
        if (firstTime(NoRecord))
            LOG4CPLUS_WARN(logger, "The player library said it had new track data but gave no track record; "
                                   "the track data stays as it was");
        return;
    }
    const int32_t positionMs32 = static_cast<int32_t>(static_cast<uint32_t>(track->position) * 1000u);
    const long positionMs = positionMs32;

    VraxStreamerData data;
    VraxPlayLogicStatus status;
    status.setDuration(static_cast<long long>(track->duration));
    data.setStatus(status);

    VraxRoles roles;
    roles.setTitle(TrString(recordString(track->title, "a title")));
    VraxMetaData metaData;
    metaData.setAlbum(QString(recordString(track->album, "an album")));
    if (track->artist_count > 0) {
        if (track->artists) {
            metaData.setArtist(QString(recordString(track->artists[0], "an artist")));
        } else if (firstTime(NoArtists)) {
            LOG4CPLUS_WARN(logger, "The player library gave a track record of " << track->artist_count
                                                                                << " artists without the artists; "
                                                                                   "publishing no artist");
        }
    }
    VraxMediaData mediaData;
    mediaData.setMetaData(metaData);
    roles.setMediaData(mediaData);
    roles.setIcon(QString(recordString(track->image, "an artwork URL")));
    data.setTrackRoles(roles);

    if (m_metadataApi->release) {
        m_metadataApi->release(track);
    } else if (firstTime(NoRelease)) {
        LOG4CPLUS_WARN(logger, "The player library's metadata table has no release entry; its track records are "
                               "not given back");
    }
    Q_EMIT dataChanged(data, positionMs);
}

bool OPlayerPlaybackApi::hasLibrary() const
{
    return m_oplayer != nullptr;
}

void OPlayerPlaybackApi::announceLoopEnded()
{
    Q_EMIT loopEnded();
}

void OPlayerPlaybackApi::audioInit(oplayer_audio_api* api, int channels, int sampleRate)
{
    OPlayerPlaybackApi* bridge = bridgeOf(api);
    if (!bridge)
        return;
    std::lock_guard<std::mutex> lock(bridge->m_audioMutex);
    bridge->m_formatAnnounced = true;
    bridge->m_announcedChannels = channels;
    bridge->m_announcedRate = sampleRate;
    if (bridge->m_audioInitCb)
        bridge->m_audioInitCb(channels, sampleRate);
}

void OPlayerPlaybackApi::audioShutdown(oplayer_audio_api* api)
{
    OPlayerPlaybackApi* bridge = bridgeOf(api);
    if (!bridge)
        return;
    std::lock_guard<std::mutex> lock(bridge->m_audioMutex);
    bridge->m_formatAnnounced = false;
    if (bridge->m_audioShutdownCb)
        bridge->m_audioShutdownCb();
}

void OPlayerPlaybackApi::audioFlush(oplayer_audio_api* api)
{
    OPlayerPlaybackApi* bridge = bridgeOf(api);
    if (!bridge)
        return;
    std::lock_guard<std::mutex> lock(bridge->m_audioMutex);
    if (bridge->m_audioFlushCb)
        bridge->m_audioFlushCb();
}

unsigned long OPlayerPlaybackApi::audioData(oplayer_audio_api* api, const short* samples, unsigned long count,
                                            unsigned int* out)
{
    OPlayerPlaybackApi* bridge = bridgeOf(api);
    if (bridge && !samples && count != 0) {
        if (bridge->firstTime(NullSamples))
            LOG4CPLUS_WARN(logger, "The player library offered " << count
                                                                  << " samples without a buffer; taking none of them");
        bridge = nullptr;
    }
    if (bridge) {
        std::lock_guard<std::mutex> lock(bridge->m_audioMutex);
        if (bridge->m_audioDataCb)
            return bridge->m_audioDataCb(samples, count, out);
    }
    if (out)
        *out = 0;
    return 0;
}

void OPlayerPlaybackApi::audioPauseChanged(oplayer_audio_api* api, int paused)
{
    OPlayerPlaybackApi* bridge = bridgeOf(api);
    if (!bridge)
        return;
    bridge->m_announcedPaused = paused != 0 ? 1 : 0;
    Q_EMIT bridge->pauseChanged(paused != 0);
}

void OPlayerPlaybackApi::audioVolumeChanged(oplayer_audio_api* api, int volume)
{
    OPlayerPlaybackApi* bridge = bridgeOf(api);
    if (!bridge)
        return;
    bridge->m_announcedVolume = volume;
    Q_EMIT bridge->volumeChanged(volume);
}
