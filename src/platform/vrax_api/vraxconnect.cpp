#include "vrax/vraxconnect.h"

#include "model/cmerror.h"
#include "model/cmpath.h"
#include "model/cmrequest.h"
#include "vrax/trstring.h"
#include "vrax/vraxvalue.h"

#include <QThread>

bool verifyConnectionSignalParameters(const QObject* sender, const QMetaMethod& signal,
                                      const QObject* receiver, Qt::ConnectionType type)
{
    if (!sender || !signal.isValid())
        return false;
    const bool queued = type == Qt::QueuedConnection || type == Qt::BlockingQueuedConnection
        || (type == Qt::AutoConnection && receiver && receiver->thread() != sender->thread());
    if (!queued)
        return true;
    const QList<QByteArray> typeNames = signal.parameterTypes();
    for (int i = 0; i < signal.parameterCount(); ++i) {
        if (typeNames.value(i).endsWith('*'))
            continue;
        if (signal.parameterType(i) == QMetaType::UnknownType)
            return false;
    }
    return true;
}

// The platform's value types travel through queued connections from the start.
static void registerPlatformMetaTypes()
{
    qRegisterMetaType<CMPath>("CMPath");
    qRegisterMetaType<TrString>("TrString");
    qRegisterMetaType<CMError>("CMError");
    qRegisterMetaType<CMVoidReply>("CMVoidReply");
    qRegisterMetaType<CMSetDataRequest>("CMSetDataRequest");
    qRegisterMetaType<VraxHash>("VraxHash");
}
Q_CONSTRUCTOR_FUNCTION(registerPlatformMetaTypes)
