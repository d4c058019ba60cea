#pragma once

#include "model/cmpath.h"
#include "model/cmrequest.h"
#include "vrax/trstring.h"
#include "vrax/vraxconnect.h"
#include "vrax/vraxvalue.h"

#include <QList>
#include <QMutex>
#include <QObject>

class CMNodes;

// A node of the platform's node tree. Nodes belong to the node set they were created in
// (and through it to its worker); deleting a node removes it from the tree. Nodes are used
// on their worker's thread unless a node says otherwise.
class CMNode : public QObject
{
    Q_OBJECT
public:
    ~CMNode() override;

    const CMPath& path() const { return m_path; }
    CMNodes* nodes() const { return m_nodes; }

protected:
    CMNode(CMNodes* nodes, const CMPath& path);

private:
    CMNodes* m_nodes;
    CMPath m_path;
};

// A node that shows in the device UI: it has a title.
class CMUINode : public CMNode
{
    Q_OBJECT
public:
    void setTitle(const TrString& title);
    TrString title() const;

protected:
    using CMNode::CMNode;

private:
    TrString m_title;
};

// A node that holds a typed value. With a validate handler, a value set from outside is not
// stored: the handler gets the request and answers it.
class CMValueNode : public CMUINode
{
    Q_OBJECT
public:
    // mutex, when given, guards the value so it can be read and written from any thread.
    static CMValueNode* create(CMNodes* nodes, const CMPath& path, QMutex* mutex);

    VraxValue value() const;
    void setValue(const VraxValue& value);

    template <typename Receiver>
    void setValidate(Receiver* receiver,
                     void (Receiver::*handler)(const CMSetDataRequest&, const VraxValue&),
                     Qt::ConnectionType type)
    {
        registerValueMetaType();
        vraxConnect(this, &CMValueNode::validateRequested, receiver, handler, type);
        m_hasValidate = true;
    }
    bool hasValidate() const { return m_hasValidate; }

Q_SIGNALS:
    // A client proposes a value; emitted from the client's thread.
    void validateRequested(const CMSetDataRequest& request, const VraxValue& value);
    void valueChanged(const VraxValue& value);

private:
    CMValueNode(CMNodes* nodes, const CMPath& path, QMutex* mutex);
    static void registerValueMetaType();

    QMutex* m_mutex;
    VraxValue m_value;
    bool m_hasValidate = false;
};

// An action: invoking it delivers the request to its handler, which answers it.
class CMActivateNode : public CMUINode
{
    Q_OBJECT
public:
    static CMActivateNode* create(CMNodes* nodes, const CMPath& path);

    template <typename Receiver>
    void setInvoke(Receiver* receiver, void (Receiver::*handler)(const CMSetDataRequest&),
                   Qt::ConnectionType type)
    {
        vraxConnect(this, &CMActivateNode::invoked, receiver, handler, type);
        m_hasInvoke = true;
    }
    bool hasInvoke() const { return m_hasInvoke; }

Q_SIGNALS:
    void invoked(const CMSetDataRequest& request);

private:
    using CMUINode::CMUINode;
    bool m_hasInvoke = false;
};

// A UI page listing the paths of its rows.
class CMListRowsNode : public CMUINode
{
    Q_OBJECT
public:
    static CMListRowsNode* create(CMNodes* nodes, const CMPath& path);

    void rowsAppend(const CMPath& row);
    const QList<CMPath>& rows() const { return m_rows; }

private:
    using CMUINode::CMUINode;
    QList<CMPath> m_rows;
};
