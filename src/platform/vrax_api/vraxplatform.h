#pragma once

#include "model/cmpath.h"
#include "model/cmreply.h"
#include "settingsstore.h"
#include "vrax/vraxvalue.h"

#include <QHash>
#include <QList>

#include <memory>
#include <mutex>

class CMAbstractWorker;
class CMNode;

namespace vrax {

// The desktop platform of one process: the node tree, the settings store and the root worker
// that reaches both. One exists at a time; the module's CMRoot() is its root while it lives.
// Paths under "settings/" are settings, every other path names a node.
class Platform
{
public:
    Platform();
    ~Platform();
    Platform(const Platform&) = delete;
    Platform& operator=(const Platform&) = delete;

    // The platform of this process, or null.
    static Platform* instance();

    SettingsStore& settings() { return m_settings; }
    CMAbstractWorker* root() const { return m_root.get(); }

    static bool isSettingsPath(const CMPath& path);

    // Thread-safe. The typed hash of a setting or value node; an empty hash otherwise.
    QVariant getValue(const CMPath& path) const;
    // Thread-safe. Stores a setting, stores a node's value, or hands it to the node's validate
    // handler; the reply gets the outcome. A setting the file cannot take yet is in effect but
    // answered with an error that says it is not saved yet (SettingsStore::setValue).
    void setValue(const CMPath& path, const VraxValue& value, const CMVoidReply& reply);
    // Hands value to the action node at path; its handler answers the reply.
    void invoke(const CMPath& path, const VraxHash& value, const CMReply<QVariant>& reply);

    // The published node at path, or null. The node belongs to its worker's thread.
    CMNode* node(const CMPath& path) const;
    QList<CMPath> nodePaths() const;

    // Called by nodes as they are created and destroyed.
    void registerNode(CMNode* node);
    void unregisterNode(CMNode* node);

private:
    bool pathIsFree(const CMPath& path) const;

    SettingsStore m_settings;
    std::unique_ptr<CMAbstractWorker> m_root;
    mutable std::recursive_mutex m_nodesMutex;
    QHash<CMPath, CMNode*> m_nodes;
};

} // namespace vrax
