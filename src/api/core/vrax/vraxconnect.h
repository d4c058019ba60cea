#pragma once

#include "vrax/vraxassert.h"

#include <QMetaMethod>
#include <QObject>

// True when a connection of this type can carry the signal's arguments: across threads
// (or queued) every argument type but a pointer must be a registered meta type.
bool verifyConnectionSignalParameters(const QObject* sender, const QMetaMethod& signal,
                                      const QObject* receiver, Qt::ConnectionType type);

// The platform's connect: QObject::connect with its preconditions checked. A connection that
// could not carry its arguments, or did not come into being, is a programming error and
// aborts with the failed assertion.
template <typename Sender, typename Signal, typename Receiver, typename Slot>
QMetaObject::Connection vraxConnect(const Sender* sender, Signal signal, const Receiver* receiver,
                                    Slot slot, Qt::ConnectionType type = Qt::AutoConnection)
{
    const QMetaMethod signalMethod = QMetaMethod::fromSignal(signal);
    VRAX_ASSERT(verifyConnectionSignalParameters(sender, signalMethod, receiver, type));
    const QMetaObject::Connection connection = QObject::connect(sender, signal, receiver, slot, type);
    VRAX_ASSERT(connection);
    return connection;
}
