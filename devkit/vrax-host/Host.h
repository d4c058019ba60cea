#pragma once

#include "ControlApi.h"
#include "HostOptions.h"

#include <QJsonObject>
#include <QLibrary>
#include <QObject>

#include <memory>

class CMWorker;
namespace vrax {
class Platform;
}

// One emulated device: the desktop platform, the module's worker and the control API.
// Lives on the main thread.
class Host : public QObject
{
    Q_OBJECT
public:
    explicit Host(const HostOptions& options);
    ~Host() override;

    // Loads settings, the module and its worker, and starts the control API; false with a
    // message for the user when any of it fails (nothing is left running then).
    bool start(QString* error);
    // Deletes the worker and stops serving.
    void stop();

    int controlPort() const { return m_api.port(); }

private:
    void addRoutes();
    QJsonObject describeNode(const class CMNode* node) const;

    HostOptions m_options;
    std::unique_ptr<vrax::Platform> m_platform;
    QLibrary m_module;
    CMWorker* m_worker = nullptr;
    ControlApi m_api;
};
