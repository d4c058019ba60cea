#pragma once

#include "model/cmpath.h"
#include "model/cmreply.h"

#include <QMetaType>
#include <QVariant>

#include <memory>

// A request to set data at a path, delivered to a node's validate or invoke handler. The
// handler answers the request's reply (the caller's reply, shared).
class CMSetDataRequest
{
public:
    // A request without data; using it is a programming error.
    CMSetDataRequest() = default;
    CMSetDataRequest(const CMPath& path, const QString& key, const QVariant& data,
                     const CMVoidReply& reply);

    const CMPath& path() const;
    const QString& key() const;
    const QVariant& data() const;
    CMReply<QVariant> reply() const;

    bool isNull() const { return !m_d; }

private:
    struct Data;
    const Data* d() const;

    std::shared_ptr<const Data> m_d;
};

Q_DECLARE_METATYPE(CMSetDataRequest)
