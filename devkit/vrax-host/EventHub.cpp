#include "EventHub.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>

EventHub::Event EventHub::event(const char* name, const QJsonObject& data)
{
    return Event{QByteArray(name), QJsonDocument(data).toJson(QJsonDocument::Compact)};
}

QByteArray EventHub::wire(const Event& event)
{
    return "event: " + event.name + "\ndata: " + event.data + "\n\n";
}

EventHub::EventHub(int maxSubscribers, int logLines, std::size_t maxQueued)
    : m_maxSubscribers(maxSubscribers), m_logLines(logLines), m_maxQueued(maxQueued)
{
}

EventHub::~EventHub()
{
    close();
}

void EventHub::pushLocked(const Event& event)
{
    for (Subscription* subscription : m_subscriptions) {
        if (subscription->m_dropped)
            continue;
        if (subscription->m_queue.size() >= m_maxQueued) {
            subscription->m_dropped = true;
            subscription->m_queue.clear();
            continue;
        }
        subscription->m_queue.push_back(event);
    }
}

void EventHub::publish(const Event& event)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_closed || m_subscriptions.empty())
            return;
        pushLocked(event);
    }
    m_changed.notify_all();
}

void EventHub::publishLog(const Event& event)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_closed)
            return;
        m_log.push_back(event);
        while (m_log.size() > std::size_t(m_logLines))
            m_log.pop_front();
        pushLocked(event);
    }
    m_changed.notify_all();
}

std::shared_ptr<EventHub::Subscription> EventHub::subscribe(const QList<Event>& snapshot)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_closed || int(m_subscriptions.size()) >= m_maxSubscribers)
        return nullptr;
    auto* subscription = new Subscription(this);
    subscription->m_queue.assign(snapshot.begin(), snapshot.end());
    subscription->m_queue.insert(subscription->m_queue.end(), m_log.begin(), m_log.end());
    m_subscriptions.push_back(subscription);
    return std::shared_ptr<Subscription>(subscription, [this](Subscription* gone) {
        unsubscribe(gone);
        delete gone;
    });
}

void EventHub::unsubscribe(Subscription* subscription)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_subscriptions.erase(std::remove(m_subscriptions.begin(), m_subscriptions.end(), subscription),
                          m_subscriptions.end());
}

int EventHub::subscribers() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return int(m_subscriptions.size());
}

void EventHub::close()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
    }
    m_changed.notify_all();
}

bool EventHub::isClosed() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_closed;
}

bool EventHub::Subscription::next(std::vector<Event>* out, std::chrono::milliseconds wait)
{
    std::unique_lock<std::mutex> lock(m_hub->m_mutex);
    m_hub->m_changed.wait_for(lock, wait, [this] { return m_hub->m_closed || m_dropped || !m_queue.empty(); });
    if (m_hub->m_closed || m_dropped)
        return false;
    out->insert(out->end(), std::make_move_iterator(m_queue.begin()), std::make_move_iterator(m_queue.end()));
    m_queue.clear();
    return true;
}
