#pragma once

#include "EventHub.h"

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QJsonValue>
#include <QObject>
#include <QString>

#include <atomic>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace httplib {
struct Request;
struct Response;
}
namespace devkit {
class LocalHttpServer;
}

// The device emulator's control API and its web page: JSON over HTTP on 127.0.0.1. Requests
// arrive on the HTTP server's threads and are handled on the thread of the given context object
// (the platform's main thread), which answers them, at once or later (when a platform reply
// comes). Every error answer is JSON: {"ok": false, "error": {"message": ...}}.
//
// It answers only its own (devkit::LocalHttpServer): requests for another Host, from pages of
// other origins, and state changes whose body is not JSON get 403; slow clients are dropped.
// Refusals are logged at WARN on the "ControlApi" logger.
class ControlApi
{
public:
    // Each open page holds a connection (and a server thread) for its event stream; requests
    // need connections beside them.
    static constexpr int kMaxEventStreams = 8;
    static constexpr int kMaxConnections = 32;
    // What the page may load: its own files, and artwork pictures from the player library's
    // https URLs (a service's artwork lives on its own servers).
    static constexpr const char* kContentSecurityPolicy
        = "default-src 'self'; img-src 'self' https:; frame-ancestors 'none'; form-action 'self'; base-uri 'none'";

    struct Request
    {
        QHash<QString, QString> query;
        QJsonObject body;   // the parsed body of a POST: empty when there is none, 400 when it is not a JSON object
        QString match;      // the first capture of the route's pattern, if any
    };

    // Answered exactly once; later answers are ignored. May be answered from any thread.
    class Response
    {
    public:
        void send(int status, const QJsonObject& body);
        void error(int status, const QString& message);

    private:
        friend class ControlApi;
        std::atomic<bool> m_answered{false};
        std::promise<std::pair<int, QByteArray>> m_promise;
    };
    using Handler = std::function<void(const Request&, const std::shared_ptr<Response>&)>;

    // Create it on the context's thread.
    explicit ControlApi(QObject* context);
    ~ControlApi();

    // Routes; pattern is a regular expression over the path.
    void get(const char* pattern, Handler handler);
    void post(const char* pattern, Handler handler);
    // GET path answers content as it is, straight from the server's thread.
    void file(const char* path, const QByteArray& content, const char* contentType);
    // GET path opens a stream of server-sent events from hub. snapshot runs on the context's
    // thread and says what a new page needs first; a page beyond the hub's limit gets 503.
    void events(const char* path, EventHub* hub, std::function<QList<EventHub::Event>()> snapshot);

    // Binds 127.0.0.1:port (0 for a free one) and starts serving; false with a reason when
    // the port is taken or cannot be bound.
    bool listen(int port, QString* error);
    int port() const { return m_port; }

    // Stops serving: closes the event streams' hubs, so open pages let go at once, and finishes
    // the requests under way; the context's thread keeps handling events meanwhile. Call it
    // from that thread.
    void stop();

private:
    // Runs jobs on the context's thread. The hand-over goes through a mutex of ours rather than
    // through Qt's queued functors, whose reference counting happens inside libQt5Core, where
    // TSan cannot see it (it then takes the functor's deletion for a race).
    class Dispatcher : public QObject
    {
    public:
        explicit Dispatcher(QObject* context) : QObject(context) {}
        // Any thread.
        void post(std::function<void()> job);

    protected:
        bool event(QEvent* event) override;

    private:
        std::mutex m_mutex;
        std::deque<std::function<void()>> m_jobs;
    };

    void route(bool post, const char* pattern, Handler handler);
    void serve(const Handler& handler, const std::string& body, const httplib::Request& httpRequest,
               httplib::Response& httpResponse);
    void remember(const char* method, const char* pattern);
    // GET and POST routes by pattern, to tell a wrong method (405) from an unknown path (404).
    std::vector<std::string> allowedMethods(const std::string& path) const;

    Dispatcher* m_dispatcher; // a child of the context
    std::vector<std::pair<std::string, std::regex>> m_routes;
    std::vector<EventHub*> m_hubs;
    std::unique_ptr<devkit::LocalHttpServer> m_server;
    std::thread m_thread;
    std::atomic<bool> m_serving{false};
    int m_port = 0;
    int m_listenSocket = -1;
};
