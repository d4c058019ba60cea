#pragma once

#include "ControlApi.h"
#include "EventHub.h"
#include "HostOptions.h"

#include <QJsonObject>
#include <QLibrary>
#include <QObject>

#include <log4cplus/appender.h>

#include <memory>

class CMWorker;
class DeviceEvents;
namespace vrax {
class DevicePlayer;
class Platform;
}

// One emulated device: the desktop platform, the module's worker, the control API and the
// device's web page. Lives on the main thread.
class Host : public QObject
{
    Q_OBJECT
public:
    explicit Host(const HostOptions& options);
    ~Host() override;

    // Loads settings, the module and its worker, and starts the control API and the page; false
    // with a message for the user when any of it fails (nothing is left running then).
    bool start(QString* error);
    // Ends the pages' event streams, stops serving and deletes the worker.
    void stop();

    int controlPort() const { return m_api.port(); }

private:
    void addRoutes();
    bool addPage(QString* error);

    HostOptions m_options;
    std::unique_ptr<vrax::Platform> m_platform;
    std::unique_ptr<vrax::DevicePlayer> m_player;
    QLibrary m_module;
    CMWorker* m_worker = nullptr;
    EventHub m_hub;
    log4cplus::SharedAppenderPtr m_logTail;
    std::unique_ptr<DeviceEvents> m_events;
    ControlApi m_api;
};
