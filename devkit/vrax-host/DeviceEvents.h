#pragma once

#include "EventHub.h"

#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>

class CMNode;
class CMWorker;
namespace vrax {
enum class AudioPace;
class DevicePlayer;
class Platform;
}

// Tells the open pages what changes on the emulated device: the node tree and its values (the
// play logic among them), the system volume, the audio pipeline and the pairing settings.
// Lives on the main thread. Nodes and the volume say when they change; the pipeline's counters
// and the settings have no such signal, so they are looked at four times a second while a page
// is open, and sent only when they differ.
//
// Events: hello {playLogic, version} (paths), nodes {nodes}, value {path, value}, playlogic,
// volume, pipeline (as the control API answers them), device {productName, serialNumber,
// paired, deviceId}; the log lines come from LogTail.
class DeviceEvents : public QObject
{
    Q_OBJECT
public:
    DeviceEvents(vrax::Platform* platform, vrax::DevicePlayer* player, vrax::AudioPace pace, EventHub* hub);

    // Starts following the worker's nodes (those it publishes later too).
    void watch(CMWorker* worker);
    // What a page that opens now needs first.
    QList<EventHub::Event> snapshot();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void followNodes();
    void publishValues();
    void sample();
    void publishIfChanged(const char* name, const QJsonObject& data, QJsonObject* last);

    vrax::Platform* m_platform;
    vrax::DevicePlayer* m_player;
    vrax::AudioPace m_pace;
    EventHub* m_hub;
    QString m_playLogicPath;
    QSet<QObject*> m_nodeSets;
    QSet<const CMNode*> m_followed;
    QSet<QString> m_changedValues;
    QTimer m_treeChanged;
    QTimer m_valuesChanged;
    QTimer m_sampler;
    QJsonObject m_lastPipeline;
    QJsonObject m_lastDevice;
};
