#pragma once

#include "model/cmerror.h"

#include <QObject>
#include <QPointer>
#include <QVariant>

#include <functional>
#include <memory>

// An asynchronous answer, shared by every copy: created pending, answered exactly once with
// a value or an error. Watchers run when the answer comes; a watcher added after the answer
// still runs, from the receiver's event loop. Answering is thread-safe.
//
// A watcher with a receiver runs on the receiver's thread (directly when the answer is given
// on that thread and the connection type allows it, else queued) and is dropped when the
// receiver is destroyed first. A watcher without receiver runs on the answering thread, or at
// once when it is added after the answer.
class CMVoidReply
{
public:
    CMVoidReply();

    bool isFinished() const;
    // The error of a finished reply; empty while pending and after success.
    CMError error() const;
    bool isError() const { return error().isSet(); }

    // Answer with success. A reply that is already answered keeps its first answer, and a
    // second answer is logged as a programming error.
    void setValue();
    void setError(const CMError& error);
    // Answers with the cancel error; nothing happens when the reply is already answered. The
    // producer's later answer to a cancelled reply is dropped without complaint.
    void cancel();

    // Name of the error that cancel() sets.
    static QString ErrorCancel();

    void onFinished(QObject* receiver, std::function<void()> handler,
                    Qt::ConnectionType type = Qt::AutoConnection) const;
    void onError(QObject* receiver, std::function<void(const CMError&)> handler,
                 Qt::ConnectionType type = Qt::AutoConnection) const;
    void onSuccess(QObject* receiver, std::function<void()> handler,
                   Qt::ConnectionType type = Qt::AutoConnection) const;

    // Copies share one answer.
    friend bool operator==(const CMVoidReply& a, const CMVoidReply& b) { return a.d == b.d; }

    struct State; // shared answer, defined by the platform

protected:
    // Answers once; returns false when the reply was answered already.
    bool finish(const QVariant& value, const CMError& error, bool warnIfFinished, bool cancelling = false);
    QVariant rawValue() const;
    // run gets the answer (value and error) once it is given.
    using Watch = std::function<void(const QVariant& value, const CMError& error)>;
    void addWatcher(QObject* receiver, Watch run, Qt::ConnectionType type) const;

    std::shared_ptr<State> d;
};

template <typename T>
class CMReply : public CMVoidReply
{
public:
    CMReply() = default;
    // Shares the answer of another reply.
    explicit CMReply(const CMVoidReply& other) : CMVoidReply(other) {}

    void setValue(const T& value) { finish(QVariant::fromValue(value), CMError(), true); }
    T value() const { return qvariant_cast<T>(rawValue()); }

    // The handler gets the value once the reply succeeded.
    void onSuccess(QObject* receiver, std::function<void(const T&)> handler,
                   Qt::ConnectionType type = Qt::AutoConnection) const
    {
        addWatcher(receiver, [handler](const QVariant& value, const CMError& error) {
            if (!error.isSet())
                handler(qvariant_cast<T>(value));
        }, type);
    }
};

template <>
class CMReply<void> : public CMVoidReply
{
public:
    CMReply() = default;
    CMReply(const CMVoidReply& other) : CMVoidReply(other) {}
};

Q_DECLARE_METATYPE(CMVoidReply)
