#include "DeviceEvents.h"

#include "DeviceState.h"

#include "model/cmnode.h"
#include "model/cmnodes.h"
#include "model/cmworker.h"
#include "vrax/vraxpaths.h"
#include "vrax_api/vraxplatform.h"
#include "vrax_api_play/deviceplayer.h"
#include "vrax_api_play/systemvolume.h"

#include <QChildEvent>

#include <utility>

namespace {
constexpr int kSampleIntervalMs = 250;
}

DeviceEvents::DeviceEvents(vrax::Platform* platform, vrax::DevicePlayer* player, vrax::AudioPace pace, EventHub* hub)
    : m_platform(platform), m_player(player), m_pace(pace), m_hub(hub),
      m_playLogicPath(VraxOrvelloPlayLogicPath().toString())
{
    // Changes come in bursts (a new playback sets roles, status and state one after another):
    // one look once the burst is over.
    m_treeChanged.setSingleShot(true);
    m_treeChanged.setInterval(0);
    connect(&m_treeChanged, &QTimer::timeout, this, &DeviceEvents::followNodes);
    m_valuesChanged.setSingleShot(true);
    m_valuesChanged.setInterval(0);
    connect(&m_valuesChanged, &QTimer::timeout, this, &DeviceEvents::publishValues);
    m_sampler.setInterval(kSampleIntervalMs);
    connect(&m_sampler, &QTimer::timeout, this, &DeviceEvents::sample);

    connect(&vrax::SystemVolume::instance(), &vrax::SystemVolume::changed, this,
            [this] { m_hub->publish(EventHub::event("volume", deviceState::volume())); });
    connect(m_player, &vrax::DevicePlayer::senderChanged, this, [this] {
        publishIfChanged("pipeline", deviceState::pipeline(*m_player, m_pace), &m_lastPipeline);
    });
}

void DeviceEvents::watch(CMWorker* worker)
{
    // A node is a child of its node set from its first moment, so the set's child events say
    // when nodes come and go, also those published long after the worker was created.
    if (auto* nodesWorker = qobject_cast<CMNodesWorker*>(worker)) {
        nodesWorker->nodes()->installEventFilter(this);
        m_nodeSets.insert(nodesWorker->nodes());
    }
    followNodes();
}

bool DeviceEvents::eventFilter(QObject* watched, QEvent* event)
{
    // The node is still being constructed here: it is looked at once it is complete.
    if (event->type() == QEvent::ChildAdded || event->type() == QEvent::ChildRemoved)
        m_treeChanged.start();
    return QObject::eventFilter(watched, event);
}

void DeviceEvents::followNodes()
{
    for (const CMPath& path : m_platform->nodePaths()) {
        CMNode* node = m_platform->node(path);
        if (!node)
            continue;
        if (!m_nodeSets.contains(node->nodes())) {
            node->nodes()->installEventFilter(this);
            m_nodeSets.insert(node->nodes());
            connect(node->nodes(), &QObject::destroyed, this, [this](QObject* set) { m_nodeSets.remove(set); });
        }
        auto* valueNode = qobject_cast<CMValueNode*>(node);
        if (!valueNode || m_followed.contains(valueNode))
            continue;
        m_followed.insert(valueNode);
        connect(valueNode, &QObject::destroyed, this, [this, valueNode] { m_followed.remove(valueNode); });
        // Values may be set from any thread; the change is looked at here, on the main thread.
        const QString pathText = path.toString();
        connect(valueNode, &CMValueNode::valueChanged, this, [this, pathText] {
            m_changedValues.insert(pathText);
            m_valuesChanged.start();
        });
    }
    m_hub->publish(EventHub::event("nodes", QJsonObject{{QStringLiteral("nodes"), deviceState::nodes(*m_platform)}}));
    m_hub->publish(EventHub::event("playlogic", deviceState::playLogic(m_playLogicPath)));
}

void DeviceEvents::publishValues()
{
    const QSet<QString> changed = std::exchange(m_changedValues, {});
    for (const QString& path : changed) {
        if (path == m_playLogicPath) {
            m_hub->publish(EventHub::event("playlogic", deviceState::playLogic(path)));
            continue;
        }
        auto* node = qobject_cast<CMValueNode*>(m_platform->node(CMPath(path)));
        if (!node)
            continue;
        QJsonObject data{{QStringLiteral("path"), path}};
        deviceState::insertValue(&data, path, node->value().toVariant());
        m_hub->publish(EventHub::event("value", data));
    }
}

void DeviceEvents::publishIfChanged(const char* name, const QJsonObject& data, QJsonObject* last)
{
    if (data == *last)
        return;
    *last = data;
    m_hub->publish(EventHub::event(name, data));
}

void DeviceEvents::sample()
{
    if (m_hub->subscribers() == 0) {
        m_sampler.stop();
        return;
    }
    publishIfChanged("pipeline", deviceState::pipeline(*m_player, m_pace), &m_lastPipeline);
    publishIfChanged("device", deviceState::device(), &m_lastDevice);
}

QList<EventHub::Event> DeviceEvents::snapshot()
{
    m_sampler.start();
    return {EventHub::event("hello", QJsonObject{{QStringLiteral("playLogic"), m_playLogicPath},
                                                 {QStringLiteral("version"), VraxOrvelloSdkVersion().toString()}}),
            EventHub::event("nodes", QJsonObject{{QStringLiteral("nodes"), deviceState::nodes(*m_platform)}}),
            EventHub::event("playlogic", deviceState::playLogic(m_playLogicPath)),
            EventHub::event("volume", deviceState::volume()),
            EventHub::event("pipeline", deviceState::pipeline(*m_player, m_pace)),
            EventHub::event("device", deviceState::device())};
}
