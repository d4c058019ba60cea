#pragma once

#include "model/cmpath.h"
#include "model/cmreply.h"
#include "vrax/vraxvalue.h"

#include <QObject>
#include <QString>
#include <QVariant>
#include <QVariantHash>

class CMNodes;

// Access to the platform's data: settings and the values and actions of every published node.
// getValue and setValue may be called from any thread; invoke from the worker's thread.
class CMAbstractWorker : public QObject
{
    Q_OBJECT
public:
    explicit CMAbstractWorker(QObject* parent = nullptr);

    // The value at path as a QVariant holding its typed hash; an empty hash when nobody set it.
    virtual QVariant getValue(const CMPath& path) const;
    // Stores a value (or hands it to the node's validate handler); the reply gets the outcome.
    virtual void setValue(const CMPath& path, const VraxValue& value,
                          const CMVoidReply& reply = CMVoidReply());
    // Invokes the action at path with value; the action's handler answers the reply.
    virtual void invoke(const CMPath& path, const VraxHash& value, const CMReply<QVariant>& reply);
};

class CMWorker : public CMAbstractWorker
{
    Q_OBJECT
public:
    CMWorker(const QVariantHash& config, const QString& name);

    const QString& name() const { return m_name; }
    const QVariantHash& config() const { return m_config; }

private:
    QVariantHash m_config;
    QString m_name;
};

// A worker that publishes nodes.
class CMNodesWorker : public CMWorker
{
    Q_OBJECT
public:
    CMNodesWorker(const QVariantHash& config, const QString& name);
    ~CMNodesWorker() override;

    CMNodes* nodes() const { return m_nodes; }

private:
    CMNodes* m_nodes;
};

// The platform's root worker, through which every path is reached.
CMAbstractWorker* CMRoot();

// Signature of the entry that a module exports as "worker_create". The first argument is
// reserved by the platform (the desktop host passes null); the configuration is the module's
// section of the device configuration. The platform owns the returned worker.
using CMWorkerCreateFunction = CMWorker* (*)(void* reserved, const QVariantHash* config);
