#pragma once

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QJsonValue>
#include <QObject>
#include <QString>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <thread>

namespace httplib {
class Server;
}

// The device emulator's control API: JSON over HTTP on 127.0.0.1. Requests arrive on the HTTP
// server's threads and are handled on the thread of the given context object (the platform's
// main thread), which answers them, at once or later (when a platform reply comes).
class ControlApi
{
public:
    struct Request
    {
        QHash<QString, QString> query;
        QJsonObject body;   // the parsed body of a POST (requests with a body that is not a JSON object get 400)
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

    explicit ControlApi(QObject* context);
    ~ControlApi();

    // Routes; pattern is a regular expression over the path.
    void get(const char* pattern, Handler handler);
    void post(const char* pattern, Handler handler);

    // Binds 127.0.0.1:port (0 for a free one) and starts serving; false with a reason when
    // the port is taken or cannot be bound.
    bool listen(int port, QString* error);
    int port() const { return m_port; }

    // Stops serving. Requests under way are finished first, so the context's thread keeps
    // handling events meanwhile; call it from that thread.
    void stop();

private:
    void route(bool post, const char* pattern, Handler handler);

    QObject* m_context;
    std::unique_ptr<httplib::Server> m_server;
    std::thread m_thread;
    std::atomic<bool> m_serving{false};
    int m_port = 0;
};
