#include "deviceplayer.h"

#include "playframeworkaccess.h"

#include "audiopipeline.h"
#include "vrax/vraxassert.h"

#include <QMetaObject>

namespace vrax {

namespace {
DevicePlayer* s_instance = nullptr;
const QString kSmt2Scheme = QStringLiteral("smt2://");

CMError playerError(const char* source, const QList<TrArg>& args = {})
{
    return CMError(TrString(QStringLiteral("vrax::DevicePlayer"), source, args));
}

CMVoidReply failed(const CMError& error)
{
    CMVoidReply reply;
    reply.setError(error);
    return reply;
}

// The player's one sink, lent to each pipeline it opens: a stream on another socket goes on in
// the same recording instead of starting it again. One pipeline at a time uses it.
class LentSink : public AudioSink
{
public:
    explicit LentSink(std::shared_ptr<AudioSink> sink) : m_sink(std::move(sink)) {}
    bool startSequence(const audioUtils::PcmAudioInfo& format, std::string* error) override
    {
        return m_sink->startSequence(format, error);
    }
    bool write(const std::uint8_t* data, std::size_t size, std::string* error) override
    {
        return m_sink->write(data, size, error);
    }
    void flush() override { m_sink->flush(); }
    void endSequence() override { m_sink->endSequence(); }
    void close() override { m_sink->close(); }
    bool pacesItself() const override { return m_sink->pacesItself(); }
    std::uint64_t underruns() const override { return m_sink->underruns(); }

private:
    std::shared_ptr<AudioSink> m_sink;
};
} // namespace

DevicePlayer::DevicePlayer(const AudioOutput& output, AudioPace pace)
    : m_output(std::make_unique<AudioOutput>(output)), m_pace(pace)
{
    VRAX_ASSERT(s_instance == nullptr);
    s_instance = this;
    m_clock.setInterval(1000);
    connect(&m_clock, &QTimer::timeout, this, &DevicePlayer::onClock);
}

DevicePlayer::~DevicePlayer()
{
    m_pipeline.reset();
    s_instance = nullptr;
}

DevicePlayer* DevicePlayer::instance()
{
    return s_instance;
}

CMVoidReply DevicePlayer::play(const VraxRoles& roles, bool startPaused)
{
    const CMPath path = roles.mediaData().metaData().playLogicPath();
    PlayLogicBase* logic = PlayFrameworkAccess::find(path);
    if (!logic)
        return failed(playerError("There is no play logic at %1", {path.toString()}));
    if (m_current && m_current != logic)
        close(m_current);
    m_lastRoles = roles;
    return logic->play(roles, startPaused);
}

CMVoidReply DevicePlayer::pause()
{
    if (!m_current)
        return failed(playerError("Nothing is playing"));
    return m_current->pause();
}

CMVoidReply DevicePlayer::stop()
{
    if (!m_current) {
        CMVoidReply reply;
        reply.setValue();
        return reply;
    }
    return m_current->stop();
}

CMVoidReply DevicePlayer::resume()
{
    if (m_current && m_current->data().state() == VraxPlayLogicData::Paused)
        return m_current->pause();
    if (m_current && m_current->data().state() != VraxPlayLogicData::Stopped) {
        CMVoidReply reply;
        reply.setValue();
        return reply;
    }
    if (m_lastRoles.mediaData().resources().isEmpty())
        return failed(playerError("Nothing to play"));
    return play(m_lastRoles, false);
}

VraxPlayLogicData DevicePlayer::data() const
{
    return m_current ? m_current->data() : VraxPlayLogicData();
}

bool DevicePlayer::ensurePipeline(const std::string& socketPath, QString* error)
{
    if (m_pipeline && m_pipeline->socketPath() == socketPath && m_pipeline->isListening())
        return true;
    if (!m_pipeline || m_pipeline->socketPath() != socketPath) {
        std::string why;
        if (!m_sink)
            m_sink = makeAudioSink(*m_output, &why);
        if (!m_sink) {
            *error = QString::fromStdString(why);
            return false;
        }
        // The pipeline it replaces is stopped before this one starts: the sink is never shared.
        m_pipeline = std::make_unique<AudioPipeline>(socketPath, std::make_unique<LentSink>(m_sink), m_pace);
        if (!m_traceFile.empty())
            m_pipeline->setTraceFile(m_traceFile);
        // The hooks run on the pipeline's thread, which is joined before this player goes; what
        // they post is dropped by Qt if the player is gone by the time it would run.
        AudioPipelineHooks hooks;
        hooks.audioArrived = [this](const std::uint8_t*, std::size_t) {
            // One event per burst of audio, not one per chunk.
            if (!m_audioPosted.exchange(true))
                QMetaObject::invokeMethod(this, &DevicePlayer::onAudio, Qt::QueuedConnection);
        };
        hooks.senderConnected = [this] {
            QMetaObject::invokeMethod(this, [this] { Q_EMIT senderChanged(true); }, Qt::QueuedConnection);
        };
        hooks.senderDisconnected = [this] {
            QMetaObject::invokeMethod(this, [this] { Q_EMIT senderChanged(false); }, Qt::QueuedConnection);
        };
        m_pipeline->setHooks(std::move(hooks));
    }
    std::string why;
    if (!m_pipeline->start(&why)) {
        *error = QString::fromStdString(why);
        return false;
    }
    return true;
}

CMVoidReply DevicePlayer::open(PlayLogicBase* logic, const VraxRoles& roles)
{
    const QList<VraxResource> resources = roles.mediaData().resources();
    const QString uri = resources.isEmpty() ? QString() : resources.first().uri();
    if (!uri.startsWith(kSmt2Scheme) || uri.size() == kSmt2Scheme.size())
        return failed(playerError("Cannot play %1: only smt2:// streams are supported", {uri}));
    QString why;
    if (!ensurePipeline(uri.mid(kSmt2Scheme.size()).toStdString(), &why))
        return failed(playerError("Cannot open %1: %2", {uri, why}));
    if (m_current && m_current != logic)
        close(m_current);
    m_current = logic;
    m_bytesAtOpen = m_pipeline->counters().bytes;
    m_audioPosted = false;
    m_pipeline->setReadingPaused(false);
    PlayFrameworkAccess::publishTrackRoles(logic, roles);
    PlayFrameworkAccess::publishStatus(logic, VraxPlayLogicStatus());
    PlayFrameworkAccess::setState(logic, VraxPlayLogicData::Starting);
    m_clock.start();
    CMVoidReply reply;
    reply.setValue();
    return reply;
}

void DevicePlayer::close(PlayLogicBase* logic)
{
    if (!logic || logic != m_current)
        return;
    forget(logic);
    PlayFrameworkAccess::playbackEnded(logic);
}

void DevicePlayer::forget(PlayLogicBase* logic)
{
    if (!logic || logic != m_current)
        return;
    m_current = nullptr;
    m_clock.stop();
    if (m_pipeline)
        m_pipeline->stop();
}

void DevicePlayer::setPaused(PlayLogicBase* logic, bool paused)
{
    if (logic == m_current && m_pipeline)
        m_pipeline->setReadingPaused(paused);
}

void DevicePlayer::onAudio()
{
    m_audioPosted = false;
    if (m_current && m_current->data().state() == VraxPlayLogicData::Starting)
        PlayFrameworkAccess::setState(m_current, VraxPlayLogicData::Playing);
}

void DevicePlayer::onClock()
{
    if (!m_current || !m_pipeline || m_current->data().state() != VraxPlayLogicData::Playing)
        return;
    const AudioPipelineCounters counters = m_pipeline->counters();
    const std::uint64_t bytesPerSecond = std::uint64_t(counters.format.sampleRate()) * counters.format.channels() * 2;
    if (bytesPerSecond == 0)
        return;
    PlayFrameworkAccess::playTimeChanged(m_current, (counters.bytes - m_bytesAtOpen) * 1000 / bytesPerSecond);
}

} // namespace vrax
