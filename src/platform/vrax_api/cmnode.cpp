#include "model/cmnode.h"

#include "model/cmnodes.h"
#include "vraxplatform.h"

#include <QMutexLocker>

namespace {
vrax::Platform* platform()
{
    vrax::Platform* instance = vrax::Platform::instance();
    VRAX_ASSERT(instance);
    return instance;
}
} // namespace

CMNode::CMNode(CMNodes* nodes, const CMPath& path) : QObject(nodes), m_nodes(nodes), m_path(path)
{
    platform()->registerNode(this);
}

CMNode::~CMNode()
{
    if (vrax::Platform* instance = vrax::Platform::instance())
        instance->unregisterNode(this);
}

void CMUINode::setTitle(const TrString& title)
{
    m_title = title;
}

TrString CMUINode::title() const
{
    return m_title;
}

CMValueNode::CMValueNode(CMNodes* nodes, const CMPath& path, QMutex* mutex)
    : CMUINode(nodes, path), m_mutex(mutex)
{
}

CMValueNode* CMValueNode::create(CMNodes* nodes, const CMPath& path, QMutex* mutex)
{
    return new CMValueNode(nodes, path, mutex);
}

VraxValue CMValueNode::value() const
{
    QMutexLocker locker(m_mutex);
    return m_value;
}

void CMValueNode::setValue(const VraxValue& value)
{
    {
        QMutexLocker locker(m_mutex);
        if (m_value == value)
            return;
        m_value = value;
    }
    Q_EMIT valueChanged(value);
}

void CMValueNode::registerValueMetaType()
{
    if (QMetaType::type("VraxValue") == QMetaType::UnknownType)
        qRegisterMetaType<VraxValue>("VraxValue");
}

CMActivateNode* CMActivateNode::create(CMNodes* nodes, const CMPath& path)
{
    return new CMActivateNode(nodes, path);
}

CMListRowsNode* CMListRowsNode::create(CMNodes* nodes, const CMPath& path)
{
    return new CMListRowsNode(nodes, path);
}

void CMListRowsNode::rowsAppend(const CMPath& row)
{
    m_rows.append(row);
}

CMNodes::CMNodes(QObject* parent) : QObject(parent) {}

CMNodes::~CMNodes()
{
    // Children go before QObject's own clean-up so that each leaves the tree as a CMNode.
    qDeleteAll(findChildren<CMNode*>(QString(), Qt::FindDirectChildrenOnly));
}

CMNode* CMNodes::node(const CMPath& path) const
{
    for (CMNode* node : all())
        if (node->path() == path)
            return node;
    return nullptr;
}

QList<CMNode*> CMNodes::all() const
{
    return findChildren<CMNode*>(QString(), Qt::FindDirectChildrenOnly);
}
