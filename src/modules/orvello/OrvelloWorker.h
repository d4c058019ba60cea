#pragma once

#include "model/cmworker.h"

#include <QString>
#include <QVariantHash>

class CMValueNode;
class OrvelloUI;

// The module's worker: publishes the service's page and the player library's version node,
// and prepares the scratch directory into which library updates are downloaded.
// Created by worker_create and deleted by the platform, on the platform's main thread.
class OrvelloWorker : public CMNodesWorker
{
    Q_OBJECT
public:
    explicit OrvelloWorker(const QVariantHash& config);
    ~OrvelloWorker() override;

    // Makes sure path exists as a directory (parents included) and is writable.
    bool prepareDirectory(const QString& path) const;

private:
    bool m_initialized;
    OrvelloUI* m_ui;
    CMValueNode* m_sdkVersionNode;
};
