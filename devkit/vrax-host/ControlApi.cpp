#include "ControlApi.h"

#include "LocalHttpServer.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <QCoreApplication>
#include <QJsonDocument>
#include <QThread>

#include <algorithm>
#include <chrono>
#include <cstring>

#include <netinet/in.h>
#include <sys/socket.h>

namespace {
log4cplus::Logger logger = log4cplus::Logger::getInstance("ControlApi");

// A request that the platform leaves unanswered this long gets 504.
constexpr auto kAnswerTimeout = std::chrono::seconds(30);
// An idle event stream sends a comment this often, so a page that went away frees its thread.
constexpr auto kKeepAlive = std::chrono::seconds(5);
// A browser keeps idle connections open; each holds a server thread, and stop() waits for them.
constexpr time_t kKeepAliveTimeoutSeconds = 1;
constexpr std::size_t kMaxBody = 1 << 20;
constexpr int kListenBacklog = 64;

QByteArray errorBody(const QString& message)
{
    return QJsonDocument(QJsonObject{{QStringLiteral("ok"), false},
                                     {QStringLiteral("error"), QJsonObject{{QStringLiteral("message"), message}}}})
        .toJson(QJsonDocument::Compact);
}

void setError(httplib::Response& response, int status, const QString& message)
{
    response.status = status;
    response.set_content(errorBody(message).toStdString(), "application/json");
}
} // namespace

void ControlApi::Response::send(int status, const QJsonObject& body)
{
    if (m_answered.exchange(true))
        return;
    m_promise.set_value({status, QJsonDocument(body).toJson(QJsonDocument::Compact)});
}

void ControlApi::Response::error(int status, const QString& message)
{
    if (m_answered.exchange(true))
        return;
    m_promise.set_value({status, errorBody(message)});
}

void ControlApi::Dispatcher::post(std::function<void()> job)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_jobs.push_back(std::move(job));
    }
    QCoreApplication::postEvent(this, new QEvent(QEvent::User));
}

bool ControlApi::Dispatcher::event(QEvent* event)
{
    if (event->type() != QEvent::User)
        return QObject::event(event);
    std::deque<std::function<void()>> jobs;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        jobs.swap(m_jobs);
    }
    for (const std::function<void()>& job : jobs)
        job();
    return true;
}

ControlApi::ControlApi(QObject* context)
    : m_dispatcher(new Dispatcher(context))
    , m_server(std::make_unique<devkit::LocalHttpServer>(
          devkit::LocalHttpServer::Limits{kMaxConnections},
          [](const std::string& reason) { return errorBody(QString::fromStdString(reason)).toStdString(); }))
{
    m_server->setContentSecurityPolicy(kContentSecurityPolicy);
    m_server->onRefused([](const std::string& line) { LOG4CPLUS_WARN(logger, line); });
    // One listener per port: without SO_REUSEPORT a second host on a busy port fails to bind.
    m_server->set_socket_options([this](int sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
        m_listenSocket = sock;
    });
    m_server->set_keep_alive_timeout(kKeepAliveTimeoutSeconds);
    m_server->set_payload_max_length(kMaxBody);
    // The server's own refusals (unknown path, unreadable request) get a JSON body like ours.
    using Handled = httplib::Server::HandlerWithResponse;
    m_server->set_error_handler(Handled([this](const httplib::Request& request, httplib::Response& response) {
        if (!response.body.empty() || response.content_provider_)
            return httplib::Server::HandlerResponse::Unhandled;
        // A known path asked with another method: the server says 404, or 400 when it
        // could not read a body it expected for the method.
        const std::vector<std::string> allowed = allowedMethods(request.path);
        if (!allowed.empty() && std::find(allowed.begin(), allowed.end(), request.method) == allowed.end()) {
            std::string list;
            for (const std::string& method : allowed)
                list += (list.empty() ? "" : ", ") + method;
            response.set_header("Allow", list);
            setError(response, 405, QStringLiteral("%1 takes %2, not %3")
                                        .arg(QString::fromStdString(request.path), QString::fromStdString(list),
                                             QString::fromStdString(request.method)));
        } else if (response.status == 404) {
            setError(response, 404, QStringLiteral("there is nothing at %1").arg(QString::fromStdString(request.path)));
        } else if (response.status == 413) {
            setError(response, 413, QStringLiteral("the request body is larger than %1 bytes").arg(kMaxBody));
        } else {
            setError(response, response.status, QStringLiteral("the request was refused (HTTP status %1)").arg(response.status));
        }
        return httplib::Server::HandlerResponse::Handled;
    }));
}

ControlApi::~ControlApi()
{
    stop();
}

void ControlApi::get(const char* pattern, Handler handler)
{
    route(false, pattern, std::move(handler));
}

void ControlApi::post(const char* pattern, Handler handler)
{
    route(true, pattern, std::move(handler));
}

void ControlApi::remember(const char* method, const char* pattern)
{
    m_routes.emplace_back(method, std::regex(pattern));
}

std::vector<std::string> ControlApi::allowedMethods(const std::string& path) const
{
    std::vector<std::string> allowed;
    for (const auto& [method, pattern] : m_routes)
        if (std::regex_match(path, pattern) && std::find(allowed.begin(), allowed.end(), method) == allowed.end())
            allowed.push_back(method);
    return allowed;
}

void ControlApi::serve(const Handler& handler, const std::string& body, const httplib::Request& httpRequest,
                       httplib::Response& httpResponse)
{
    Request request;
    for (const auto& [key, value] : httpRequest.params)
        request.query.insert(QString::fromStdString(key), QString::fromStdString(value));
    if (httpRequest.matches.size() > 1)
        request.match = QString::fromStdString(httpRequest.matches[1].str());
    auto response = std::make_shared<Response>();
    std::future<std::pair<int, QByteArray>> answer = response->m_promise.get_future();
    // A POST without a body (curl -X POST) is an empty object.
    if (!body.empty()) {
        QJsonParseError parseError;
        const QJsonDocument doc = QJsonDocument::fromJson(QByteArray::fromStdString(body), &parseError);
        if (!doc.isObject())
            response->error(400, QStringLiteral("the body must be a JSON object"));
        else
            request.body = doc.object();
    }
    if (!response->m_answered) {
        m_dispatcher->post([handler, request, response] { handler(request, response); });
    }
    if (answer.wait_for(kAnswerTimeout) != std::future_status::ready)
        response->error(504, QStringLiteral("the device did not answer in time"));
    const auto [status, content] = answer.get();
    httpResponse.status = status;
    httpResponse.set_content(content.toStdString(), "application/json");
}

void ControlApi::route(bool post, const char* pattern, Handler handler)
{
    remember(post ? "POST" : "GET", pattern);
    if (!post) {
        m_server->Get(pattern, [this, handler](const httplib::Request& request, httplib::Response& response) {
            serve(handler, std::string(), request, response);
        });
        return;
    }
    // Reading the body ourselves: the server would wait for a body that a request without
    // Content-Length never sends, and then refuse it.
    m_server->Post(pattern, [this, handler](const httplib::Request& request, httplib::Response& response,
                                            const httplib::ContentReader& reader) {
        std::string body;
        if (request.has_header("Content-Length") || request.has_header("Transfer-Encoding")) {
            const bool read = reader([&body](const char* data, std::size_t length) {
                body.append(data, length);
                return true;
            });
            if (!read) {
                if (response.status == 413)
                    setError(response, 413, QStringLiteral("the request body is larger than %1 bytes").arg(kMaxBody));
                else
                    setError(response, 400, QStringLiteral("the request body could not be read"));
                return;
            }
        }
        serve(handler, body, request, response);
    });
}

void ControlApi::file(const char* path, const QByteArray& content, const char* contentType)
{
    std::string pattern;
    for (const char* c = path; *c; ++c) {
        if (std::strchr(".^$|()[]{}*+?\\", *c))
            pattern += '\\';
        pattern += *c;
    }
    remember("GET", pattern.c_str());
    const std::string data = content.toStdString();
    const std::string type(contentType);
    m_server->Get(pattern, [data, type](const httplib::Request&, httplib::Response& response) {
        response.set_header("Cache-Control", "no-cache");
        response.set_content(data, type.c_str());
    });
}

void ControlApi::events(const char* path, EventHub* hub, std::function<QList<EventHub::Event>()> snapshot)
{
    remember("GET", path);
    m_hubs.push_back(hub);
    m_server->Get(path, [this, hub, snapshot](const httplib::Request&, httplib::Response& response) {
        // Subscribing on the context's thread, right after the snapshot is taken there: the
        // state changes published on that thread are then neither lost nor seen twice.
        auto opened = std::make_shared<std::promise<std::shared_ptr<EventHub::Subscription>>>();
        std::future<std::shared_ptr<EventHub::Subscription>> subscription = opened->get_future();
        m_dispatcher->post([hub, snapshot, opened] { opened->set_value(hub->subscribe(snapshot())); });
        if (subscription.wait_for(kAnswerTimeout) != std::future_status::ready) {
            setError(response, 504, QStringLiteral("the device did not answer in time"));
            return;
        }
        std::shared_ptr<EventHub::Subscription> stream = subscription.get();
        if (!stream) {
            setError(response, 503, hub->isClosed() ? QStringLiteral("the device is stopping")
                                                    : QStringLiteral("too many pages are open (at most %1)")
                                                          .arg(kMaxEventStreams));
            return;
        }
        response.set_header("Cache-Control", "no-cache");
        auto first = std::make_shared<bool>(true);
        response.set_chunked_content_provider("text/event-stream", [stream, first](std::size_t, httplib::DataSink& sink) {
            std::vector<EventHub::Event> events;
            if (!stream->next(&events, kKeepAlive))
                return false;
            QByteArray out;
            if (*first) {
                // A page whose stream ended comes back soon, to a fresh snapshot.
                out += "retry: 1000\n\n";
                *first = false;
            }
            for (const EventHub::Event& event : events)
                out += EventHub::wire(event);
            if (out.isEmpty())
                out = ": keep-alive\n\n";
            return sink.write(out.constData(), std::size_t(out.size()));
        });
    });
}

bool ControlApi::listen(int port, QString* error)
{
    if (port == 0) {
        m_port = m_server->bind_to_any_port("127.0.0.1");
        if (m_port < 0) {
            *error = QStringLiteral("cannot bind the control API to a free port on 127.0.0.1");
            return false;
        }
    } else {
        if (!m_server->bind_to_port("127.0.0.1", port)) {
            *error = QStringLiteral("cannot listen on 127.0.0.1:%1 (the port is in use or not allowed)").arg(port);
            return false;
        }
        m_port = port;
    }
    m_server->setOwnPort(m_port);
    // The server listens with a backlog of 5: a page opening its files and event stream at once
    // beside other clients overflows it, and a connection refused there is retried by the
    // client's TCP only a second later.
    if (m_listenSocket >= 0)
        ::listen(m_listenSocket, kListenBacklog);
    m_serving = true;
    m_thread = std::thread([this] {
        m_server->listen_after_bind();
        m_serving = false;
    });
    return true;
}

void ControlApi::stop()
{
    for (EventHub* hub : m_hubs)
        hub->close();
    if (!m_thread.joinable())
        return;
    // stop() only takes effect once the server runs; the thread may not have got that far.
    while (m_serving && !m_server->is_running())
        QThread::msleep(1);
    m_server->stop();
    while (m_serving)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    m_thread.join();
}
