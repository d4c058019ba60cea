#pragma once

#include "model/cmpath.h"

#include <QList>
#include <QObject>

class CMNode;

// The set of nodes a worker publishes. It owns them; nodes left when it is destroyed go with it.
class CMNodes : public QObject
{
    Q_OBJECT
public:
    explicit CMNodes(QObject* parent = nullptr);
    ~CMNodes() override;

    // The node of this set at path, or null.
    CMNode* node(const CMPath& path) const;
    QList<CMNode*> all() const;
};
