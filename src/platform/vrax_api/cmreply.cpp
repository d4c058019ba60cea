#include "model/cmreply.h"

#include "model/cmrequest.h"
#include "vrax/vraxassert.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <QThread>

#include <mutex>
#include <vector>

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("Vrax");
}

struct CMVoidReply::State
{
    struct Watcher
    {
        bool hasReceiver;
        QPointer<QObject> receiver;
        Qt::ConnectionType type;
        Watch run;
    };

    mutable std::mutex mutex;
    bool finished = false;
    // A cancelled reply may still be answered by its producer; that answer is dropped quietly.
    bool cancelled = false;
    QVariant value;
    CMError error;
    std::vector<Watcher> watchers;
};

namespace {

void dispatch(CMVoidReply::State::Watcher& watcher, const QVariant& value, const CMError& error, bool late)
{
    if (!watcher.hasReceiver) {
        watcher.run(value, error);
        return;
    }
    QObject* receiver = watcher.receiver.data();
    if (!receiver)
        return;
    const bool sameThread = receiver->thread() == QThread::currentThread();
    const bool direct = watcher.type == Qt::DirectConnection
        || (!late && watcher.type == Qt::AutoConnection && sameThread);
    if (direct)
        watcher.run(value, error);
    else
        QMetaObject::invokeMethod(receiver, [run = std::move(watcher.run), value, error] { run(value, error); },
                                  Qt::QueuedConnection);
}

} // namespace

CMVoidReply::CMVoidReply() : d(std::make_shared<State>()) {}

bool CMVoidReply::isFinished() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->finished;
}

CMError CMVoidReply::error() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->error;
}

QVariant CMVoidReply::rawValue() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->value;
}

void CMVoidReply::setValue()
{
    finish(QVariant(), CMError(), true);
}

void CMVoidReply::setError(const CMError& error)
{
    finish(QVariant(), error, true);
}

void CMVoidReply::cancel()
{
    CMError error(TrString(QStringLiteral("CMVoidReply"), "Cancelled"));
    error.insert(CMError::Name(), ErrorCancel());
    finish(QVariant(), error, false, true);
}

QString CMVoidReply::ErrorCancel()
{
    return QStringLiteral("vrax.cancelled");
}

bool CMVoidReply::finish(const QVariant& value, const CMError& error, bool warnIfFinished, bool cancelling)
{
    std::vector<State::Watcher> watchers;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        if (d->finished) {
            if (warnIfFinished && !d->cancelled)
                LOG4CPLUS_WARN(logger, "Reply answered twice; the second answer (" << error << ") is dropped");
            return false;
        }
        d->finished = true;
        d->cancelled = cancelling;
        d->value = value;
        d->error = error;
        watchers.swap(d->watchers);
    }
    for (State::Watcher& watcher : watchers)
        dispatch(watcher, value, error, false);
    return true;
}

void CMVoidReply::addWatcher(QObject* receiver, Watch run, Qt::ConnectionType type) const
{
    State::Watcher watcher{receiver != nullptr, receiver, type, std::move(run)};
    QVariant value;
    CMError error;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        if (!d->finished) {
            d->watchers.push_back(std::move(watcher));
            return;
        }
        value = d->value;
        error = d->error;
    }
    dispatch(watcher, value, error, true);
}

void CMVoidReply::onFinished(QObject* receiver, std::function<void()> handler, Qt::ConnectionType type) const
{
    addWatcher(receiver, [handler](const QVariant&, const CMError&) { handler(); }, type);
}

void CMVoidReply::onError(QObject* receiver, std::function<void(const CMError&)> handler,
                          Qt::ConnectionType type) const
{
    addWatcher(receiver, [handler](const QVariant&, const CMError& error) {
        if (error.isSet())
            handler(error);
    }, type);
}

void CMVoidReply::onSuccess(QObject* receiver, std::function<void()> handler, Qt::ConnectionType type) const
{
    addWatcher(receiver, [handler](const QVariant&, const CMError& error) {
        if (!error.isSet())
            handler();
    }, type);
}

struct CMSetDataRequest::Data
{
    CMPath path;
    QString key;
    QVariant data;
    CMVoidReply reply;
};

CMSetDataRequest::CMSetDataRequest(const CMPath& path, const QString& key, const QVariant& data,
                                   const CMVoidReply& reply)
    : m_d(std::make_shared<const Data>(Data{path, key, data, reply}))
{
}

const CMSetDataRequest::Data* CMSetDataRequest::d() const
{
    return m_d.get();
}

const CMPath& CMSetDataRequest::path() const
{
    VRAX_ASSERT(d());
    return d()->path;
}

const QString& CMSetDataRequest::key() const
{
    VRAX_ASSERT(d());
    return d()->key;
}

const QVariant& CMSetDataRequest::data() const
{
    VRAX_ASSERT(d());
    return d()->data;
}

CMReply<QVariant> CMSetDataRequest::reply() const
{
    VRAX_ASSERT(d());
    return CMReply<QVariant>(d()->reply);
}
