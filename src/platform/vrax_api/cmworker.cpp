#include "model/cmworker.h"

#include "model/cmnodes.h"
#include "vrax/vraxassert.h"
#include "vraxplatform.h"

namespace {
vrax::Platform* platform()
{
    vrax::Platform* instance = vrax::Platform::instance();
    VRAX_ASSERT(instance);
    return instance;
}
} // namespace

CMAbstractWorker::CMAbstractWorker(QObject* parent) : QObject(parent) {}

QVariant CMAbstractWorker::getValue(const CMPath& path) const
{
    return platform()->getValue(path);
}

void CMAbstractWorker::setValue(const CMPath& path, const VraxValue& value, const CMVoidReply& reply)
{
    platform()->setValue(path, value, reply);
}

void CMAbstractWorker::invoke(const CMPath& path, const VraxHash& value, const CMReply<QVariant>& reply)
{
    platform()->invoke(path, value, reply);
}

CMWorker::CMWorker(const QVariantHash& config, const QString& name) : m_config(config), m_name(name)
{
    setObjectName(name);
}

CMNodesWorker::CMNodesWorker(const QVariantHash& config, const QString& name)
    : CMWorker(config, name), m_nodes(new CMNodes(this))
{
}

CMNodesWorker::~CMNodesWorker()
{
    delete m_nodes;
}

CMAbstractWorker* CMRoot()
{
    return platform()->root();
}
