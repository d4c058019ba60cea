#include "vraxplatform.h"

#include "model/cmnode.h"
#include "model/cmworker.h"
#include "vrax/vraxassert.h"

#include <atomic>

namespace vrax {

namespace {
std::atomic<Platform*> s_instance{nullptr};

CMError platformError(const char* source, const QList<TrArg>& args)
{
    return CMError(TrString(QStringLiteral("vrax::Platform"), source, args));
}
} // namespace

Platform::Platform()
{
    Platform* expected = nullptr;
    const bool onlyPlatform = s_instance.compare_exchange_strong(expected, this);
    VRAX_ASSERT(onlyPlatform);
    m_root = std::make_unique<CMAbstractWorker>();
    m_root->setObjectName(QStringLiteral("root"));
}

Platform::~Platform()
{
    m_root.reset();
    s_instance = nullptr;
}

Platform* Platform::instance()
{
    return s_instance.load();
}

bool Platform::isSettingsPath(const CMPath& path)
{
    return path.startsWith(CMPath(QStringLiteral("settings")));
}

QVariant Platform::getValue(const CMPath& path) const
{
    if (isSettingsPath(path))
        return m_settings.value(path).toVariant();
    std::lock_guard<std::recursive_mutex> lock(m_nodesMutex);
    if (auto* valueNode = qobject_cast<CMValueNode*>(m_nodes.value(path)))
        return valueNode->value().toVariant();
    return QVariantHash();
}

void Platform::setValue(const CMPath& path, const VraxValue& value, const CMVoidReply& reply)
{
    CMVoidReply answer(reply);
    if (isSettingsPath(path)) {
        QString why;
        bool unsaved = false;
        if (m_settings.setValue(path, value, &why, &unsaved))
            answer.setValue();
        else if (unsaved)
            answer.setError(platformError("%1 is not saved yet: %2", {path.toString(), why}));
        else
            answer.setError(platformError("Cannot store %1: %2", {path.toString(), why}));
        return;
    }
    std::unique_lock<std::recursive_mutex> lock(m_nodesMutex);
    auto* valueNode = qobject_cast<CMValueNode*>(m_nodes.value(path));
    if (!valueNode) {
        lock.unlock();
        answer.setError(platformError("There is no value at %1", {path.toString()}));
        return;
    }
    if (valueNode->hasValidate()) {
        Q_EMIT valueNode->validateRequested(
            CMSetDataRequest(path, QStringLiteral("value"), value.toVariant(), reply), value);
        return;
    }
    valueNode->setValue(value);
    lock.unlock();
    answer.setValue();
}

void Platform::invoke(const CMPath& path, const VraxHash& value, const CMReply<QVariant>& reply)
{
    std::unique_lock<std::recursive_mutex> lock(m_nodesMutex);
    auto* action = qobject_cast<CMActivateNode*>(m_nodes.value(path));
    if (!action || !action->hasInvoke()) {
        lock.unlock();
        CMReply<QVariant>(reply).setError(platformError("There is no action at %1", {path.toString()}));
        return;
    }
    Q_EMIT action->invoked(CMSetDataRequest(path, QStringLiteral("value"), value.toVariant(), reply));
}

CMNode* Platform::node(const CMPath& path) const
{
    std::lock_guard<std::recursive_mutex> lock(m_nodesMutex);
    return m_nodes.value(path);
}

QList<CMPath> Platform::nodePaths() const
{
    std::lock_guard<std::recursive_mutex> lock(m_nodesMutex);
    return m_nodes.keys();
}

bool Platform::pathIsFree(const CMPath& path) const
{
    return !path.isEmpty() && !isSettingsPath(path) && !m_nodes.contains(path);
}

void Platform::registerNode(CMNode* node)
{
    std::lock_guard<std::recursive_mutex> lock(m_nodesMutex);
    VRAX_ASSERT(pathIsFree(node->path()));
    m_nodes.insert(node->path(), node);
}

void Platform::unregisterNode(CMNode* node)
{
    std::lock_guard<std::recursive_mutex> lock(m_nodesMutex);
    if (m_nodes.value(node->path()) == node)
        m_nodes.remove(node->path());
}

} // namespace vrax
