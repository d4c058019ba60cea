#include "play/playlogic.h"

#include "deviceplayer.h"
#include "playframeworkaccess.h"

#include "model/cmnode.h"
#include "play/vraxplaylogicdata.h"

namespace {

CMError notSupported(const char* what)
{
    return CMError(TrString(QStringLiteral("PlayLogicBase"), "%1 is not supported", {TrArg(QString::fromUtf8(what))}));
}

QHash<CMPath, PlayLogicBase*>& registry()
{
    static QHash<CMPath, PlayLogicBase*> logics;
    return logics;
}

vrax::DevicePlayer* player()
{
    vrax::DevicePlayer* instance = vrax::DevicePlayer::instance();
    VRAX_ASSERT(instance);
    return instance;
}

} // namespace

PlayLogicInterface* PlayLogicInterface::playerInstance()
{
    return player();
}

PlayLogicBase::PlayLogicBase(CMNodes* nodes, const CMPath& path)
    : m_path(path), m_node(CMValueNode::create(nodes, path, nullptr))
{
    m_node->setValue(VraxValue(VraxPlayLogicData().toVariant()));
    registry().insert(path, this);
}

PlayLogicBase::~PlayLogicBase()
{
    if (vrax::DevicePlayer* instance = vrax::DevicePlayer::instance())
        instance->forget(this);
    registry().remove(m_path);
    delete m_node;
}

PlayLogicBase* PlayFrameworkAccess::find(const CMPath& path)
{
    return registry().value(path);
}

VraxPlayLogicData PlayLogicBase::data() const
{
    std::lock_guard<std::mutex> lock(m_dataMutex);
    return m_data;
}

void PlayLogicBase::setData(const VraxPlayLogicData& data)
{
    {
        std::lock_guard<std::mutex> lock(m_dataMutex);
        if (data == m_data)
            return;
        m_data = data;
    }
    m_node->setValue(VraxValue(data.toVariant()));
    Q_EMIT dataChanged(data);
}

void PlayLogicBase::setPlayTime(long long ms)
{
    VraxPlayLogicData d = data();
    d.setPlayTime(ms);
    setData(d);
}

void PlayLogicBase::setState(int state)
{
    VraxPlayLogicData d = data();
    d.setState(state);
    setData(d);
}

void PlayLogicBase::publishTrackRoles(const VraxRoles& roles)
{
    VraxPlayLogicData d = data();
    d.setTrackRoles(translateTrackRoles(roles));
    setData(d);
}

void PlayLogicBase::publishStatus(const VraxPlayLogicStatus& status)
{
    VraxPlayLogicData d = data();
    d.setStatus(translatePlayLogicStatus(status));
    setData(d);
}

CMSetDataRequest PlayLogicBase::newRequest(const QVariant& data, const CMVoidReply& reply) const
{
    return CMSetDataRequest(m_path, VraxRoles::Value(), data, reply);
}

CMVoidReply PlayLogicBase::play(const VraxRoles& roles, bool startPaused)
{
    CMVoidReply reply;
    playInternal(newRequest(roles.toVariant(), reply), VraxPlayLogicPlayArgs(roles, startPaused));
    return reply;
}

CMVoidReply PlayLogicBase::pause()
{
    CMVoidReply reply;
    pauseInternal(newRequest(QVariant(), reply));
    return reply;
}

CMVoidReply PlayLogicBase::stop()
{
    CMVoidReply reply;
    stopInternal(newRequest(QVariant(), reply));
    return reply;
}

CMVoidReply PlayLogicBase::next()
{
    CMVoidReply reply;
    nextInternal(newRequest(QVariant(), reply));
    return reply;
}

CMVoidReply PlayLogicBase::previous()
{
    CMVoidReply reply;
    previousInternal(newRequest(QVariant(), reply));
    return reply;
}

CMVoidReply PlayLogicBase::seek(long long ms)
{
    CMVoidReply reply;
    seekInternal(newRequest(ms, reply), ms);
    return reply;
}

void PlayLogicBase::pauseInternal(const CMSetDataRequest& request)
{
    request.reply().setValue(QVariant());
}

VraxRoles PlayLogicBase::translateTrackRoles(const VraxRoles& roles)
{
    return roles;
}

VraxPlayLogicStatus PlayLogicBase::translatePlayLogicStatus(const VraxPlayLogicStatus& status)
{
    return status;
}

void PlayLogicBase::playbackEnded()
{
    VraxPlayLogicData d = data();
    d.setState(VraxPlayLogicData::Stopped);
    d.setControls(VraxPlayLogicControls());
    setData(d);
}

void PlayLogicBase::playTimeChangedInternal(long long ms)
{
    setPlayTime(ms);
}

void PlayLogicBase::stopInternal(const CMSetDataRequest& request)
{
    player()->close(this);
    request.reply().setValue(QVariant());
}

void PlayLogicBase::nextInternal(const CMSetDataRequest& request)
{
    request.reply().setError(notSupported("Next"));
}

void PlayLogicBase::previousInternal(const CMSetDataRequest& request)
{
    request.reply().setError(notSupported("Previous"));
}

void PlayLogicBase::seekInternal(const CMSetDataRequest& request, long long)
{
    request.reply().setError(notSupported("Seek"));
}

StreamerPlayLogic::StreamerPlayLogic(CMNodes* nodes, const CMPath& path) : PlayLogicBase(nodes, path) {}

CMVoidReply StreamerPlayLogic::sendPlayCommand(const VraxRoles& roles, const QHash<QString, QVariant>&)
{
    return player()->open(this, roles);
}

void StreamerPlayLogic::stopPlayLogic()
{
    player()->close(this);
}

void StreamerPlayLogic::pauseInternal(const CMSetDataRequest& request)
{
    const int state = data().state();
    if (state == VraxPlayLogicData::Playing || state == VraxPlayLogicData::Paused) {
        const bool pausing = state == VraxPlayLogicData::Playing;
        setState(pausing ? VraxPlayLogicData::Paused : VraxPlayLogicData::Playing);
        player()->setPaused(this, pausing);
    }
    request.reply().setValue(QVariant());
}
