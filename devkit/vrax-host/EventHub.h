#pragma once

#include <QByteArray>
#include <QList>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

class QJsonObject;

// Fans the device's state changes out to the open pages as server-sent events, and keeps the
// recent log lines for pages that open later. Every member may be called from any thread.
//
// Nothing grows without bound: a page that does not take its events fast enough loses its
// stream (its browser reconnects and starts again from a fresh snapshot), and the log keeps
// only its last lines.
class EventHub
{
public:
    struct Event
    {
        QByteArray name;
        QByteArray data; // compact JSON, so a single "data:" line
    };
    static Event event(const char* name, const QJsonObject& data);
    // The event as it goes on the wire ("event: NAME\ndata: JSON\n\n").
    static QByteArray wire(const Event& event);

    class Subscription
    {
    public:
        // Waits up to wait for events and moves them into out. False once the stream is over:
        // the hub closed, or this page fell too far behind.
        bool next(std::vector<Event>* out, std::chrono::milliseconds wait);

    private:
        friend class EventHub;
        explicit Subscription(EventHub* hub) : m_hub(hub) {}
        EventHub* m_hub;
        std::deque<Event> m_queue; // guarded by the hub's mutex
        bool m_dropped = false;
    };

    EventHub(int maxSubscribers, int logLines, std::size_t maxQueued);
    ~EventHub();
    EventHub(const EventHub&) = delete;
    EventHub& operator=(const EventHub&) = delete;

    void publish(const Event& event);
    // A log line: published, and kept among the last ones.
    void publishLog(const Event& event);

    // A new page: it gets snapshot, then the kept log lines, then every event published after
    // this call. Null when the hub is closed or as many pages as allowed are open.
    std::shared_ptr<Subscription> subscribe(const QList<Event>& snapshot);
    int subscribers() const;

    // Ends every stream promptly and refuses new ones.
    void close();
    bool isClosed() const;

private:
    void pushLocked(const Event& event);
    void unsubscribe(Subscription* subscription);

    const int m_maxSubscribers;
    const int m_logLines;
    const std::size_t m_maxQueued;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Subscription*> m_subscriptions;
    std::deque<Event> m_log;
    bool m_closed = false;
};
