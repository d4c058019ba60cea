#include "OrvelloPlayLogic.h"

#include "OPlayerPlaybackApi.h"
#include "OrvelloAudioTransfer.h"
#include "OrvelloLogging.h"
#include "ScratchDirectory.h"

#include "play/vraxplaylogicdata.h"
#include "play/vraxservices.h"
#include "vrax/vraxconnect.h"
#include "vrax/vraxpaths.h"

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("Orvello");
} // namespace

OrvelloPlayLogic::OrvelloPlayLogic(CMNodes* nodes, OPlayerPlaybackApi* playbackApi)
    : StreamerPlayLogic(nodes, VraxOrvelloPlayLogicPath())
    , m_playbackApi(playbackApi)
    , m_audioTransfer(std::make_unique<OrvelloAudioTransfer>())
    , m_systemVolume(QStringLiteral("Orvello"), playbackApi->maxVolume(), 250, false)
    , m_outputChannels(0)
    , m_outputRate(0)
    , m_connectPending(false)
    , m_quietFromDevice(false)
    , m_holding(false)
    , m_ownResume(OwnResume::None)
{
    m_playbackApi->setAudioInitCb([this](int channels, int rate) {
        LOG4CPLUS_DEBUG(logger, "Enter " << ORVELLO_FUNCTION << ": "
                                         << "Output channels: " << channels << ", output rate: " << rate);
        m_outputChannels = channels;
        m_outputRate = rate;
        m_audioTransfer->setStreamFormat(channels, rate);
        connectIfPendingAndFormatKnown();
    });
    m_playbackApi->setAudioShutdownCb([this] {
        LOG4CPLUS_DEBUG(logger, "Enter " << ORVELLO_FUNCTION);
        m_outputChannels = 0;
        m_outputRate = 0;
        if (data().state() != VraxPlayLogicData::Stopped)
            m_audioTransfer->sendStreamEnd();
    });
    m_playbackApi->setAudioFlushCb([this] {
        if (m_audioTransfer->connected())
            m_audioTransfer->flush();
    });
    m_playbackApi->setAudioDataCb([this](const short* samples, unsigned long count, unsigned int* out) -> unsigned long {
        if (m_holding || !m_audioTransfer->connected()) {
            if (out)
                *out = 0;
            return 0;
        }
        const int written = m_audioTransfer->processData(reinterpret_cast<const char*>(samples), count * 2);
        if (out)
            *out = 0;
        return samplesFromBytes(written);
    });

    vraxConnect(m_playbackApi, &OPlayerPlaybackApi::dataChanged, this, &OrvelloPlayLogic::on_playbackApi_dataChanged);
    vraxConnect(m_playbackApi, &OPlayerPlaybackApi::pauseChanged, this, &OrvelloPlayLogic::on_playbackApi_pauseChanged);
    m_systemVolume.setNoMuteService();
    m_systemVolume.enable();
    vraxConnect(m_playbackApi, &OPlayerPlaybackApi::volumeChanged, this, &OrvelloPlayLogic::on_playbackApi_volumeChanged);
    vraxConnect(&m_systemVolume, &SystemVolumeProxy::volumeChanged, this, &OrvelloPlayLogic::on_systemVolume_volumeChanged);
    vraxConnect(m_playbackApi, &OPlayerPlaybackApi::loopEnded, this, &OrvelloPlayLogic::on_playbackApi_loopEnded);

    // The library may have announced its state before anyone listened (it may start at create,
    // from its own thread). What it announced after the connections above arrives once more,
    // queued: both receivers take the same value twice without effect.
    const int paused = m_playbackApi->announcedPaused();
    if (paused >= 0)
        on_playbackApi_pauseChanged(paused != 0);
    const int volume = m_playbackApi->announcedVolume();
    if (volume >= 0)
        on_playbackApi_volumeChanged(volume);
}

// The callbacks go first, waiting for a call in progress on a library thread, so none runs on a
// play logic that is being torn down.
OrvelloPlayLogic::~OrvelloPlayLogic()
{
    m_playbackApi->setAudioDataCb(nullptr);
    m_playbackApi->setAudioFlushCb(nullptr);
    m_playbackApi->setAudioShutdownCb(nullptr);
    m_playbackApi->setAudioInitCb(nullptr);
    CMVoidReply pending;
    {
        std::lock_guard<std::mutex> lock(m_connectReplyMutex);
        pending = m_connectReply;
    }
    pending.cancel();
}

unsigned long OrvelloPlayLogic::samplesFromBytes(int bytes)
{
    return static_cast<unsigned long>(static_cast<long long>(bytes)) >> 1;
}

void OrvelloPlayLogic::connectIfPendingAndFormatKnown()
{
    if (m_outputChannels != 0 && m_outputRate != 0 && m_connectPending.exchange(false))
        connectAudioTransfer();
}

void OrvelloPlayLogic::connectAudioTransfer()
{
    CMVoidReply reply = m_audioTransfer->connect();
    {
        std::lock_guard<std::mutex> lock(m_connectReplyMutex);
        m_connectReply = reply;
    }
    reply.onError(this, [this](const CMError& error) {
        if (data().state() == VraxPlayLogicData::Stopped)
            return;
        if (error.name() == CMVoidReply::ErrorCancel())
            return;
        LOG4CPLUS_ERROR(logger, "Failed to connect audio transfer " << error);
        stopPlayLogic();
    });
}

void OrvelloPlayLogic::on_playbackApi_volumeChanged(int volume)
{
    LOG4CPLUS_DEBUG(logger, "Enter " << ORVELLO_FUNCTION << ": "
                                     << "Volume: " << volume);
    m_systemVolume.setVolume(volume);
}

void OrvelloPlayLogic::on_systemVolume_volumeChanged(int volume)
{
    LOG4CPLUS_DEBUG(logger, "Enter " << ORVELLO_FUNCTION << ": "
                                     << "Volume: " << volume);
    m_playbackApi->setVolume(volume);
}

void OrvelloPlayLogic::playInternal(const CMSetDataRequest& request, const VraxPlayLogicPlayArgs& args)
{
    LOG4CPLUS_DEBUG(logger, "Enter " << ORVELLO_FUNCTION);
    endHold();
    m_lastStreamerData = VraxStreamerData();
    VraxPlayLogicData d = data();
    VraxPlayLogicControls controls;
    controls.setPause(true);
    d.setControls(controls);
    setData(d);
    sendPlayCommand(args.mediaRoles(), QHash<QString, QVariant>());
    // Pending first, so an init callback racing on the library's thread connects exactly once.
    m_connectPending = true;
    connectIfPendingAndFormatKnown();
    // A stop paused the library (playbackEnded); nothing else would bring the audio back.
    if (m_playbackApi->isPaused())
        m_playbackApi->resume();
    request.reply().setValue(QVariant());
}

void OrvelloPlayLogic::pauseInternal(const CMSetDataRequest& request)
{
    LOG4CPLUS_DEBUG(logger, "Enter " << ORVELLO_FUNCTION);
    const int state = data().state();
    if (state == VraxPlayLogicData::Paused) {
        endHold();
        m_playbackApi->resume();
    } else {
        // Pressed while stopped it changes nothing: the stop, or its absence, stands.
        if (state != VraxPlayLogicData::Stopped)
            m_quietFromDevice = true;
        m_playbackApi->pause();
    }
    request.reply().setValue(QVariant());
}

// An end of playback while a library runs counts as the device's: its stop button, another
// source taking the device over, or the module giving up on the pipeline; none of them is for a
// new library instance to undo. Without a library it is the worker's, which has nothing to keep.
void OrvelloPlayLogic::playbackEnded()
{
    if (m_playbackApi->hasLibrary())
        m_quietFromDevice = true;
    // A connect still waiting for the format belongs to the playback that ends here.
    m_connectPending = false;
    m_playbackApi->pause();
    m_audioTransfer->close();
    CMVoidReply pending;
    {
        std::lock_guard<std::mutex> lock(m_connectReplyMutex);
        pending = m_connectReply;
    }
    pending.cancel();
    StreamerPlayLogic::playbackEnded();
}

void OrvelloPlayLogic::playTimeChangedInternal(long long) {}

void OrvelloPlayLogic::on_playbackApi_pauseChanged(bool paused)
{
    LOG4CPLUS_DEBUG(logger, "Enter " << ORVELLO_FUNCTION << ": "
                                     << "Paused: " << paused);
    if (m_ownResume == OwnResume::AfterOldInstance && !paused)
        return; // from the instance that is gone: nothing to resume
    if (m_ownResume == OwnResume::Next) {
        m_ownResume = OwnResume::None;
        if (!paused) {
            m_playbackApi->pause();
            if (data().state() == VraxPlayLogicData::Stopped)
                LOG4CPLUS_INFO(logger, "The device's stop is kept across the library swap: the new library's own "
                                       "resume is answered with a pause; the music comes back with the next play "
                                       "from the device");
            else
                LOG4CPLUS_INFO(logger, "The device's pause is kept across the library swap: the new library's own "
                                       "resume is answered with a pause; the music comes back with the next play "
                                       "or pause from the device");
            return;
        }
    }
    if (!paused)
        endHold();
    const int state = data().state();
    if (!paused && state == VraxPlayLogicData::Stopped) {
        startNewPlayback();
        return;
    }
    if (state != VraxPlayLogicData::Stopped && paused != (state == VraxPlayLogicData::Paused)) {
        // The framework follows the library; the library is not told again.
        const CMSetDataRequest request(CMPath(), VraxRoles::Value(), QVariant(), CMVoidReply());
        StreamerPlayLogic::pauseInternal(request);
    }
}

void OrvelloPlayLogic::on_playbackApi_loopEnded()
{
    if (!m_quietFromDevice)
        return;
    m_holding = true;
    m_ownResume = OwnResume::AfterOldInstance;
    // A pause pressed just before the loop ended that the old instance never confirmed.
    if (data().state() == VraxPlayLogicData::Playing) {
        const CMSetDataRequest request(CMPath(), VraxRoles::Value(), QVariant(), CMVoidReply());
        StreamerPlayLogic::pauseInternal(request);
    }
    LOG4CPLUS_DEBUG(logger, "The library's loop ended while the device was stopped or paused; the next instance's "
                            "audio is not taken until the device plays, and its own resume is answered with a pause");
    // Queued behind every announcement the old instance made, ahead of any of the new one's.
    QMetaObject::invokeMethod(
        this,
        [this] {
            if (m_ownResume == OwnResume::AfterOldInstance)
                m_ownResume = OwnResume::Next;
        },
        Qt::QueuedConnection);
}

void OrvelloPlayLogic::endHold()
{
    m_holding = false;
    m_ownResume = OwnResume::None;
    m_quietFromDevice = false;
}

void OrvelloPlayLogic::startNewPlayback()
{
    ORVELLO_ENTER(logger);
    VraxRoles roles;
    roles.setType(static_cast<VraxRolesType>(3));
    roles.setTitle(ORVELLO_TR("Orvello Streams"));
    roles.setIcon(VraxService_Orvello_Icon());
    VraxMetaData metaData;
    metaData.setServiceID(VraxService_Orvello_Id());
    metaData.setPlayLogicPath(VraxOrvelloPlayLogicPath());
    VraxMediaData mediaData;
    mediaData.setMetaData(metaData);
    VraxResource resource;
    resource.setUri(ScratchDirectory::streamUri());
    resource.setMimeType(MimeTypes::Audio::unknown());
    mediaData.setResources({resource});
    roles.setMediaData(mediaData);

    CMVoidReply reply = PlayLogicInterface::playerInstance()->play(roles, false);
    reply.onError(this, [this](const CMError& error) {
        LOG4CPLUS_ERROR(logger, "Failed to start playback: " << error);
        m_playbackApi->pause();
    });
}

void OrvelloPlayLogic::on_playbackApi_dataChanged(const VraxStreamerData& data, long positionMs)
{
    if (this->data().state() == VraxPlayLogicData::Stopped)
        return;
    m_lastStreamerData = data;
    setPlayTime(positionMs);
    VraxPlayLogicData d = this->data();
    VraxPlayLogicStatus status = d.status();
    status.setDuration(data.status().duration());
    d.setStatus(status);
    VraxRoles roles = d.trackRoles();
    VraxMediaData media = roles.mediaData();
    media.setMetaData(data.trackRoles().mediaData().metaData());
    roles.setTitle(data.trackRoles().title());
    roles.setMediaData(media);
    roles.setIcon(data.trackRoles().icon());
    d.setTrackRoles(roles);
    setData(d);
}

VraxPlayLogicStatus OrvelloPlayLogic::translatePlayLogicStatus(const VraxPlayLogicStatus& status)
{
    VraxPlayLogicStatus translated = status;
    translated.setDuration(m_lastStreamerData.status().duration());
    return translated;
}

VraxRoles OrvelloPlayLogic::translateTrackRoles(const VraxRoles& roles)
{
    VraxRoles translated = roles;
    VraxMediaData media = translated.mediaData();
    media.setMetaData(m_lastStreamerData.trackRoles().mediaData().metaData());
    translated.setTitle(m_lastStreamerData.trackRoles().title());
    translated.setMediaData(media);
    translated.setIcon(m_lastStreamerData.trackRoles().icon());
    return translated;
}
